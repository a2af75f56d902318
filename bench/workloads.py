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
block = os.urandom(BLOCK)  # written again and again; as long as the writes of cp


@dataclass(frozen=True)
class Amounts:
    read: int
    random: int
    write: int
    changes: int
    directories: int
    files: int  # in each directory


NEAR = Amounts(read=256 * MEBIBYTE, random=500, write=256 * MEBIBYTE, changes=200, directories=100, files=100)
FAR = Amounts(read=64 * MEBIBYTE, random=20, write=8 * MEBIBYTE, changes=10, directories=20, files=50)


@dataclass
class Task:
    """Where a workload does its work."""
    amounts: Amounts
    served: Path  # the directory on the server
    place: Path  # the mount


@dataclass
class Result:
    metric: str
    seconds: float
    stored: bool = True  # whether all of it was on the server when the last call returned


def timed(work: Callable, *words: object) -> float:
    start = time.perf_counter()
    work(*words)
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
    lay = ("--verify=crc32c", "--verify_interval=4096", "--do_verify=0", "--bs=1M")
    (served / "data").mkdir(parents=True)
    fio(served / "data" / "big", "write", f"--size={amounts.read}", *lay)
    fio(served / "data" / "f$jobnum", "write", f"--size={amounts.read // PARALLEL}", f"--numjobs={PARALLEL}", *lay)
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


def start(_: Task) -> list[Result]:
    """The mount has been timed."""
    return []


def find_twice(task: Task) -> list[Result]:
    return [Result(f"{state} find", find(task.place / "tree")) for state in ("cold", "warm")]


def large(task: Task) -> list[Result]:
    return [Result("large", find(task.place / "entries50000"))]


def growth(task: Task) -> list[Result]:
    return [Result(f"{count} entries", find(task.place / f"entries{count}")) for count in SCALES]


def stat(task: Task) -> list[Result]:
    paths = [task.place / "tree" / "d0" / f"f{i}" for i in range(task.amounts.files)]

    def many(count: int) -> None:
        for i in range(count):
            os.stat(paths[i % len(paths)])
    many(len(paths))
    return [Result("stat", timed(many, STATS))]


def read(task: Task, *options: str) -> list[Result]:
    return [Result("read", fio(task.place / "data" / "big", "read", "--bs=128k", *options))]


def readers(task: Task, *options: str) -> list[Result]:
    return [Result("readers", fio(task.place / "data" / "f$jobnum", "read", "--bs=128k", f"--numjobs={PARALLEL}",
                                  *options))]


def random(task: Task, *options: str) -> list[Result]:
    return [Result("random", fio(task.place / "data" / "big", "randread", "--bs=4k",
                                 f"--number_ios={task.amounts.random}", *options))]


def write(task: Task) -> list[Result]:
    seconds = timed(write_file, task.place / "work" / "big", task.amounts.write)
    return [Result("write", seconds, is_stored(task, {"big": task.amounts.write}))]


def writers(task: Task) -> list[Result]:
    size = task.amounts.write // PARALLEL
    names = [f"f{i}" for i in range(PARALLEL)]
    with concurrent.futures.ThreadPoolExecutor(PARALLEL) as pool:
        seconds = timed(lambda: list(pool.map(lambda name: write_file(task.place / "work" / name, size), names)))
    return [Result("writers", seconds, is_stored(task, dict.fromkeys(names, size)))]


def changes(task: Task) -> list[Result]:
    work, count = task.place / "work", range(task.amounts.changes)

    def all_of(change: Callable[[int], None]) -> float:
        return timed(lambda: [change(i) for i in count])
    results = [
        Result("create", all_of(lambda i: write_file(work / f"f{i}")), is_stored(task, {f"f{i}": 4096 for i in count})),
        Result("rename", all_of(lambda i: os.rename(work / f"f{i}", work / f"r{i}")),
               is_stored(task, {f"r{i}": 4096 for i in count})),
        Result("remove", all_of(lambda i: os.unlink(work / f"r{i}")), is_stored(task, {}))]
    results[2].stored &= results[1].stored
    return results


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
