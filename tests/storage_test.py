"""The server as its clients see it: requests over sockets, replies, and what is on disk then."""
import base64
import contextlib
import fcntl
import os
import re
import resource
import select
import signal
import socket
import ssl
import threading
import urllib.parse

from programs import STORAGE, TOP, ServerTest, shell, start, text, until

DECOMPOSED = "e\xcc\x81"
COMMON = "\nCache-Control: no-store\nX-Content-Type-Options: nosniff"
JSON = "\nContent-Type: application/json" + COMMON
RAW = " HTTP/1.1\r\nHost: @\r\nConnection: close\r\n"
PUT = "PUT $/new?action=write&flags=1&offset="
CHUNKED = RAW + "Transfer-Encoding: chunked\r\n\r\n"
MOST = "x" * (1 << 20)
LONGEST = "%61" * 2047
HIDDEN = "GET $/hidden?action=create" + RAW + "\r\n"

ANN, BOB, *WRONG = ("Authorization: Basic " + base64.b64encode(user).decode() for user in (
    b"ann:pass word", b"bob:b", b"ann:pass wor", b"ann:pass worD", b"ann:", b"bob:a", b"eve:pass word", b"ann", b":"))
HASH = "$6$salt$b4OMXUA.wvvMVIyQE2OThWpPNZMfZrfCzzjSOkvomntFDpEiUWQvSH2VPmgc.YqCi.ORpdOTtsN5zY27Gfouo1"  # pass word


def as_host(*hosts):
    return [f"GET $/d/in?action=props HTTP/1.1\r\nHost: {host}\r\n{ANN}\r\nConnection: close\r\n\r\n" for host in hosts]


# The same for every client and every way to start the server: requests of web pages, and names that lead to the server.
ACCESS = [
    ("403 ", [f"/d/in?action=unlink\n{header}\n{ANN}" for header in
              ("Origin: null", "referer: http://@$/", "Cookie: a=b", "Sec-Fetch-Site: cross-site",
               "Sec-Fetch-Site: same-origin")] + [f"PUT $/d/in?action=write&flags=1&offset=0\n{ANN}\nOrigin: x\n\nx"],
     "d/in=content"),
    ("421 ", [f"GET http://{host}$/d/in?action=unlink\n{ANN}" for host in
              ("evil.example", "127.0.0.1@evil.example", "")], "d/in=content"),
    ("421 ", as_host("evil.example", "localhost.evil.example", "evildisk.example", "127.0.0.1.evil.example:80", "1.2.3",
                     "[::1", "", "evil.example\r\nHost: localhost")),
    ("200 *", as_host("LocalHost:1", "10.0.0.1", "[fe80::1]:80", "disk.example.:8080")),
    ("200 content", [f"/d/in\nSec-Fetch-Site: none\n{ANN}", f"GET http://disk.example$/d/in\n{ANN}"]),
    ("404 ", [f"{line}\n{ANN}" for line in ("GET /", "GET /d/in?action=unlink", "GET $", "GET $~/d/in", "GET /~$/d/in",
                                            "GET /AAAAAAAAAAAAAAAAAAAAAA/d/in")] +
     [f"PUT /d/in?action=write&flags=1&offset=0\n{ANN}\n\nx"], "d/in=content"),
]

