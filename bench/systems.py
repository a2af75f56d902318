"""What is compared: the servers, how each system is mounted from them, and what its processes use."""
import contextlib
import dataclasses
import functools
import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Collection, Iterator, Sequence

from programs import Failure, Program, bind, make_certificate, say, serve, until

HERE, THERE = "127.0.0.1", "192.0.2.2"  # the addresses of servers, near and far


@dataclass
class Site:
    """Where a run takes place."""
    programs: Path  # the directory of the programs that are measured
    earlier: Path | None  # that of earlier ones, which may hold some of them
    work: Path  # everything that the run makes lies below this directory
    tls: bool
    rtt: float  # the milliseconds to the servers and back; 0: they listen on the loopback device
    far: int = 0  # process in the distant network
    urls: dict[str, str] = dataclasses.field(default_factory=dict)  # where each server serves

    @property
    def served(self) -> Path:
        return self.work / "served"

    @property
    def address(self) -> str:
        return THERE if self.far else HERE

    def program(self, name: str, before: bool = False) -> Path:
        return self.earlier / name if before and (self.earlier / name).exists() else self.programs / name

    def launch(self, name: str, *command: object) -> Program:
        """Starts a program of the distant network, if there is one."""
        return Program(self.command(*command), self.work / name)

    def command(self, *command: object) -> Sequence[object]:
        return ["nsenter", f"--net=/proc/{self.far}/ns/net", *command] if self.far else command


# Servers: one of each for the whole run, all on the same directory.


def start_storage(site: Site, name: str, before: bool = False) -> str:
    options = (["--tls-cert", site.work / "cert", "--tls-key", site.work / "key"] if site.tls
               else ["--behind-proxy"] if site.far else [])
    return serve(site.command(site.program("kelvane_storage", before), "--listen", site.address, *options, site.served),
                 site.work / name).url


def start_nginx(site: Site, name: str) -> str:
    directory = site.work / "nginx"
    directory.mkdir()
    kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
    tls = f"""
        ssl_certificate {site.work}/cert;
        ssl_certificate_key {site.work}/key;
        ssl_session_cache shared:sessions:1m;
"""
    (directory / "conf").write_text(f"""
user root;
worker_processes auto;
daemon off;
pid {directory}/pid;
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
events {{}}
http {{
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000;
    client_max_body_size 0;
    {" ".join(f"{kind}_temp_path {directory}/{kind};" for kind in kinds)}
    server {{
        listen {site.address}:8080{" ssl" if site.tls else ""};
        {tls if site.tls else ""}
        root {site.served};
        dav_methods PUT DELETE MKCOL COPY MOVE;
        dav_ext_methods PROPFIND OPTIONS;
    }}
}}
""")
    server = site.launch(name, "nginx", "-c", directory / "conf", "-e", directory / "errors")
    until(lambda: socket.socket().connect_ex((site.address, 8080)) == 0, server)
    return f"{'https' if site.tls else 'http'}://{site.address}:8080/"


