"""kelvane_conform: what it says about services that keep the protocol page, and about services that break it."""
import json
import os
import signal
from concurrent.futures import ThreadPoolExecutor
from programs import STORAGE, TOP, Program, ServerTest, serve, text, until

CONFORM = TOP + "/tools/kelvane_conform"
REPLY = "        self.send_response_only(status)\n"
READ = "body = self.rfile.read(int(length))"
PROPS = 'case "props": return 200, attributes(os.stat(path))'


def at_truncate(code):
    return REPLY, f'        if "truncate" in self.path:\n            {code}\n            return\n' + REPLY


# The example service with one fault: what is said about it, and the text that is replaced.
BROKEN = [
    ("fault: missing: nl; the client ends with abort", '"nl": st.st_nlink,', ""),
    ("fault: s is not a number", '{"s": st.st_size', '{"s": str(st.st_size)'),
    ("fault: mt stays the same", '"mt": int(st.st_mtime)', '"mt": 1'),
    ("fault: m is octal", '"m": st.st_mode', '"m": st.st_mode & 0o777'),
    ("which disagree", '"t": 4 if', '"t": 8 if'),
    ("fault: missing: t; the client ends", '{"t": 4 if stat.S_ISDIR(st.st_mode) else 8, **', "{**"),
    ("fault: missing: the array entries", '{"entries": list(listing(path))}', "list(listing(path))"),
    ("fault: '.' cannot be a name", "in os.listdir(path)", 'in [b".", *os.listdir(path)]'),
    ("fault: 100 of 110 files are listed", "in os.listdir(path)", "in os.listdir(path)[:100]"),
    ("files are listed; not the same: '%", "unquote_to_bytes(encoded)", "unquote_to_bytes(unquote_to_bytes(encoded))"),
    ("fault: missing: bavail", '"bavail": volume.f_bavail >> shift, ', ""),
    ("fault: this is refused", "names = [", 'if "%2F" in encoded: raise ValueError\n    names = ['),
    ("bytes that are not those of the file at 0", "size) - first), first)", "size) - first), first + 1)"),
    ("advice: status 200: each read transfers", "wanted = re", "wanted = None and re"),
    ("fault: a program reads this as the", REPLY, '        body = b"none" if status == 404 else body\n' + REPLY),
    ("but the file has 4 bytes", "if not os.path.lexists(path):", "open(path, 'w').close()\n            if False:"),
    ("fault: the attributes are not JSON", 'case "write": return 200, written', 'case "write": written'),
    ("fault: a program is told that its data", "with opened(path, os.O_WRONLY)",
     "os.close(os.open(path, os.O_CREAT))\n    with opened(path, os.O_WRONLY)"),
    ("fault: eight writes to the same place at once are mixed", "pwrite(file.fileno(), body, ",
     "pwrite(file.fileno(), body[:65536], __import__('time').sleep("
     "{131072: 7 - body[0] % 8, 65536: body[0] % 8 * 4}.get(len(body), 0) / 40) or "),
    ("advice: a write that was broken off", "if len(body) < int(length)", "if False"),
    ("fault: s is 7, but the file has 4 bytes", 'os.truncate(path, int(query["offset"]))', "pass"),
    ("fault: missing: hc", 'os.mkdir(path) or (200, {"hc": 200})', "os.mkdir(path) or (200, {})"),
    ("fault: a program is told that this was done", "return os.mkdir(path)", "return os.makedirs(path, 511, True)"),
    ("advice: a program is told that this was done", "os.rmdir(path)", '__import__("shutil").rmtree(path)'),
    ("fault: this should not be there", "return os.rename(path", "return (os.symlink if 0 else os.link)(path"),
    ("after 0 of 1 bytes of the body", PROPS, 'case "props": raise OSError(5, "")'),
    ("fault: this should not be there", PROPS, PROPS.replace("path", "path if os.path.exists(path) else root")),
    ("fault: the client waits: no complete reply within 1 s", *at_truncate("[] = __import__('time').sleep(3)")),
    ("fault: the client ends: the connection is closed before", *at_truncate("self.close_connection = True")),
    ("fault: the client ends: the reply does not begin", *at_truncate("self.wfile.write(b'HTTP/1.1 OK\\r\\n\\r\\n')")),
    ("fault: the client does not follow this", *at_truncate("self.wfile.write(b'HTTP/1.1 302\\r\\n\\r\\n')")),
    ("fault: the connection is reset", READ,
     f"if int(length) > 70000: return self.send_error(404)\n        {READ}"),
    ("advice: 100 of 100 requests need a new connection", REPLY, "        self.close_connection = True\n" + REPLY),
    ("fault: another secret is accepted", "if not secrets.compare_digest", "if False and secrets.compare_digest"),
    ("advice: a request that a browser sends", "WEB_PAGE = (", "WEB_PAGE = () and ("),
    ("advice: the service takes the body for a second", 'len(self.headers.get_all("Content-Length", [])) > 1', "False"),
]


