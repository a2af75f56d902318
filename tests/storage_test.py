"""The server as its clients see it. conform_test tries what the protocol page says."""
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
import urllib.parse

from programs import STORAGE, TOP, ServerTest, shell, start, text, until

COMMON = "\nCache-Control: no-store\nX-Content-Type-Options: nosniff"
JSON = "\nContent-Type: application/json" + COMMON
RAW = " HTTP/1.1\r\nHost: @\r\nConnection: close\r\n"
WRITE = "?action=write&flags=1&offset="
CHUNKED = RAW + "Transfer-Encoding: chunked\r\n\r\n"
MOST = "x" * (1 << 20)
LONGEST = "%61" * 2047
HIDDEN = "GET $/hidden?action=create" + RAW + "\r\n"
TLS = "--tls-cert {0}/cert --tls-key {0}/key "
ANN, BOB, *WRONG = ("Authorization: Basic " + base64.b64encode(user).decode() for user in (
    b"ann:pass word", b"bob:b", b"ann:pass wor", b"ann:pass worD", b"ann:", b"bob:a", b"eve:pass word", b"ann", b":"))
HASH = "$6$salt$b4OMXUA.wvvMVIyQE2OThWpPNZMfZrfCzzjSOkvomntFDpEiUWQvSH2VPmgc.YqCi.ORpdOTtsN5zY27Gfouo1"  # pass word


def as_host(*hosts):
    return [f"GET $/d/in?action=props HTTP/1.1\r\nHost: {host}\r\n{ANN}\r\nConnection: close\r\n\r\n" for host in hosts]


