"""The daemon and the server as their users run them: real processes, a real mount, real programs."""
import contextlib
import itertools
import os
import re
import signal
import socket
import threading
import time
import unittest

from programs import (BIN, PR_SET_CHILD_SUBREAPER, STORAGE, TOP, VFS, Failure, ServerTest, enter_spaces, has_fuse,
                      is_mounted, libc, mount, serve, shell, start, text, trust, until)

COMPOSED, DECOMPOSED = "\u00e9", "e\u0301"
# The daemon has to ignore its environment, and a blocked signal that it inherits.
STARTER = ["env", "http_proxy=http://127.0.0.1:9", "https_proxy=http://127.0.0.1:9", "FUSE_THREAD_STACK=16384",
           "--block-signal=RTMIN"]
AUTO = ["-f", "-o", "auto_unmount"]
UNDER_TSAN = "TSAN_OPTIONS" in os.environ
# This user may not be able to read the file of suppressions, and needs none of them.
OTHER_USER = ["env", "-u", "TSAN_OPTIONS"]
OTHER_USER += ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"] if os.geteuid() == 0 else []
OTHER_USER += ["setpriv", "--pdeathsig", "KILL"]  # which a change of user takes back


def one_answer(status: str, body: str, length: int | None = None) -> str:
    """Starts a server that takes one request, answers it and is gone. Returns its URL."""
    listener = socket.create_server(("127.0.0.1", 0))

    def serve_once():
        with listener, listener.accept()[0] as connection:
            connection.recv(10000)
            connection.sendall(f"HTTP/1.1 {status}\r\nContent-Length: {length or len(body)}\r\n\r\n{body}".encode())
    threading.Thread(target=serve_once, daemon=True).start()
    return f"http://127.0.0.1:{listener.getsockname()[1]}/"


