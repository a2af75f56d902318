"""What is compared: the servers, how each system is mounted from them, and what its processes use."""
import contextlib
import itertools
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import time

build = None  # directory of the programs that are built here
work = None  # everything that a run makes lies below this directory
data = None  # what all servers serve
before = None  # directory of earlier programs
urls = {}  # server -> where it serves
mount_numbers = itertools.count()


def tool(name):
    return str(build / name)


def earlier(name):
    return before / name if (before / name).exists() else tool(name)


# Signals: a step that would leave something behind is finished first, and the clean-up is not interrupted.

ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
shields = 0
ended_by = 0


def end(number, _):
    global ended_by
    for each in ENDING:
        signal.signal(each, signal.SIG_IGN)
    ended_by = number
    if shields == 0:
        sys.exit(128 + number)


@contextlib.contextmanager
def shielded():
    """Delays the end by a signal until the work is done."""
    global shields, ended_by
    shields += 1
    try:
        yield
    finally:
        shields -= 1
        # Only once, because the clean-up that follows uses this function as well.
        if shields == 0 and ended_by != 0:
            number, ended_by = ended_by, 0
            sys.exit(128 + number)


# Processes: in sessions of their own, so that a Ctrl-C reaches the comparison alone.


def launch(command, log, **options):
    return subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stderr=log,
                            start_new_session=True, env={**os.environ, "HOME": str(work), "LC_ALL": "C.UTF-8"},
                            **options)


def fields_of(pid):
    """The fields of /proc/PID/stat, from the state of the process on."""
    return pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()


def processes_below(pid):
    parents = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            parents[int(entry)] = int(fields_of(entry)[1])
    below = [pid]
    for parent in below:
        below += [child for child, its_parent in parents.items() if its_parent == parent]
    return below[1:]


def stop(process):
    for number in (signal.SIGTERM, signal.SIGKILL):
        for pid in [*processes_below(process.pid), process.pid]:
            with contextlib.suppress(OSError):
                os.kill(pid, number)
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(5)
            return


def usage(process):
    """CPU seconds so far, peak and present memory in bytes of what was mounted, its helpers included."""
    cpu = peak = resident = 0
    for pid in processes_below(process.pid):
        with contextlib.suppress(OSError, TypeError):  # it may have ended
            fields = fields_of(pid)
            status = pathlib.Path(f"/proc/{pid}/status").read_text()
            cpu += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
            peak += int(re.search(r"VmHWM:\s+(\d+)", status)[1]) << 10
            resident += int(re.search(r"VmRSS:\s+(\d+)", status)[1]) << 10
    return cpu, peak, resident


def files_in_use(process):
    """The programs and libraries of what was mounted."""
    names = set()
    for pid in processes_below(process.pid):
        with contextlib.suppress(OSError):
            names.update(re.findall(r" (/.+)$", pathlib.Path(f"/proc/{pid}/maps").read_text(), re.M))
    return set(filter(os.path.isfile, names))


# Servers: one of each for the whole run, all on the same directory.


def start_storage(directory, _, log, program=None):
    server = launch([program or tool("kelvane_storage"), data], log, stdout=subprocess.PIPE, text=True)
    urls[directory.name] = server.stdout.readline().strip()
    return server


def start_before(directory, port, log):
    return start_storage(directory, port, log, earlier("kelvane_storage"))


def start_nginx(directory, port, log):
    kinds = ("client_body", "proxy", "fastcgi", "uwsgi", "scgi")
    (directory / "nginx.conf").write_text(f"""
{"user root;" if os.getuid() == 0 else ""}
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
        listen 127.0.0.1:{port};
        root {data};
        dav_methods PUT DELETE MKCOL COPY MOVE;
        dav_ext_methods PROPFIND OPTIONS;
    }}
}}
""")
    urls["nginx"] = f"http://127.0.0.1:{port}/"
    return launch(["nginx", "-c", directory / "nginx.conf", "-e", directory / "error.log"], log)