# The same for every client and every way to start the server: requests of web pages, and names that lead to the server.
ACCESS = [
    ("403 ", [f"/d/in?action=unlink\n{header}\n{ANN}" for header in
              ("Origin: null", "referer: http://@$/", "Cookie: a=b", "Sec-Fetch-Site: cross-site",
               "Sec-Fetch-Site: same-origin")] + [f"PUT $/d/in{WRITE}0\n{ANN}\nOrigin: x\n\nx"]),
    ("421 ", [f"GET http://{host}$/d/in?action=unlink\n{ANN}" for host in
              ("evil.example", "127.0.0.1@evil.example", "")]),
    ("421 ", as_host("evil.example", "localhost.evil.example", "evildisk.example", "127.0.0.1.evil.example:80", "1.2.3",
                     "[::1", "", "evil.example\r\nHost: localhost")),
    ("200 *", as_host("LocalHost:1", "10.0.0.1", "[fe80::1]:80", "disk.example.:8080")),
    ("404 ", [f"{line}\n{ANN}" for line in ("GET /", "GET /d/in?action=unlink", "GET $", "GET $~/d/in", "GET /~$/d/in",
                                            "GET /AAAAAAAAAAAAAAAAAAAAAA/d/in")] + [f"PUT /d/in{WRITE}0\n{ANN}\n\nx"]),
    ("200 content", [f"/d/in\nSec-Fetch-Site: none\n{ANN}", f"GET http://disk.example$/d/in\n{ANN}"]),
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
        ("200 content", ["/%2Fd%2fin", "//d//in/?", "GET http://@$/d/in"] + [f"/link\nRange: {part}" for part in (
            "bytes=5-2", "bytes=1-2,4-5", "lines=1-2", "bytes=0-18446744073709551616")]),
        ("206 nt\nContent-Range: bytes 5-6/7", ["/link\nRange: bytes=5-", "/link\nRange: bytes=-2"]),
        ("416 \nContent-Range: bytes */7", ["/link\nRange: bytes=-0"]),
        # Queries that say nothing, or the wrong thing, and other methods.
        ("400 ", ["/%2", "/%zz", "/a.txt%00", "/d/%2e%2E/a.txt", "/d/%2e/in", "/d/in?x=1", "/d/in?action=what",
                  "/a.txt?action=truncate", "/a.txt?action=truncate&offset=-1", "/a.txt?action=truncate&offset=1x",
                  "/a.txt?action=rename", "/a.txt?action=rename&to=%2F..", "/%FF?action=mkdir",
                  "/new?action=create&mode=99999999999", "/a.txt?action=rename&to=%FF&replace=1",
                  "/%FF?action=create&mode=33188", "/a.txt?action=props&action=unlink",
                  "/a.txt?action=truncate&offset=9&offset=0", "/a.txt?x=1;action=props&action=truncate&offset=2"]),
        ("405 ", ["POST $/a.txt\n\nx", "DELETE $/a.txt", "HEAD $/a.txt?action=unlink", "PUT $/a.txt\n\nx",
                  f"/a.txt{WRITE}0"], "a.txt=content"),
        # What is not shown or not there, and what is no file.
        ("414 *", ["/" + MOST]),
        ("404 ", ["GET *", "GET /d/in", "/...", "/" + "n" * 300, f"/{LONGEST}?action=rename&to={LONGEST}&replace=1",
                  "/out", "/absolute/passwd", "/loop", "/out?action=unlink", "/a.txt/x", "/odd/bad%FF/x",
                  "/out?action=rename&to=stolen&replace=1", "/odd/socket?action=props", "/odd/socket?action=unlink"]),
        ("403 ", ["/pipe", f"PUT $/pipe{WRITE}0\n\nx", "/pipe?action=truncate&offset=0", "/pipe?action=create",
                  "/d?action=truncate&offset=2", "/?action=unlink", "/?action=rename&to=stolen&replace=1",
                  "/?action=create&mode=1"], "stolen"),
        # A body whose end is in doubt is refused at once, because the rest of it could pass for a request.
        ("400 *", [f"PUT $/d/in{WRITE}0 HTTP/1.{minor}\r\nHost: @\r\nConnection: keep-alive\r\n{headers}\r\n\r\n{begin}"
                   + HIDDEN for minor, headers, begin in (
                       (1, "Content-Length: 0\r\nContent-Length: 9", ""), (1, "Transfer-Encoding : chunked", ""),
                       (1, "Content-Length: 0\r\nTransfer-Encoding: chunked", "0\r\n\r\n"),
                       (1, "Transfer-Encoding:\r\n chunked", ""), (0, "Transfer-Encoding: chunked", "0\r\n\r\n"))],
         "hidden", "d/in=content"),
        # Contents.
        ("204 ", ["/new?action=create"], "new="),
        ('200 {"s":5,"b":N,"m":33188,*}' + JSON, [f"PUT $/new{WRITE}3{CHUNKED}2\r\nde\r\n0\r\n\r\n"], "new=\0\0\0de"),
        ("200 contentHTTP/1.1 200*", ["GET $/d/in HTTP/1.1\r\nHost: @\r\n\r\nGET $/full" + RAW + "\r\n"]),
        ("413 ", [f"PUT $/new{WRITE}0\nContent-Length: 1048577",
                  f"PUT $/new{WRITE}0{CHUNKED}100001\r\nx{MOST}\r\n0\r\n\r\n"], "new=\0\0\0de"),
        # A link that leads outside is not replaced, and no name gets a second spelling.
        ('200 {"hc":409}', ["/a.txt?action=rename&to=out&replace=1", "/e\xcc\x81?action=mkdir"], "a.txt=content"),
        ("204 ", ["/e\xcc\x81?action=create", "/%EA%B0%80%E1%86%A7?action=create",
                  "/%E1%84%80%E1%85%A1%E1%86%A7?action=truncate&offset=1"], "\xea\xb0\x80\xe1\x86\xa7=\0"),
        ('200 {"hc":200}', ["/a.txt?action=rename&to=e\xcc\x81&replace=1"], "\xc3\xa9=content", "e\xcc\x81"),
    ],
    "--read-only --no-secret --prefix /base": [
        ("200 content", ["/d/in", "GET $%2Fd/in", "GET $%2fd/in"]),
        ("404 ", ["GET $ment", "GET /d/in"]),
        ("403 ", [f"PUT $/a.txt{WRITE}0\n\nx"] + ["/a.txt?action=" + change for change in (
            "truncate&offset=0", "rename&to=new&replace=1", "unlink")], "a.txt=content"),
        ("403 ", ["/new?action=create", "/new?action=mkdir", "/d?action=rmdir"], "new"),
    ],
    "--host disk.example": ACCESS,
    "--host disk.example --log {0}/log --users {0}/users": ACCESS + [
        ('401 \nWWW-Authenticate: Basic realm="kelvane_storage"', [
            f"{line}\n{user}" for user in (*WRONG, "X: y") for line in
            ("/d/in", "/a.txt?action=what", "/new?action=create&mode=33188", "/pipe", "POST $/")], "new"),
        ("200 content", ["/d/in\n" + user.replace("Basic", how) for user in (ANN, BOB) for how in ("Basic", "basic ")]),
        ("403 ", [f"/new?action=create&mode=33188\n{BOB}", f"PUT $/a.txt{WRITE}0\n{BOB}\n\nx"], "new", "a.txt=content"),
        ("404 ", [f"/a%0Ab\n{ANN}"]),
        ("204 ", [f"/new%20?action=create&mode=33188\n{ANN}"], "new =")],
    "--no-secret --users {0}/users": [("401 ", ["/d/in"]), ("200 content", [f"GET /d/in\n{ANN}"])],
    "--read-only --users {0}/users": [
        ("403 ", [f"/new?action=create\n{ANN}", f"/a.txt?action=unlink\n{ANN}"], "new", "a.txt=content")],
}


