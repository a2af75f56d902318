"""What is compared: the servers, how each system is mounted from them, and what its processes use."""
import contextlib
import functools
import os
import re
import shutil
import signal
import socket
import string
import subprocess
import tempfile
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Collection, Iterator

from programs import Failure, Program, bind, detach, is_mounted, make_certificate, say, serve, until


@dataclass
class Site:
    """Where a run takes place."""
    programs: Path  # the directory of the programs that are measured
    earlier: Path | None  # that of earlier ones, which may hold some of them
    work: Path  # everything that the run makes lies below this directory
    tls: bool
    rtt: float  # the milliseconds to the servers and back; 0: they listen on the loopback device
    far: list[str] = field(default_factory=list)  # what starts a command in the distant network, if there is one
    urls: dict[str, str] = field(default_factory=dict)  # where each server serves

    @property
    def served(self) -> Path:
        return self.work / "served"

    @property
    def address(self) -> str:
        return "192.0.2.2" if self.rtt else "127.0.0.1"

    def program(self, name: str, before: bool = False) -> Path:
        return self.earlier / name if before and (self.earlier / name).exists() else self.programs / name


# Servers: one of each for the whole run, all on the same directory.


def start_storage(site: Site, name: str = "storage") -> str:
    options = (["--tls-cert", site.work / "cert", "--tls-key", site.work / "key"] if site.tls
               else ["--behind-proxy"] if site.rtt else [])
    program = site.program("kelvane_storage", name == "before")
    return serve([*site.far, program, "--listen", site.address, *options, site.served], site.work / name).url


def start(site: Site, port: int, *command: object) -> str:
    """Starts a server, and returns its address when it listens."""
    server = Program([*site.far, *command], site.work / f"port{port}")
    until(lambda: socket.socket().connect_ex((site.address, port)) == 0, server)
    return f"{site.address}:{port}"


def start_nginx(site: Site) -> str:
    address = start(site, 8080, "nginx", "-c", site.work / "nginx.conf", "-e", "stderr")
    return f"{'https' if site.tls else 'http'}://{address}/"


