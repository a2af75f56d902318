"""Measures the daemon beside what a user would mount instead: every workload on a fresh mount, the systems taking
turns. Started by bench/compare, which installs and builds what this needs."""
import argparse
import contextlib
import itertools
import json
import os
import pathlib
import platform
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

import report

BLOCK = 131072
FILE_SIZE = 256 << 20
READERS = 8
RANDOM_READS = 1000
STATS = 10000
CHANGES = 500
SMALL_REQUESTS = 2000
ENDING = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
SLOW = 8  # seconds of a turn
SCALES = (25000, 50000, 100000, 200000)

args = None  # command line
work = None  # everything that a run makes lies below this folder and goes with it
data = None  # what all servers serve
urls = {}  # server -> where it serves
results = {}
changes_made = {}  # metric -> requests that the daemon makes for it
slow = set()  # (workload, system) that took longer than SLOW
mount_numbers = itertools.count()


def say(text):
    print(text, file=sys.stderr, flush=True)


def end(number, _):
    for each in ENDING:
        signal.signal(each, signal.SIG_IGN)  # the clean-up is not interrupted
    sys.exit(128 + number)


def tool(name):
    return str(args.build / name)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


# Processes: in sessions of their own, so that a Ctrl-C reaches this program alone.


def launch(command, log, **options):
    environment = {**os.environ, "HOME": str(work), "LC_ALL": "C.UTF-8"}
    return subprocess.Popen([str(word) for word in command], stdin=subprocess.DEVNULL, stderr=log, env=environment,
                            start_new_session=True, **options)


def processes_below(pid):
    parents = {}
    for entry in os.listdir("/proc"):
        with contextlib.suppress(OSError):
            if entry.isdigit():
                parents[int(entry)] = int(pathlib.Path("/proc", entry, "stat").read_text().rsplit(")", 1)[1].split()[1])
    below = [pid]
    for parent in below:
        below += [child for child, its_parent in parents.items() if its_parent == parent]
    return below[1:]


def stop(process):
    for pid in [*processes_below(process.pid), process.pid]:
        with contextlib.suppress(OSError):
            os.kill(pid, signal.SIGTERM)
    try:
        process.wait(5)
    except subprocess.TimeoutExpired:
        for pid in [*processes_below(process.pid), process.pid]:
            with contextlib.suppress(OSError):
                os.kill(pid, signal.SIGKILL)
        process.wait()


def usage(process):
    """CPU seconds so far, peak and present memory in bytes of what was mounted, its helpers included."""
    cpu = peak = resident = 0
    for pid in processes_below(process.pid):
        with contextlib.suppress(OSError, TypeError):
            fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
            cpu += (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")
            status = pathlib.Path(f"/proc/{pid}/status").read_text()
            peak += int(re.search(r"VmHWM:\s+(\d+)", status)[1]) << 10
            resident += int(re.search(r"VmRSS:\s+(\d+)", status)[1]) << 10
    return cpu, peak, resident


def load(*words):
    done = subprocess.run([tool("load"), *map(str, words)], stdout=subprocess.PIPE, check=True)
    return float(done.stdout)


def curl(requests, good=(200, 204, 206)):
    """Plain libcurl on one handle; `good` are the statuses that the last request may have."""
    done = subprocess.run([tool("curl_loop")], input="\n".join(requests), stdout=subprocess.PIPE, text=True, check=True)
    seconds, status = done.stdout.split()
    if requests and int(status) not in good:
        raise RuntimeError(f"status {status} for {requests[-1]}")
    return float(seconds)


# Servers: one of each for the whole run, all on the same folder.


def start_storage(log):
    server = launch([tool("kelvane_storage"), data], log, stdout=subprocess.PIPE, text=True)
    urls["storage"] = server.stdout.readline().strip()
    return server


def start_nginx(log):
    port = free_port()
    folder = work / "nginx"
    folder.mkdir()
    (folder / "nginx.conf").write_text(f"""
{"user root;" if os.getuid() == 0 else ""}
worker_processes auto;
daemon off;
pid {folder}/pid;
error_log {folder}/error.log;
load_module /usr/lib/nginx/modules/ngx_http_dav_ext_module.so;
events {{}}
http {{
    access_log off;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 1000000;
    client_max_body_size 0;
    client_body_temp_path {folder}/body;
    proxy_temp_path {folder}/proxy;
    fastcgi_temp_path {folder}/fastcgi;
    uwsgi_temp_path {folder}/uwsgi;
    scgi_temp_path {folder}/scgi;
    server {{
        listen 127.0.0.1:{port};
        root {data};
        dav_methods PUT DELETE MKCOL COPY MOVE;
        dav_ext_methods PROPFIND OPTIONS;
        create_full_put_path on;
    }}
}}
""")
    urls["nginx"] = f"http://127.0.0.1:{port}/"
    return launch(["nginx", "-c", folder / "nginx.conf", "-e", folder / "error.log"], log)


def start_sshd(log):
    port = free_port()
    folder = work / "ssh"
    folder.mkdir(mode=0o700)
    for name in ("host", "user"):
        subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / name], check=True)
    (folder / "sshd_config").write_text(f"""
Port {port}
ListenAddress 127.0.0.1
HostKey {folder}/host
PidFile none
UsePAM no
StrictModes no
PermitRootLogin yes
AuthorizedKeysFile {folder}/user.pub
Subsystem sftp internal-sftp
""")
    urls["sshd"] = f"127.0.0.1:{data}"
    urls["sshd port"] = str(port)
    return launch([shutil.which("sshd") or "/usr/sbin/sshd", "-D", "-e", "-f", folder / "sshd_config"], log)


