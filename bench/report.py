"""Turns the results of a comparison into Markdown tables and a chart."""
import json
import math
import re
import statistics

TITLES = {  # by metric: what is timed
    "start": "start to first listing",
    "cold find": "cold `find -ls`, 10,000 files",
    "warm find": "warm `find -ls`, 10,000 files",
    "large": "cold `find -ls`, 50,000 entries in one folder",
    "stat": "10,000 `stat`, kernel caching off",
    "read": "sequential read, 256 MiB",
    "readers": "8 readers at once, 32 MiB each",
    "random": "1,000 random reads of 4 KiB",
    "write": "sequential write, 256 MiB, to the end of `close`",
    "create": "500 files of 4 KiB created",
    "rename": "500 renames",
    "remove": "500 removals",
}
LIMITS = ("pass-through", "curl")
COLOURS = {"kelvane": "#1b6ca8", "kelvane -s": "#7fb2d9", "rclone": "#d1495b", "rclone-writes": "#e8a0a9",
           "davfs2": "#edae49", "sshfs": "#66a182", "pass-through": "#8d96a3", "curl": "#44475a"}
MEBIBYTE = 1 << 20


def middle(results, table, row, system="kelvane"):
    samples = results.get(table, {}).get(row, {}).get(system)
    return statistics.median(samples) if samples else None


def seconds(results, metric, system="kelvane"):
    return middle(results, "seconds", metric, system)


def ratio(upper, lower):
    return upper / lower if upper is not None and lower else None


def paired(results, upper, lower):
    """The median of the ratios of each round, which were measured next to each other; upper and lower are (metric,
    system)."""
    above, below = (results["seconds"].get(metric, {}).get(system, []) for metric, system in (upper, lower))
    if len(above) != len(below):
        return ratio(seconds(results, *upper), seconds(results, *lower))
    return statistics.median(map(ratio, above, below)) if above else None


def milliseconds(value):
    return f"{value * 1000:.0f}" if value >= 0.01 else f"{value * 1000:.1f}"


def table(header, rows):
    lines = ["| " + " | ".join(row) + " |" for row in [header, ["---"] * len(header), *rows]]
    return "\n".join(lines) + "\n"


def systems_of(results):
    return [system for system in COLOURS if any(system in row for row in results["seconds"].values())]


def times_table(results):
    systems = systems_of(results)
    rows = []
    for metric, title in TITLES.items():
        if metric not in results["seconds"]:
            continue
        row = [title]
        for system in systems:
            samples = results["seconds"][metric].get(system)
            own = paired(results, (metric, system), (metric, "kelvane"))
            row.append("" if not samples else
                       f"{milliseconds(statistics.median(samples))} ({milliseconds(min(samples))}–"
                       f"{milliseconds(max(samples))})" + (f" **{own:.2f}**" if own and system != "kelvane" else ""))
        rows.append(row)
    return table(["milliseconds", *systems], rows)


def usage_table(results):
    systems = [system for system in systems_of(results) if system != "curl"]
    rows = []
    for workload, by_system in results.get("cpu", {}).items():
        cells = [f"{middle(results, 'cpu', workload, system):.2f} s, "
                 f"{middle(results, 'peak', workload, system) / MEBIBYTE:.0f} MiB" if system in by_system else ""
                 for system in systems]
        rows.append([workload, *cells])
    return table(["CPU time, peak memory", *systems], rows)


def best(results, metric, only=lambda system: True):
    """The name of the fastest alternative."""
    times = {system: seconds(results, metric, system) for system in results["seconds"].get(metric, {})
             if not system.startswith("kelvane") and system not in LIMITS and only(system)}
    return min(times, key=times.get, default="")


def stored_at_close(results):
    return {system: all(samples) for system, samples in results.get("stored", {}).get("write", {}).items()}


def goals(results):
    """(what, measured, operator, limit, unit) of everything that was measured."""
    rows = []

    def goal(what, measured, operator, limit, unit=""):
        if measured is not None:
            rows.append((what, measured, operator, limit, unit))

    def beside(metric, system):
        return paired(results, (metric, "kelvane"), (metric, system))

    def beside_best(metric, operator, only=lambda system: True, note=""):
        name = best(results, metric, only)
        goal(f"{metric} : best alternative{note} ({name})", beside(metric, name), operator, 1)

    for metric, limit in (("cold find", 1.1), ("warm find", 1.0), ("stat", 1.05)):
        goal(f"{metric} : pass-through", beside(metric, "pass-through"), "<=", limit)
    beside_best("large", "<")
    sizes = sorted(int(metric.split()[0]) for metric in results["seconds"] if metric.endswith(" entries"))
    if len(sizes) > 1:
        # The smallest times: other work on the machine only ever adds to the few there are.
        grown = ratio(*(min(results["seconds"][f"{size} entries"]["kelvane"]) for size in (sizes[-1], sizes[0])))
        goal(f"time per entry, {sizes[-1]:,} : {sizes[0]:,}", ratio(grown, sizes[-1] / sizes[0]), "<=", 1.15)
    goal("sequential read, speed : curl", ratio(1, beside("read", "curl")), ">=", 0.8)
    beside_best("read", "<")
    beside_best("readers", "<=")
    goal("sequential write, speed : curl", ratio(1, beside("write", "curl")), ">=", 0.8)
    stored = stored_at_close(results)
    beside_best("write", "<", lambda system: stored.get(system, False), " with the data stored at close")
    samples = lambda metric, system: results["seconds"].get(metric, {}).get(system, [])
    for metric, requests in results.get("requests", {}).items():
        for what, metric_of_curl, portion in (
                (f"{requests / results['changes']:.2g} small requests", "small storage", requests / results["small requests"]),
                ("the same requests by curl", metric, 1)):
            beyond = [(own - base) / (portion * plain) for own, base, plain in zip(
                samples(metric, "kelvane"), samples(metric, "pass-through"), samples(metric_of_curl, "curl"))]
            goal(f"{metric} beyond pass-through : {what}", statistics.median(beyond) if beyond else None, "<=", 1.2)
    goal("small request, kelvane_storage : nginx", paired(results, ("small storage", "curl"), ("small nginx", "curl")), "<=", 1)
    beside_best("random", "<")
    goal("start to first listing", ratio(seconds(results, "start"), 0.001), "<=", 10, " ms")
    goal("CPU time of reading 256 MiB", middle(results, "cpu", "read"), "<=", 0.25, " s")
    goal("memory after it", ratio(middle(results, "resident", "read"), MEBIBYTE), "<", 16, " MiB")
    goal("memory with 100,000 entries", ratio(middle(results, "resident", "growth-100000"), MEBIBYTE), "<", 60, " MiB")
    return rows


