"""Turns the results of a comparison into Markdown tables and a chart."""
import dataclasses
import json
import re
import statistics
from dataclasses import dataclass, field
from pathlib import Path
from typing import Callable

from systems import Usage
from workloads import MEBIBYTE, Result


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
    turns: list[Turn] = field(default_factory=list)
    remarks: list[str] = field(default_factory=list)  # what the reader has to know besides

    @property
    def place(self) -> str:
        return (f"{self.rtt:g} ms away" if self.rtt else "near") + (", HTTPS" if self.tls else ", HTTP")

    def metrics(self) -> list[str]:
        return list(dict.fromkeys(result.metric for turn in self.turns for result in turn.results))

    def results(self, metric: str, system: str) -> dict[int, Result]:
        """By the number of the turn."""
        return {turn.number: result for turn in self.turns if turn.system == system
                for result in turn.results if result.metric == metric}

    def ratio(self, metric: str, system: str, base: str = "kelvane") -> float | None:
        """The median of the ratios of each round, whose times were measured one after the other."""
        above, below = self.results(metric, system), self.results(metric, base)
        ratios = [above[number].seconds / below[number].seconds for number in above.keys() & below.keys()]
        return statistics.median(ratios) if ratios else None

    def mark(self, metric: str, system: str) -> str:
        """A star where not everything was on the server when the last call returned."""
        return "" if all(result.stored for result in self.results(metric, system).values()) else "*"


def milliseconds(seconds: float) -> str:
    return f"{seconds * 1000:.0f}" if seconds >= 0.01 else f"{seconds * 1000:.1f}"


def table(title: str, rows: list[str], columns: list[str], cell: Callable[[str, str], str]) -> str:
    lines = [[title, *columns], ["---"] * (len(columns) + 1),
             *([row, *(cell(row, column) for column in columns)] for row in rows)]
    return "".join(f"| {' | '.join(line)} |\n" for line in lines)


def times_table(comparison: Comparison, systems: list[str]) -> str:
    def cell(metric: str, system: str) -> str:
        times = [result.seconds for result in comparison.results(metric, system).values()]
        if not times:
            return ""
        ratio = comparison.ratio(metric, system) if system != "kelvane" else None
        return (f"{milliseconds(statistics.median(times))} ({milliseconds(min(times))}–{milliseconds(max(times))})"
                + comparison.mark(metric, system).replace("*", "\\*") + (f" **{ratio:.2f}**" if ratio else ""))
    return table("milliseconds", comparison.metrics(), systems, cell)


def usage_table(comparison: Comparison, systems: list[str]) -> str:
    def cell(workload: str, system: str) -> str:
        used = [turn.usage for turn in comparison.turns if (turn.workload, turn.system) == (workload, system)]
        if not used:
            return ""
        cpu, resident, peak = (statistics.median(getattr(each, what) for each in used)
                               for what in ("cpu", "resident", "peak"))
        return f"{cpu:.2f} s, {resident / MEBIBYTE:.0f} / {peak / MEBIBYTE:.0f} MiB"
    workloads = list(dict.fromkeys(turn.workload for turn in comparison.turns))
    return table("CPU time, memory: resident afterwards / peak", workloads, systems, cell)


def notes(comparison: Comparison) -> str:
    lines = [f"{comparison.place}, {comparison.date}, rounds: {comparison.rounds}. {comparison.machine}.",
             "Medians (smallest–largest); in bold the ratio to the daemon, above 1 where the daemon is faster. "
             "\\*: not everything was on the server when the last call returned.", *dict.fromkeys(comparison.remarks)]
    return "".join(f"- {line}\n" for line in lines)


def draw_chart(comparison: Comparison, colours: dict[str, str], file: Path) -> None:
    """Draws the time relative to the daemon's, one group of bars for each metric, on a logarithmic scale."""
    from matplotlib import pyplot  # which is installed for --write-docs only
    pyplot.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": comparison.place, "font.size": 9})
    low, high = 1 / 8, 16
    groups, bars = {}, {}  # by the place on the axis; by the system
    place = 0
    figure, axes = pyplot.subplots()
    for metric in comparison.metrics():
        shown = {system: ratio for system in colours if (ratio := comparison.ratio(metric, system))}
        groups[place + (len(shown) - 1) / 2] = metric.replace("`", "")
        for system, ratio in shown.items():
            bars[system] = axes.barh(place, ratio - 1, left=1, color=colours[system])
            axes.annotate(f"{ratio:.2f}{comparison.mark(metric, system)}", (min(max(ratio, low), high), place),
                          (3 if ratio >= 1 else -3, 0), textcoords="offset points", fontsize=7, va="center_baseline",
                          ha="left" if ratio >= 1 else "right")
            place += 1
        place += 1.5
    ticks = [2.0 ** power for power in range(-3, 5)]
    axes.set(xscale="log", xlim=(low, high), ylim=(place, -1.5), yticks=list(groups), yticklabels=groups.values())
    axes.set_xticks(ticks, [f"{tick:g}×" for tick in ticks])
    axes.minorticks_off()
    axes.grid(axis="x", color="#dddddd")
    axes.set_axisbelow(True)
    axes.legend(bars.values(), bars.keys(), loc="lower center", bbox_to_anchor=(0.5, 1), ncols=len(bars))
    axes.set_title(f"Time relative to kelvane_vfs, {comparison.place}: right of 1× kelvane_vfs is faster. "
                   "What goes beyond the edge is cut; *: not all of it had arrived.", pad=35)
    figure.set_size_inches(11, place / 8 + 1)
    figure.savefig(file, bbox_inches="tight", metadata={"Date": None, "Creator": None})


def write(comparison: Comparison, colours: dict[str, str], output: Path, docs: Path | None) -> None:
    """Prints the tables and writes them to the directory. The page takes the parts that it has a place for."""
    systems = [system for system in colours if system in {turn.system for turn in comparison.turns}]
    texts = {"results": notes(comparison) + "\n" + times_table(comparison, systems),
             "usage": usage_table(comparison, systems)}
    output.mkdir(parents=True, exist_ok=True)
    (output / "results.json").write_text(json.dumps(dataclasses.asdict(comparison), indent=1) + "\n")
    (output / "results.md").write_text("\n".join(texts.values()))
    print(*texts.values(), f"results: {output}", sep="\n")
    if docs:
        page = (docs / "performance.md").read_text()
        for what, text in texts.items():
            page = re.sub(rf"(<!-- {what}: {comparison.place} -->\n).*?(<!-- end -->)",
                          lambda found: found[1] + text + found[2], page, flags=re.S)
        (docs / "performance.md").write_text(page)
        chart = "performance-" + re.sub(r"[ ,]+", "-", comparison.place.lower()) + ".svg"
        if f"({chart})" in page:
            draw_chart(comparison, {system: colours[system] for system in systems if system != "kelvane"}, docs / chart)