def wait_for_port(name, port):
    for _ in range(100):
        with contextlib.suppress(OSError), socket.create_connection(("127.0.0.1", port), 1):
            return
        time.sleep(0.05)
    raise RuntimeError(f"{name} does not listen")


def start_servers(stack):
    if os.getuid() == 0 and not os.path.isdir("/run/sshd"):
        os.mkdir("/run/sshd", 0o755)
        stack.callback(os.rmdir, "/run/sshd")
    for name, start in {"storage": start_storage, "nginx": start_nginx, "sshd": start_sshd}.items():
        log = stack.enter_context(open(work / f"{name}.log", "w"))
        try:
            stack.callback(stop, start(log))
            wait_for_port(name, int(urls.get(f"{name} port") or urls[name].rstrip("/").rsplit(":", 1)[1]))
        except (OSError, RuntimeError, subprocess.CalledProcessError) as error:
            say(f"without {name}: {error}")
            urls.pop(name, None)


# Systems: how each is mounted. `uncached` asks for no trust of the kernel in attributes and names.


def kelvane(point, uncached, *options):
    timeouts = ["-o", "attr_timeout=0,entry_timeout=0"] if uncached else []
    return [tool("kelvane_vfs"), urls["storage"], "Bench (compare)", "-f", *options, *timeouts, point]


def pass_through(point, uncached):
    timeouts = ["-o", "attr_timeout=0,entry_timeout=0"] if uncached else []
    return [tool("pass_through"), data, "-f", *timeouts, point]


def rclone(point, uncached, mode="off"):
    return ["rclone", "mount", ":webdav:", point, "--webdav-url", urls["nginx"], "--webdav-vendor", "other", "--config",
            work / "rclone.conf", "--cache-dir", work / f"{point.name}.cache", "--vfs-cache-mode", mode,
            *(["--attr-timeout", "0s"] if uncached else [])]


def davfs2(point, _):
    cache = work / f"{point.name}.cache"
    cache.mkdir()
    cache.chmod(0o777)  # it gives up root's rights
    settings = work / "davfs2.conf"
    # With its own buffer of 16 KiB it fails to list folders for newer kernels, which ask for more at once.
    settings.write_text(f"cache_dir {cache}\ncache_size 2048\nuse_locks 0\ndelay_upload 0\nask_auth 0\nbuf_size 256\n")
    settings.chmod(0o600)
    return ["mount.davfs", "-o", f"conf={settings}", urls["nginx"], point]


def sshfs(point, uncached):
    folder = work / "ssh"
    options = [f"ssh_command=ssh -F /dev/null -i {folder}/user -o StrictHostKeyChecking=no "
               f"-o UserKnownHostsFile=/dev/null -o BatchMode=yes -p {urls['sshd port']}"]
    options += ["attr_timeout=0,entry_timeout=0"] if uncached else []
    return ["sshfs", urls["sshd"], point, "-f", *itertools.chain.from_iterable(("-o", option) for option in options)]