def goals_table(results):
    reached = {"<": lambda a, b: a < b, "<=": lambda a, b: a <= b, ">=": lambda a, b: a >= b}
    signs = {"<": "<", "<=": "≤", ">=": "≥"}
    return table(["goal", "limit", "measured", "reached"],
                 [[what, f"{signs[operator]} {limit:g}{unit}", f"{value:.2f}{unit}",
                   "yes" if reached[operator](value, limit) else "**no**"]
                  for what, value, operator, limit, unit in goals(results)])


def notes(results):
    machine = results["machine"]
    lines = [f"{machine['cpu']}, {machine['cores']} cores, Linux {machine['kernel']}; {machine['rounds']} rounds; "
             f"load average at the start {machine['load']:.1f}. "
             "Medians (smallest–largest); in bold the ratio to the daemon, above 1 where the daemon is faster."]
    if not machine["dropped"]:
        lines.append("The kernel's caches could not be dropped.")
    for system in results.get("without", []):
        lines.append(f"{system} could not be started and is left out.")
    for workload, systems in results.get("failed", {}).items():
        lines.append(f"{', '.join(sorted(set(systems)))} failed at {workload}.")
    stored = stored_at_close(results)
    if stored:
        lines.append("All of the file on the server when `close` returned: "
                     + ", ".join(f"{system} {'yes' if good else 'no'}" for system, good in stored.items()) + ".")
    return "\n".join(f"- {line}" for line in lines) + "\n"


def markdown(results):
    parts = [notes(results), times_table(results), goals_table(results), usage_table(results)]
    return "\n".join(part for part in parts if part)


def chart(results):
    """Time relative to the daemon's, one group of bars for each metric, on a logarithmic scale."""
    systems = [system for system in systems_of(results) if system != "kelvane"]
    metrics = [metric for metric in TITLES if seconds(results, metric)]
    left, width, bar, gap, top = 370, 620, 11, 16, 70
    low, high = 0.125, 16
    place = lambda value: left + width * math.log(min(max(value, low), high) / low) / math.log(high / low)
    shapes = []
    y = top
    for metric in metrics:
        shown = [system for system in systems if seconds(results, metric, system)]
        shapes.append(f'<text x="{left - 40}" y="{y + bar * len(shown) / 2 + 4:.0f}" text-anchor="end">'
                      f"{TITLES[metric].replace('`', '')}</text>")
        for system in shown:
            value = paired(results, (metric, system), (metric, "kelvane"))
            start, end = sorted((place(1), place(value)))
            shapes.append(f'<rect x="{start:.1f}" y="{y}" width="{max(end - start, 1):.1f}" height="{bar - 1}" '
                          f'fill="{COLOURS[system]}"/>')
            side, anchor = (end + 4, "start") if value >= 1 else (start - 4, "end")
            shapes.append(f'<text x="{side:.1f}" y="{y + bar - 2}" font-size="9" text-anchor="{anchor}">{value:.2f}</text>')
            y += bar
        y += gap
    for tick in (0.125, 0.25, 0.5, 1, 2, 4, 8, 16):
        shapes.insert(0, f'<line x1="{place(tick):.1f}" x2="{place(tick):.1f}" y1="{top - 8}" y2="{y - gap + 4}" '
                         f'stroke="{"#222" if tick == 1 else "#ddd"}"/>')
        shapes.append(f'<text x="{place(tick):.1f}" y="{top - 12}" text-anchor="middle">{tick:g}×</text>')
    for index, system in enumerate(systems):
        shapes.append(f'<rect x="{left - 60 + index * 108}" y="24" width="11" height="11" fill="{COLOURS[system]}"/>'
                      f'<text x="{left - 45 + index * 108}" y="34">{system}</text>')
    return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {left + width + 60} {y + 6}" '
            'font-family="sans-serif" font-size="12">\n<rect width="100%" height="100%" fill="white"/>\n'
            '<text x="10" y="18" font-size="14">Time relative to kelvane_vfs: right of 1× kelvane_vfs is faster</text>\n'
            + "\n".join(shapes) + "\n</svg>\n")


def write(results, output, docs):
    text = markdown(results)
    output.mkdir(parents=True, exist_ok=True)
    (output / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    (output / "results.md").write_text(text)
    (output / "results.svg").write_text(chart(results))
    print(text)
    print(f"results: {output}")
    if docs:
        page = docs / "performance.md"
        page.write_text(re.sub(r"(<!-- results -->\n).*(<!-- end of results -->)", lambda found: found[1] + text + found[2],
                               page.read_text(), flags=re.S))
        (docs / "performance.svg").write_text(chart(results))
