"""The server as its clients see it. conform_test tries what the protocol page says."""
import base64
import contextlib
import fcntl
import os
import re
import select
import signal
import socket
import ssl
import urllib.parse

from programs import STORAGE, TOP, ServerTest, make_certificate, serve, shell, text, until

JSON = "\nContent-Type: application/json\nCache-Control: no-store\nX-Content-Type-Options: nosniff"
RAW = " HTTP/1.1\r\nHost: @\r\nConnection: close\r\n"
WRITE = "?action=write&flags=1&offset="
CHUNKED = RAW + "Transfer-Encoding: chunked\r\n\r\n"
MOST = "x" * (1 << 20)
TLS = ["--tls-cert", "{0}/cert", "--tls-key", "{0}/key"]
ANN, BOB, *WRONG = ("Authorization: Basic " + base64.b64encode(user).decode() for user in (
    b"ann:pass word", b"bob:b", b"ann:pass wor", b"ann:pass worD", b"ann:", b"bob:a", b"eve:pass word", b"ann", b":"))
HASH = "$6$salt$b4OMXUA.wvvMVIyQE2OThWpPNZMfZrfCzzjSOkvomntFDpEiUWQvSH2VPmgc.YqCi.ORpdOTtsN5zY27Gfouo1"  # pass word
BY_NAME = f"GET $/d/in{RAW}{ANN}\r\n\r\n"