SYSTEMS = {  # name: (command line of a mount, server)
    "kelvane": (kelvane, "storage"),
    "kelvane -s": (lambda *where: kelvane(*where, "-s"), "storage"),
    "rclone": (rclone, "nginx"),
    "rclone-writes": (lambda *where: rclone(*where, "writes"), "nginx"),
    "davfs2": (davfs2, "nginx"),
    "sshfs": (sshfs, "sshd"),
    "pass-through": (pass_through, None),
    "curl": (None, "storage"),
}


def unmount(point, process):
    command = ["umount"] if os.getuid() == 0 else ["fusermount", "-u"]
    for _ in range(20):
        if subprocess.run([*command, point], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL).returncode == 0 or not os.path.ismount(point):
            break
        time.sleep(0.1)
    else:
        subprocess.run([*command, "-l" if command == ["umount"] else "-z", point])
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(60)
    stop(process)
    point.rmdir()


@contextlib.contextmanager
def mounted(system, uncached=False, log=None):
    """A fresh mount; gives its folder, the process that holds it and the seconds to its first listing."""
    point = work / "mounts" / str(next(mount_numbers))
    point.mkdir(parents=True)
    with open(log or os.devnull if system.startswith("kelvane") else work / f"{system}.log", "w") as errors:
        command = SYSTEMS[system][0](point, uncached)
        process = launch([tool("load"), "mount", point, *command], errors, stdout=subprocess.PIPE, text=True)
        try:
            select.select([process.stdout], [], [], 30)
            os.set_blocking(process.stdout.fileno(), False)
            line = process.stdout.readline()
            if not line:
                stop(process)
                raise RuntimeError(f"{system} does not mount")
            yield point, process, float(line)
        finally:
            unmount(point, process)


# Workloads: each gets the folder of a mount, or None for plain libcurl, and gives seconds by metric.


def find(folder):
    start = time.perf_counter()
    subprocess.run(["find", folder, "-ls"], stdout=subprocess.DEVNULL, check=True)
    return time.perf_counter() - start


def find_twice(folder):
    return {"cold find": find(folder / "tree"), "warm find": find(folder / "tree")}


def large_directory(folder):
    return {"large": find(folder / "entries50000")}


def warm_stat(folder):
    load("stat", folder / "tree" / "d0", 100)
    return {"stat": load("stat", folder / "tree" / "d0", STATS)}


def read_ranges(size, block):
    return [f"GET {urls['storage']}data/big {first}-{first + block - 1}" for first in range(0, size, block)]


def sequential_read(folder):
    return {"read": load("read", folder / "data" / "big") if folder else curl(read_ranges(FILE_SIZE, BLOCK))}


def eight_readers(folder):
    return {"readers": load("read", *[folder / "data" / f"f{i}" for i in range(READERS)])}


def random_reads(folder):
    if folder:
        return {"random": load("random", folder / "data" / "big", RANDOM_READS)}
    return {"random": curl(read_ranges(RANDOM_READS * 4096, 4096))}


def sequential_write(folder):
    if folder:
        return {"write": load("write", folder / "work" / "big", FILE_SIZE >> 20)}
    (data / "work" / "big").touch()
    return {"write": curl([f"PUT {urls['storage']}work/big?action=write&flags=1&offset={offset} {BLOCK}"
                           for offset in range(0, FILE_SIZE, BLOCK)])}


def changes(folder):
    if not folder:
        # A removal ends with the question whether the file is still there.
        seconds = {metric: curl(requests, (200, 404)) for metric, requests in traced_requests().items()}
        return {**seconds, **small_requests(None)}
    return {"create": load("create", folder / "work", CHANGES, 4096), "rename": load("rename", folder / "work", CHANGES),
            "remove": load("remove", folder / "work", CHANGES)}


def small_requests(_):
    return {"small storage": curl([f"GET {urls['storage']}data/small?action=props"] * SMALL_REQUESTS),
            "small nginx": curl([f"GET {urls['nginx']}data/small"] * SMALL_REQUESTS if "nginx" in urls else [])}