def start_sshd(directory, port, log):
    directory.chmod(0o700)
    for name in ("host", "user"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", directory / name], check=True)
    (directory / "sshd_config").write_text(f"""
Port {port}
ListenAddress 127.0.0.1
HostKey {directory}/host
PidFile none
UsePAM no
StrictModes no
PermitRootLogin yes
AuthorizedKeysFile {directory}/user.pub
Subsystem sftp internal-sftp
""")
    urls["sshd"] = f"127.0.0.1:{port}"
    (directory / "ssh_config").write_text(f"""
IdentityFile {directory}/user
StrictHostKeyChecking no
UserKnownHostsFile /dev/null
BatchMode yes
""")
    return launch([shutil.which("sshd") or "/usr/sbin/sshd", "-D", "-e", "-f", directory / "sshd_config"], log)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


def wait_for_port(port):
    for _ in range(100):
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
            return
        time.sleep(0.05)
    raise RuntimeError(f"nothing listens on port {port}")


def hold_back(stack, milliseconds):
    """Puts a relay before every server, which makes the server distant."""
    ports = {name: re.search(r"127\.0\.0\.1:(\d+)", url)[1] for name, url in urls.items()}
    relay = launch([tool("relay"), milliseconds, *ports.values()], None, stdout=subprocess.PIPE, text=True)
    stack.callback(stop, relay)
    for name, port in ports.items():
        urls[name] = urls[name].replace(f":{port}", f":{relay.stdout.readline().split()[1]}", 1)


def start_servers(stack, say, rtt):
    if os.getuid() == 0 and not os.path.isdir("/run/sshd"):
        os.mkdir("/run/sshd", 0o755)
        stack.callback(os.rmdir, "/run/sshd")
    starts = {"storage": start_storage, "nginx": start_nginx, "sshd": start_sshd}
    if before:
        starts["before"] = start_before
    for name, start in starts.items():
        directory = work / name
        directory.mkdir()
        port = free_port()
        log = stack.enter_context(open(directory / "log", "w"))
        try:
            with shielded():
                stack.callback(stop, start(directory, port, log))
            if name not in ("storage", "before"):
                wait_for_port(port)
        except (OSError, RuntimeError, subprocess.CalledProcessError) as error:
            say(f"without {name}: {error}")
            urls.pop(name, None)
    if rtt:
        with shielded():
            hold_back(stack, rtt)


# Systems: the command lines of mounts. `uncached` asks the kernel not to trust attributes and names.


def timeouts(uncached):
    return ["-o", "attr_timeout=0,entry_timeout=0"] if uncached else []


def kelvane_of(program, server, point, uncached, *options):
    return [program, urls[server], "Bench (compare)", "-f", *options, *timeouts(uncached), point]


def kelvane(point, uncached, *options):
    return kelvane_of(tool("kelvane_vfs"), "storage", point, uncached, *options)


def pass_through(point, uncached):
    return [tool("pass_through"), data, "-f", *timeouts(uncached), point]


def rclone(point, uncached, mode="off"):
    return ["rclone", "mount", ":webdav:", point, "--webdav-url", urls["nginx"], "--webdav-vendor", "other", "--config",
            work / "rclone.conf", "--cache-dir", work / f"cache{point.name}", "--vfs-cache-mode", mode,
            *(["--attr-timeout", "0s"] if uncached else [])]


def davfs2(point, _):
    cache = work / f"cache{point.name}"
    cache.mkdir()
    cache.chmod(0o777)  # davfs2 gives up root's rights
    settings = work / "davfs2.conf"
    # With its own buffer of 16 KiB it fails to list directories for newer kernels, which ask for more at once.
    settings.write_text(f"cache_dir {cache}\ncache_size 2048\nuse_locks 0\ndelay_upload 0\nask_auth 0\nbuf_size 256\n")
    settings.chmod(0o600)
    return ["mount.davfs", "-o", f"conf={settings}", urls["nginx"], point]


def sshfs(point, uncached):
    host, port = urls["sshd"].split(":")
    return ["sshfs", "-f", "-F", work / "sshd" / "ssh_config", "-p", port, f"{host}:{data}", point, *timeouts(uncached)]


SYSTEMS = {  # name: (command line of a mount, server)
    "kelvane": (kelvane, "storage"),
    "before": (lambda *where: kelvane_of(earlier("kelvane_vfs"), "before", *where), "before"),
    "kelvane -s": (lambda *where: kelvane(*where, "-s"), "storage"),
    "rclone": (rclone, "nginx"),
    "rclone-writes": (lambda *where: rclone(*where, "writes"), "nginx"),
    "davfs2": (davfs2, "nginx"),
    "sshfs": (sshfs, "sshd"),
    "pass-through": (pass_through, None),
    "curl": (None, "storage"),
}


@shielded()
def unmount(point, process):
    unmounting, lazily = (["umount"], "-l") if os.getuid() == 0 else (["fusermount", "-u"], "-z")
    for _ in range(20):
        done = subprocess.run([*unmounting, point], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                              start_new_session=True)
        if done.returncode == 0 or not os.path.ismount(point):
            break
        time.sleep(0.1)
    else:
        subprocess.run([*unmounting, lazily, point])
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(60)  # data may still be on its way
    stop(process)
    point.rmdir()


@contextlib.contextmanager
def mounted(system, uncached=False, log=None):
    """A fresh mount; gives its directory, the process that holds it and the seconds to its first listing."""
    point = work / "mounts" / str(next(mount_numbers))
    point.mkdir(parents=True)
    is_ours = system in ("kelvane", "kelvane -s", "before")
    with open(log or os.devnull if is_ours else work / f"{system}.log", "w") as errors:
        command = SYSTEMS[system][0](point, uncached)
        process = None
        try:
            with shielded():
                process = launch([sys.executable, pathlib.Path(__file__).with_name("hold.py"), point, *command], errors,
                                 stdout=subprocess.PIPE, text=True)
            ready, _, _ = select.select([process.stdout], [], [], 30)
            line = process.stdout.readline() if ready else ""
            if not line:
                stop(process)
                raise RuntimeError(f"{system} does not mount")
            yield point, process, float(line)
        finally:
            if process is not None:
                unmount(point, process)
