"""What tests, benchmarks and scripts share: programs, servers, disks, name spaces, and a directory to work in."""
import contextlib
import ctypes
import multiprocessing
import os
import signal
import subprocess
import sys
import tempfile
import time
import unittest
from typing import Callable, Iterator, Sequence

TOP = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
BIN = os.environ.get("KELVANE_BIN", TOP + "/build/run")
STORAGE, VFS = BIN + "/kelvane_storage", BIN + "/kelvane_vfs"
PR_SET_PDEATHSIG, PR_SET_CHILD_SUBREAPER = 1, 36
NEW_MOUNTS, NEW_USERS, NEW_PROCESSES, NEW_NETWORK = 0x20000, 0x10000000, 0x20000000, 0x40000000
AUTHORITIES = "/etc/ssl/certs/ca-certificates.crt"  # the certificates that are trusted
libc = ctypes.CDLL(None, use_errno=True)


class Failure(Exception):
    """What went wrong, in words for the reader, with the end of a program's output."""


# Programs.

running: list["Program"] = []  # all that were started, ended ones too


# A program in a session of its own, which is killed when the thread that started it ends, whatever ends it. It writes
# to LOG.out and LOG.err, which are emptied first.
class Program(subprocess.Popen):
    def __init__(self, command: Sequence[object], log: str, **options):
        self.command, self.log, self.url = [str(word) for word in command], str(log), ""
        with open(self.log + ".out", "wb") as out, open(self.log + ".err", "wb") as err:
            super().__init__(["setpriv", "--pdeathsig", "KILL", *self.command], stdin=subprocess.DEVNULL, stdout=out,
                             stderr=err, start_new_session=True, **options)
        running.append(self)

    def failure(self, reason: str) -> Failure:
        output = "".join(text(self.log + name)[-5000:] for name in (".out", ".err"))
        return Failure(f"{' '.join(self.command)[:300]}: {reason}\n{output}")

    # Waits for its end; after the seconds it is killed. A Failure if its status is not the given one.
    def finish(self, status: int | None = 0, seconds: float | None = None) -> None:
        try:
            self.wait(seconds)
        except subprocess.TimeoutExpired:
            os.killpg(self.pid, signal.SIGKILL)
        if self.wait() != status and status is not None:
            raise self.failure(f"ended with status {self.returncode}")

    def end(self, number: int = signal.SIGTERM, status: int | None = None) -> None:
        self.send_signal(number)
        self.finish(status, 60)


# What a command of bash wrote to both streams, and its status.
def shell(command: str) -> tuple[str, int]:
    done = subprocess.run(["bash", "-c", command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    return done.stdout.decode(errors="replace"), done.returncode


# The bytes of a file, each as one character.
def text(name: str | os.PathLike) -> str:
    with open(name, encoding="latin-1", newline="") as file:
        return file.read()


# Returns when the condition holds. A Failure when one of the programs has ended before, or after the seconds.
def until(condition: Callable[[], object], *programs: Program, seconds: float = 30) -> None:
    last, failure = time.monotonic() + seconds, None
    while not condition():
        if failure:
            raise failure
        for program in programs:
            if program.poll() is not None:
                failure = program.failure(f"ended with status {program.returncode}")
        if time.monotonic() > last:
            failure = (programs[0].failure if programs else Failure)(f"waited {seconds} seconds")
        time.sleep(0.005)


# Servers and disks.


# Starts a server. Its `url` is what it prints when it is ready.
def serve(command: Sequence[object], log: str, **options) -> Program:
    server = Program(command, log, **options)
    until(lambda: text(server.log + ".out").endswith("\n"), server)
    server.url = text(server.log + ".out").rstrip("\n")
    return server


# The paths of what is mounted, of file systems of this kind, the last one first.
def mount_points(kind: str = "") -> list[str]:
    lines = os.fsdecode(text("/proc/self/mounts").encode("latin-1")).split("\n")[-2::-1]
    return [point.replace(r"\040", " ") for _, point, its_kind, *_ in (line.split(" ") for line in lines)
            if its_kind.startswith(kind)]


def detach(point: str) -> None:
    subprocess.run(["fusermount", "-u", "-z", "-q", point])


# Whether the mount table has the path. Looking at the disk itself could wait for its server.
def is_mounted(point: str | os.PathLike) -> bool:
    return os.path.abspath(point) in mount_points()


# Starts a daemon that stays in the foreground, and returns it when the disk answers.
def mount(command: Sequence[object], point: str | os.PathLike, log: str, **options) -> Program:
    daemon = Program(command, log, **options)
    until_mounted(point, daemon)
    return daemon


# Until the disk answers.
def until_mounted(point: str | os.PathLike, daemon: Program) -> None:
    until(lambda: is_mounted(point) and os.access(f"{point}/.", os.F_OK), daemon)


# Whether this user can mount a disk here.
def has_fuse() -> bool:
    return subprocess.run(["sh", "-c", ": <>/dev/fuse"], stderr=subprocess.DEVNULL).returncode == 0


# Writes the files key and cert, for a name (DNS:NAME or IP:ADDRESS), into the directory.
def make_certificate(directory: str | os.PathLike, name: str = "IP:127.0.0.1") -> None:
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes",
                    "-days", "2", "-subj", "/CN=test", "-addext", f"subjectAltName={name}", "-keyout", "key", "-out",
                    "cert"], cwd=directory, stderr=subprocess.DEVNULL, check=True)


# Shows a file or directory in another place; for name spaces of one's own.
def bind(source: str, target: str) -> None:
    subprocess.run(["mount", "--bind", source, target], check=True)