# Sections: arguments of the server, and rows. A row is a reply, the requests that get it, and the files below the
# directory afterwards: "file=content", or "file" for one that is not there. A request is its first line (without
# "GET $" if it begins with a slash), headers, an empty line and a body, without the headers that every request has. A
# request with "\r" is sent as it stands. "$" is the base path, "@" host and port. A reply is status and body, then some
# of its headers, each in a line; ":N" is a number and "*" anything.
SECTIONS = {
    "": [
        ("200 content\nContent-Type: application/octet-stream\nAccept-Ranges: bytes" + COMMON, ["/d/in"]),
        ('200 {"s":7,"b":N,"m":33188,"nl":2,"at":2,"mt":1,"ct":N}' + JSON, ["/a.txt?action=props"]),
        (r'200 {"entries":[{"t":8,"s":7,"b":N,"m":33188,"nl":1,"at":N,"mt":N,"ct":N,"n":"\"\\\u001f"}]}', ["/odd"]),
        ("200 \nContent-Length: 7", ["HEAD $/a.txt"]),
        # Ways to write a path.
        ("200 content", ["/%2Fd%2fin", "//d//in/?", "GET http://@$/d/in"]),
        ("200 caf\xc3\xa9", ["/%c3%A9", "/" + DECOMPOSED]),
        ("404 ", ["GET *", "GET /d/in", "/...", "/" + "n" * 300, f"/{LONGEST}?action=rename&to={LONGEST}&replace=1"]),
        # Queries that say nothing, or the wrong thing, and other methods.
        ("400 ", ["/%2", "/%zz", "/a.txt%00", "/d/%2e%2E/a.txt", "/d/%2e/in", "/d/in?x=1", "/d/in?action=what",
                  "/a.txt?action=truncate", "/a.txt?action=truncate&offset=-1", "/a.txt?action=truncate&offset=1x",
                  "/a.txt?action=rename", "/a.txt?action=rename&to=%2F..", "/%FF?action=mkdir",
                  "/new?action=create&mode=99999999999", "/d?action=rename&to=d%2Fbelow&replace=1",
                  "/a.txt?action=rename&to=%FF&replace=1", "/%FF?action=create&mode=33188",
                  "/a.txt?action=props&action=unlink", "/a.txt?action=truncate&offset=9&offset=0",
                  "/a.txt?x=1;action=props&action=truncate&offset=2"], "a.txt=content"),
        ("405 ", ["POST $/a.txt\n\nx", "DELETE $/a.txt", "HEAD $/a.txt?action=unlink", "PUT $/a.txt\n\nx",
                  "/a.txt?action=write&flags=1&offset=0"], "a.txt=content"),
        # Parts of files.
        ("206 nt\nContent-Range: bytes 5-6/7", [f"/link\nRange: bytes={part}" for part in ("5-99", "5-", "-2")]),
        ("206 content", ["/link\nRange: bytes=-30", "/link\nRange: bytes=0-18446744073709551615"]),
        ("416 \nContent-Range: bytes */7", ["/link\nRange: bytes=7-8", "/link\nRange: bytes=-0"]),
        ("200 content", [f"/link\nRange: {part}" for part in
                         ("bytes=5-2", "bytes=1-2,4-5", "lines=1-2", "bytes=0-18446744073709551616")]),
        # What is not shown or not there, and what is no file.
        ("404 ", ["/out", "/absolute/passwd", "/loop", "/out?action=unlink", "/a.txt/x", PUT + "0\n\nx",
                  "/a.txt?action=rmdir", "/out?action=rename&to=stolen&replace=1", "/odd/bad%FF/x",
                  "/odd/socket?action=props", "/odd/socket?action=unlink"], "stolen"),
        ("403 ", ["/pipe", "PUT $/pipe?action=write&flags=1&offset=0\n\nx", "/pipe?action=truncate&offset=0",
                  "/d?action=truncate&offset=2", "/?action=unlink", "/?action=rename&to=x&replace=1",
                  "/?action=create&mode=1"], "x"),
        # Refused when the whole body has come. A body whose end is in doubt is refused at once, because the rest of it
        # could pass for a request.
        ("403 " + COMMON, [f"PUT $/d?action=write&flags=1&offset=0\n\n{MOST}"]),
        ("400 *", [f"{PUT}0 HTTP/1.1\r\nHost: @\r\n{headers}\r\n\r\n{begin}{HIDDEN}" for headers, begin in (
            ("Content-Length: 0\r\nContent-Length: 9", ""),
            ("Content-Length: 0\r\nTransfer-Encoding: chunked", "0\r\n\r\n"), ("Transfer-Encoding : chunked", ""),
            ("Transfer-Encoding:\r\n chunked", ""))] +
         [f"{PUT}0 HTTP/1.0\r\nHost: @\r\nConnection: keep-alive\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n" +
          HIDDEN], "hidden"),
        # Contents.
        ("204 ", ["/plain?action=create", "/new?action=create&mode=33206"], "new="),
        ('200 {"s":0,"b":0,"m":33188,*', ["/plain?action=props"]),
        ('200 {"s":5,"b":N,"m":33206,*}' + JSON, [PUT + "3" + CHUNKED + "2\r\nde\r\n0\r\n\r\n"], "new=\0\0\0de"),
        ("200 contentHTTP/1.1 200*", ["GET $/d/in HTTP/1.1\r\nHost: @\r\n\r\nGET $/full" + RAW + "\r\n"]),
        ("413 ", [PUT + "0\nContent-Length: 1048577", PUT + "0" + CHUNKED + f"100001\r\nx{MOST}\r\n0\r\n\r\n"]),
        ('200 {"s":1048576,*', [PUT + "0\n\n" + MOST], "new=" + MOST),
        ("204 ", ["/new?action=truncate&offset=2"], "new=xx"),
        # Directories, removing, renaming.
        ('200 {"hc":200}' + JSON, ["/m?action=mkdir"]),
        ('200 {"s":N,"b":N,"m":16877,*', ["/m?action=props"]),
        ('200 {"hc":409}', ["/new?action=rename&to=a.txt", "/new?action=rename&to=out&replace=1",
                            "/d?action=rename&to=a.txt&replace=1", "/new?action=rename&to=d&replace=1"], "new=xx"),
        ('200 {"hc":200}', ["/new?action=rename&to=a.txt&replace=1"], "a.txt=xx"),
        # Names in another spelling than the directory's.
        ("204 ", [f"/{DECOMPOSED}?action=create&mode=33188"], DECOMPOSED),
        ("204 ", ["/%EA%B0%80%E1%86%A7?action=create&mode=33188",
                  "/%E1%84%80%E1%85%A1%E1%86%A7?action=truncate&offset=1"], "\xea\xb0\x80\xe1\x86\xa7=\0"),
        ('200 {"hc":409}', [f"/{DECOMPOSED}?action=mkdir"], DECOMPOSED),
        ('200 {"hc":200}', [f"/a.txt?action=rename&to={DECOMPOSED}&replace=1"], "\xc3\xa9=xx"),
        ('200 {"hc":200}', [f"/{DECOMPOSED}?action={act}" for act in ("rename&to=a.txt", "mkdir")], "a.txt=xx"),
        ("200 *", ["/\xc3\xa9?action=props"]),
        ("204 ", ["/\xc3\xa9?action=rmdir"], DECOMPOSED),
    ],
    "--read-only --no-secret --prefix /base": [
        ("200 content", ["/d/in", "GET $%2Fd/in", "GET $%2fd/in"]),
        ("404 ", ["GET $ment", "GET /d/in"]),
        ("403 ", ["PUT $/a.txt?action=write&flags=1&offset=0\n\nx", "/a.txt?action=truncate&offset=0",
                  "/a.txt?action=rename&to=new&replace=1", "/a.txt?action=unlink", "/d?action=rmdir"], "a.txt=content"),
        ("403 ", ["/new?action=create&mode=33188", "/new?action=mkdir"], "new"),
    ],
    "--listen localhost": [("200 content", ["/d/in"])],
    "--host disk.example": ACCESS,
    "--host disk.example --log {0}/log --users {0}/users": ACCESS + [
        ('401 \nWWW-Authenticate: Basic realm="kelvane_storage"', [
            f"{line}\n{user}" for user in (*WRONG, "X: y") for line in
            ("/d/in", "/a.txt?action=what", "/new?action=create&mode=33188", "/pipe", "POST $/")], "new"),
        ("200 content", ["/d/in\n" + user.replace("Basic", how) for user in (ANN, BOB) for how in ("Basic", "basic ")]),
        ("403 ", [f"/new?action=create&mode=33188\n{BOB}", f"PUT $/a.txt?action=write&flags=1&offset=0\n{BOB}\n\nx"],
         "new", "a.txt=content"),
        ("404 ", [f"/a%0Ab\n{ANN}"]),
        ("204 ", [f"/new%20?action=create&mode=33188\n{ANN}"], "new =")],
    "--no-secret --users {0}/users": [("401 ", ["/d/in"]), ("200 content", [f"GET /d/in\n{ANN}"])],
    "--read-only --users {0}/users": [
        ("403 ", [f"/new?action=create\n{ANN}", f"/a.txt?action=unlink\n{ANN}"], "new", "a.txt=content")],
}


