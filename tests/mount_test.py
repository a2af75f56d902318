"""The daemon and the server as their users run them: real processes, a real mount, real programs."""
import concurrent.futures
import contextlib
import itertools
import os
import re
import signal
import socket
import threading
import time
import unittest

from programs import (AUTHORITIES, BIN, PR_SET_CHILD_SUBREAPER, STORAGE, TOP, VFS, Program, ServerTest, bind,
                      enter_spaces, has_fuse, is_mounted, libc, make_certificate, mount, mount_points, serve, shell,
                      text, until, until_mounted)

os.environ["PATH"] = f"{BIN}:{TOP}/packaging:{TOP}/tools:" + os.environ["PATH"]
# The daemon has to ignore its environment, and a blocked signal that it inherits.
STARTER = ["env", "--block-signal=RTMIN", "http_proxy=http://127.0.0.1:9", "https_proxy=http://127.0.0.1:9",
           "FUSE_THREAD_STACK=16384"]
NO_STREAMS = ["bash", "-c", 'exec "$0" "$@" <&- >&- 2>&-']
NO_READER = ["bash", "-c", 'exec "$0" "$@" > >(head -c 2000) 2>&1']  # of the trace, after a while
# ThreadSanitizer holds signals back in a process that was forked off several threads.
BACKGROUND = ["", "-s"] if "TSAN_OPTIONS" not in os.environ else []
AUTO = "-f -o auto_unmount"
NOBODY = "http://127.0.0.1:9/"
TWICE = signal.SIGINT, signal.SIGTERM