def growth(count):
    return lambda folder: {f"{count} entries": find(folder / f"entries{count}")}


ALTERNATIVES = ("rclone", "davfs2", "sshfs")
MOUNTS = ("kelvane", "kelvane -s", *ALTERNATIVES, "pass-through")
WORKLOADS = {  # name: (what it does, systems)
    "start": (lambda _: {}, MOUNTS),
    "find": (find_twice, MOUNTS),
    "large": (large_directory, MOUNTS),
    "stat": (warm_stat, tuple(name for name in MOUNTS if name != "davfs2")),  # davfs2 has no such option
    "read": (sequential_read, (*MOUNTS, "curl")),
    "readers": (eight_readers, MOUNTS),
    "random": (random_reads, (*MOUNTS, "curl")),
    "write": (sequential_write, (*MOUNTS, "rclone-writes", "curl")),
    "changes": (changes, (*MOUNTS, "rclone-writes", "curl")),
    "small": (small_requests, ("curl",)),
    **{f"growth-{count}": (growth(count), ("kelvane",)) for count in SCALES},
}


def traced_requests():
    """The requests that the daemon makes for each kind of change, in its order, from its trace."""
    if changes_made:
        return changes_made
    log = work / "trace"
    with mounted("kelvane", log=log) as (folder, _, _):
        for metric, words in {"create": (CHANGES, 4096), "rename": (CHANGES,), "remove": (CHANGES,)}.items():
            before = log.stat().st_size
            load(metric, folder / "work", *words)
            trace = log.read_text()[before:]
            pattern = r"^getURL: url: (\S+)|^kelvane_write: path: /(\S+) size: (\d+) offset: (\d+)"
            changes_made[metric] = [
                f"GET {url}" if url else f"PUT {urls['storage']}{path}?action=write&flags=1&offset={offset} {size}"
                for url, path, size, offset in re.findall(pattern, trace, re.M)]
    results["requests"] = {metric: len(requests) for metric, requests in changes_made.items()}
    clear_work()
    return changes_made


def clear_work():
    shutil.rmtree(data / "work", ignore_errors=True)
    (data / "work").mkdir()


