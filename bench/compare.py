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
FILE_SIZE = 256 << 20
READERS = 8
RANDOM_READS = 1000
STATS = 10000
CHANGES = 500
SMALL_REQUESTS = 2000
SCALES = (25000, 50000, 100000, 200000)
SLOW = 8  # seconds of a turn

data = None  # what all servers serve
results = {}
changes_made = {}  # metric -> requests that the daemon makes for it
programs = {}  # system -> files of its programs and of those that measure it
slow = set()  # (workload, system) that took longer than SLOW


def say(text):
    print(text, file=sys.stderr, flush=True)


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
    # The server has the file in memory; the places do not matter to it.
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
    log = systems.work / "trace"
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


def drop_caches(system):
    with contextlib.suppress(OSError):
        pathlib.Path("/proc/sys/vm/drop_caches").write_text("3")
    # The programs themselves are not what is measured.
    for name in programs.get(system, ()):
        pathlib.Path(name).read_bytes()


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
            drop_caches(system)
        with mounted(system, workload == "stat") as (folder, process, first):
            before = systems.usage(process)[0] if workload != "start" else 0
            seconds = run(folder)
            if workload == "start":
                seconds = {"start": first}
            if workload == "write":
                written = data / "work" / "big"
                add("stored", workload, system, written.exists() and written.stat().st_size == FILE_SIZE)
            cpu, peak, resident = systems.usage(process)
            for table, value in (("cpu", cpu - before), ("peak", peak), ("resident", resident)):
                add(table, workload, system, value)
    for metric, value in seconds.items():
        if value:
            add("seconds", metric, system, value)
    return " + ".join(f"{value:.3f}" for value in seconds.values())


def probe(wanted):
    """Those that can be mounted here."""
    usable = []
    for system in wanted:
        command, server = SYSTEMS[system]
        try:
            if server is not None and server not in urls:
                raise RuntimeError(f"{server} is not there")
            if command is not None:
                with mounted(system) as (_, process, _):
                    programs[system] = systems.files_in_use(process) | {shutil.which("find"), tool("load")}
            usable.append(system)
        except (OSError, RuntimeError) as error:
            say(f"without {system}: {error}")
            results.setdefault("without", []).append(system)
    return usable


def machine(rounds):
    cpu = re.search(r"model name\s*:\s*(.*)", pathlib.Path("/proc/cpuinfo").read_text())
    return {"cpu": cpu[1] if cpu else platform.machine(), "cores": os.cpu_count(), "kernel": platform.release(),
            "dropped": os.access("/proc/sys/vm/drop_caches", os.W_OK), "rounds": rounds,
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


def run_all(names, wanted, rounds):
    results.update({"machine": machine(rounds), "seconds": {}, "changes": CHANGES, "small requests": SMALL_REQUESTS})
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
    global data
    parser = argparse.ArgumentParser(prog="bench/compare", description=__doc__)
    parser.add_argument("--rounds", type=int, default=5, help="turns of each system at each workload")
    parser.add_argument("--only", metavar="WORKLOAD,..", help=", ".join(WORKLOADS))
    parser.add_argument("--systems", metavar="SYSTEM,..", help=", ".join(SYSTEMS))
    parser.add_argument("--quick", action="store_true", help="one round, without the largest directories")
    parser.add_argument("--output", type=pathlib.Path, help="folder of the results (build/bench/results)")
    parser.add_argument("--write-docs", action="store_true", help="renew docs/performance.md and its chart")
    parser.add_argument("--judge", action="store_true", help=argparse.SUPPRESS)  # only the arguments
    parser.add_argument("--build", type=pathlib.Path, required=True, help=argparse.SUPPRESS)
    args = parser.parse_args()
    names = chosen(args.only, WORKLOADS, "workload")
    wanted = chosen(args.systems, SYSTEMS, "system")
    if args.quick:
        names = [name for name in names if name not in ("growth-100000", "growth-200000")]
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
    systems.build, systems.work, systems.data = args.build, work, data
    try:
        with contextlib.ExitStack() as stack:
            make_data(names)
            systems.start_servers(stack, say)
            run_all(names, wanted, 1 if args.quick else args.rounds)
    finally:
        # Never through a mount that would not go away.
        subprocess.run(["rm", "-rf", "--one-file-system", work])
    report.write(results, args.output or args.build / "results",
                 pathlib.Path(__file__).parent.parent / "docs" if args.write_docs else None)


if __name__ == "__main__":
    main()