# Starts a server that takes one request, answers it and is gone. Returns its URL.
def one_answer(status: str, body: str = "", length: int | None = None) -> str:
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
        self.disk, self.daemon = self.scratch + "/a disk", None
        os.mkdir(self.disk)
        libc.prctl(PR_SET_CHILD_SUBREAPER, 1)  # a daemon that goes to the background comes to us
        self.addCleanup(self.end_disk)

    def end_disk(self):  # whose status also tells what a sanitizer has found
        if self.daemon and self.daemon.poll() is None:
            self.unmount()

    def start(self, options, starter=(), vfs=VFS):
        command = [*starter, *STARTER, vfs, self.url, "Documents (storage)", *options.split(), "a disk"]
        self.daemon = Program(command, self.scratch + "/daemon", cwd=self.scratch)

    def mount(self, options="-f", *starter, **program):
        if not self.server:
            self.serve()
        self.start(options, *starter, **program)
        if options in BACKGROUND:
            self.daemon.finish()
            self.daemon.pid = int(text("/proc/thread-self/children").split()[-1])
            self.daemon.returncode = None
        until_mounted(self.disk, self.daemon)

    def freeze(self):
        self.server.send_signal(signal.SIGSTOP)
        os.waitpid(self.server.pid, os.WUNTRACED)  # it may take one more request on its way

    def until_asked(self):  # until bytes of a request wait in the frozen server's socket
        port = int(re.search(r":(\d+)/", self.url)[1])
        until(lambda: re.search(rf":{port:04X} \S+ \w\w \w+:0*[1-9A-F]", text("/proc/net/tcp")), self.daemon)

    def ended(self, status):
        self.daemon.finish(status, 30)
        until(lambda: not is_mounted(self.disk))

    def failed(self, line):
        self.daemon.finish(1, 30)
        if os.geteuid() != 0:  # only root's dead disks are found by every release's -o auto_unmount
            shell(f"fusermount -u -z '{self.disk}'")
        self.ended(1)
        self.assertIn(line, text(self.daemon.log + ".out"))

    def unmount(self):
        self.check(f"fusermount -u '{self.disk}'")
        self.ended(0)

    def same(self, command, other):
        self.assertEqual(shell(f"cd '{self.disk}' && {command}"), shell(f"cd {other} && {command}"))

    # The client needs a name and a password.
    def test_programs(self):
        local = self.scratch + "/local"
        self.check(f"cd {self.scratch} && mkdir local && umask 077 && echo 'ann:p:w@/' >users")
        self.serve(STORAGE, *"--users {0}/users --secret-file {0}/secret --log {0}/log".format(self.scratch).split())
        self.url = self.url.replace("//", "//ann:p%3Aw%40%2F@")
        self.mount()
        self.assertNotIn("http", text(f"/proc/{self.daemon.pid}/cmdline"))
        self.same(f"bash {TOP}/tests/programs.sh", local)
        self.assertNotRegex(text(self.scratch + "/log"), " (400|401|403|421) ")
        self.assertEqual(os.stat(self.scratch + "/secret").st_mode & 0o777, 0o600)
        self.unmount()
        # Whole seconds, and times of access that stay.
        self.check(f"""sync; diff -r --exclude .git {local} {self.tree}; cd {self.tree} && touch -m -d @1 log &&
            touch -a -d @2 doc && find -type f -exec cat {{}} + >/dev/null""")
        self.mount()
        self.same(r"""find . -mindepth 1 -printf '%p %y %s %b %m %n %U %G %As %Ts %Cs\n' | sort; df --output=size . |
            tail -n 1; find . -type f -print0 | sort -z | xargs -0 md5sum""", self.tree)

    def test_cost_in_requests(self):
        self.check(f"cd {self.tree} && mkdir {{1..20}} && touch {{1..20}}/{{1..20}} && cd 1 && touch {{1..2000}}")
        self.mount()
        self.check(f"cd '{self.disk}' && find | wc -l && find -ls | wc -l && head -c 1M /dev/zero | dd obs=1M of=new "
                   "status=none", ("2401\n2401\n", 0))
        trace = text(self.daemon.log + ".err")
        self.assertEqual([trace.count(line) for line in ("query: (null)", "query: action=props", "\nkelvane_write:")],
                         [21, 2, 8])

    def test_read_ahead_fits_the_distance(self):
        for options, far in ("-f", range(4864, 8193)), ("-f -o max_readahead=65536", [64]), ("-f -s", [128]):
            self.serve()
            self.freeze()
            self.start(options)
            self.until_asked()
            time.sleep(0.02)  # the first reply takes at least this long
            self.server.send_signal(signal.SIGCONT)
            until_mounted(self.disk, self.daemon)
            device = os.stat(self.disk).st_dev
            setting = f"/sys/class/bdi/{os.major(device)}:{os.minor(device)}/read_ahead_kb"
            self.assertIn(int(text(setting)), far if os.access(setting, os.W_OK) or options != "-f" else [128])
            self.unmount()

    def test_spellings(self):
        names = "C=\u00e9 D=e\u0301; "
        self.check(f"{names} cd {self.tree} && echo old >$C && mkdir dir.$D")
        self.mount()
        for change in ("cat $D && echo longer >$D", "printf more >>$D", "truncate -s 3 $D", "mv $D dir.$C/$D",
                       "mkdir dir.$C/sub && touch dir.$D/sub/f", "rm -r dir.$C/sub", "mv dir.$C plain", "rm plain/$C"):
            self.check(f"{names} (cd '{self.disk}' && {change}) >/dev/null")
            self.same(f"{names} find . -mindepth 1 -type d -print -o -printf '%p %y %s %Ts\\n' | sed s/$D/$C/g | sort;"
                      "find . -type f -print0 | xargs -0 cat", self.tree)

    # However the daemon is started and stopped, idle or busy: acknowledged data are on the server.
    def test_stops(self):
        self.serve()
        modes = [("-f",), ("-f -s",), ("-f", NO_STREAMS), ("-f", NO_READER)]
        modes += [(options,) for options in BACKGROUND + ["-d"] * bool(BACKGROUND)]
        ways = (0, signal.SIGINT, signal.SIGTERM, signal.SIGHUP)  # 0: unmounted
        for mode, way, is_busy in itertools.product(modes, ways, (False, True)):
            with self.subTest(mode=mode, way=way, is_busy=is_busy):
                self.stop(mode, way, is_busy)

    def stop(self, mode, way, is_busy):
        self.mount(*mode)
        # Opened while the disk is there: a write must not go to the directory below it afterwards.
        file, acknowledged = open(self.disk + "/file", "wb", buffering=0), []

        def write():
            with contextlib.suppress(OSError), file:
                for line in range(100 * is_busy):
                    acknowledged.append(f"{line:20000}"[:file.write(b"%20000d" % line)])
        with concurrent.futures.ThreadPoolExecutor() as pool:
            pool.submit(write)
            if is_busy and way:
                pool.submit(shell, f"cd '{self.disk}'; while ls -lR && cat file; do :; done >/dev/null")
            until(lambda: acknowledged or not is_busy)
            if way:
                os.kill(self.daemon.pid, way)
            else:
                until(lambda: shell(f"fusermount -u '{self.disk}'")[1] == 0)
            self.ended(1 if way else 0)
        self.assertTrue(text(self.tree + "/file").startswith("".join(acknowledged)))
        if way and not is_busy and mode in (("-f",), ("-f -s",)):
            self.assertRegex(text(self.daemon.log + ".out"), rf"""handleSignal: {int(way)}
stopping fuse for mount point a disk\nhandleSignal: write result = 1
got packet from signalHandler, trying to exit\.\.\.\n(.*\n)*kelvane_vfs exiting\n$""")

    # The server takes a request and answers none, so the loop cannot end. Then the process ends while threads of the
    # FUSE library still run. Whatever the mount point is like, the daemon detaches its disk.
    def stop_in_a_request(self, *signals, options="-f", vfs=VFS, meanwhile=lambda: None):
        os.environ["TSAN_OPTIONS"] = os.environ.get("TSAN_OPTIONS", "") + ":report_thread_leaks=0"
        self.serve()
        self.mount(options, vfs=vfs)
        self.freeze()
        reader = Program(["ls", self.disk + "/directory"], self.scratch + "/reader")
        self.until_asked()
        for number in signals:
            os.kill(self.daemon.pid, number)
        meanwhile()
        self.daemon.finish(1, 30)
        self.assertNotEqual(reader.wait(), 0)
        return "kelvane_vfs exiting" in text(self.daemon.log + ".out")

    def test_stops_twice(self):
        os.mkdir(self.scratch + "/attr_timeout=1")
        for options in ["-f", "-f -s", AUTO, "-f -o attr_timeout=1"] + BACKGROUND:
            with self.subTest(options):
                self.stop_in_a_request(*TWICE, options=options)
                self.assertFalse(is_mounted(self.disk))

    # Two signals may have one cause: the loop has some time to end. If it does not, one signal is enough after some
    # more time. In the daemon with the fast clock, the first time is long and the second short.
    def test_grace_and_patience(self):
        def answer():
            time.sleep(0.3)
            self.server.send_signal(signal.SIGCONT)
        self.assertTrue(self.stop_in_a_request(*TWICE, vfs=VFS + "_fast", meanwhile=answer))
        self.assertFalse(self.stop_in_a_request(signal.SIGINT, vfs=VFS + "_fast"))

    def test_spares_a_disk_that_took_its_place(self):
        def replace():
            self.check(f"fusermount -u -z '{self.disk}'")
            server = serve([STORAGE, self.tree], self.scratch + "/other_server")
            mount([VFS, server.url, "Other", "-f", self.disk], self.disk, self.scratch + "/other_disk")
            for number in TWICE:
                os.kill(self.daemon.pid, number)
        self.stop_in_a_request(meanwhile=replace)
        self.check(f"ls '{self.disk}'; fusermount -u '{self.disk}'")

    def test_check(self):
        shell(f"printf 'me:secret\\nreader:secret:ro\\n' >{self.scratch}/users; chmod 600 {self.scratch}/users")
        self.serve(STORAGE, "--no-secret", "--users", self.scratch + "/users")
        url = self.url.replace("//", "//me:secret@")
        for url, words, status in (
                (url, "the disk can be mounted\n", 0), (self.url, "401: wrong name or password", 78),
                (url.replace("me", "reader"), "refuses changes: mount the disk with -o ro", 0),
                (self.url.replace("http", "https"), "no HTTPS connection", 75), (url + "x/", "404: wrong base URL", 78),
                (self.url.rstrip("/"), "needs a slash", 78), (NOBODY, "no connection to ", 75),
                (one_answer("200 OK", '{"m":16877}'), "", 0), (one_answer("200 OK", "{}"), "not with attributes", 78),
                (one_answer("200 OK", "m"), "not with attributes", 78), (one_answer("503 No"), "503: ", 75),
                (one_answer("302 Found"), "302: ", 78), (one_answer("418 No"), "418: ", 78),
                (one_answer("503 No", "{", 9), "503: ", 75), (one_answer("200 OK", "{", 9), "no connection to ", 75)):
            said, ended = shell(f"printf %s '{url}' | kelvane_check")
            self.assertEqual((words in said, "secret" in said, ended), (True, False, status), said)
            self.assertEqual("refuses changes" in said, "reader" in url, said)

    # The helper of mount(8) says "mounted" only when there is a disk.
    def test_mount_helper(self):
        self.serve()
        self.check(f"for i in 1 2; do mount.kelvane_vfs {self.url} '{self.disk}' && ls '{self.disk}'; done")
        for url, words, disks in ((self.url.replace("127.0.0.1", "localhost"), "mounted at", 1),
                                  (NOBODY, "no connection", 0),
                                  (one_answer("200 OK", '{"m":16877}'), "nothing is mounted", 0)):
            said, status = shell(f"mount.kelvane_vfs {url} '{self.disk}'")
            self.assertEqual((words in said, status, mount_points().count(self.disk)), (True, 32, disks), said)
            shell(f"fusermount -u '{self.disk}'")

    # The lines of the unit bring the disk of a daemon that has died back.
    def test_unit(self):
        self.mount()
        self.daemon.end(signal.SIGKILL)
        unit = text(TOP + "/packaging/kelvane_vfs@.service").replace("\\\n", "").replace("$$", "$").replace("%%", "%")
        lines = " && ".join(re.findall("ExecStart.*?=(.*)", unit))
        self.check(f"export BASE_URL={self.url} DISK_NAME=D MOUNT_POINT='{self.disk}'; ({lines}) >/dev/null; "
                   f"ls '{self.disk}' && fusermount -u '{self.disk}'")

    def test_lost_server(self):
        self.check(f"truncate -s 1G {self.tree}/big")
        self.mount(AUTO)
        # The kernel closes the highest number first. If that were not the disk's device, the helper of auto_unmount
        # could still find a live disk, and leave it mounted.
        held = f"/proc/{self.daemon.pid}/fd/"
        self.assertEqual(os.readlink(held + max(os.listdir(held), key=int)), "/dev/fuse")
        reader = Program(["cat", self.disk + "/big"], self.scratch + "/reader")
        until(lambda: os.path.getsize(reader.log + ".out"))
        self.server.kill()
        self.failed("CURL error: ")
        self.assertNotEqual(reader.wait(), 0)
        self.end_server(-signal.SIGKILL)
        self.start(AUTO)
        self.failed("CURL error: Could")

    def test_certificates(self):
        make_certificate(self.scratch)
        self.check(f"seq 200000 >{self.tree}/big")
        self.serve(STORAGE, *"--tls-cert {0}/cert --tls-key {0}/key".format(self.scratch).split())
        self.start(AUTO)
        self.failed("CURL error: SSL peer certificate or SSH remote key was not OK\n")
        if os.geteuid() != 0:
            enter_spaces()
        bind(self.scratch + "/cert", AUTHORITIES)
        self.mount()
        self.check(f"cd '{self.disk}' && cmp big {self.tree}/big && cp big copy && cmp copy {self.tree}/copy")