class ConformTest(ServerTest):
    def try_service(self, number, old="", new=""):
        """What is said about the example service with a replacement, and the status."""
        scratch = f"{self.scratch}/{number}"
        os.makedirs(scratch + "/tree")
        source = text(TOP + "/docs/examples/storage.py")
        with open(scratch + "/storage.py", "w", encoding="latin-1") as file:
            file.write(source.replace(old, new, 1))
        service = serve(["python3", scratch + "/storage.py", scratch + "/tree"], scratch + "/service")
        told = Program([CONFORM, "--timeout=1", service.url], scratch + "/told")
        told.wait()
        service.end(status=-signal.SIGTERM)
        output = text(scratch + "/told.out") + text(scratch + "/told.err")
        self.assertEqual((old in source, os.listdir(scratch + "/tree")), (True, []), output)
        self.assertNotIn(service.url.split("/")[3], output)
        return output, told.returncode

    def test_broken_services(self):
        self.assertEqual(self.try_service("whole")[1], 0)
        with ThreadPoolExecutor(8) as pool:
            results = pool.map(lambda i: self.try_service(i, *BROKEN[i][1:]), range(len(BROKEN)))
            for (said, *_), (output, status) in zip(BROKEN, results):
                with self.subTest(said):
                    self.assertIn(said, output)
                    self.assertTrue(status == 1 or "fault" not in said, output)

    def conform(self, *words, status=0, number=None, **options):
        """What the program prints; NUMBER is a signal that it gets when its directory is there."""
        program = Program([CONFORM, *words], self.scratch + "/conform", **options)
        if number:
            until(lambda: len(os.listdir(self.tree)) > 1, program)
            program.send_signal(number)
        program.finish(status)
        return text(self.scratch + "/conform.out") + text(self.scratch + "/conform.err")

    def test_server(self):
        self.make_certificate()
        self.check(f"cd {self.scratch} && echo 'ann:p w@x' >users && chmod 600 users && seq 9 >{self.tree}/file")
        self.serve(STORAGE, "--users", self.scratch + "/users", "--tls-cert", self.scratch + "/cert", "--tls-key",
                   self.scratch + "/key")
        url = self.url.replace("//", "//ann:p%20w%40x@")
        trusting = {"env": {**os.environ, "SSL_CERT_FILE": self.scratch + "/cert"}}
        told = self.conform("--json", url, **trusting)
        rules = json.loads(told)["rules"]
        self.assertEqual([rule for rule in rules if rule["result"] not in ("ok", "not tried")], [])
        for rule in rules:
            self.assertIn(rule["rule"], " ".join(text(TOP + "/docs/protocol.md").split()))
        wrong = self.conform(url.replace("p%20w", "p%20v"), status=1, **trusting)
        self.assertIn("fault: wrong name or password", wrong)
        told += wrong + self.conform(url, status=2)
        self.assertIn("the certificate is not trusted", told)
        for number in (signal.SIGINT, signal.SIGTERM):
            told += self.conform(url, status=128 + number, number=number, **trusting)
            self.assertEqual(os.listdir(self.tree), ["file"])
        self.end_server()
        self.serve(STORAGE, "--read-only", "--no-secret")
        self.assertIn(" 0 fault, 0 advice", self.conform("--read-only", self.url))
        self.end_server()
        told += self.conform(self.url.replace("//", "//ann:p%20w%40x@"), status=2)
        for words in (["ftp://ann:p%20w%40x@h/"], ["http://ann:p%20w%40x@h"], ["http://h/", url], ["--timeout=" + url]):
            told += self.conform(*words, status=2)
        self.assertNotRegex(told, "p w@x|p%20|YW5uO|p w")