def start_sshd(site: Site, name: str) -> str:
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
    os.mkdir("/run/sshd")
    directory = site.work / "ssh"
    directory.mkdir(0o700)
    for key in ("host", "user"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", directory / key], check=True)
    (directory / "sshd_config").write_text(f"""
Port 2222
ListenAddress {site.address}
HostKey {directory}/host
PidFile none
UsePAM no
StrictModes no
PermitRootLogin yes
AuthorizedKeysFile {directory}/user.pub
Subsystem sftp internal-sftp
""")
    (directory / "ssh_config").write_text(f"""
IdentityFile {directory}/user
StrictHostKeyChecking no
UserKnownHostsFile /dev/null
BatchMode yes
""")
    server = site.launch(name, shutil.which("sshd") or "/usr/sbin/sshd", "-D", "-e", "-f", directory / "sshd_config")
    until(lambda: socket.socket().connect_ex((site.address, 2222)) == 0, server)
    return f"{site.address}:2222"


def go_far(site: Site) -> None:
    """Makes the distant network, in which the servers will be."""
    line = serve([site.programs / "distance", site.rtt], site.work / "distance")
    site.far = int(line.url)


def trust_certificate(site: Site) -> None:
    """Makes the servers' certificate and adds it to the system's authorities, as their users would do; the others stay,
    because a program may read them all. Only this run sees the addition."""
    authorities, added = site.work / "authorities", site.work / "added"
    authorities.mkdir()
    added.mkdir()
    make_certificate(site.work, f"IP:{site.address}")
    shutil.copy(site.work / "cert", added / "bench.crt")
    subprocess.run(["update-ca-certificates", "--etccertsdir", authorities, "--localcertsdir", added,
                    "--hooksdir", added], stdout=subprocess.DEVNULL, check=True)
    bind(authorities, "/etc/ssl/certs")


SERVERS = {"storage": start_storage, "before": functools.partial(start_storage, before=True),
           "nginx": start_nginx, "sshd": start_sshd}


def start_servers(site: Site, names: Collection[str | None]) -> None:
    """Starts the named servers, and at a distance the line to them."""
    if site.rtt:
        go_far(site)
    if site.tls:
        trust_certificate(site)
    for name, start in SERVERS.items():
        if name in names:
            try:
                site.urls[name] = start(site, name)
            except (OSError, Failure, subprocess.CalledProcessError) as error:
                say(f"without {name}: {error}")


# Systems: the command lines of mounts. `uncached` asks the kernel not to trust attributes and names.


def timeouts(uncached: bool) -> list[str]:
    return ["-o", "attr_timeout=0,entry_timeout=0"] if uncached else []


def kelvane(site: Site, point: Path, uncached: bool, options: str = "-f", server: str = "storage") -> list[object]:
    return [site.program("kelvane_vfs", server == "before"), site.urls[server], "Bench (compare)", *options.split(),
            *timeouts(uncached), point]


def pass_through(site: Site, point: Path, uncached: bool) -> list[object]:
    return [site.program("pass_through"), site.served, "-f", *timeouts(uncached), point]


def rclone(site: Site, point: Path, uncached: bool, mode: str = "off") -> list[object]:
    return ["rclone", "mount", ":webdav:", point, "--webdav-url", site.urls["nginx"], "--webdav-vendor", "other",
            "--config", site.work / "rclone.conf", "--cache-dir", site.work / f"cache{point.name}", "--vfs-cache-mode",
            mode, *(["--attr-timeout", "0s"] if uncached else [])]


def davfs2(site: Site, point: Path, _: bool) -> list[object]:
    cache = site.work / f"cache{point.name}"
    cache.mkdir()
    cache.chmod(0o777)  # davfs2 gives up root's rights
    settings = site.work / "davfs2.conf"
    # With its own buffer of 16 KiB it fails to list directories for newer kernels, which ask for more at once.
    settings.write_text(f"cache_dir {cache}\ncache_size 2048\nuse_locks 0\ndelay_upload 0\nask_auth 0\nbuf_size 256\n")
    settings.chmod(0o600)
    return ["mount.davfs", "-o", f"conf={settings}", site.urls["nginx"], point]


def sshfs(site: Site, point: Path, uncached: bool) -> list[object]:
    host, port = site.urls["sshd"].split(":")
    return ["sshfs", "-f", "-F", site.work / "ssh" / "ssh_config", "-p", port, f"{host}:{site.served}", point,
            *timeouts(uncached)]


@dataclass(frozen=True)
class System:
    colour: str  # in charts
    server: str | None
    command: Callable[[Site, Path, bool], list[object]]  # of its mount
    far: bool = True  # whether it is measured at a distance as well


SYSTEMS = {
    "kelvane": System("#1b6ca8", "storage", kelvane),
    "before": System("#b0c4d8", "before", functools.partial(kelvane, server="before")),
    "kelvane -s": System("#7fb2d9", "storage", functools.partial(kelvane, options="-f -s"), far=False),
    "rclone": System("#d1495b", "nginx", rclone),
    "rclone-writes": System("#e8a0a9", "nginx", functools.partial(rclone, mode="writes")),
    "davfs2": System("#edae49", "nginx", davfs2),
    "sshfs": System("#66a182", "sshd", sshfs),
    "pass-through": System("#8d96a3", None, pass_through, far=False),
}


# Mounts. The run has a name space of processes, so that also those are found that go to the background.


def stat_of(pid: str | int) -> list[str]:
    """The fields of /proc/PID/stat, from the state of the process on."""
    return Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()


def parents() -> dict[int, int]:
    """The parent of each process."""
    found = {}
    for pid in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            state, parent = stat_of(pid)[:2]
            if state != "Z":
                found[int(pid)] = int(parent)
    return found


@dataclass
class Usage:
    cpu: float = 0  # seconds
    peak: int = 0  # bytes
    resident: int = 0


@dataclass
class Mount:
    point: Path
    others: set[int]  # the processes that were there before
    first_listing: float = 0  # seconds from the start

    def processes(self) -> list[int]:
        """Its processes: the new ones, without those that the servers have started."""
        parent, mine = parents(), []
        for pid in parent.keys() - self.others:
            oldest = pid
            while oldest not in self.others and oldest in parent:
                oldest = parent[oldest]
            mine += [pid] if oldest in (os.getpid(), 1) else []  # the first process has what goes to the background
        return mine

    def usage(self) -> Usage:
        """What it has used so far, its helpers included."""
        used = Usage()
        for pid in self.processes():
            with contextlib.suppress(OSError, TypeError):  # it may have ended
                fields, status = stat_of(pid), Path(f"/proc/{pid}/status").read_text()
                used.cpu += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
                used.peak += int(re.search(r"VmHWM:\s+(\d+)", status)[1]) << 10
                used.resident += int(re.search(r"VmRSS:\s+(\d+)", status)[1]) << 10
        return used

    def files(self) -> set[str]:
        """Its programs and libraries."""
        names = set()
        for pid in self.processes():
            with contextlib.suppress(OSError):
                names.update(re.findall(r" (/.+)$", Path(f"/proc/{pid}/maps").read_text(), re.M))
        return set(filter(os.path.isfile, names))


def device(point: Path) -> int | None:
    with contextlib.suppress(OSError):
        return os.stat(point).st_dev


@contextlib.contextmanager
def mounted(site: Site, system: str, uncached: bool = False) -> Iterator[Mount]:
    """A fresh mount. At the end it is unmounted, and what it had to send has arrived."""
    point = Path(tempfile.mkdtemp(prefix="mount", dir=site.work))
    point.chmod(0o755)
    if SYSTEMS[system].server not in (None, *site.urls):
        raise Failure(f"{SYSTEMS[system].server} is not there")
    command = [str(word) for word in SYSTEMS[system].command(site, point, uncached)]
    mount, empty = Mount(point, set(parents())), device(point)
    # The daemon's trace goes where that of a daemon in the background goes.
    log = os.devnull if command[0].startswith((str(site.programs), str(site.earlier))) else site.work / f"{system}.log"
    try:
        with open(log, "w") as output:
            begin = time.perf_counter()
            program = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        while device(point) in (None, empty):
            if program.poll() or time.perf_counter() - begin > 30:
                raise Failure(f"{system} does not mount")
            time.sleep(0.0001)
        os.listdir(point)
        mount.first_listing = time.perf_counter() - begin
        yield mount
    finally:
        unmount(mount)


def unmount(mount: Mount) -> None:
    """Unmounts, waits until the processes have ended, and kills them after a minute."""
    command = 'for i in {1..20}; do timeout 60 umount "$0" && exit; sleep 0.1; done; umount -l "$0"'
    subprocess.run(["bash", "-c", command, mount.point], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with contextlib.suppress(Failure):
        until(lambda: not mount.processes(), seconds=60)
    for pid in mount.processes():
        os.kill(pid, signal.SIGKILL)