def difference(shown, reply):
    """None if the reply is what a row shows, or both."""
    head, _, body = reply.partition("\r\n\r\n")
    pattern, *headers = shown.split("\n")
    pattern = re.escape(pattern).replace(":N", r":\d+").replace(r"\*", ".*")
    is_same = re.fullmatch(pattern, head[9:13] + body, re.DOTALL) and set(headers) <= set(head.split("\r\n"))
    return None if is_same else f"{shown[:500]}\n{reply[:500]}"


class StorageTest(ServerTest):
    def setUp(self):
        super().setUp()
        self.check(rf"""cd {self.tree} && mkdir d full odd ../outside && seq 4000000 >big && mkfifo pipe &&
            printf content | tee d/in full/x full/y odd/bad$'\377' >a.txt && printf café >é && ln -s loop loop &&
            printf secret >../outside/secret && ln -s ../outside/secret out && ln -s /etc absolute && ln -s d/in link &&
            ln a.txt ../outside/second && ln -s ../out odd && ln -s ../d/in odd/$'"\\\037' && touch -m -d @1 a.txt &&
            touch -a -d @2 a.txt && cd .. && printf '# who\nann:{HASH}\n\nbob:b:ro\n' >users && echo bad >bad &&
            touch others && chmod 600 users bad && chmod 604 others""")
        with socket.socket(socket.AF_UNIX) as hidden:
            hidden.bind(self.tree + "/odd/socket")

    def serve_with(self, options, *wrapper):
        self.serve(*wrapper, STORAGE, *options.format(self.scratch).split())

    def address(self):
        url = urllib.parse.urlsplit(self.url)
        return url.hostname, url.port

    def bytes_of(self, request):
        request = ("GET $" if request.startswith("/") else "") + request
        if "\r" not in request:
            head, _, body = request.partition("\n\n")
            line, *headers = head.split("\n")
            headers += [f"Content-Length: {len(body)}"] if body else []
            request = line + RAW + "".join(header + "\r\n" for header in headers) + "\r\n" + body
        url = urllib.parse.urlsplit(self.url)
        return request.replace("$", url.path.rstrip("/")).replace("@", url.netloc).encode("latin-1")

    def connection(self, data=b""):
        """A new connection, over which the data is sent."""
        connection = socket.create_connection(self.address())
        if self.url.startswith("https"):
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

    def section(self, options):
        self.serve_with(options)
        self.expect("200 content", "/d/in\n" + ANN)
        before = self.descriptors()
        for reply, requests, *after in SECTIONS[options]:
            for request in requests:
                with self.subTest(request[:200]):
                    self.expect(reply, request)
            for name, is_there, content in (state.partition("=") for state in after):
                file = os.fsencode(self.tree) + b"/" + name.encode("latin-1")
                self.assertEqual(os.path.exists(file), bool(is_there), (requests[-1], name))
                self.assertTrue(not is_there or text(file) == content, (requests[-1], name))
        until(lambda: self.descriptors() <= before)
        self.assertEqual(text(self.scratch + "/outside/secret"), "secret")
        self.end_server()

    def test_requests(self):
        self.section("")

    def test_access(self):
        for options in list(SECTIONS)[1:]:
            self.section(options)
        log = text(self.scratch + "/log")
        self.assertRegex(log, r"Z 127.0.0.1 bob create /new 403 0\n(.*\n)*\S+Z 127.0.0.1 ann create /new%20 204 0\n$")
        self.assertRegex(log, r"\n\S+Z 127.0.0.1 - - - 401 0\n")
        self.assertRegex(log, r"\A(20\S+Z [\d.]+ \S+ (- -|[a-z]+ /[\w%./-]*) \d+ \d+( /\S+)?\n)+\Z")
        for hidden in (urllib.parse.urlsplit(self.url).path.strip("/"), "pass", BOB[-4:], "evil"):
            self.assertNotIn(hidden, log)

    # Passwords wait for their slow check, this one for minutes, but not all connections do.
    def test_flood_of_passwords(self):
        self.check(f"echo 'eve:{HASH.replace('salt', 'rounds=999999999$salt')}' >{self.scratch}/users")
        self.serve_with("--users {0}/users")
        flood = [self.connection(self.bytes_of("/d/in\n" + WRONG[4])) for _ in range(260)]
        self.assertEqual(select.select(flood, [], [])[0][0].recv(12), b"HTTP/1.1 503")
        self.server.kill()
        self.server = None

    # SIGHUP: the files that are read again, while a reply is on its way.
    def test_reload(self):
        def renew(user):
            self.make_certificate()
            self.check(f"echo {user}:pass >{self.scratch}/users")
            return "/d/in\nAuthorization: Basic " + base64.b64encode(user.encode() + b":pass").decode()

        def reload(answer):
            open(self.scratch + "/server.err", "w").close()
            self.server.send_signal(signal.SIGHUP)
            until(lambda: answer in text(self.scratch + "/server.err"))
            return ssl.get_server_certificate(self.address())
        one = renew("one")
        self.serve_with(TLS + "--users {0}/users --log {0}/log")
        running = self.connection(self.bytes_of(one.replace("d/in", "big")))
        begin, before, two = running.recv(1).decode(), reload("again"), renew("two")
        os.rename(self.scratch + "/log", self.scratch + "/log.1")
        after = reload("again")
        self.assertNotEqual(before, after)
        self.expect("401 ", one)
        self.expect("200 content", two)
        until(lambda: "two read /d/in 200 7\n" in text(self.scratch + "/log"))
        self.check(f"chmod 604 {self.scratch}/key; echo ann: >{self.scratch}/users")
        self.assertEqual(reload("except for"), after)
        self.assertRegex(text(self.scratch + "/server.err"), "others can read it; .*line 1 is not NAME:PASSWORD")
        self.expect("401 ")
        renew("three")
        self.check(f"cd {self.scratch} && openssl genpkey -algorithm ed25519 -out key && chmod 600 key")
        self.assertEqual(reload("cert and "), after)
        for version, status in ("-tls1_1", 1), ("-tls1_2", 0):
            address = "{}:{}".format(*self.address())
            client = f"openssl s_client {version} -cipher ALL:@SECLEVEL=0 -connect {address} </dev/null"
            self.assertEqual(shell(client)[1], status)
        self.assertEqual((begin + self.rest(running)).partition("\r\n\r\n")[2], text(self.tree + "/big"))

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

    def upload(self, file):
        """An upload of four bytes that the server has accepted; they are still to come."""
        connection = self.connection(self.bytes_of(f"PUT $/{file}{WRITE}0{RAW}"
                                                   "Expect: 100-continue\r\nContent-Length: 4\r\n\r\n"))
        self.assertEqual(len(connection.recv(25)), 25)
        return connection

    def test_uploads(self):
        self.serve_with("--sync")
        # The file is removed or replaced meanwhile.
        for file, change in (("d/in", "rm d/in"), ("full/x", "mv a.txt full/x")):
            upload = self.upload(file)
            self.check(f"cd {self.tree} && {change}")
            upload.sendall(b"lost")
            self.assertIsNone(difference("404 ", self.rest(upload)))
        # A server that was told to stop waits for the upload, and takes no new request.
        upload = self.upload("full/y")
        kept = self.connection(self.bytes_of("GET $/full/x HTTP/1.1\r\nHost: @\r\n\r\n"))
        kept.recv(1000)
        self.server.terminate()
        with contextlib.suppress(ConnectionError):
            while True:
                self.connection().close()
        kept.sendall(self.bytes_of("/full/x?action=unlink"))
        self.assertEqual(self.rest(kept), "")
        upload.sendall(b"last")
        self.assertIsNone(difference('200 {"s":7,*', self.rest(upload)))
        self.assertEqual((text(self.tree + "/full/x"), text(self.tree + "/full/y")), ("content", "lastent"))

    # A lease of another program is waited for, while others are served, and the kernel's own files are not written.
    def test_special_files(self):
        self.serve()
        with open(self.tree + "/a.txt") as leased:
            signal.signal(signal.SIGIO, lambda *_: (self.expect("200 content"),
                                                    fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_UNLCK)))
            fcntl.fcntl(leased, fcntl.F_SETLEASE, fcntl.F_RDLCK)
            self.expect('200 {"s":7,*', f"PUT $/a.txt{WRITE}0\n\nC")
        self.end_server()
        self.tree = "/proc"
        self.serve()
        self.expect("403 ", f"PUT $/self/comm{WRITE}0\n\nx")
        self.expect("403 ", "/self/comm?action=truncate&offset=0")

    def test_crowd(self):
        self.serve("prlimit", "--nofile=60", STORAGE)
        for _ in range(5):
            self.crowd = [self.connection(b"GET") for _ in range(12)]
            self.expect("200 content")
        self.assertEqual(text(self.scratch + "/server.err").count("clients have to wait"), 1)
        # Where strangers come, one address gets half of the connections: of five the last one is closed alone.
        self.end_server()
        self.make_certificate()
        self.serve_with("--listen 0.0.0.0 --host 127.0.0.1 " + TLS, "prlimit", "--nofile=60")
        connections = [socket.create_connection(self.address()) for _ in range(5)]
        self.assertEqual(select.select(connections, [], [])[0], connections[4:])
        for connection in connections:
            connection.close()

    # A socket of the service manager: it hears when the server is ready; a server that stops for the next one refuses
    # no connection, and answers one more request on those that it has.
    def test_service_manager(self):
        with socket.socket(socket.AF_UNIX) as listener, socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            listener.bind(self.scratch + "/listener")
            listener.listen()
            manager.bind(self.scratch + "/manager")
            command = f"""exec 3<&{listener.fileno()}; export LISTEN_FDS=1 LISTEN_PID=$$ NOTIFY_SOCKET=$0/manager
                          exec {STORAGE} --no-secret $0/tree"""
            request = b"GET /d/in HTTP/1.1\r\nHost: localhost\r\n\r\n"
            for _ in range(2):
                client = socket.socket(socket.AF_UNIX)
                client.connect(self.scratch + "/listener")
                self.server = start(["bash", "-c", command, self.scratch], self.scratch + "/server", pass_fds=[
                    listener.fileno()])
                self.assertEqual(manager.recv(99), b"READY=1")
                self.assertEqual(text(self.scratch + "/server.out"), f"http://unix:{self.scratch}/listener:/\n")
                client.sendall(request)
                self.assertRegex(client.recv(1000), b"200 OK")
                self.server.send_signal(signal.SIGSTOP)
                self.server.terminate()
                client.sendall(request)
                self.end_server()
                self.assertIsNone(difference("200 content", self.rest(client)))

    # The memory of bodies is given back.
    def test_memory(self):
        self.serve()
        for _ in range(1100):
            self.expect("206 *", "/big\nRange: bytes=0-262143")
        for _ in range(270):
            self.expect('200 {"s":1048576,*', f"PUT $/d/in{WRITE}0\n\n{MOST}")

    def test_shortages(self):
        self.serve("prlimit", "--nofile=200:4096", "--fsize=50000000", STORAGE)
        self.expect("507 ", "/a.txt?action=truncate&offset=50000001")
        self.expect("507 ", f"PUT $/a.txt{WRITE}49999999\n\nxyz")
        # More connections than the first limit on descriptors, each with half a request.
        connections = [self.connection(self.bytes_of("/d/in")[:9]) for _ in range(300)]
        until(lambda: self.descriptors() > len(connections))
        self.expect("200 content")

        # A client that finds no descriptor left waits until there are some again.
        resource.prlimit(self.server.pid, resource.RLIMIT_NOFILE, (9, 4096))
        waiting = self.connection(self.bytes_of("/d/in"))
        until(lambda: "clients have to wait: Too many open files" in text(self.scratch + "/server.err"))
        resource.prlimit(self.server.pid, resource.RLIMIT_NOFILE, (4096, 4096))
        self.assertIsNone(difference("200 content", self.rest(waiting)))

    # The file gets shorter while it is sent: the reply breaks off, and nobody waits for the rest.
    def test_file_that_gets_shorter(self):
        self.serve()
        connection = self.connection(self.bytes_of("/big"))
        begin = connection.recv(1).decode()
        length = os.path.getsize(self.tree + "/big")
        os.truncate(self.tree + "/big", 0)
        reply = begin + self.rest(connection)
        self.assertTrue(f"\r\nContent-Length: {length}\r\n" in reply and len(reply) < length)

    def test_command_line(self):
        self.serve_with("--listen localhost")
        for host in ("127.0.0.1", "::1")[:1 + os.path.exists("/proc/net/if_inet6")]:
            socket.create_connection((host, self.address()[1])).close()
        for arguments, output, status in (
                ("", "DIRECTORY is missing", 2), ("--port 70000 /tmp", "--port 70000: ", 2), ("--help", "usage: ", 0),
                ("--tls-cert x /tmp", "--tls-cert needs --tls-key", 2), ("--prefix x /tmp", "--prefix x: ", 2),
                ("--host disk.example:80 /tmp", "--host disk.example:80: ", 2), ("--version", "storage 1.", 0),
                ("--listen 0.0.0.0 /tmp", "other machines reach the address, so this is missing: --tls-cert", 2),
                ("--listen :: --behind-proxy --no-secret /tmp", "reach the address, so this is missing: a secret", 2),
                ("--users {0}/others /tmp", "others can", 1), ("--secret-file {0}/others /tmp", "others can", 1),
                ("--users {0}/bad /tmp", "line 1 is not NAME:PASSWORD", 1), ("/none", "/none: No such file", 1),
                ("--listen 'not an address' /tmp", "cannot serve on", 1),
                (f"--port {self.address()[1]} /tmp", "cannot serve on", 1)):
            written, ended = shell(f"{STORAGE} " + arguments.format(self.scratch))
            self.assertEqual((output in written, ended), (True, status), written)