# Compares a reply with what a row shows; returns None, or what differs.
def difference(shown, reply):
    head, _, body = reply.partition("\r\n\r\n")
    pattern, *headers = shown.split("\n")
    pattern = re.escape(pattern).replace(":N", r":\d+").replace(r"\*", ".*")
    is_same = re.fullmatch(pattern, head[9:13] + body, re.DOTALL) and set(headers) <= set(head.split("\r\n"))
    return None if is_same else f"{shown[:500]}\n{reply[:500]}"


class StorageTest(ServerTest):
    def setUp(self):
        super().setUp()
        self.check(rf"""cd {self.tree} && mkdir d full odd notes ../outside && seq 4000000 >big && mkfifo pipe &&
            printf content | tee d/in full/x odd/bad$'\377' >a.txt && printf café >é && ln a.txt ../outside/second &&
            printf secret >../outside/secret && ln -s ../outside/secret out && ln -s /etc absolute && ln -s loop loop &&
            ln -s d/in link && ln -s ../out odd && ln -s ../d/in odd/$'"\\\037' && touch -m -d @1 a.txt &&
            touch -a -d @2 a.txt && printf 'hello, world' >notes/hello.txt && cd .. &&
            printf '# who\nann:{HASH}\n\nbob:b:ro\n' >users && echo bad >bad && touch others &&
            chmod 600 users bad && chmod 604 others""")
        with socket.socket(socket.AF_UNIX) as hidden:
            hidden.bind(self.tree + "/odd/socket")

    def bytes_of(self, request):
        request = ("GET $" if request.startswith("/") else "") + request
        if "\r" not in request:
            head, _, body = request.partition("\n\n")
            line, *headers = head.split("\n")
            headers += [f"Content-Length: {len(body)}"] if body else []
            request = line + RAW + "".join(header + "\r\n" for header in headers) + "\r\n" + body
        url = urllib.parse.urlsplit(self.url)
        return request.replace("$", url.path.rstrip("/")).replace("@", url.netloc).encode("latin-1")

    def connection(self, data=b""):  # a new one, over which the data is sent
        url = urllib.parse.urlsplit(self.url)
        connection = socket.create_connection((url.hostname, url.port))
        if url.scheme == "https":
            connection = ssl._create_unverified_context().wrap_socket(connection)
        self.addCleanup(connection.close)
        with contextlib.suppress(ConnectionError):
            connection.sendall(data)
        return connection

    def rest(self, connection):
        data = bytearray()
        with connection, contextlib.suppress(ConnectionError):
            while piece := connection.recv(1 << 16):
                data += piece
        return data.decode("latin-1")

    def ask(self, request):
        return self.rest(self.connection(self.bytes_of(request)))

    def expect(self, shown, request="/d/in"):
        self.assertIsNone(difference(shown, self.ask(request)), request[:200])

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.server.pid}/fd"))

    def section(self, arguments):
        self.serve(STORAGE, *arguments.format(self.scratch).split())
        self.expect("200 content", "/d/in\n" + ANN)
        before = self.descriptors()
        for reply, requests, *after in SECTIONS[arguments]:
            for request in requests:
                with self.subTest(request[:200]):
                    self.expect(reply, request)
            for name, is_there, content in (state.partition("=") for state in after):
                file = os.fsencode(self.tree) + b"/" + name.encode("latin-1")
                self.assertEqual(os.path.exists(file), bool(is_there), (requests[-1], name))
                self.assertTrue(not is_there or text(file) == content, (requests[-1], name))
        until(lambda: self.descriptors() <= before)
        self.assertEqual(text(self.scratch + "/outside/secret"), "secret")

    def test_requests(self):
        self.section("")

    def test_read_only(self):
        self.section("--read-only --no-secret --prefix /base")

    def test_localhost(self):
        self.section("--listen localhost")
        for host in ("127.0.0.1", "::1") if os.path.exists("/proc/net/if_inet6") else ("127.0.0.1",):
            socket.create_connection((host, urllib.parse.urlsplit(self.url).port)).close()

    def test_access_with_secret(self):
        self.section("--host disk.example")

    def test_access_of_users(self):
        for arguments in ("--no-secret --users {0}/users", "--read-only --users {0}/users"):
            self.section(arguments)
            self.end_server()
        self.section("--host disk.example --log {0}/log --users {0}/users")
        log = text(self.scratch + "/log")
        self.assertRegex(log, r"Z 127.0.0.1 bob create /new 403 0\n(.*\n)*\S+Z 127.0.0.1 ann create /new%20 204 0\n$")
        self.assertRegex(log, r"\n\S+Z 127.0.0.1 - - - 401 0\n")
        self.assertRegex(log, r"\A(20\S+Z [\d.]+ \S+ (- -|[a-z]+ /[\w%./-]*) \d+ \d+( /\S+)?\n)+\Z")
        for hidden in (urllib.parse.urlsplit(self.url).path.strip("/"), "pass", BOB[-4:], "evil"):
            self.assertNotIn(hidden, log)

    # SIGHUP: the files that are read again, while a reply is on its way.
    def test_reload(self):
        def renew(user):
            self.make_certificate()
            self.check(f"echo {user}:pass >{self.scratch}/users")
            return "\nAuthorization: Basic " + base64.b64encode(user.encode() + b":pass").decode()

        def reload(answer):
            open(self.scratch + "/server.err", "w").close()
            self.server.send_signal(signal.SIGHUP)
            until(lambda: answer in text(self.scratch + "/server.err"))
            url = urllib.parse.urlsplit(self.url)
            return ssl.get_server_certificate((url.hostname, url.port))
        one = renew("one")
        options = "--tls-cert {0}/cert --tls-key {0}/key --users {0}/users --log {0}/log".format(self.scratch)
        self.serve(STORAGE, *options.split())
        running = self.connection(self.bytes_of("/big" + one))
        begin = running.recv(1).decode()
        before = reload("again")
        two = renew("two")
        os.rename(self.scratch + "/log", self.scratch + "/log.1")
        after = reload("again")
        self.assertNotEqual(before, after)
        self.expect("401 ", "/d/in" + one)
        self.expect("200 content", "/d/in" + two)
        until(lambda: "two read /d/in 200 7\n" in text(self.scratch + "/log"))
        self.check(f"chmod 604 {self.scratch}/key; echo ann: >{self.scratch}/users")
        self.assertEqual(reload("except for"), after)
        self.assertRegex(text(self.scratch + "/server.err"), "others can read it; .*line 1 is not NAME:PASSWORD")
        self.expect("401 ")
        renew("three")
        self.check(f"cd {self.scratch} && openssl genpkey -algorithm ed25519 -out key && chmod 600 key")
        self.assertEqual(reload("cert and "), after)
        old = ssl._create_unverified_context()
        old.set_ciphers("ALL:@SECLEVEL=0")
        old.minimum_version, old.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
        url = urllib.parse.urlsplit(self.url)
        with self.assertRaises(OSError), socket.create_connection((url.hostname, url.port)) as connection:
            old.wrap_socket(connection)
        self.assertEqual((begin + self.rest(running)).partition("\r\n\r\n")[2], text(self.tree + "/big"))

    # The conversation of the protocol page, with this server and with the page's example of one.
    def converse(self, *command):
        self.serve(*command)
        examples = re.findall(r"```exchange\n(.*?)```", text(TOP + "/docs/protocol.md"), re.DOTALL)
        for example in examples:
            request = "\n".join(re.findall(r"^> ?(.*)", example, re.MULTILINE)).replace(" /", " $/", 1)
            status, *body = re.findall(r"^< (.*)", example, re.MULTILINE)
            self.expect(f"{status} {''.join(body)}", request)
        self.assertEqual(len({(re.findall(r"action=(\w+)", example) or [""])[0] for example in examples}), 10)

    def test_protocol_page(self):
        self.converse(STORAGE)

    def test_protocol_page_on_its_example(self):
        self.converse("python3", TOP + "/docs/examples/storage.py")
        self.end_server(-signal.SIGTERM)

    # Clients that send too much or too little, or vanish: nothing stays open, and others are served.
    def test_rude_clients(self):
        self.serve()
        self.expect("204 ", "/new?action=create&mode=33188")
        before = self.descriptors()
        for begin in ("GET $/", "GET $/d/in HTTP/1.1\r\nX: "):
            self.assertRegex(self.ask(begin + MOST + RAW + "\r\n"), "^(HTTP/1.1 4|$)")
        for _ in range(10):
            connection = self.upload("new", 9)
            connection.sendall(b"half")  # these last bytes and the end come together
            connection.close()
        until(lambda: self.descriptors() <= before)
        self.assertEqual(text(self.tree + "/new"), "")
        for begin in (b"\0" * 1000, b"half a requ"):
            self.connection(begin).close()
        os.rename(self.tree, self.scratch + "/moved")
        self.expect("200 content")

    # An upload that the server has accepted; its body is still to come.
    def upload(self, file, length):
        connection = self.connection(self.bytes_of(f"PUT $/{file}?action=write&flags=1&offset=0{RAW}"
                                                   f"Expect: 100-continue\r\nContent-Length: {length}\r\n\r\n"))
        self.assertEqual(len(connection.recv(25)), 25)
        return connection

    def finish(self, upload, data, expected):
        upload.sendall(data)
        self.assertIsNone(difference(expected, self.rest(upload)))

    def test_uploads(self):
        self.serve(STORAGE, "--sync")
        # The file is removed or replaced meanwhile.
        for file, change in (("d/in", "rm d/in"), ("full/x", "mv notes/hello.txt full/x")):
            upload = self.upload(file, 4)
            self.check(f"cd {self.tree} && {change}")
            self.finish(upload, b"lost", "404 ")
        self.assertEqual(text(self.tree + "/full/x"), "hello, world")
        # A server that was told to stop waits for the upload.
        upload = self.upload("a.txt", 4)
        kept = self.connection(self.bytes_of("GET $/full/x HTTP/1.1\r\nHost: @\r\n\r\n"))
        kept.recv(1000)
        self.server.terminate()
        with contextlib.suppress(ConnectionError):
            while True:
                self.connection().close()
        kept.sendall(self.bytes_of("/full/x?action=unlink"))
        self.assertEqual(self.rest(kept), "")
        self.finish(upload, b"last", '200 {"s":7,*')
        self.assertTrue(os.path.exists(self.tree + "/full/x"))
        self.assertEqual(text(self.tree + "/a.txt"), "lastent")

    # What is no regular file is not even opened, and the kernel's own files are not written.
    def test_special_files(self):
        self.serve()
        reader = os.open(self.tree + "/pipe", os.O_RDONLY | os.O_NONBLOCK)
        for request in ("?action=create&mode=33188", "?action=truncate&offset=0", ""):
            self.expect("403 ", "/pipe" + request)
        self.expect("403 ", "PUT $/pipe?action=write&flags=1&offset=0\n\nx")
        self.assertEqual(select.select([reader], [], [], 0)[0], [])
        os.close(reader)
        # A lease of another program is waited for; meanwhile other files are served.
        with open(self.tree + "/a.txt") as leased:
            signal.signal(signal.SIGIO, lambda *_: (self.expect("200 content"),
                                                    fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_UNLCK)))
            fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_RDLCK)
            self.expect('200 {"s":7,*', "PUT $/a.txt?action=write&flags=1&offset=0\n\nC")
        self.end_server()
        self.tree = "/proc"
        self.serve()
        self.expect("403 ", "PUT $/self/comm?action=write&flags=1&offset=0\n\nx")
        self.expect("403 ", "/self/comm?action=truncate&offset=0")

    def test_crowd(self):
        self.serve("prlimit", "--nofile=60", STORAGE)
        for _ in range(5):
            for _ in range(12):
                self.connection(b"GET")
            self.expect("200 content")
        self.assertEqual(text(self.scratch + "/server.err").count("clients have to wait"), 1)
        # Where strangers come, one address gets half of the connections.
        self.end_server()
        self.make_certificate()
        options = "--listen 0.0.0.0 --host 127.0.0.1 --tls-cert {0}/cert --tls-key {0}/key".format(self.scratch)
        self.serve("prlimit", "--nofile=60", STORAGE, *options.split())
        address = ("127.0.0.1", urllib.parse.urlsplit(self.url).port)
        connections = [socket.create_connection(address) for _ in range(5)]
        for connection in connections:
            self.addCleanup(connection.close)
        self.assertEqual(connections[4].recv(1), b"")

    # A socket of the service manager: it hears when the server is ready, and no connection is refused meanwhile.
    def test_service_manager(self):
        with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            listener.bind(self.scratch + "/listener")
            listener.listen()
            manager.bind(self.scratch + "/manager")
            for _ in range(2):
                client = socket.socket(socket.AF_UNIX)
                self.addCleanup(client.close)
                client.connect(self.scratch + "/listener")
                self.server = start(["bash", "-c", f"exec 3<&{listener.fileno()}; LISTEN_FDS=1 LISTEN_PID=$$ "
                                     f"NOTIFY_SOCKET={self.scratch}/manager exec {STORAGE} --no-secret {self.tree}"],
                                    self.scratch + "/server", pass_fds=[listener.fileno()])
                self.assertEqual(manager.recv(99), b"READY=1")
                self.assertEqual(text(self.scratch + "/server.out"), f"http://unix:{self.scratch}/listener:/\n")
                client.sendall(b"GET /d/in HTTP/1.1\r\nHost: localhost\r\n\r\n")
                begin = client.recv(1).decode()
                self.server.terminate()
                self.assertIsNone(difference("200 content", begin + self.rest(client)))
                self.end_server()

    # The memory of bodies is given back.
    def test_memory(self):
        self.serve()
        for _ in range(1100):
            self.expect("206 *", "/big\nRange: bytes=0-262143")
        for _ in range(270):
            self.expect('200 {"s":1048576,*', "PUT $/d/in?action=write&flags=1&offset=0\n\n" + MOST)

    def test_shortages(self):
        self.serve("prlimit", "--nofile=200:4096", "--fsize=50000000", STORAGE)
        self.expect("507 ", "/a.txt?action=truncate&offset=50000001")
        self.expect("507 ", "PUT $/a.txt?action=write&flags=1&offset=49999999\n\nxyz")
        # More connections than the first limit on descriptors, each with half a request.
        connections = [self.connection(self.bytes_of("/d/in")[:9]) for _ in range(300)]
        until(lambda: self.descriptors() > len(connections))
        self.expect("200 content")

        # No descriptor is left to open the file with; later there are descriptors again.
        def is_starved():
            resource.prlimit(self.server.pid, resource.RLIMIT_NOFILE, (self.descriptors() + 1, 4096))
            return all(re.match(r"HTTP/1.1 503 (.*\r\n)+Content-Length: 1\r\n\r\n$|$", self.ask("/d/in" + query))
                       for query in ("", "?action=props"))
        until(is_starved)
        resource.prlimit(self.server.pid, resource.RLIMIT_NOFILE, (4096, 4096))
        until(lambda: not difference("200 content", self.ask("/d/in")))

    def test_link_that_is_being_changed(self):
        self.serve()
        replies = []

        def change():
            while len(replies) < 200 or len(set(replies)) < 2:
                for target in ("d", "../outside"):
                    os.symlink(target, self.tree + "/next")
                    os.rename(self.tree + "/next", self.tree + "/switch")
        changer = threading.Thread(target=change)
        changer.start()
        while changer.is_alive():
            replies.append(self.ask("/switch/in")[9:12])
            self.expect("404 ", "/switch/secret")
            self.expect("404 ", "PUT $/switch/secret?action=write&flags=1&offset=0\n\nX")
        self.assertEqual(set(replies), {"200", "404"})
        self.assertEqual(text(self.scratch + "/outside/secret"), "secret")

    # A slow reader delays nobody and gets everything, unless the file gets shorter meanwhile.
    def test_slow_readers(self):
        self.serve()
        content = text(self.tree + "/big")
        for size in (len(content), 0):
            connection = self.connection(self.bytes_of("/big\nRange: bytes=1-"))
            begin = connection.recv(1).decode()
            self.expect("200 content")
            os.truncate(self.tree + "/big", size)
            head, _, body = (begin + self.rest(connection)).partition("\r\n\r\n")
            self.assertIn(f"\r\nContent-Length: {len(content) - 1}", head)
            self.assertEqual(body == content[1:], size > 0)

    def test_command_line(self):
        self.serve()
        for arguments, output, status in (
                ("", "DIRECTORY is missing", 2), ("--port 70000 /tmp", "--port 70000: ", 2),
                ("--tls-cert x /tmp", "--tls-cert needs --tls-key", 2), ("--prefix x /tmp", "--prefix x: ", 2),
                ("--host disk.example:80 /tmp", "--host disk.example:80: ", 2),
                ("--listen 0.0.0.0 /tmp", "other machines reach the address, so this is missing: --tls-cert", 2),
                ("--listen :: --behind-proxy --no-secret /tmp", "reach the address, so this is missing: a secret", 2),
                ("--users {0}/others /tmp", "others can", 1), ("--secret-file {0}/others /tmp", "others can", 1),
                ("--users {0}/bad /tmp", "line 1 is not NAME:PASSWORD", 1), ("--help", "usage: ", 0),
                ("--tls-cert /dev/null --tls-key /dev/null /tmp", "/dev/null: ", 1), ("--version", "storage 1.", 0),
                ("--listen 'not an address' /tmp", "cannot serve on", 1), ("/none", "/none: No such file", 1),
                (f"--port {urllib.parse.urlsplit(self.url).port} /tmp", "cannot serve on", 1)):
            written, ended = shell(f"{STORAGE} " + arguments.format(self.scratch))
            self.assertEqual((output in written, ended), (True, status), written)
