#!/usr/bin/env python3
"""A small storage service for kelvane_vfs, made of Python's standard library alone.

    storage.py DIRECTORY [PORT]

serves DIRECTORY on loopback and prints its base URL, which holds a secret. It is an example to start from. It checks
a path first and opens it afterwards: a program on this machine that puts a link in between can lead it elsewhere.
"""
import errno
import json
import os
import re
import secrets
import stat
import sys
from http.server import BaseHTTPRequestHandler, ThreadingHTTPServer
from urllib.parse import unquote_to_bytes

LARGEST_BODY = 1 << 20
STATUS = {errno.ENOENT: 404, errno.ENOTDIR: 404, errno.ELOOP: 404, errno.ENAMETOOLONG: 404, errno.EEXIST: 409,
          errno.ENOTEMPTY: 409, errno.EINVAL: 400, errno.ENOSPC: 507, errno.EDQUOT: 507, errno.EACCES: 403,
          errno.EPERM: 403, errno.EROFS: 403, errno.EISDIR: 403, errno.EBUSY: 409}  # others: 500
WEB_PAGE = ("Origin", "Referer", "Cookie")  # only browsers send these, and a page can make them send changes
IN_THE_WAY = (errno.EEXIST, errno.ENOTEMPTY, errno.EISDIR, errno.ENOTDIR)


def beneath(path):  # the path, if it stays in the directory when all its links are followed
    if os.path.commonpath([root, os.path.realpath(path)]) != root:
        raise FileNotFoundError(errno.ENOENT, "outside")
    return path


def decoded(encoded):
    names = [name for name in unquote_to_bytes(encoded).split(b"/") if name]
    path = os.path.join(root, *names)
    if b"." in names or b".." in names or "\0" in path.decode():  # not UTF-8 is a ValueError, too
        raise ValueError(encoded)
    return beneath(path)


def opened(path, flags):  # checks the kind first: opening a pipe or a device would have an effect on it
    if not stat.S_ISREG(os.stat(path).st_mode):
        raise PermissionError(errno.EPERM, "not a file")
    return open(os.open(path, flags), "wb" if flags == os.O_WRONLY else "rb", buffering=0)


def attributes(st):
    return {"s": st.st_size, "b": st.st_blocks, "m": st.st_mode, "nl": st.st_nlink,
            "at": int(st.st_atime), "mt": int(st.st_mtime), "ct": int(st.st_ctime)}


def listing(path):
    for name in os.listdir(path):
        try:
            st, text = os.stat(beneath(os.path.join(path, name))), name.decode()
        except (OSError, UnicodeDecodeError):
            continue  # a link that leads nowhere or outside, a name that is not UTF-8, or gone meanwhile
        if stat.S_ISREG(st.st_mode) or stat.S_ISDIR(st.st_mode):
            yield {"t": 4 if stat.S_ISDIR(st.st_mode) else 8, **attributes(st), "n": text}


def statistics(volume, shift=0):
    while volume.f_blocks >> shift >= 1 << 31:
        shift += 1
    return {"bsize": volume.f_bsize, "frsize": volume.f_frsize << shift, "blocks": volume.f_blocks >> shift,
            "bfree": volume.f_bfree >> shift, "bavail": volume.f_bavail >> shift, "namemax": volume.f_namemax}


def written(path, body, offset):
    with opened(path, os.O_WRONLY) as file:
        while body:
            count = os.pwrite(file.fileno(), body, offset)
            body, offset = body[count:], offset + count
        return attributes(os.fstat(file.fileno()))


def content(path, header):  # the body is read into memory, because the client asks for 128 KiB at a time
    wanted = re.fullmatch(r"bytes=(\d{1,18})-(\d{1,18})", header)
    first, last = (int(wanted[1]), int(wanted[2])) if wanted else (0, sys.maxsize)
    with opened(path, os.O_RDONLY) as file:
        size = os.fstat(file.fileno()).st_size
        body = os.pread(file.fileno(), max(0, min(last + 1, size) - first), first)
    span = f"{first}-{first + len(body) - 1}" if body else "*"
    return (206 if body else 416, body, {"Content-Range": f"bytes {span}/{size}"}) if wanted else (200, body)


