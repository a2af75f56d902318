"""kelvane_conform: what it says about services that keep the protocol page, and about services that break it."""
import json
import os
import signal
import tempfile
from concurrent.futures import ThreadPoolExecutor
from programs import STORAGE, TOP, Program, ServerTest, make_certificate, serve, text, until

REPLY = "        self.send_response_only(status)\n"
BODY = "        body = self.rfile"
# The example service with one fault: how the rule's line begins, or a finding, and the text that is replaced.
BROKEN = [
    ("fault     The first request after", '"nl": st.st_nlink,', ""),
    ("fault     These are the block size", '"bavail": volume.f_bavail >> shift, ', ""),
    ("fault     The path has a slash", "names = [", 'if "%2F" in encoded: raise ValueError\n    names = ['),
    ("fault     Making a directory", "return os.mkdir(path)", "return os.makedirs(path, 511, True)"),
    ("fault     `t` and `m` have to agree", '"t": 4 if', '"t": 8 if'),
    ("fault     A file that is", "if not os.path.lexists(path):", "open(path, 'w').close()\n            if False:"),
    ("fault     The body goes to `offset`", "path, os.O_WRONLY)", "path, os.O_WRONLY | os.O_APPEND)"),
    ("fault     It has at most", BODY, "        if int(length) > 70000: return self.send_error(404)\n" + BODY),
    ("fault     `offset` is the new length", 'os.truncate(path, int(query["offset"]))', "pass"),
    ("fault     `unlink` of a", "os.unlink(path)", "(os.rmdir if os.path.isdir(path) else os.unlink)(path)"),
    ("advice    The service decides", "os.rmdir(path)", '__import__("shutil").rmtree(path)'),
    ("fault     `rename` of a file onto", '{"hc": 409}', '{"hc": 200}'),
    ("fault     a write to a file that is not", "with opened", "os.close(os.open(path, os.O_CREAT))\n    with opened"),
    ("fault     A listing holds the whole", "in os.listdir(path)", "in os.listdir(path)[:100]"),
    ("fault     times of last access", '"mt": int(st.st_mtime)', '"mt": 1'),
    ("fault     So the two do not", "pwrite(file.fileno(), body, ", "pwrite(file.fileno(), body[:65536], __import__("
     "'time').sleep({131072: 7 - body[0] % 8, 65536: body[0] % 8 * 4}.get(len(body), 0) / 40) or "),
    ("advice    So the two do not mix", "if len(body) < int(length)", "if False"),
    ("fault     There is one range", "size) - first), first)", "size) - first), first + 1)"),
    ("advice    The client has a connection", REPLY, "        self.close_connection = True\n" + REPLY),
    ("fault     Every other path", "if not secrets.compare_digest", "if False and secrets.compare_digest"),
    ("advice    Most changes are GET", "WEB_PAGE = (", "WEB_PAGE = () and ("),
    ("fault     a reply that", REPLY, '        body = self.path.encode() if status == 404 else body\n' + REPLY),
    ("fault     redirection", REPLY, REPLY.replace("status", "302 if 'truncate' in self.path else status")),
    ("fault: the client waits", BODY, "        if 'truncate' in self.path: [__import__('time').sleep(1) or "
     "self.wfile.write(b'H') for _ in range(999)]\n" + BODY),
]


class ConformTest(ServerTest):
    # What the program prints, and its status. NUMBER is a signal that it gets when its directory is there.
    def conform(self, *words, number=None, log="conform", **options):
        program = Program([TOP + "/tools/kelvane_conform", *words], f"{self.scratch}/{log}", **options)
        if number:
            until(lambda: len(os.listdir(self.tree)) > 1, program)
            program.send_signal(number)
        program.wait()
        return text(program.log + ".out") + text(program.log + ".err"), program.returncode

    def test_broken_services(self):
        def broken(row):
            tree = tempfile.mkdtemp(dir=self.tree)
            with open(tree + ".py", "w", encoding="latin-1") as file:
                file.write(text(TOP + "/docs/examples/storage.py").replace(row[1], row[2], 1))
            service = serve(["python3", file.name, tree], tree + ".log")
            output, status = self.conform("--timeout=3", service.url, log=tree[len(self.scratch):])
            return service.url.split("/")[3] in output or os.listdir(tree), row[0] in output, status, output
        with ThreadPoolExecutor(8) as pool:
            for row, result in zip(BROKEN, pool.map(broken, BROKEN)):
                with self.subTest(row[0]):
                    self.assertEqual(result[:3], ([], True, "fault" in row[0]), result[3])

    def test_server(self):
        make_certificate(self.scratch)
        self.check(f"cd {self.scratch} && echo 'ann:p w@x' >users && chmod 600 users && seq 9 >{self.tree}/file")
        self.serve(STORAGE, *"--users {0}/users --tls-cert {0}/cert --tls-key {0}/key".format(self.scratch).split())
        url = self.url.replace("//", "//ann:p%20w%40x@")
        trusting = {"env": {**os.environ, "SSL_CERT_FILE": self.scratch + "/cert"}}
        results = [self.conform("--json", url, **trusting), self.conform("--read-only", url, **trusting),
                   self.conform(url.replace("20w", "20v"), **trusting), self.conform(url), self.conform("--x=" + url),
                   *[self.conform(url, number=number, **trusting) for number in (signal.SIGINT, signal.SIGTERM)]]
        for rule in json.loads(results[0][0])["rules"]:
            self.assertIn(rule["rule"], " ".join(text(TOP + "/docs/protocol.md").split()))
            self.assertIn(rule["result"], ("ok", "not tried"), rule)
        told = "".join(told for told, _ in results)
        self.assertEqual([*os.listdir(self.tree), *[status for _, status in results]],
                         ["file", 0, 0, 1, 2, 2, 130, 143], told)
        self.assertRegex(told, "(?s) 0 fault, 0 advice.*there are no attributes.*certificate verify failed")
        self.assertNotRegex(told, "p w@x|p%20|YW5uO|p w")