def start_sshd(site: Site) -> str:
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    os.mkdir("/run/sshd")
    for key in ("host", "user"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", site.work / key], check=True)
    return start(site, 2222, "/usr/sbin/sshd", "-D", "-e", "-f", site.work / "sshd_config")


SERVERS = {"storage": start_storage, "before": functools.partial(start_storage, name="before"),
           "nginx": start_nginx, "sshd": start_sshd}


def write_settings(site: Site) -> None:
    """Writes what the programs of others read."""
    for file in Path(__file__).with_name("settings").iterdir():
        text = string.Template(file.read_text()).substitute(work=site.work, served=site.served, address=site.address,
                                                            ssl="ssl" if site.tls else "")
        (site.work / file.name).write_text(text)
    (site.work / "davfs2").mkdir()
    (site.work / "davfs2").chmod(0o777)  # davfs2 gives up root's rights


def trust_certificate(work: Path) -> None:
    """Adds the servers' certificate to the system's authorities, as their users would do: to the list of all, and to
    the directory in which an authority is found by its name. The others stay, because a program may read them all. Only
    this run sees the addition."""
    authorities, added = work / "authorities", work / "added"
    authorities.mkdir()
    added.mkdir()
    shutil.copy(work / "cert", added / "bench.crt")
    subprocess.run(["update-ca-certificates", "--etccertsdir", authorities, "--localcertsdir", added,
                    "--hooksdir", added], stdout=subprocess.DEVNULL, check=True)
    bind(authorities, "/etc/ssl/certs")


def start_servers(site: Site, names: Collection[str | None]) -> None:
    """Starts the named servers, and at a distance the line to them."""
    write_settings(site)
    make_certificate(site.work, f"IP:{site.address}")
    if site.tls:
        trust_certificate(site.work)
    if site.rtt:
        line = serve([site.programs / "distance", site.rtt], site.work / "distance")
        site.far = ["nsenter", f"--net=/proc/{line.url}/ns/net"]
    for name, start_server in SERVERS.items():
        if name in names:
            try:
                site.urls[name] = start_server(site)
            except (OSError, Failure, subprocess.CalledProcessError) as error:
                say(f"without {name}: {error}")


# Systems.


@dataclass(frozen=True)
class System:
    colour: str  # in charts
    server: str | None
    command: str  # that mounts it
    uncached: str = "-o attr_timeout=0,entry_timeout=0"  # asks the kernel not to trust attributes and names
    far: bool = True  # whether it is measured at a distance as well


RCLONE = ("rclone mount :webdav: {point} --webdav-url {url} --webdav-vendor other --config {work}/rclone.conf "
          "--cache-dir {point}.cache --vfs-cache-mode ")
SYSTEMS = {
    "kelvane": System("#1b6ca8", "storage", "{daemon} {url} Bench -f {point}"),
    "before": System("#b0c4d8", "before", "{daemon} {url} Bench -f {point}"),
    "kelvane -s": System("#7fb2d9", "storage", "{daemon} {url} Bench -f -s {point}", far=False),
    "rclone": System("#d1495b", "nginx", RCLONE + "off", "--attr-timeout 0s"),
    "rclone-writes": System("#e8a0a9", "nginx", RCLONE + "writes", "--attr-timeout 0s"),
    "davfs2": System("#edae49", "nginx", "mount.davfs -o conf={work}/davfs2.conf {url} {point}", ""),
    "sshfs": System("#66a182", "sshd", "sshfs -f -F {work}/ssh_config {address}:{served} {point}"),
    "pass-through": System("#8d96a3", None, "bindfs -f --multithreaded -o big_writes {served} {point}", far=False),
}


def command(site: Site, name: str, point: Path, uncached: bool) -> list[str]:
    system = SYSTEMS[name]
    values = {"daemon": site.program("kelvane_vfs", name == "before"), "url": site.urls.get(system.server),
              "address": site.address, "work": site.work, "served": site.served, "point": point}
    words = system.command.split() + (system.uncached.split() if uncached else [])
    return [word.format_map(values) for word in words]


# Mounts.


@dataclass
class Usage:
    cpu: float = 0  # seconds
    peak: int = 0  # bytes
    resident: int = 0


@dataclass
class Mount:
    point: Path
    first_listing: float = 0  # seconds from the start

    def processes(self) -> list[Path]:
        """Its processes in /proc, also in the background: all that have inherited their environment from it."""
        found = []
        for process in Path("/proc").glob("[0-9]*"):
            with contextlib.suppress(OSError):  # it may have ended
                if os.fsencode(f"MOUNT={self.point}") in (process / "environ").read_bytes():
                    found.append(process)
        return found

    def usage(self) -> Usage:
        """What it has used so far, its helpers included."""
        used = Usage()
        for process in self.processes():
            with contextlib.suppress(OSError, KeyError):  # it may have ended
                status = dict(re.findall(r"(\w+):\s+(\d+) kB", (process / "status").read_text()))
                used.peak += int(status["VmHWM"]) << 10
                used.resident += int(status["VmRSS"]) << 10
                fields = (process / "stat").read_text().rsplit(")", 1)[1].split()  # from the state of the process on
                used.cpu += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
        return used


@contextlib.contextmanager
def mounted(site: Site, name: str, uncached: bool = False) -> Iterator[Mount]:
    """A fresh mount. At the end it is unmounted, and what it had to send has arrived."""
    server = SYSTEMS[name].server
    if server not in (None, *site.urls):
        raise Failure(f"{server} is not there")
    mount = Mount(Path(tempfile.mkdtemp(prefix="mount", dir=site.work)))
    mount.point.chmod(0o755)
    # The daemon's trace goes where that of a daemon in the background goes.
    log = os.devnull if server in ("storage", "before") else site.work / f"{name}.log"
    try:
        with open(log, "w") as output:
            begin = time.perf_counter()
            program = subprocess.Popen(command(site, name, mount.point, uncached), stdin=subprocess.DEVNULL,
                                       stdout=output, stderr=output, env={**os.environ, "MOUNT": str(mount.point)})
        while not os.path.ismount(mount.point):
            if program.poll() or time.perf_counter() - begin > 30:
                raise Failure(f"{name} does not mount")
            time.sleep(0.0001)
        os.listdir(mount.point)
        mount.first_listing = time.perf_counter() - begin
        yield mount
    finally:
        unmount(mount)


def unmount(mount: Mount) -> None:
    """Unmounts, waits until the processes have ended, and kills them after a minute."""
    def is_done() -> bool:
        subprocess.run(["timeout", "-s", "KILL", "60", "umount", mount.point], stdout=subprocess.DEVNULL,
                       stderr=subprocess.DEVNULL)
        return not is_mounted(mount.point)
    with contextlib.suppress(Failure):
        until(is_done, seconds=60)
        until(lambda: not mount.processes(), seconds=60)
    detach(mount.point)
    for process in mount.processes():
        os.kill(int(process.name), signal.SIGKILL)