@unittest.skipUnless(has_fuse(), "nothing can be mounted: there is no /dev/fuse to use")
class MountTest(ServerTest):
    def setUp(self):
        super().setUp()
        if os.geteuid() == 0:
            enter_spaces()  # a disk lives as long as anybody's copy of its mount
        self.disk = self.scratch + "/disk"
        os.mkdir(self.disk)
        libc.prctl(PR_SET_CHILD_SUBREAPER, 1)  # a daemon that goes to the background comes to us

    def start(self, options, *starter, vfs=VFS):
        command = [*starter, *STARTER, vfs, self.url, "Documents (storage)", *options, os.path.basename(self.disk)]
        self.daemon = start(command, self.disk, cwd=self.scratch)

    def mount(self, options=("-f",), *starter, **program):
        self.start(options, *starter, **program)
        if "-f" not in options and "-d" not in options:  # it goes to the background
            self.daemon.finish()
            self.daemon.pid = int(text("/proc/thread-self/children").split()[-1])
            self.daemon.returncode = None
        self.until_mounted()

    def until_mounted(self):
        until(lambda: is_mounted(self.disk) and os.access(self.disk + "/.", os.F_OK), self.daemon)

    def until_asked(self):  # until bytes of a request wait in the frozen server's socket
        port = int(re.search(r":(\d+)/", self.url)[1])
        until(lambda: re.search(rf":{port:04X} \S+ \w\w \w+:0*[1-9A-F]", text("/proc/net/tcp")), self.daemon)

    def ended(self, status):
        self.daemon.finish(status, 30)
        until(lambda: not is_mounted(self.disk))

    def failed(self, line):
        self.daemon.wait()
        if os.geteuid() != 0:  # only root's dead disks are found by every release's -o auto_unmount
            shell(f"fusermount -u -z {self.disk}")
        self.ended(1)
        self.assertIn(line, text(self.disk + ".out"))

    def unmount(self):
        self.check(f"fusermount -u {self.disk}")
        self.ended(0)

    def same(self, command, one, other):
        self.assertEqual(shell(f"cd {one} && {command}"), shell(f"cd {other} && {command}"))

    # If root runs the test, the server runs as another user. The client needs a name and a password.
    def test_programs(self):
        local, state = self.scratch + "/local", self.scratch + "/state"
        self.check(f"""mkdir {local} {state} && cp {STORAGE} {state} && echo 'ann:p:w@/' >{state}/users &&
            chmod 600 {state}/users && chmod 711 {self.scratch} &&
            if [ $(id -u) = 0 ]; then chown -R 65534 {state} {self.tree}; fi""")
        options = "--users {0}/users --secret-file {0}/secret --log {0}/log".format(state)
        server = [*OTHER_USER, state + "/kelvane_storage", *options.split()]
        self.serve(*server)
        url = self.url
        self.url = url.replace("//", "//ann:p%3Aw%40%2F@")
        self.mount()
        self.assertNotIn("http", text(f"/proc/{self.daemon.pid}/cmdline"))
        self.same(f"bash {os.path.dirname(os.path.abspath(__file__))}/programs.sh", local, self.disk)
        self.unmount()
        self.end_server()
        self.assertNotRegex(text(state + "/log"), " (400|401|403|421) ")
        self.assertEqual(os.stat(state + "/secret").st_mode & 0o777, 0o600)
        self.serve(*server)
        self.assertEqual(self.url[-24:], url[-24:])
        self.end_server()
        self.check(f"chown -R $(id -u):$(id -g) {self.tree}")
        self.serve()
        self.check(f"sync; diff -r --exclude .git {local} {self.tree}")
        look = (r"find . -mindepth 1 -printf '%p %y %s %b %m %n %U %G %A@ %T@ %C@\n' | sed 's/\.0\{10\}//g' | sort;"
                r"find . -type f | sort | xargs -d '\n' md5sum; df --output=size . | tail -n 1")
        # Whole seconds, and times of access that stay.
        shell(f"cd {self.tree} && touch -m -d @1 log; touch -a -d @2 doc; {look}")
        self.mount()
        self.same(look.replace("@", "s"), self.tree, self.disk)
        self.unmount()

    def test_cost_in_requests(self):
        self.check(f"cd {self.tree} && mkdir {{1..20}} && touch {{1..20}}/{{1..20}} && cd 1 && touch {{1..2000}}")
        self.serve()
        self.mount()
        self.check(f"cd {self.disk} && find | wc -l && find -ls | wc -l", ("2401\n2401\n", 0))
        self.check(f"dd if=/dev/zero of={self.disk}/new bs=1M count=1 status=none")
        trace = text(self.disk + ".err")
        lines = (r"query: \(null\)", "query: action=props", "\nkelvane_write:")
        self.assertEqual([len(re.findall(line, trace)) for line in lines], [21, 2, 8])
        self.unmount()

    def test_read_ahead_fits_the_distance(self):
        for options, far in ((), range(4864, 8193)), (("-o", "max_readahead=65536"), [64]), (["-s"], [128]):
            self.serve()
            self.freeze()
            self.start(["-f", *options])
            self.until_asked()
            time.sleep(0.02)  # the first reply takes at least this long
            self.server.send_signal(signal.SIGCONT)
            self.until_mounted()
            device = os.stat(self.disk).st_dev
            setting = f"/sys/class/bdi/{os.major(device)}:{os.minor(device)}/read_ahead_kb"
            self.assertIn(int(text(setting)), far if os.access(setting, os.W_OK) or options else [128])
            self.unmount()
            self.end_server()

    def test_spellings(self):
        self.check(f"cd {self.tree} && echo old >{COMPOSED} && mkdir 'dir {DECOMPOSED}'")
        self.serve()
        self.mount()
        for change in (f"cat {DECOMPOSED} >/dev/null && echo longer >{DECOMPOSED}", f"printf more >>{DECOMPOSED}",
                       f"truncate -s 3 {DECOMPOSED}", f"mv {DECOMPOSED} 'dir {COMPOSED}/{DECOMPOSED}'",
                       f"mkdir 'dir {COMPOSED}/sub' && touch 'dir {DECOMPOSED}/sub/f'", f"rm -r 'dir {COMPOSED}/sub'",
                       f"mv 'dir {COMPOSED}' plain", f"rm plain/{COMPOSED}"):
            self.check(f"cd {self.disk} && {change}")
            look = (r"find . -mindepth 1 -type d -print -o -printf '%p %y %s %Ts\n' | "
                    f"sed s/{DECOMPOSED}/{COMPOSED}/g | sort; find . -type f -print0 | xargs -0 cat")
            self.same(look, self.tree, self.disk)
        self.unmount()

    # However the daemon is stopped, idle or busy: acknowledged data are on the server.
    def test_stops(self):
        # ThreadSanitizer holds signals back in a process that was forked off several threads.
        modes = [["-f"], ["-f", "-s"]] + ([] if UNDER_TSAN else [["-d"], [], ["-s"]])
        self.serve()
        ways = (0, signal.SIGINT, signal.SIGTERM, signal.SIGHUP)  # 0: unmounted
        for mode, way, is_busy in itertools.product(modes, ways, (False, True)):
            with self.subTest(mode=mode, way=way, is_busy=is_busy):
                self.stop(mode, way, is_busy)

    def stop(self, mode, way, is_busy):
        self.mount(mode)
        written, acknowledged = os.urandom(2 << 20), [0]

        def write(file):
            with contextlib.suppress(OSError), open(file, "wb", buffering=0) as disk:
                while acknowledged[0] < len(written):
                    acknowledged[0] += disk.write(written[acknowledged[0]:acknowledged[0] + 20000])
        threads = []
        if is_busy:
            # Opened while the disk is there: a write must not go to the directory below it afterwards.
            file = os.open(self.disk + "/file", os.O_CREAT | os.O_WRONLY | os.O_TRUNC)
            look = f"while ls -lR {self.disk} && cat {self.disk}/file; do :; done >/dev/null"
            threads = [threading.Thread(target=write, args=[file])]
            threads += [threading.Thread(target=shell, args=[look])] * (way > 0)
        for thread in threads:
            thread.start()
        until(lambda: acknowledged[0] or not is_busy)
        if way:
            self.send(way)
        else:
            until(lambda: shell(f"fusermount -u {self.disk}")[1] == 0)
        self.ended(1 if way else 0)
        for thread in threads:
            thread.join()
        if is_busy:
            with open(self.tree + "/file", "rb") as file:
                self.assertTrue(file.read(acknowledged[0]) == written[:acknowledged[0]])
        elif way and "-f" in mode:
            lines = (f"handleSignal: {int(way)}", "stopping fuse for mount point disk",
                     "handleSignal: write result = 1", "got packet from signalHandler, trying to exit...",
                     "(.*\n)*kelvane_vfs exiting\n$")
            self.assertRegex(text(self.disk + ".out"), "\n".join(lines))

    # The server takes a request and answers none from now on.
    def freeze_in_a_request(self):
        self.freeze()
        reader = start(["ls", self.disk + "/directory"], self.scratch + "/reader")
        self.until_asked()
        return reader

    def send(self, *ways):
        for way in ways:
            os.kill(self.daemon.pid, way)

    # The first signal cannot end the loop. The process ends while threads of the FUSE library still run. However the
    # mount point is written, the daemon detaches its disk.
    def test_stops_twice(self):
        os.environ["TSAN_OPTIONS"] = os.environ.get("TSAN_OPTIONS", "") + ":report_thread_leaks=0"
        self.disk = self.scratch + "/a disk"
        for name in "a disk", "attr_timeout=1":
            os.mkdir(f"{self.scratch}/{name}")
        for mode in [["-f"], ["-f", "-s"], AUTO, ["-f", "-o", "attr_timeout=1"]] + ([] if UNDER_TSAN else [[], ["-s"]]):
            with self.subTest(mode=mode):
                self.serve()
                self.mount(mode)
                reader = self.freeze_in_a_request()
                self.send(signal.SIGINT, signal.SIGTERM)
                self.ended(1)
                self.assertNotEqual(reader.wait(), 0)
                self.end_server()

    def test_spares_a_disk_that_took_its_place(self):
        self.serve()
        self.mount()
        self.freeze_in_a_request()
        self.check(f"fusermount -u -z {self.disk}")
        server = serve([STORAGE, self.tree], self.scratch + "/other_server")
        disk = mount([VFS, server.url, "Other", "-f", self.disk], self.disk, self.scratch + "/other_disk")
        self.send(signal.SIGINT, signal.SIGTERM)
        self.daemon.finish(1, 30)
        self.check(f"fusermount -u {self.disk}")
        disk.finish()
        server.end(status=0)

    # Two signals may have one cause: the loop has some time to end. If it does not, one signal is enough after some
    # more time. In the daemon with the fast clock, the first time is long and the second short.
    def test_grace_and_patience(self):
        for *signals, is_answered in ((signal.SIGINT, signal.SIGTERM, True), (signal.SIGINT, False)):
            self.serve()
            self.mount(vfs=VFS + "_fast")
            self.freeze_in_a_request()
            self.send(*signals)
            if is_answered:
                time.sleep(0.3)
                self.assertIsNone(self.daemon.poll())
                self.server.send_signal(signal.SIGCONT)
            self.ended(1)
            self.assertEqual("kelvane_vfs exiting" in text(self.disk + ".out"), is_answered)
            self.end_server()

    # A trace that nobody reads, and no streams at all.
    def test_streams(self):
        self.serve()
        os.mkfifo(self.disk + ".out")
        for starter in ((), ("sh", "-c", 'exec "$@" <&- >&- 2>&-', "sh")):
            reader = os.open(self.disk + ".out", os.O_RDONLY | os.O_NONBLOCK)
            self.mount(["-f"], *starter)
            os.close(reader)
            self.check(f"cd {self.disk} && echo text >file && cat file && ls", ("text\nfile\n", 0))
            self.unmount()

    def test_what_is_wrong(self):
        shell(f"printf 'me:secret\\nreader:secret:ro\\n' >{self.scratch}/users; chmod 600 {self.scratch}/users")
        self.serve(STORAGE, "--no-secret", "--users", self.scratch + "/users")
        for url, words, status in (
                (self.url.replace("//", "//me:secret@"), "the disk can be mounted\n", 0),
                (self.url.replace("//", "//reader:secret@"), "refuses changes: mount the disk with -o ro", 0),
                (self.url.replace("http", "https"), "no HTTPS connection", 75),
                (self.url, "401: wrong name or password", 78),
                (self.url.replace("//", "//me:secret@") + "x/", "404: wrong base URL", 78),
                (self.url.rstrip("/"), "needs a slash", 78), ("http://127.0.0.1:9/", "no connection to ", 75),
                (one_answer('200 OK', '{"m":16877}'), "", 0), (one_answer("200 OK", "{}"), "not with attributes", 78),
                (one_answer("200 OK", "m"), "not with attributes", 78), (one_answer("503 No", ""), "503: ", 75),
                (one_answer("302 Found", ""), "302: ", 78), (one_answer("418 No", ""), "418: ", 78),
                (one_answer("200 OK", "{", 9), "no connection to ", 75)):
            said, ended = shell(f"printf %s '{url}' | {TOP}/packaging/kelvane_check")
            self.assertEqual((words in said, "secret" in said, ended), (True, False, status), said)
            self.assertEqual("refuses changes" in said, "reader" in url, said)

    # The helper of mount(8) says "mounted" only when there is a disk.
    def test_mount_helper(self):
        self.serve()
        helper = f"PATH={BIN}:{TOP}/packaging:$PATH mount.kelvane_vfs"
        self.check(f"{helper} {self.url} {self.disk} && {helper} {self.url} {self.disk} && ls {self.disk}")
        self.mounts_nothing(helper, self.url.replace("127.0.0.1", "localhost"), "mounted at")
        self.check(f"fusermount -u {self.disk}")
        self.mounts_nothing(helper, "http://127.0.0.1:9/", "no connection")
        self.mounts_nothing(helper, one_answer("200 OK", '{"m":16877}'), "nothing is mounted")

    def mounts_nothing(self, helper, url, words):
        before = text("/proc/self/mounts").count(self.disk)
        said, status = shell(f"{helper} {url} {self.disk}")
        self.assertEqual((words in said, status, text("/proc/self/mounts").count(self.disk)), (True, 32, before), said)

    def test_lost_server(self):
        for _ in range(5):
            self.serve()
            os.truncate(os.open(self.tree + "/big", os.O_CREAT | os.O_WRONLY), 1 << 30)
            self.mount(AUTO)
            # The kernel closes the highest number first. If that were not the disk's device, the helper of auto_unmount
            # could still find a live disk, and leave it mounted.
            held = f"/proc/{self.daemon.pid}/fd/"
            self.assertEqual(os.readlink(held + max(os.listdir(held), key=int)), "/dev/fuse")
            reader = start(["cat", self.disk + "/big"], self.scratch + "/reader")
            until(lambda: os.path.getsize(self.scratch + "/reader.out"))
            self.server.kill()
            self.server = self.server.wait() and None
            self.failed("CURL error: ")
            self.assertNotEqual(reader.wait(), 0)
            self.start(AUTO)
            self.failed("CURL error: Could")

    # When a disk below the server does not answer (here one of ours), only those who ask for its files wait.
    def test_frozen_disk_below_a_server(self):
        self.check(f"echo content >{self.tree}/file")
        self.serve()
        self.mount()
        self.freeze()
        outer = serve([STORAGE, self.scratch], self.scratch + "/outer")
        url = outer.url
        waiting = [start(["curl", "-s", url + "%2Fdisk%2Ffile"], f"{self.scratch}/{client}") for client in range(8)]
        for _ in range(30):
            self.check(f"curl -s {url}%2Ftree%2Ffile", ("content\n", 0))
        self.assertEqual([client.poll() for client in waiting], [None] * 8)
        os.kill(self.server.pid, signal.SIGCONT)
        self.assertEqual([client.wait() for client in waiting], [0] * 8)
        outer.end(status=0)
        self.unmount()

    def test_certificates(self):
        self.make_certificate()
        self.check(f"seq 200000 >{self.tree}/big")
        self.serve(STORAGE, *"--tls-cert {0}/cert --tls-key {0}/key".format(self.scratch).split())
        self.start(AUTO)
        self.failed("CURL error: SSL peer certificate or SSH remote key was not OK\n")
        try:
            enter_spaces()
        except Failure as failure:
            self.skipTest(f"no certificate can be made a trusted one: {failure}")
        trust(self.scratch + "/cert")
        self.mount()
        self.check(f"cmp {self.tree}/big {self.disk}/big && cp {self.disk}/big {self.disk}/copy")
        self.unmount()
        self.check(f"cmp {self.tree}/big {self.tree}/copy")