# Sections: arguments of the server, and rows. A row is a reply, the requests that get it, and the files below the
# directory afterwards: "file=content", or "file" for one that is not there. A request is its first line (without
# "GET $" if it begins with a slash), headers, an empty line and a body, without the headers that every request has. A
# request with "\r" is sent as it stands. "$" is the base path, "@" host and port. A reply is status and body, then some
# of its headers, each in a line; ":N" is a number and "*" anything.
SECTIONS = {
    "": [
        ("200 content" + JSON.replace("json", "octet-stream") + "\nAccept-Ranges: bytes", ["/d/in"]),
        ('200 {"s":7,"b":N,"m":33188,"nl":2,"at":2,"mt":1,"ct":N}' + JSON, ["/a.txt?action=props"]),
        (r'200 {"entries":[{"t":8,"s":7,"b":N,"m":33188,"nl":1,"at":N,"mt":N,"ct":N,"n":"\"\\\u001f"}]}', ["/odd"]),
        ('200 *"n":"link"}*', ["/"]),
        ("200 content", ["/%2Fd%2fin", "//d//in/?", "GET http://@$/d/in"] + [f"/link\nRange: {part}" for part in (
            "bytes=5-2", "bytes=1-2,4-5", "lines=1-2", "bytes=0-18446744073709551616")]),
        ("206 nt\nContent-Range: bytes 5-6/7", ["/link\nRange: bytes=5-", "/link\nRange: bytes=-2"]),
        # Queries that say nothing, or the wrong thing, and other methods.
        ("400 ", ["/%2", "/%zz", "/a.txt%00", "/d/%2e%2E/a.txt", "/d/%2e/in", "/d/in?x=1", "/a.txt?action=truncate",
                  "/a.txt?action=truncate&offset=-1", "/a.txt?action=truncate&offset=1x", "/a.txt?action=rename",
                  "/a.txt?action=rename&to=%2F..", "/a.txt?action=rename&to=%FF&replace=1", "/%FF?action=mkdir",
                  "/%FF?action=create&mode=33188", "/new?action=create&mode=99999999999",
                  "/a.txt?action=props&action=unlink", "/a.txt?x=1;action=props&action=truncate&offset=2"]),
        ("405 ", ["POST $/", "HEAD $/a.txt?action=unlink", "PUT $/a.txt\n\nx", f"/a.txt{WRITE}0"], "a.txt=content"),
        # What is not shown or not there, and what is no file.
        ("404 ", ["GET *", "/" + "n" * 300, "/out", "/absolute/passwd", "/loop", "/a.txt/x", "/odd/bad%FF/x",
                  "/out?action=unlink", "/out?action=rename&to=stolen&replace=1", "/odd/socket?action=props",
                  f"PUT $/out{WRITE}0\n\nx", "/{0}?action=rename&to={0}&replace=1".format("%61" * 2047)],
         "../outside/secret=secret"),
        ("403 ", ["/pipe", f"PUT $/pipe{WRITE}0\n\nx", "/pipe?action=create", "/d?action=truncate&offset=2",
                  "/?action=unlink", "/?action=rename&to=stolen&replace=1"], "stolen"),
        # A body whose end is in doubt is refused at once, because the rest of it could pass for a request.
        ("400 *", [f"PUT $/d/in{WRITE}0 HTTP/1.{minor}\r\nHost: @\r\nConnection: keep-alive\r\n{headers}\r\n\r\n{begin}"
                   f"GET $/hidden?action=create{RAW}\r\n" for minor, headers, begin in (
                       (1, "Content-Length: 0\r\nContent-Length: 9", ""), (1, "Transfer-Encoding : chunked", ""),
                       (1, "Content-Length: 0\r\nTransfer-Encoding: chunked", "0\r\n\r\n"),
                       (1, "Transfer-Encoding:\r\n chunked", ""), (0, "Transfer-Encoding: chunked", "0\r\n\r\n"))],
         "hidden", "d/in=content"),
        ("204 ", ["/odd/%22%5C%1F?action=unlink"], "d/in=content"),
        # A link that leads outside is not replaced, and no name gets a second spelling.
        ('200 {"hc":409}', ["/a.txt?action=rename&to=out&replace=1", "/e\xcc\x81?action=mkdir"], "a.txt=content"),
        ("204 ", ["/new?action=create", "/e\xcc\x81?action=create", "/%EA%B0%80%E1%86%A7?action=create",
                  "/%E1%84%80%E1%85%A1%E1%86%A7?action=truncate&offset=1"], "\xea\xb0\x80\xe1\x86\xa7=\0"),
        ('200 {"hc":200}', ["/a.txt?action=rename&to=e\xcc\x81&replace=1"], "\xc3\xa9=content", "e\xcc\x81"),
        # Contents.
        ('200 {"s":5,"b":N,"m":33188,*}' + JSON, [f"PUT $/new{WRITE}3{CHUNKED}2\r\nde\r\n0\r\n\r\n"], "new=\0\0\0de"),
        ("413 ", [f"PUT $/new{WRITE}0\nContent-Length: 1048577",
                  f"PUT $/new{WRITE}0{CHUNKED}100001\r\nx{MOST}\r\n0\r\n\r\n"], "new=\0\0\0de")],
    "--read-only --no-secret --prefix /base": [
        ("200 content", ["/d/in", "GET $%2Fd/in", "GET $%2fd/in"]),
        ("404 ", ["GET $d/in", "GET /d/in"]),
        ("403 ", [f"PUT $/link{WRITE}0\n\nx", "/d?action=rmdir", "/none?action=create", "/none?action=mkdir"] + [
            f"/link?action={change}" for change in ("truncate&offset=0", "rename&to=none&replace=1", "unlink")],
         "link=content", "none")],
    "--read-only --no-secret --users {0}/users": [
        ("401 ", ["/d/in"]), ("403 ", [f"/none?action=create\n{ANN}", f"/link?action=unlink\n{ANN}"], "none")],
    # Requests of web pages, names that lead to the server, and what users may do.
    "--host disk.example --log {0}/log --users {0}/users": [
        ("403 ", [f"/d/in?action=unlink\n{header}\n{ANN}" for header in (
            "Origin: null", "referer: http://@$/", "Cookie: a=b", "Sec-Fetch-Site: cross-site", "Sec-Fetch-Site: x")]),
        ("421 ", [f"GET http://{host}$/d/in\n{ANN}" for host in ("evil.example", "127.0.0.1@evil.example", "")] + [
            BY_NAME.replace("@", host) for host in ("evil.example", "localhost.evil.example", "evildisk.example", "",
                                                    "127.0.0.1.evil.example:80", "evil.example\r\nHost: localhost")]),
        ("404 ", [f"{line}\n{ANN}" for line in ("GET /", "GET /d/in?action=unlink", "GET $", "GET $~/d/in",
                                                "GET /~$/d/in", "GET /AAAAAAAAAAAAAAAAAAAAAA/d/in", "/a%0Ab")]),
        ("200 content", [f"/d/in\nSec-Fetch-Site: none\n{ANN}", f"GET http://disk.example$/d/in\n{ANN}"] + [
            "/d/in\n" + user.replace("Basic", how) for user in (ANN, BOB) for how in ("Basic", "basic ")] + [
            BY_NAME.replace("@", host) for host in ("LocalHost:1", "10.0.0.1", "[fe80::1]:80", "disk.example.:8080")]),
        ('401 \nWWW-Authenticate: Basic realm="kelvane_storage"', [
            f"{line}\n{user}" for user in (*WRONG, "X: y") for line in
            ("/d/in", "/d/in?action=what", "/none?action=create&mode=33188", "/pipe", "POST $/")]),
        ("403 ", [f"/none?action=create&mode=33188\n{BOB}", f"PUT $/d/in{WRITE}0\n{BOB}\n\nx"], "none", "d/in=content"),
        ("204 ", [f"/none%20?action=create&mode=33188\n{ANN}"], "none =")],
}