# Name spaces.


# Gives this process and what it starts name spaces of their own, in which an ordinary user is root. It must have one
# thread only. A Failure where the system forbids it.
def enter_spaces(kinds: int = NEW_MOUNTS) -> None:
    user, group = os.geteuid(), os.getegid()
    if libc.unshare(kinds | (NEW_USERS if user else 0)) != 0:
        raise Failure(f"no name spaces: {os.strerror(ctypes.get_errno())}")
    if user:
        for name, line in (("setgroups", "deny"), ("uid_map", f"0 {user} 1"), ("gid_map", f"0 {group} 1")):
            with open("/proc/self/" + name, "w") as file:
                file.write(line)
    subprocess.run(["mount", "--make-rslave", "/"], check=True)
    # A disk lives until it is unmounted in all name spaces that have it.
    for point in mount_points("fuse"):
        detach(point)


# Runs a function in a child process with mounts, a network and processes of its own, in a workplace. When it ends, or
# this process does, everything that it has started is ended. A Failure if it fails.
def in_spaces(story: Callable[[], None]) -> None:
    def enter() -> None:
        enter_spaces(NEW_MOUNTS | NEW_NETWORK)
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        libc.unshare(NEW_PROCESSES)
        sys.exit(forked(lambda: sys.exit(forked(tell))))  # the outer one is the first process there and reaps orphans

    def tell() -> None:
        subprocess.run(["mount", "-t", "proc", "proc", "/proc"], check=True)
        story()
    if status := forked(enter):
        raise Failure(f"ended with status {status}")


# Runs a function in a child process, to which it passes its own end on. Returns the status. Until then it waits for all
# children.
def forked(work: Callable[[], None]) -> int:
    def begin() -> None:
        libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
        running.clear()
        sys.stdin = open(0, closefd=False)  # which multiprocessing has replaced
        try:
            work()
        except Failure as failure:
            sys.exit(str(failure))
    child = multiprocessing.get_context("fork").Process(target=begin)
    child.start()
    try:
        while (ended := os.waitid(os.P_ALL, 0, os.WEXITED | os.WNOWAIT).si_pid) != child.pid:
            os.waitpid(ended, 0)
    finally:
        child.terminate()
        child.join()
    return child.exitcode


# What scripts say and do.


def say(line: str) -> None:
    print("== " + line, flush=True)


# Runs commands of the shell that know scripts/common.sh. If they fail, this program ends with their status.
def common(commands: str) -> None:
    if status := subprocess.call(["bash", "-c", f'. "{TOP}/scripts/common.sh" && {commands}', sys.argv[0]]):
        sys.exit(status)


# A new directory, cleaned up at the end, also after a signal. After a Failure its files are kept in build/logs/NAME,
# and this program ends with status 1.
@contextlib.contextmanager
def workplace(name: str, parent: str | None = None) -> Iterator[str]:
    def end(number, _):
        for each in signals:  # a second one does not disturb the cleaning, nor the programs that it uses
            signal.signal(each, lambda *_: None)
        signal.pthread_sigmask(signal.SIG_BLOCK, signals)
        sys.exit(128 + number)
    signals = (signal.SIGHUP, signal.SIGINT, signal.SIGPIPE, signal.SIGTERM)
    for each in signals:
        signal.signal(each, end)
    kept, work = f"{TOP}/build/logs/{name}", os.path.realpath(tempfile.mkdtemp(prefix=f"kelvane-{name}-", dir=parent))
    try:
        yield work
    except Failure as failure:
        keep = ('rm -rf "$0" && mkdir -p "$0" && find "$1" -maxdepth 1 -type f -exec cp -t "$0" {} + &&'
                'chown -R --reference="$2" "$2/build/logs"')
        subprocess.run(["bash", "-c", keep, kept, work, TOP], stderr=subprocess.DEVNULL)
        sys.exit(f"{os.path.basename(sys.argv[0])}: {failure}\nthe logs are in {kept}")
    finally:
        clean_up(work)


# Kills what was started, unmounts what is mounted below a directory, and removes the directory.
def clean_up(work: str) -> None:
    for program in running:
        if program.poll() is None:
            os.killpg(program.pid, signal.SIGKILL)
    for point in mount_points():
        if point.startswith(work + "/"):
            detach(point)
    for program in running:
        program.wait()
    running.clear()
    subprocess.run(["rm", "-rf", "--one-file-system", work])  # never through a disk that could not be unmounted


# Tests.


# A test with a scratch directory, and in it a directory that can be served.
class ServerTest(unittest.TestCase):
    maxDiff = 5000

    def setUp(self):
        os.umask(0o022)
        self.scratch = os.path.realpath(tempfile.mkdtemp(prefix="kelvane-", dir=os.environ.get("KELVANE_TEST_ROOT")))
        self.tree, self.server = self.scratch + "/tree", None
        os.mkdir(self.tree)
        self.addCleanup(clean_up, self.scratch)
        self.addCleanup(self.end_server)

    # Starts the server, or another command that serves the directory, after the end of the last one.
    def serve(self, *command: str) -> None:
        self.end_server()
        self.server = serve([*(command or [STORAGE]), self.tree], self.scratch + "/server")
        self.url = self.server.url

    def end_server(self, status: int = 0) -> None:
        if self.server:
            server, self.server = self.server, None
            server.terminate()
            server.send_signal(signal.SIGCONT)
            server.finish(status)

    def check(self, command: str, expected: tuple[str, int] = ("", 0)) -> None:
        self.assertEqual(shell(command), expected, command)
