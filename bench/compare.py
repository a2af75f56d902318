"""Measures the daemon and the systems that a user could mount instead. Every workload runs on a fresh mount, and the
systems take turns. Started by bench/compare, which installs and builds what this needs."""
import argparse
import concurrent.futures
import contextlib
import itertools
import json
import os
import pathlib
import platform
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

import report
import systems
from systems import SYSTEMS, mounted, tool, urls

BLOCK = 131072
PARALLEL = 8
STATS = 10000
SMALL_REQUESTS = 2000
# The sizes of the workloads, without and with --rtt.
NEAR = {"read": 256 << 20, "random": 1000, "write": 256 << 20, "changes": 500, "directories": 100, "files": 100}
FAR = {"read": 64 << 20, "random": 20, "write": 8 << 20, "changes": 10, "directories": 20, "files": 50}
SCALES = (25000, 50000, 100000, 200000)
SLOW = 8  # a system whose turn takes more seconds than this gets one turn only

data = None  # what all servers serve
amount = NEAR
results = {}
block = os.urandom(BLOCK)  # written again and again; as long as the writes of cp
stored = {}  # metric -> whether all of it was on the server when the last call returned
changes_made = {}  # metric -> requests that the daemon makes for it
programs = {}  # system -> files of its programs and of those that measure it
slow = set()  # (workload, system) that took longer than SLOW


def say(text):
    print(text, file=sys.stderr, flush=True)


def output_of(*command, **options):
    """The lines that a command prints."""
    return subprocess.run(command, stdout=subprocess.PIPE, check=True, text=True, **options).stdout.splitlines()


def timed(work, *words):
    start = time.perf_counter()
    work(*words)
    return time.perf_counter() - start


def fio(files, kind, *options):
    """Seconds that fio takes for the files, each in a thread of its own."""
    lines = output_of("fio", "--name=load", f"--filename_format={files}", f"--rw={kind}", "--thread",
                      "--fadvise_hint=0", *options, "--group_reporting", "--verify_state_save=0",
                      "--output-format=json")
    return json.loads("".join(lines))["jobs"][0]["read"]["runtime"] / 1000


def note_stored(metric, sizes):
    """Notes whether the server has all that was written; `sizes` are those of the files, by name."""
    stored[metric] = {entry.name: entry.stat().st_size for entry in os.scandir(data / "work")} == sizes


def write_file(path, size):
    with open(path, "wb", buffering=0) as file:
        for position in range(0, size, BLOCK):
            file.write(block[:size - position])


def create(directory, count, size=4096):
    for i in range(count):
        write_file(directory / f"f{i}", size)


def rename(directory, count):
    for i in range(count):
        os.rename(directory / f"f{i}", directory / f"r{i}")


def remove(directory, count):
    for i in range(count):
        os.unlink(directory / f"r{i}")


def curl(requests, good=(200, 204, 206)):
    """Seconds that curl takes, over one connection; `good` are the statuses that the last request may have."""
    blocks = []
    for method, url, last in (f"{request} ".split(" ", 2) for request in requests):
        body = systems.work / f"body{last.strip()}"
        if method == "PUT" and not body.exists():
            body.write_bytes(bytes(int(last)))
        blocks.append(f'url = "{url}"\noutput = /dev/null\nwrite-out = "%{{time_total}} %{{http_code}}\\n"\n' + (
            f'upload-file = {body}\nheader = "Content-Type: application/octetstream"\nexpect100-timeout = 0.001\n'
            if method == "PUT" else f"range = {last.strip()}\n" if last.strip() else ""))
    if not blocks:
        return 0
    lines = [line.split() for line in output_of("curl", "-q", "-sS", "-K", "-", input="next\n".join(blocks))]
    if int(lines[-1][1]) not in good:
        raise RuntimeError(f"status {lines[-1][1]} for {requests[-1]}")
    return sum(float(seconds) for seconds, _ in lines)


# Workloads: each takes the directory of a mount, or None for curl, and returns seconds by metric.


def find(directory):
    return timed(lambda: subprocess.run(["find", directory, "-ls"], stdout=subprocess.DEVNULL, check=True))


def find_twice(directory):
    return {"cold find": find(directory / "tree"), "warm find": find(directory / "tree")}


def large_directory(directory):
    return {"large": find(directory / "entries50000")}