def perform(action, path, query, body, header):  # status, body and further headers of the reply
    match action:
        case "": return (200, {"entries": list(listing(path))}) if os.path.isdir(path) else content(path, header)
        case "props": return 200, attributes(os.stat(path))
        case "statvfs": return 200, statistics(os.statvfs(path))
        case "create":  # the server's user keeps access whatever the mode says: each write opens the file again
            if not os.path.lexists(path):
                os.close(os.open(path, os.O_CREAT | os.O_EXCL | os.O_WRONLY, int(query["mode"]) & 0o777 | 0o600))
        case "write": return 200, written(path, body, int(query["offset"]))
        case "truncate": os.truncate(path, int(query["offset"]))
        case "mkdir": return os.mkdir(path) or (200, {"hc": 200})
        case "unlink": os.unlink(path)
        case "rmdir": os.rmdir(path)
        case "rename":
            if query.get("replace") != "1" and os.path.lexists(decoded(query["to"])):
                raise FileExistsError(errno.EEXIST, "taken")
            return os.rename(path, decoded(query["to"])) or (200, {"hc": 200})
        case _: return 400, b""
    return 204, b""


class Service(BaseHTTPRequestHandler):
    protocol_version, disable_nagle_algorithm, timeout = "HTTP/1.1", True, 150

    def reply(self, status, body=b"", headers={}):
        if not isinstance(body, bytes):
            body = json.dumps(body, ensure_ascii=False, separators=(",", ":")).encode()
        self.send_response_only(status)
        for header in {"Content-Length": len(body), "Cache-Control": "no-store", **headers}.items():
            self.send_header(*header)
        self.end_headers()
        self.wfile.write(body)

    def send_error(self, code, *_, length=0):  # the library's page would be read as a file's content
        self.close_connection = True
        self.reply(code, headers={"Connection": "close", "Content-Length": length})

    def do_GET(self):
        address, _, text = self.path.partition("?")
        query = dict(member.partition("=")[::2] for member in text.split("&"))
        action, length = query.get("action", ""), self.headers.get("Content-Length", "0")
        if self.headers.defects or "Transfer-Encoding" in self.headers or not length.isdecimal() or \
                len(self.headers.get_all("Content-Length", [])) > 1:  # the end of the body is in doubt
            return self.send_error(400)
        if int(length) > LARGEST_BODY:
            return self.send_error(413)
        body = self.rfile.read(int(length))  # read before anything is refused: the client must not see a reset
        if len(body) < int(length):
            return self.send_error(400)
        if any(name in self.headers for name in WEB_PAGE) or self.headers.get("Sec-Fetch-Site", "none") != "none":
            return self.reply(403)
        try:
            if not secrets.compare_digest(address[:len(prefix)].encode(), prefix.encode()):
                return self.reply(404)
            path = decoded(address[len(prefix):])
            is_change = action not in ("", "props", "statvfs")
            if (action == "write") != (self.command == "PUT") or is_change and path == root:
                return self.reply(405)
            result = perform(action, path, query, body, self.headers.get("Range", ""))
        except (KeyError, ValueError):
            result = (400,)
        except OSError as error:
            taken = action in ("mkdir", "rename") and error.errno in IN_THE_WAY
            result = (200, {"hc": 409}) if taken else (STATUS.get(error.errno, 500),)
            if result == (500,) and action in ("", "props"):  # without a body it would look empty, or gone
                return self.send_error(500, length=1)
        self.reply(*result)

    do_PUT = do_GET


root = os.path.realpath(os.fsencode(sys.argv[1]))
prefix = "/" + secrets.token_urlsafe(16) + "/"
ThreadingHTTPServer.request_queue_size = 128
server = ThreadingHTTPServer(("127.0.0.1", int(sys.argv[2]) if len(sys.argv) > 2 else 0), Service)
print(f"http://127.0.0.1:{server.server_port}{prefix}", flush=True)
server.serve_forever()
