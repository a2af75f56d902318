"""Turns the results of a comparison into Markdown tables and a chart."""
import json
import math
import re
import statistics

TITLES = {  # by metric: what is timed
    "start": "start to first listing",
    "cold find": "cold `find -ls`, {all_files:,} files",
    "warm find": "warm `find -ls`, {all_files:,} files",
    "large": "cold `find -ls`, 50,000 entries in one directory",
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
LIMITS = ("pass-through", "curl")
COLOURS = {"kelvane": "#1b6ca8", "before": "#b0c4d8", "kelvane -s": "#7fb2d9", "rclone": "#d1495b",
           "rclone-writes": "#e8a0a9", "davfs2": "#edae49", "sshfs": "#66a182", "pass-through": "#8d96a3",
           "curl": "#44475a"}
MEBIBYTE = 1 << 20


def middle(results, table, row, system="kelvane"):
    samples = results.get(table, {}).get(row, {}).get(system)
    return statistics.median(samples) if samples else None


def seconds(results, metric, system="kelvane"):
    return middle(results, "seconds", metric, system)


def ratio(upper, lower):
    return upper / lower if upper is not None and lower else None


def paired(results, upper, lower):
    """The median of the ratios of each round, whose times were measured one after the other; upper and lower are
    (metric, system)."""
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


def title(results, metric):
    amount = results["amount"]
    read, write = (amount[what] // MEBIBYTE for what in ("read", "write"))
    return TITLES[metric].format(all_files=amount["directories"] * amount["files"], read=read, reader=read // 8,
                                 write=write, writer=write // 8, random=amount["random"], changes=amount["changes"])


def mark(results, metric, system):
    """A star where not everything was on the server when the last call returned."""
    return "" if all(results.get("stored", {}).get(metric, {}).get(system, [])) else "\\*"


def times_table(results):
    systems = systems_of(results)
    rows = []
    for metric in filter(results["seconds"].__contains__, TITLES):
        row = [title(results, metric)]
        for system in systems:
            samples = results["seconds"][metric].get(system)
            own = paired(results, (metric, system), (metric, "kelvane"))
            row.append("" if not samples else
                       f"{milliseconds(statistics.median(samples))} ({milliseconds(min(samples))}–"
                       f"{milliseconds(max(samples))}){mark(results, metric, system)}"
                       + (f" **{own:.2f}**" if own and system != "kelvane" else ""))
        rows.append(row)
    return table(["milliseconds", *systems], rows)


def usage_table(results):
    systems = [system for system in systems_of(results) if system != "curl"]
    mebibytes = lambda *of: f"{middle(results, *of) / MEBIBYTE:.0f}"
    cell = lambda *of: (f"{middle(results, 'cpu', *of):.2f} s, "
                        f"{mebibytes('resident', *of)} / {mebibytes('peak', *of)} MiB")
    rows = [[workload, *(cell(workload, system) if system in by_system else "" for system in systems)]
            for workload, by_system in results.get("cpu", {}).items()]
    return table(["CPU time, memory: resident afterwards / peak", *systems], rows)


def best(results, metric, only=lambda system: True):
    """The name of the fastest alternative."""
    times = {system: seconds(results, metric, system) for system in results["seconds"].get(metric, {})
             if not system.startswith("kelvane") and system not in (*LIMITS, "before") and only(system)}
    return min(times, key=times.get, default="")


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

    rtt = results["machine"]["rtt"]
    if rtt:
        if rtt >= 20:
            goal("read, speed : the build before", ratio(1, beside("read", "before")), ">=", 6 if rtt < 100 else 8)
            goal("write, speed : the build before", ratio(1, beside("write", "before")), ">=", 1.8)
            goal("create : the build before", beside("create", "before"), "<=", 0.8)
        for metric in ("read", "cold find", "create"):
            goal(f"{metric} : sshfs", beside(metric, "sshfs"), "<", 1)
        return rows
    for metric, limit in (("cold find", 1.1), ("warm find", 1.0), ("stat", 1.05)):
        goal(f"{metric} : pass-through", beside(metric, "pass-through"), "<=", limit)
    beside_best("large", "<")
    sizes = sorted(int(metric.split()[0]) for metric in results["seconds"] if metric.endswith(" entries"))
    if len(sizes) > 1:
        # The smallest times, because other work on the machine only adds to them.
        grown = ratio(*(min(results["seconds"][f"{size} entries"]["kelvane"]) for size in (sizes[-1], sizes[0])))
        goal(f"time per entry, {sizes[-1]:,} : {sizes[0]:,}", ratio(grown, sizes[-1] / sizes[0]), "<=", 1.15)
    goal("sequential read, speed : curl", ratio(1, beside("read", "curl")), ">=", 0.8)
    beside_best("read", "<")
    beside_best("readers", "<=")
    goal("sequential write, speed : curl", ratio(1, beside("write", "curl")), ">=", 0.8)
    beside_best("write", "<", lambda system: not mark(results, "write", system), " with the data stored at close")
    samples = lambda metric, system: results["seconds"].get(metric, {}).get(system, [])
    for metric, requests in results.get("requests", {}).items():
        for what, metric_of_curl, portion in (
                (f"{requests / results['amount']['changes']:.2g} small requests", "small storage",
                 requests / results["small requests"]),
                ("the same requests by curl", metric, 1)):
            beyond = [(own - base) / (portion * plain) for own, base, plain in zip(
                samples(metric, "kelvane"), samples(metric, "pass-through"), samples(metric_of_curl, "curl"))]
            goal(f"{metric} beyond pass-through : {what}", statistics.median(beyond) if beyond else None, "<=", 1.2)
    goal("small request, kelvane_storage : nginx",
         paired(results, ("small storage", "curl"), ("small nginx", "curl")), "<=", 1)
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
    lines = [f"{machine['date']}: {machine['cpu']}, {machine['cores']} cores, Linux {machine['kernel']}; "
             f"{machine['rounds']} rounds; load average at the start {machine['load']:.1f}. "
             f"{', '.join(machine['versions'])}.",
             "Medians (smallest–largest); in bold the ratio to the daemon, above 1 where the daemon is faster. "
             "\\*: not everything was on the server when the last call returned."]
    if not machine["dropped"]:
        lines.append("The kernel's caches could not be dropped.")
    for system in results.get("without", []):
        lines.append(f"{system} could not be started and is left out.")
    for workload, systems in results.get("failed", {}).items():
        lines.append(f"{', '.join(sorted(set(systems)))} failed at {workload}.")
    return "\n".join(f"- {line}" for line in lines) + "\n"


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
                      f"{title(results, metric).replace('`', '')}</text>")
        for system in shown:
            value = paired(results, (metric, system), (metric, "kelvane"))
            start, end = sorted((place(1), place(value)))
            shapes.append(f'<rect x="{start:.1f}" y="{y}" width="{max(end - start, 1):.1f}" height="{bar - 1}" '
                          f'fill="{COLOURS[system]}"/>')
            side, anchor = (end + 4, "start") if value >= 1 else (start - 4, "end")
            if not low <= value <= high:
                torn = end - 12 if value > 1 else start + 6
                shapes.append(f'<path d="M{torn:.1f} {y + bar}l6 {-bar - 1}" stroke="white" stroke-width="4"/>')
            shapes.append(f'<text x="{side:.1f}" y="{y + bar - 2}" font-size="9" text-anchor="{anchor}">{value:.2f}'
                          f"{mark(results, metric, system)[1:]}</text>")
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
            f'<text x="10" y="18" font-size="14">Time relative to kelvane_vfs, {place_of(results)}: right of 1× '
            'kelvane_vfs is faster; a bar with a gap is cut; *: not all of it had arrived</text>\n'
            + "\n".join(shapes) + "\n</svg>\n")


def place_of(results):
    return f"{results['machine']['rtt']:g} ms away" if results["machine"]["rtt"] else "near"


def write(results, output, docs):
    texts = {"results": notes(results) + "\n" + times_table(results),
             "goals": goals_table(results) + "\n" + usage_table(results)}
    place = place_of(results)
    chart_name = "performance.svg" if place == "near" else f"performance-{place.split()[0]}ms.svg"
    for directory in filter(None, (output, docs)):
        directory.mkdir(parents=True, exist_ok=True)
        (directory / chart_name).write_text(chart(results))
    (output / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    (output / "results.md").write_text("\n".join(texts.values()))
    print(*texts.values(), f"results: {output}", sep="\n")
    page = (docs or output) / "performance.md"
    for what, text in texts.items() if docs else ():
        page.write_text(re.sub(rf"(<!-- {what}: {place} -->\n).*?(<!-- end -->)",
                               lambda found: found[1] + text + found[2], page.read_text(), flags=re.S))