class StorageTest(ServerTest):
    def setUp(self):
        super().setUp()
        self.check(rf"""cd {self.tree} && mkdir d full odd ../outside && seq 4000000 >big && mkfifo pipe &&
            printf content | tee d/in full/x full/y odd/bad$'\377' >a.txt && printf café >é && ln -s loop loop &&
            printf secret >../outside/secret && ln -s ../outside/secret out && ln -s /etc absolute && ln -s d/in link &&
            ln a.txt ../outside/second && ln -s ../out odd && ln -s ../d/in odd/$'"\\\037' && touch -m -d @1 a.txt &&
            touch -a -d @2 a.txt && umask 077 && printf '# who\nann:{HASH}\n\nbob:b:ro\n' >../users""")
        with socket.socket(socket.AF_UNIX) as hidden:
            hidden.bind(self.tree + "/odd/socket")

    def serve(self, *command):
        super().serve(*[word.format(self.scratch) for word in command])
        self.parts = urllib.parse.urlsplit(self.url)
        self.address = self.parts.hostname, self.parts.port

    def bytes_of(self, request):
        request = ("GET $" if request.startswith("/") else "") + request
        if "\r" not in request:
            head, _, body = request.partition("\n\n")
            line, *headers = head.split("\n")
            headers += [f"Content-Length: {len(body)}"] if body else []
            request = line + RAW + "".join(header + "\r\n" for header in headers) + "\r\n" + body
        return request.replace("$", self.parts.path.rstrip("/")).replace("@", self.parts.netloc).encode("latin-1")

    # A new connection, over which a request is sent, or its first bytes.
    def connection(self, request, size=None):
        connection = socket.create_connection(self.address)
        if self.parts.scheme == "https":
            connection = ssl._create_unverified_context().wrap_socket(connection, do_handshake_on_connect=False)
        self.addCleanup(connection.close)
        with contextlib.suppress(ConnectionError):
            connection.sendall(self.bytes_of(request)[:size])
        return connection

    # Returns the body of the reply to a request, or of the one that comes on a connection.
    def expect(self, shown, request="/d/in"):
        reply = bytearray()
        connection = self.connection(request) if isinstance(request, str) else request
        with connection, contextlib.suppress(ConnectionError):
            while piece := connection.recv(1 << 16):
                reply += piece
        head, _, body = reply.decode("latin-1").partition("\r\n\r\n")
        pattern, *headers = shown.split("\n")
        pattern = re.escape(pattern).replace(":N", r":\d+").replace(r"\*", ".*")
        is_same = re.fullmatch(pattern, head.partition(" ")[2][:4] + body, re.DOTALL)
        is_same = is_same and set(headers) <= set(head.split("\r\n"))
        self.assertTrue(is_same, f"{request!r:.200}\n{shown}\n{reply[:500]}")
        return body

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.server.pid}/fd"))

    def test_requests(self):
        for options, rows in SECTIONS.items():
            self.serve(STORAGE, *options.split())
            self.expect("200 content", "/d/in\n" + ANN)
            before = self.descriptors()
            for reply, requests, *after in rows:
                for request in requests:
                    with self.subTest(request[:200]):
                        self.expect(reply, request)
                for name, is_there, content in (state.partition("=") for state in after):
                    file = os.fsencode(self.tree) + b"/" + name.encode("latin-1")
                    found = text(file) if os.path.exists(file) else None
                    self.assertEqual(found, content if is_there else None, (requests[-1], name))
            until(lambda: self.descriptors() <= before)
        self.end_server()
        log = text(self.scratch + "/log")
        self.assertRegex(log, r" - - - 401 0\n(.*\n)*.* bob create /none 403 0\n(.*\n)*.* ann create /none%20 204 0\n$")
        self.assertRegex(log, r"\A(20\S+Z 127.0.0.1 \S+ (- -|[a-z]+ /[\w%./-]*) \d+ \d+( /\S+)?\n)+\Z")
        self.assertNotRegex(log, self.parts.path.strip("/") + "|pass|evil|" + BOB[-4:])

    # SIGHUP: the files that are read again, while a reply is on its way.
    def test_reload(self):
        make_certificate(self.scratch)
        self.serve(STORAGE, *TLS, "--users", "{0}/users", "--log", "{0}/log")
        running = self.connection("/big\n" + ANN)
        running.recv(1)
        certificates = [ssl.get_server_certificate(self.address)]
        make_certificate(self.scratch)
        for change, answer in (
                ("mv log log.1 && sed -i /ann/d users", "again\n"),
                ("chmod 604 key && echo ann: >users", "except .*others can read it; .*line 1 is not NAME:PASSWORD"),
                ("openssl genpkey -algorithm ed25519 -out key && chmod 600 key", "cert and .*; ")):
            self.check(f": >{self.scratch}/server.err && cd {self.scratch} && {change}")
            self.server.send_signal(signal.SIGHUP)
            until(lambda: re.search(answer, text(self.scratch + "/server.err")))
            certificates.append(ssl.get_server_certificate(self.address))
            self.expect("401 ", "/d/in\n" + ANN)
            self.expect("401 ")
            self.expect("200 content", "/d/in\n" + BOB)
        self.assertEqual([certificates.index(each) for each in certificates], [0, 1, 1, 1])
        until(lambda: "bob read /d/in 200 7\n" in text(self.scratch + "/log"))
        client = "openssl s_client -cipher ALL:@SECLEVEL=0 -connect {}:{} </dev/null ".format(*self.address)
        self.assertEqual([shell(client + version)[1] for version in ("-tls1_1", "-tls1_2")], [1, 0])
        self.assertTrue(self.expect("200 *", running) == text(self.tree + "/big"))

    # The conversation of the protocol page, with this server and with the page's example of one.
    def test_protocol_page(self):
        examples = re.findall(r"```exchange\n(.*?)```", text(TOP + "/docs/protocol.md"), re.DOTALL)
        self.assertEqual(len({(re.findall(r"action=(\w+)", example) or [""])[0] for example in examples}), 10)
        for command, status in (["python3", TOP + "/docs/examples/storage.py"], -signal.SIGTERM), ([STORAGE], 0):
            self.check(f"cd {self.tree} && rm -fr * && mkdir notes && printf 'hello, world' >notes/hello.txt")
            self.serve(*command)
            for example in examples:
                request = "\n".join(re.findall(r"^> ?(.*)", example, re.MULTILINE)).replace(" /", " $/", 1)
                code, *body = re.findall(r"^< (.*)", example, re.MULTILINE)
                self.expect(f"{code} {''.join(body)}", request)
            self.end_server(status)

    # The server accepts three uploads, and only then it is told to stop and their four bytes arrive. Meanwhile a file
    # is removed and another one is replaced.
    def test_uploads(self):
        self.serve(STORAGE, "--sync")
        uploads = [self.connection(f"PUT $/{file}{WRITE}0{RAW}Expect: 100-continue\r\nContent-Length: 4\r\n\r\n")
                   for file in ("d/in", "full/x", "full/y")]
        self.assertEqual([len(upload.recv(25)) for upload in uploads], [25] * 3)
        self.check(f"cd {self.tree} && rm d/in && mv a.txt full/x")
        kept = self.connection("GET $/full/x HTTP/1.1\r\nHost: @\r\n\r\n")
        kept.recv(1000)
        self.server.terminate()
        with contextlib.suppress(ConnectionError):
            while True:
                self.connection("/", 0).close()
        kept.sendall(self.bytes_of("/full/x?action=unlink"))
        self.expect("", kept)
        for upload, shown in zip(uploads, ("404 ", "404 ", '200 {"s":7,*')):
            upload.sendall(b"last")
            self.expect(shown, upload)
        self.assertEqual((text(self.tree + "/full/x"), text(self.tree + "/full/y")), ("content", "lastent"))

    def test_files(self):
        self.serve("prlimit", "--fsize=50000000", STORAGE)
        self.expect("507 ", f"PUT $/a.txt{WRITE}49999999\n\nxyz")
        # A lease of another program is waited for, while others are served.
        with open(self.tree + "/full/x") as leased:
            signal.signal(signal.SIGIO, lambda *_: (self.expect("200 content"),
                                                    fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_UNLCK)))
            fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_RDLCK)
            self.expect('200 {"s":7,*', f"PUT $/full/x{WRITE}0\n\nC")
        # The memory of bodies is given back.
        for _ in range(270):
            self.expect('200 {"s":1048576,*', f"PUT $/d/in{WRITE}0\n\n{MOST}")
        # A file gets shorter while it is sent: the reply breaks off, and nobody waits for the rest.
        length = os.path.getsize(self.tree + "/big")
        shortened = self.connection("/big")
        shortened.recv(1)
        os.truncate(self.tree + "/big", 0)
        self.assertLess(len(self.expect(f"200 *\nContent-Length: {length}", shortened)), length)
        # The kernel's own files are not written.
        self.tree = "/proc"
        self.serve()
        self.expect("403 ", f"PUT $/self/comm{WRITE}0\n\nx")

    def test_crowds(self):
        self.serve("prlimit", "--nofile=60", STORAGE)
        for _ in range(5):
            self.crowd = [self.connection("/d/in", 3) for _ in range(12)]
            self.expect("200 content")
        self.assertEqual(text(self.scratch + "/server.err").count("clients have to wait"), 1)
        # Where strangers come, one address gets half of the connections: of five the last one is closed alone.
        make_certificate(self.scratch)
        self.serve("prlimit", "--nofile=60", STORAGE, "--listen", "0.0.0.0", "--host", "127.0.0.1", *TLS)
        connections = [self.connection("/d/in", 0) for _ in range(5)]
        self.assertEqual(select.select(connections, [], [])[0], connections[4:])
        # More connections than the first limit on descriptors, each with half a request.
        self.serve("prlimit", "--nofile=200:4096", STORAGE)
        connections = [self.connection("/d/in", 9) for _ in range(300)]
        until(lambda: self.descriptors() > len(connections))
        # A client that finds no descriptor left waits until there are some again.
        self.check(f"prlimit --pid {self.server.pid} --nofile=9:4096")
        waiting = self.connection("/d/in")
        until(lambda: "clients have to wait: Too many open files" in text(self.scratch + "/server.err"))
        self.check(f"prlimit --pid {self.server.pid} --nofile=4096:4096")
        self.expect("200 content", waiting)
        # Passwords wait for their slow check, this one for minutes, but not all connections do, nor does the stop.
        self.check(f"echo 'eve:{HASH.replace('salt', 'rounds=999999999$salt')}' >{self.scratch}/users")
        self.serve(STORAGE, "--users", "{0}/users")
        connections = [self.connection("/d/in\n" + WRONG[4]) for _ in range(260)]
        self.expect("503 ", select.select(connections, [], [])[0][0])

    # A socket of the service manager: it hears when the server is ready; a server that stops for the next one refuses
    # no connection, and answers one more request on those that it has.
    def test_service_manager(self):
        with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            listener.bind(self.scratch + "/listener")
            listener.listen()
            manager.bind(self.scratch + "/manager")
            command = ["bash", "-c", f"""exec 3<&{listener.fileno()}; export LISTEN_FDS=1 LISTEN_PID=$$
                       NOTIFY_SOCKET=$0/manager exec {STORAGE} --no-secret $0/tree""", self.scratch]
            request = b"GET /d/in HTTP/1.1\r\nHost: localhost\r\n\r\n"
            for _ in range(2):
                client = socket.socket(socket.AF_UNIX)
                client.connect(self.scratch + "/listener")
                self.server = serve(command, self.scratch + "/server", pass_fds=[listener.fileno()])
                self.assertEqual(manager.recv(99), b"READY=1")
                self.assertEqual(self.server.url, f"http://unix:{self.scratch}/listener:/")
                client.sendall(request)
                self.assertRegex(client.recv(1000), b"200 OK")
                self.server.send_signal(signal.SIGSTOP)
                self.server.terminate()
                client.sendall(request)
                self.end_server()
                self.expect("200 content", client)

    def test_command_line(self):
        self.serve(STORAGE, "--listen", "localhost")
        for arguments, output, status in (
                ("", "DIRECTORY is missing", 2), ("--port 70000 /tmp", "--port 70000: ", 2),
                ("--host disk.example:80 /tmp", "--host disk.example:80: ", 2),
                ("--listen 0.0.0.0 /tmp", "other machines reach the address, so this is missing: --tls-cert", 2),
                ("--listen :: --behind-proxy --no-secret /tmp", "reach the address, so this is missing: a secret", 2),
                ("--users /etc/passwd /tmp", "others can", 1), ("--secret-file /etc/passwd /tmp", "others can", 1),
                ("/none", "/none: No such file", 1), ("--listen 'not an address' /tmp", "cannot serve on", 1),
                (f"--port {self.address[1]} /tmp", "cannot serve on", 1)):
            written, ended = shell(f"timeout 20 {STORAGE} " + arguments)
            self.assertEqual((output in written, ended), (True, status), written)
