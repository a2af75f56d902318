"""The workloads, and the files that they use."""
import concurrent.futures
import json
import os
import shutil
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Iterable

from programs import Failure

BLOCK = 131072
MEBIBYTE = 1 << 20
PARALLEL = 8
STATS = 10000
SCALES = (25000, 50000, 100000, 200000)
BLOCKS_VERIFIED = ("--verify=crc32c", "--verify_interval=4096")
block = os.urandom(BLOCK)  # written again and again; as long as the writes of cp


@dataclass(frozen=True)
class Amounts:
    read: int  # MiB
    random: int
    write: int  # MiB
    changes: int
    directories: int
    files: int  # in each directory


NEAR = Amounts(read=256, random=500, write=256, changes=200, directories=100, files=100)
FAR = Amounts(read=64, random=20, write=8, changes=10, directories=20, files=50)


@dataclass
class Task:
    """Where a workload does its work."""
    amounts: Amounts
    served: Path  # the directory on the server
    place: Path  # the mount
    first_listing: float  # seconds from the start of the mount


@dataclass
class Result:
    metric: str  # what was timed, in words for the reader
    seconds: float
    stored: bool = True  # whether all of it was on the server when the last call returned


def timed(work: Callable[[], object]) -> float:
    start = time.perf_counter()
    work()
    return time.perf_counter() - start


def fio(files: Path, kind: str, *options: str) -> float:
    """Seconds that fio takes for the files, each in a thread of its own."""
    done = subprocess.run(["fio", "--name=load", f"--filename_format={files}", f"--rw={kind}", "--thread",
                           "--fadvise_hint=0", *options, "--group_reporting", "--verify_state_save=0",
                           "--output-format=json"], stdout=subprocess.PIPE, check=True)
    return json.loads(done.stdout)["jobs"][0]["read"]["runtime"] / 1000


def find(directory: Path) -> float:
    return timed(lambda: subprocess.run(["find", directory, "-ls"], stdout=subprocess.DEVNULL, check=True))


def write_file(path: Path, size: int = 4096) -> None:
    with open(path, "wb", buffering=0) as file:
        for position in range(0, size, BLOCK):
            file.write(block[:size - position])


def is_stored(task: Task, sizes: dict[str, int]) -> bool:
    """Whether the server has all that was written; `sizes` are those of the files, by name."""
    return {entry.name: entry.stat().st_size for entry in os.scandir(task.served / "work")} == sizes


def fill(directory: Path, count: int, size: int) -> None:
    directory.mkdir()
    for i in range(count):
        write_file(directory / f"f{i}", size)


def make_files(served: Path, amounts: Amounts, names: Iterable[str]) -> None:
    """Makes what the named workloads read."""
    lay = (*BLOCKS_VERIFIED, "--do_verify=0", "--bs=1M")
    (served / "data").mkdir(parents=True)
    fio(served / "data" / "big", "write", f"--size={amounts.read}M", *lay)
    fio(served / "data" / "f$jobnum", "write", f"--size={amounts.read // PARALLEL}M", f"--numjobs={PARALLEL}", *lay)
    (served / "tree").mkdir()
    for i in range(amounts.directories):
        fill(served / "tree" / f"d{i}", amounts.files, 1)
    for count in SCALES if "growth" in names else (50000,) if "large" in names else ():
        fill(served / f"entries{count}", count, 0)


def clear(served: Path) -> None:
    """Empties the directory of the workloads that write."""
    shutil.rmtree(served / "work", ignore_errors=True)
    (served / "work").mkdir()


