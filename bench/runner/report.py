"""The results as Markdown."""

from runner.rows import ROWS, TARGETS, by_round, median, ratios
from runner.servers import OURS

# The generator spins, so on a core of its own it is at 100 %. What is missing, somebody else had.
UNDISTURBED_PCT = 90


def short(value) -> str:
    if value is None:
        return "-"
    if value == 0 or abs(value) >= 100:
        return f"{value:,.0f}"
    if abs(value) >= 10:
        return f"{value:.1f}"
    return f"{value:.2f}" if abs(value) >= 0.1 else f"{value:.3f}"


def table_line(cells) -> str:
    return "| " + " | ".join(cells) + " |"


def target_lines(samples: list) -> list:
    lines = ["| what | target | measured | rounds | |", "|---|---|---|---|---|"]
    for target in TARGETS:
        values = target.values(samples)
        spread = f"{short(min(values))} to {short(max(values))}" if values else "-"
        word = {None: "not measured", True: "met", False: "**not met**"}[target.is_met(samples)]
        bound = ("at least " if target.at_least else "at most ") + short(target.bound)
        lines.append(table_line((target.what, bound, short(median(values)), spread, word)))
    return lines


def row_cell(samples: list, row: str, figure: str, server: str) -> str:
    """The median, and for others how ours compares."""
    theirs = by_round(samples, row, server, figure)
    ratio = median(ratios(by_round(samples, row, OURS, figure), theirs))
    text = short(median(theirs.values()))
    return text if server == OURS or ratio is None else f"{text} ({short(ratio)})"


def row_lines(samples: list, servers: list) -> list:
    lines = [table_line(["row", *(server.title for server in servers)]), "|---|" + "---|" * len(servers)]
    measured = {sample["row"] for sample in samples}
    for row in ROWS:
        for title, figure in ((row.title, row.figure), *row.also) if row.key in measured else ():
            lines.append(table_line([title, *(row_cell(samples, row.key, figure, server.key) for server in servers)]))
    return lines


def micro_lines(samples: list) -> list:
    rows = {row.key for row in ROWS}
    names = dict.fromkeys(sample["row"] for sample in samples if sample["row"] not in rows)
    lines = ["| single part | ns per turn | items per second |", "|---|---|---|"]
    for name in names:
        figures = (median(by_round(samples, name, OURS, figure).values()) for figure in ("real_ns", "items_per_second"))
        lines.append(table_line([f"`{name}`", *map(short, figures)]))
    return lines


def quiet_line(machine: dict, samples: list) -> str:
    if machine["cpus"] < 2:
        return "One processor: server and load generator shared it, so that round trips say little."
    shares = [sample["figures"]["load_cpu_pct"] for sample in samples if "load_cpu_pct" in sample["figures"]]
    return (f"In {sum(share < UNDISTURBED_PCT for share in shares)} of {len(shares)} measurements the load generator "
            f"had less than {UNDISTURBED_PCT} % of its core: somebody else was at work then.")


def markdown(results: dict, servers: list) -> str:
    machine, samples = results["machine"], results["samples"]
    kind = "Quick run: for checking the machinery, not for quoting. " if results["quick"] else ""
    lines = [
        "# Benchmark results", "",
        f"{kind}{results['when']}, commit {machine['commit']}, {machine['cpus']} processors ({machine['model']}), "
        f"{machine['system']}; {results['rounds']} interleaved rounds of {short(results['seconds'])} s per "
        "measurement. " + quiet_line(machine, samples), "", "## Targets", "", *target_lines(samples), "",
        "## All rows", "", "Medians of the rounds. In brackets: ours to theirs, the median of the ratios within a "
        "round.", "", *row_lines(samples, servers), "", *micro_lines(samples)
    ]
    if results["problems"]:
        lines += ["", "## Problems", "", *(f"- {problem}" for problem in results["problems"])]
    return "\n".join(lines) + "\n"