def warm_stat(directory):
    paths = [directory / "tree" / "d0" / f"f{i}" for i in range(amount["files"])]
    stat = lambda count: [os.stat(paths[i % len(paths)]) for i in range(count)]
    stat(len(paths))
    return {"stat": timed(stat, STATS)}


def read_ranges(size, block):
    return [f"GET {urls['storage']}data/big {first}-{first + block - 1}" for first in range(0, size, block)]


def sequential_read(directory, *options):
    if not directory:
        return {"read": curl(read_ranges(amount["read"], BLOCK))}
    return {"read": fio(directory / "data" / "big", "read", "--bs=128k", *options)}


def parallel_readers(directory, *options):
    return {"readers": fio(directory / "data" / "f$jobnum", "read", "--bs=128k", f"--numjobs={PARALLEL}", *options)}


def random_reads(directory, *options):
    if not directory:
        # The server has the file in memory, so the order of the reads makes no difference.
        return {"random": curl(read_ranges(amount["random"] * 4096, 4096))}
    return {"random": fio(directory / "data" / "big", "randread", "--bs=4k", f"--number_ios={amount['random']}",
                          *options)}


def sequential_write(directory):
    if directory:
        seconds = timed(write_file, directory / "work" / "big", amount["write"])
        note_stored("write", {"big": amount["write"]})
        return {"write": seconds}
    (data / "work" / "big").touch()
    return {"write": curl([f"PUT {urls['storage']}work/big?action=write&flags=1&offset={offset} {BLOCK}"
                           for offset in range(0, amount["write"], BLOCK)])}


