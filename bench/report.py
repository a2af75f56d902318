"""Turns the results of a comparison into Markdown tables and a chart."""
import dataclasses
import json
import math
import re
import statistics
from dataclasses import dataclass
from pathlib import Path

from systems import Usage
from workloads import MEBIBYTE, PARALLEL, SCALES, Amounts, Result

TITLES = {  # by metric: what is timed
    "start": "start to first listing",
    "cold find": "cold `find -ls`, {all_files:,} files",
    "warm find": "warm `find -ls`, {all_files:,} files",
    "large": "cold `find -ls`, 50,000 entries in one directory",
    **{f"{count} entries": f"the same, {count:,} entries" for count in SCALES},
    "stat": "10,000 `stat`, kernel caching off",
    "read": "sequential read, {read} MiB",
    "readers": "8 readers at once, {reader} MiB each",
    "random": "{random:,} random reads of 4 KiB",
    "write": "sequential write, {write} MiB",
    "writers": "8 writers at once, {writer} MiB each",
    "create": "{changes} files of 4 KiB created",
    "rename": "{changes} renames",
    "remove": "{changes} removals",
}


@dataclass
class Turn:
    """One turn of a system at a workload."""
    workload: str
    system: str
    number: int
    results: list[Result]
    usage: Usage


@dataclass
class Comparison:
    date: str
    machine: str
    rounds: int
    tls: bool
    rtt: float  # milliseconds
    amounts: Amounts
    dropped: bool  # whether the kernel's caches could be dropped
    turns: list[Turn] = dataclasses.field(default_factory=list)
    without: list[str] = dataclasses.field(default_factory=list)  # systems
    failed: list[str] = dataclasses.field(default_factory=list)  # "SYSTEM at WORKLOAD"

    @property
    def place(self) -> str:
        return (f"{self.rtt:g} ms away" if self.rtt else "near") + (", HTTPS" if self.tls else ", HTTP")

    def results(self, metric: str, system: str) -> dict[int, Result]:
        """By the number of the turn."""
        return {turn.number: result for turn in self.turns if turn.system == system
                for result in turn.results if result.metric == metric}

    def seconds(self, metric: str, system: str) -> list[float]:
        return [result.seconds for result in self.results(metric, system).values()]

    def ratio(self, metric: str, system: str, base: str = "kelvane") -> float | None:
        """The median of the ratios of each round, whose times were measured one after the other."""
        above, below = self.results(metric, system), self.results(metric, base)
        ratios = [above[number].seconds / below[number].seconds for number in above.keys() & below.keys()]
        return statistics.median(ratios) if ratios else None

    def mark(self, metric: str, system: str) -> str:
        """A star where not everything was on the server when the last call returned."""
        return "" if all(result.stored for result in self.results(metric, system).values()) else "*"

    def metrics(self) -> list[str]:
        found = {result.metric for turn in self.turns for result in turn.results}
        return [metric for metric in TITLES if metric in found]

    def systems(self, known: dict[str, str]) -> list[str]:
        found = {turn.system for turn in self.turns}
        return [system for system in known if system in found]

    def title(self, metric: str) -> str:
        amounts = self.amounts
        read, written = amounts.read // MEBIBYTE, amounts.write // MEBIBYTE
        return TITLES[metric].format(
            all_files=amounts.directories * amounts.files, read=read, reader=read // PARALLEL, write=written,
            writer=written // PARALLEL, random=amounts.random, changes=amounts.changes)


def milliseconds(value: float) -> str:
    return f"{value * 1000:.0f}" if value >= 0.01 else f"{value * 1000:.1f}"


def table(header: list[str], rows: list[list[str]]) -> str:
    lines = ["| " + " | ".join(row) + " |" for row in [header, ["---"] * len(header), *rows]]
    return "\n".join(lines) + "\n"


def times_table(comparison: Comparison, systems: list[str]) -> str:
    def cell(metric: str, system: str) -> str:
        times, own = comparison.seconds(metric, system), comparison.ratio(metric, system)
        if not times:
            return ""
        return (f"{milliseconds(statistics.median(times))} ({milliseconds(min(times))}–{milliseconds(max(times))})"
                + comparison.mark(metric, system).replace("*", "\\*")
                + (f" **{own:.2f}**" if own and system != "kelvane" else ""))
    return table(["milliseconds", *systems], [
        [comparison.title(metric), *(cell(metric, system) for system in systems)] for metric in comparison.metrics()])


def usage_table(comparison: Comparison, systems: list[str]) -> str:
    def cell(workload: str, system: str) -> str:
        used = [turn.usage for turn in comparison.turns if (turn.workload, turn.system) == (workload, system)]
        if not used:
            return ""
        cpu, resident, peak = (statistics.median(getattr(each, what) for each in used)
                               for what in ("cpu", "resident", "peak"))
        return f"{cpu:.2f} s, {resident / MEBIBYTE:.0f} / {peak / MEBIBYTE:.0f} MiB"
    return table(["CPU time, memory: resident afterwards / peak", *systems], [
        [workload, *(cell(workload, system) for system in systems)]
        for workload in dict.fromkeys(turn.workload for turn in comparison.turns)])


def notes(comparison: Comparison) -> str:
    lines = [f"{comparison.place}, {comparison.date}, rounds: {comparison.rounds}. {comparison.machine}.",
             "Medians (smallest–largest); in bold the ratio to the daemon, above 1 where the daemon is faster. "
             "\\*: not everything was on the server when the last call returned."]
    if not comparison.dropped:
        lines.append("The kernel's caches could not be dropped.")
    lines += [f"{system} could not be started and is left out." for system in comparison.without]
    lines += [f"{what} failed." for what in dict.fromkeys(comparison.failed)]
    return "\n".join(f"- {line}" for line in lines) + "\n"


def chart(comparison: Comparison, systems: list[str], colours: dict[str, str]) -> str:
    """Time relative to the daemon's, one group of bars for each metric, on a logarithmic scale."""
    left, width, bar, gap, top = 370, 620, 11, 16, 70
    low, high = 0.125, 16

    def place(value: float) -> float:
        return left + width * math.log(min(max(value, low), high) / low) / math.log(high / low)
    shapes = []
    y = top
    for metric in comparison.metrics():
        shown = {system: ratio for system in systems if (ratio := comparison.ratio(metric, system))}
        if not shown:
            continue
        shapes.append(f'<text x="{left - 40}" y="{y + bar * len(shown) / 2 + 4:.0f}" text-anchor="end">'
                      f"{comparison.title(metric).replace('`', '')}</text>")
        for system, value in shown.items():
            start, end = sorted((place(1), place(value)))
            shapes.append(f'<rect x="{start:.1f}" y="{y}" width="{max(end - start, 1):.1f}" height="{bar - 1}" '
                          f'fill="{colours[system]}"/>')
            side, anchor = (end + 4, "start") if value >= 1 else (start - 4, "end")
            if not low <= value <= high:
                torn = end - 12 if value > 1 else start + 6
                shapes.append(f'<path d="M{torn:.1f} {y + bar}l6 {-bar - 1}" stroke="white" stroke-width="4"/>')
            shapes.append(f'<text x="{side:.1f}" y="{y + bar - 2}" font-size="9" text-anchor="{anchor}">{value:.2f}'
                          f"{comparison.mark(metric, system)}</text>")
            y += bar
        y += gap
    for tick in (0.125, 0.25, 0.5, 1, 2, 4, 8, 16):
        shapes.insert(0, f'<line x1="{place(tick):.1f}" x2="{place(tick):.1f}" y1="{top - 8}" y2="{y - gap + 4}" '
                         f'stroke="{"#222" if tick == 1 else "#ddd"}"/>')
        shapes.append(f'<text x="{place(tick):.1f}" y="{top - 12}" text-anchor="middle">{tick:g}×</text>')
    for index, system in enumerate(systems):
        shapes.append(f'<rect x="{left - 60 + index * 108}" y="24" width="11" height="11" fill="{colours[system]}"/>'
                      f'<text x="{left - 45 + index * 108}" y="34">{system}</text>')
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {left + width + 60} {y + 6}" '
            'font-family="sans-serif" font-size="12">\n<rect width="100%" height="100%" fill="white"/>\n'
            f'<text x="10" y="18" font-size="14">Time relative to kelvane_vfs, {comparison.place}: right of 1× '
            'kelvane_vfs is faster; a bar with a gap is cut; *: not all of it had arrived</text>\n'
            + "\n".join(shapes) + "\n</svg>\n")


def write(comparison: Comparison, colours: dict[str, str], output: Path, docs: Path | None) -> None:
    """Prints the tables and writes them to the directories. The page takes the parts that it has a place for."""
    systems = comparison.systems(colours)
    texts = {"results": notes(comparison) + "\n" + times_table(comparison, systems),
             "usage": usage_table(comparison, systems)}
    name = "performance-" + re.sub(r"[ ,]+", "-", comparison.place.lower()) + ".svg"
    drawing = chart(comparison, [system for system in systems if system != "kelvane"], colours)
    output.mkdir(parents=True, exist_ok=True)
    (output / name).write_text(drawing)
    (output / "results.json").write_text(json.dumps(dataclasses.asdict(comparison), indent=1) + "\n")
    (output / "results.md").write_text("\n".join(texts.values()))
    print(*texts.values(), f"results: {output}", sep="\n")
    if docs:
        page = (docs / "performance.md").read_text()
        for what, text in texts.items():
            page = re.sub(rf"(<!-- {what}: {comparison.place} -->\n).*?(<!-- end -->)",
                          lambda found: found[1] + text + found[2], page, flags=re.S)
        (docs / "performance.md").write_text(page)
        if f"({name})" in page:
            (docs / name).write_text(drawing)