def make_data(names):
    say("making the files that are served")
    clear_work()
    for name in ("data", "tree"):
        (data / name).mkdir()
    block = os.urandom(1 << 20)
    sizes = {"big": FILE_SIZE >> 20, **{f"f{i}": FILE_SIZE // READERS >> 20 for i in range(READERS)}}
    for name, mebibytes in sizes.items():
        with open(data / "data" / name, "wb") as file:
            file.writelines(itertools.repeat(block, mebibytes))
    (data / "data" / "small").write_bytes(block[:90])
    for i in range(100):
        (data / "tree" / f"d{i}").mkdir()
        load("create", data / "tree" / f"d{i}", 100, 1)
    for count in SCALES:
        if f"growth-{count}" in names or count == 50000 and "large" in names:
            (data / f"entries{count}").mkdir()
            load("create", data / f"entries{count}", count, 0)


def drop_caches():
    with contextlib.suppress(OSError):
        pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    # The programs themselves are not what is measured.
    subprocess.run(["find", "--version"], stdout=subprocess.DEVNULL)


def add(table, row, system, value):
    results.setdefault(table, {}).setdefault(row, {}).setdefault(system, []).append(value)


def measure(workload, system):
    """One turn of one system; gives what to show as progress."""
    run = WORKLOADS[workload][0]
    clear_work()
    if system == "curl":
        seconds = run(None)
    else:
        # A start from a cold disk would be the disk's time.
        if workload != "start":
            drop_caches()
        with mounted(system, workload == "stat") as (folder, process, first):
            before = usage(process)[0]
            seconds = run(folder)
            if workload == "start":
                seconds = {"start": first}
            if workload == "write":
                written = data / "work" / "big"
                add("stored", workload, system, written.exists() and written.stat().st_size == FILE_SIZE)
            cpu, peak, resident = usage(process)
            for table, value in (("cpu", cpu - before), ("peak", peak), ("resident", resident)):
                add(table, workload, system, value)
    for metric, value in seconds.items():
        if value:
            add("seconds", metric, system, value)
    return " + ".join(f"{value:.3f}" for value in seconds.values())


def probe(systems):
    """Those that can be mounted here; this also brings their programs into memory."""
    usable = []
    for system in systems:
        command, server = SYSTEMS[system]
        try:
            if server is not None and server not in urls:
                raise RuntimeError(f"{server} is not there")
            if command is not None:
                with mounted(system):
                    pass
            usable.append(system)
        except (OSError, RuntimeError) as error:
            say(f"without {system}: {error}")
            results.setdefault("without", []).append(system)
    return usable


def machine():
    cpu = re.search(r"model name\s*:\s*(.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {"cpu": cpu[1] if cpu else platform.machine(), "cores": os.cpu_count(), "kernel": platform.release(),
            "dropped": os.access("/proc/sys/vm/drop_caches", os.W_OK), "rounds": args.rounds,
            "load": os.getloadavg()[0]}


def turn_of(workload, system):
    """What to show of a turn; systems that take very long at something do it once."""
    if (workload, system) in slow:
        return None
    start = time.perf_counter()
    try:
        shown = measure(workload, system)
    except (OSError, RuntimeError, subprocess.SubprocessError) as error:
        results.setdefault("failed", {}).setdefault(workload, []).append(system)
        shown = f"failed ({error})"
    if time.perf_counter() - start > SLOW and not system.startswith("kelvane"):
        slow.add((workload, system))
    return f"{system} {shown}"


def run_all(names, systems):
    results.update({"machine": machine(), "seconds": {}, "changes": CHANGES, "small requests": SMALL_REQUESTS})
    systems = probe(systems)
    # The sizes of the growing directory take turns as well.
    for _, group in itertools.groupby(names, lambda name: name.split("-")[0]):
        group = list(group)
        for turn, workload in itertools.product(range(args.rounds), group):
            takers = [system for system in systems if system in WORKLOADS[workload][1]]
            first = turn % max(len(takers), 1)  # nobody is always the first
            shown = [turn_of(workload, system) for system in takers[first:] + takers[:first]]
            say(f"{workload} {turn + 1}/{args.rounds}: " + ", ".join(filter(None, shown)))


def chosen(text, known, what):
    wanted = text.split(",") if text else list(known)
    for name in wanted:
        if not any(name in (each, each.split("-")[0]) for each in known):
            sys.exit(f"no such {what}: {name}; there are: {', '.join(known)}")
    return [name for name in known if name in wanted or what == "workload" and name.split("-")[0] in wanted]


def main():
    global args, work, data
    parser = argparse.ArgumentParser(prog="bench/compare", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5, help="turns of each system at each workload")
    parser.add_argument("--only", metavar="WORKLOAD,..", help=", ".join(WORKLOADS))
    parser.add_argument("--systems", metavar="SYSTEM,..", help=", ".join(SYSTEMS))
    parser.add_argument("--quick", action="store_true", help="one round, without the largest directories")
    parser.add_argument("--output", type=pathlib.Path, help="folder of the results (build/bench/results)")
    parser.add_argument("--write-docs", action="store_true", help="renew docs/performance.md and its chart")
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    args = parser.parse_args()
    names = chosen(args.only, WORKLOADS, "workload")
    systems = chosen(args.systems, SYSTEMS, "system")
    if args.quick:
        args.rounds = 1
        names = [name for name in names if name not in ("growth-100000", "growth-200000")]
    output = args.output or args.build / "results"
    for number in ENDING:
        signal.signal(number, end)

    # In memory, so that no disk is measured.
    shared = "/dev/shm" if os.access("/dev/shm", os.W_OK) and shutil.disk_usage("/dev/shm").free > 4 << 30 else None
    work = pathlib.Path(tempfile.mkdtemp(prefix="kelvane-bench-", dir=shared))
    work.chmod(0o711)
    data = work / "served"
    data.mkdir()
    try:
        with contextlib.ExitStack() as stack:
            make_data(names)
            start_servers(stack)
            run_all(names, systems)
    finally:
        # Never through a mount that would not go away.
        subprocess.run(["rm", "-rf", "--one-file-system", work])
    output.mkdir(parents=True, exist_ok=True)
    (output / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    report.write(results, output, pathlib.Path(__file__).parent.parent / "docs" if args.write_docs else None)


if __name__ == "__main__":
    main()