def check_written(served: Path) -> None:
    for path in (served / "work").iterdir():
        content = path.read_bytes()
        if content != (block * (len(content) // len(block) + 1))[:len(content)]:
            raise Failure(f"wrong content in {path.name}")


# The workloads.


def start(task: Task) -> list[Result]:
    return [Result("start to first listing", task.first_listing)]


def find_twice(task: Task) -> list[Result]:
    count = task.amounts.directories * task.amounts.files
    return [Result(f"{state} `find -ls`, {count:,} files", find(task.place / "tree")) for state in ("cold", "warm")]


def large(task: Task) -> list[Result]:
    return [Result("cold `find -ls`, 50,000 entries in one directory", find(task.place / "entries50000"))]


def growth(task: Task) -> list[Result]:
    return [Result(f"the same, {count:,} entries", find(task.place / f"entries{count}")) for count in SCALES]


def stat(task: Task) -> list[Result]:
    paths = [task.place / "tree" / "d0" / f"f{i}" for i in range(task.amounts.files)]
    for path in paths:
        os.stat(path)
    seconds = timed(lambda: [os.stat(paths[i % len(paths)]) for i in range(STATS)])
    return [Result(f"{STATS:,} `stat`, kernel caching off", seconds)]


def read(task: Task, *options: str) -> list[Result]:
    seconds = fio(task.place / "data" / "big", "read", "--bs=128k", *options)
    return [Result(f"sequential read, {task.amounts.read} MiB", seconds)]


def readers(task: Task, *options: str) -> list[Result]:
    seconds = fio(task.place / "data" / "f$jobnum", "read", "--bs=128k", f"--numjobs={PARALLEL}", *options)
    return [Result(f"{PARALLEL} readers at once, {task.amounts.read // PARALLEL} MiB each", seconds)]


def random(task: Task, *options: str) -> list[Result]:
    count = task.amounts.random
    seconds = fio(task.place / "data" / "big", "randread", "--bs=4k", f"--number_ios={count}", *options)
    return [Result(f"{count:,} random reads of 4 KiB", seconds)]


def write(task: Task) -> list[Result]:
    size = task.amounts.write * MEBIBYTE
    seconds = timed(lambda: write_file(task.place / "work" / "big", size))
    return [Result(f"sequential write, {task.amounts.write} MiB", seconds, is_stored(task, {"big": size}))]


def writers(task: Task) -> list[Result]:
    share = task.amounts.write // PARALLEL
    files = {f"f{i}": share * MEBIBYTE for i in range(PARALLEL)}
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        seconds = timed(lambda: list(pool.map(lambda name: write_file(task.place / "work" / name, files[name]), files)))
    return [Result(f"{PARALLEL} writers at once, {share} MiB each", seconds, is_stored(task, files))]


def changes(task: Task) -> list[Result]:
    work, count = task.place / "work", task.amounts.changes
    created = {f"f{i}": 4096 for i in range(count)}
    renamed = {f"r{i}": 4096 for i in range(count)}

    def all_of(change: Callable[[int], None]) -> float:
        return timed(lambda: [change(i) for i in range(count)])
    create = Result(f"{count} files of 4 KiB created", all_of(lambda i: write_file(work / f"f{i}")),
                    is_stored(task, created))
    rename = Result(f"{count} renames", all_of(lambda i: os.rename(work / f"f{i}", work / f"r{i}")),
                    is_stored(task, renamed))
    remove = Result(f"{count} removals", all_of(lambda i: os.unlink(work / f"r{i}")),
                    rename.stored and is_stored(task, {}))
    return [create, rename, remove]


READING = ("kelvane", "before", "kelvane -s", "rclone", "davfs2", "sshfs", "pass-through")
WRITING = (*READING, "rclone-writes")


@dataclass(frozen=True)
class Workload:
    run: Callable[[Task], list[Result]]
    systems: tuple[str, ...] = READING
    far: bool = True  # whether it is measured at a distance as well
    uncached: bool = False  # whether the kernel is asked not to trust attributes and names


WORKLOADS = {
    "start": Workload(start),
    "find": Workload(find_twice),
    "large": Workload(large, far=False),
    "growth": Workload(growth, ("kelvane", "before"), far=False),
    # davfs2 has no option for it.
    "stat": Workload(stat, tuple(name for name in READING if name != "davfs2"), far=False, uncached=True),
    "read": Workload(read),
    "readers": Workload(readers),
    "random": Workload(random),
    "write": Workload(write, WRITING),
    "writers": Workload(writers, WRITING),
    "changes": Workload(changes, WRITING),
}