def parallel_writers(directory):
    sizes = {f"f{i}": amount["write"] // PARALLEL for i in range(PARALLEL)}
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        seconds = timed(lambda: list(pool.map(lambda name: write_file(directory / "work" / name, sizes[name]), sizes)))
    note_stored("writers", sizes)
    return {"writers": seconds}


def changes(directory):
    if not directory:
        # A removal ends with the question whether the file is still there.
        seconds = {metric: curl(requests, (200, 404)) for metric, requests in traced_requests().items()}
        return {**seconds, **small_requests(None)}
    count = amount["changes"]
    seconds = {}
    for work, left in ((create, "f"), (rename, "r"), (remove, None)):
        seconds[work.__name__] = timed(work, directory / "work", count)
        note_stored(work.__name__, {f"{left}{i}": 4096 for i in range(count)} if left else {})
    stored["remove"] &= stored["rename"]
    return seconds


def small_requests(_):
    return {"small storage": curl([f"GET {urls['storage']}data/small?action=props"] * SMALL_REQUESTS),
            "small nginx": curl([f"GET {urls['nginx']}data/small"] * SMALL_REQUESTS if "nginx" in urls else [])}


def growth(count):
    return lambda directory: {f"{count} entries": find(directory / f"entries{count}")}


ALTERNATIVES = ("rclone", "davfs2", "sshfs")
MOUNTS = ("kelvane", "before", "kelvane -s", *ALTERNATIVES, "pass-through")
NEAR_SYSTEMS = ("kelvane -s", "pass-through", "curl")
FAR_WORKLOADS = ("start", "find", "read", "readers", "random", "write", "writers", "changes")
PACKAGES = ("rclone", "davfs2", "sshfs", "nginx-light", "openssh-server", "fio")
WORKLOADS = {  # name: (what it does, systems)
    "start": (lambda _: {}, MOUNTS),
    "find": (find_twice, MOUNTS),
    "large": (large_directory, MOUNTS),
    "stat": (warm_stat, tuple(name for name in MOUNTS if name != "davfs2")),  # davfs2 has no such option
    "read": (sequential_read, (*MOUNTS, "curl")),
    "readers": (parallel_readers, MOUNTS),
    "random": (random_reads, (*MOUNTS, "curl")),
    "write": (sequential_write, (*MOUNTS, "rclone-writes", "curl")),
    "writers": (parallel_writers, (*MOUNTS, "rclone-writes")),
    "changes": (changes, (*MOUNTS, "rclone-writes", "curl")),
    "small": (small_requests, ("curl",)),
    **{f"growth-{count}": (growth(count), ("kelvane",)) for count in SCALES},
}


def traced_requests():
    """The requests that the daemon makes for each kind of change, in its order, from its trace."""
    if changes_made:
        return changes_made
    log = systems.work / "trace"
    with mounted("kelvane", log=log) as (directory, _, _):
        for work in (create, rename, remove):
            before = log.stat().st_size
            work(directory / "work", amount["changes"])
            trace = log.read_text()[before:]
            pattern = r"^getURL: url: (\S+)|^kelvane_write: path: /(\S+) size: (\d+) offset: (\d+)"
            changes_made[work.__name__] = [
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
    lay = ("--verify=crc32c", "--verify_interval=4096", "--do_verify=0", "--bs=1M")
    fio(data / "data" / "big", "write", f"--size={amount['read']}", *lay)
    fio(data / "data" / "f$jobnum", "write", f"--size={amount['read'] // PARALLEL}", f"--numjobs={PARALLEL}", *lay)
    (data / "data" / "small").write_bytes(block[:90])
    for i in range(amount["directories"]):
        (data / "tree" / f"d{i}").mkdir()
        create(data / "tree" / f"d{i}", amount["files"], 1)
    for count in SCALES:
        if f"growth-{count}" in names or count == 50000 and "large" in names:
            (data / f"entries{count}").mkdir()
            create(data / f"entries{count}", count, 0)


def drop_caches(system):
    with contextlib.suppress(OSError):
        pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    # Reading the programs from disk must not be measured.
    for name in programs.get(system, ()):
        pathlib.Path(name).read_bytes()


def add(table, row, system, value):
    results.setdefault(table, {}).setdefault(row, {}).setdefault(system, []).append(value)


def measure(workload, system):
    """One turn of one system; returns the text to show as progress."""
    run = WORKLOADS[workload][0]
    clear_work()
    stored.clear()
    if system == "curl":
        seconds = run(None)
    else:
        # With cold caches a start would measure the disk.
        if workload != "start":
            drop_caches(system)
        with mounted(system, workload == "stat") as (directory, process, first):
            before = systems.usage(process)[0] if workload != "start" else 0
            seconds = run(directory)
            if workload == "start":
                seconds = {"start": first}
            cpu, peak, resident = systems.usage(process)
            for table, value in (("cpu", cpu - before), ("peak", peak), ("resident", resident)):
                add(table, workload, system, value)
        # After the unmounting, when what was on its way has arrived.
        for path in (data / "work").iterdir():
            content = path.read_bytes()
            if content != (block * (len(content) // len(block) + 1))[:len(content)]:
                raise RuntimeError(f"wrong content in {path.name}")
        for metric, good in stored.items():
            add("stored", metric, system, good)
    for metric, value in seconds.items():
        if value:
            add("seconds", metric, system, value)
    return " + ".join(f"{value:.3f}" for value in seconds.values())


def probe(wanted):
    """The systems that can be mounted here and that read correctly what is on the server."""
    check = ("--verify=crc32c", "--verify_interval=4096", "--verify_fatal=1", f"--size={4 << 20}")
    usable = []
    for system in wanted:
        command, server = SYSTEMS[system]
        try:
            if server is not None and server not in urls:
                raise RuntimeError(f"{server} is not there")
            if command is not None:
                with mounted(system) as (directory, process, _):
                    programs[system] = systems.files_in_use(process) | {shutil.which("find"), shutil.which("fio")}
                    for read in (sequential_read, parallel_readers, random_reads):
                        read(directory, *check)
            usable.append(system)
        except (OSError, RuntimeError, subprocess.SubprocessError) as error:
            say(f"without {system}: {error}")
            results.setdefault("without", []).append(system)
    return usable


def machine(rounds, rtt):
    versions = output_of(tool("kelvane_vfs"), "--version")
    with contextlib.suppress(OSError, subprocess.SubprocessError):
        versions += output_of("dpkg-query", "-W", "-f", "${Package} ${Version}\n", *PACKAGES)
    cpu = re.search(r"model name\s*:\s*(.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {"cpu": cpu[1] if cpu else platform.machine(), "cores": os.cpu_count(), "kernel": platform.release(),
            "dropped": os.access("/proc/sys/vm/drop_caches", os.W_OK), "rounds": rounds,
            "load": os.getloadavg()[0], "rtt": rtt, "date": time.strftime("%-d %B %Y"),
            "versions": versions}


def turn_of(workload, system):
    """The text to show for a turn; a system that takes very long at a workload gets one turn only."""
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


def run_all(names, wanted, rounds, rtt):
    results.update({"machine": machine(rounds, rtt), "seconds": {}, "amount": amount, "small requests": SMALL_REQUESTS})
    usable = probe(wanted)
    # The sizes of the growing directory take turns as well.
    for _, group in itertools.groupby(names, lambda name: name.split("-")[0]):
        group = list(group)
        turns = min(rounds, 3) if len(group) > 1 else rounds
        for turn, workload in itertools.product(range(turns), group):
            takers = [system for system in usable if system in WORKLOADS[workload][1]]
            first = turn % max(len(takers), 1)  # nobody is always the first
            shown = [turn_of(workload, system) for system in takers[first:] + takers[:first]]
            say(f"{workload} {turn + 1}/{turns}: " + ", ".join(filter(None, shown)))


def chosen(text, known, what):
    """The names that are asked for, in their usual order; `growth` stands for all its sizes."""
    wanted = text.split(",") if text else list(known)
    for name in wanted:
        if name not in known and not any(each.startswith(f"{name}-") for each in known if what == "workload"):
            sys.exit(f"no such {what}: {name}; there are: {', '.join(known)}")
    return [name for name in known if name in wanted or what == "workload" and name.split("-")[0] in wanted]


def main():
    global data, amount
    parser = argparse.ArgumentParser(prog="bench/compare", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5, help="turns of each system at each workload")
    parser.add_argument("--only", metavar="WORKLOAD,..", help=", ".join(WORKLOADS))
    parser.add_argument("--systems", metavar="SYSTEM,..", help=", ".join(SYSTEMS))
    parser.add_argument("--rtt", type=float, metavar="MS", default=0,
                        help="put a relay with this round trip between the systems and their servers; measures only "
                             "the workloads that depend on it, with smaller sizes")
    parser.add_argument("--before", type=pathlib.Path, metavar="DIRECTORY",
                        help="with an earlier kelvane_vfs, an earlier kelvane_storage or both, measured as well")
    parser.add_argument("--quick", action="store_true", help="one round, without the largest directories")
    parser.add_argument("--output", type=pathlib.Path, metavar="DIRECTORY", help="of the results (build/bench/results)")
    parser.add_argument("--write-docs", action="store_true", help="renew docs/performance.md and its chart")
    parser.add_argument("--judge", action="store_true", help=argparse.SUPPRESS)  # only the arguments
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    args = parser.parse_args()
    if args.rtt:
        amount = FAR
    names = chosen(args.only, {name: None for name in WORKLOADS if name in FAR_WORKLOADS or not args.rtt}, "workload")
    wanted = [name for name in chosen(args.systems, SYSTEMS, "system") if (name != "before" or args.before) and
              (name not in NEAR_SYSTEMS or not args.rtt)]
    if args.quick:
        names = [name for name in names if name not in ("growth-100000", "growth-200000")]
    if args.before:
        args.before = args.before.resolve()
        if not any((args.before / name).is_file() for name in ("kelvane_vfs", "kelvane_storage")):
            parser.error(f"{args.before} holds neither kelvane_vfs nor kelvane_storage")
    if args.judge:
        return
    for number in systems.ENDING:
        signal.signal(number, systems.end)

    # In memory, so that no disk is measured.
    shared = "/dev/shm" if os.access("/dev/shm", os.W_OK) and shutil.disk_usage("/dev/shm").free > 4 << 30 else None
    work = pathlib.Path(tempfile.mkdtemp(prefix="kelvane-bench-", dir=shared))
    work.chmod(0o711)
    data = work / "served"
    data.mkdir()
    systems.build, systems.work, systems.data, systems.before = args.build, work, data, args.before
    try:
        with contextlib.ExitStack() as stack:
            make_data(names)
            systems.start_servers(stack, say, args.rtt)
            run_all(names, wanted, 1 if args.quick else args.rounds, args.rtt)
    finally:
        # Never through a mount that could not be unmounted.
        subprocess.run(["rm", "-rf", "--one-file-system", work])
    report.write(results, args.output or args.build / "results",
                 pathlib.Path(__file__).parent.parent / "docs" if args.write_docs else None)


if __name__ == "__main__":
    main()
