"""What the tests of the programs share: child processes that end with the test, and a served directory. Nothing here
looks at a clock: a test that hangs is ended by ctest, and its children end with it."""
import os, shutil, signal, subprocess, tempfile, time, unittest

STORAGE, VFS = (os.path.join(os.environ["KELVANE_BIN"], name) for name in ("kelvane_storage", "kelvane_vfs"))
TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
# The FUSE library leaves its own records behind when its loop is ended in the middle of requests, and the leak check
# itself hangs now and then at the end of a program that has had threads. The tests of calls look for leaks.
os.environ["ASAN_OPTIONS"] = os.environ.get("ASAN_OPTIONS", "") + ":detect_leaks=0"
UNSHARE = "unshare -m" if os.geteuid() == 0 else "unshare -rm"

def start(command, log):  # what the program writes goes to LOG.out and LOG.err
    with open(log + ".out", "wb") as out, open(log + ".err", "wb") as err:
        return subprocess.Popen(["setpriv", "--pdeathsig", "KILL", *command], stdout=out, stderr=err)

def shell(command):  # returns what the command wrote, and its status
    done = subprocess.run(["bash", "-c", command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.stdout.decode(errors="replace"), done.returncode

def text(name):
    with open(name, encoding="latin-1", newline="") as file:
        return file.read()

def until(condition):
    while not condition():
        time.sleep(0.005)

class ServerTest(unittest.TestCase):
    maxDiff = 5000

    def setUp(self):
        os.umask(0o022)
        self.scratch = tempfile.mkdtemp(prefix="kelvane-", dir=os.environ.get("KELVANE_TEST_ROOT"))
        self.tree, self.server = self.scratch + "/tree", None
        os.mkdir(self.tree)

    def tearDown(self):
        self.end_server()
        shutil.rmtree(self.scratch)

    def serve(self, *command):
        self.server = start([*(command or [STORAGE]), self.tree], self.scratch + "/server")
        until(lambda: text(self.scratch + "/server.out").endswith("\n") or self.server.poll() is not None)
        self.assertIsNone(self.server.poll(), text(self.scratch + "/server.err"))
        self.url = text(self.scratch + "/server.out").rstrip("\n")

    def freeze(self):
        self.server.send_signal(signal.SIGSTOP)
        os.waitpid(self.server.pid, os.WUNTRACED)  # it may take one more request on its way

    def end_server(self, status=0):
        if self.server:
            self.server.terminate()
            self.server.send_signal(signal.SIGCONT)
            self.assertEqual(self.server.wait(), status, text(self.scratch + "/server.err"))
            self.server = None

    def make_certificate(self):
        self.check(f"cd {self.scratch} && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                   "-days 2 -subj /CN=test -addext subjectAltName=IP:127.0.0.1 -keyout key -out cert 2>/dev/null")

    def check(self, command, expected=("", 0)):
        self.assertEqual(shell(command), expected, command)
