"""The results as Markdown."""

from runner.samples import by_round, median, ratios
from runner.servers import OURS

# The generator spins, so on a core of its own it is at 100 %. What is missing, somebody else had.
UNDISTURBED_PCT = 90


def short(value: float, unit: str = "") -> str:
    if value is None:
        return "-"
    if value == 0 or abs(value) >= 100:
        text = f"{value:,.0f}"
    elif abs(value) >= 10:
        text = f"{value:.1f}"
    else:
        text = f"{value:.2f}" if abs(value) >= 0.1 else f"{value:.3f}"
    return f"{text} {unit}".strip()


def table_rows(results: dict) -> list:
    """(title, row key, figure, unit) of each line of the table of all rows."""
    lines = []
    for row in results["rows"]:
        lines.append((row["title"], row["key"], row["figure"], row["unit"]))
        lines += [(title, row["key"], figure, unit) for title, figure, unit in row["also"]]
    return lines


def verdict_word(verdict: dict) -> str:
    if verdict["met"] is None:
        return "not measured"
    return "met" if verdict["met"] else "**not met**"


def spread(values: list, unit: str) -> str:
    return f"{short(min(values))} to {short(max(values), unit)}" if values else "-"


def target_lines(verdicts: list) -> list:
    lines = ["| what | target | measured | rounds | |", "|---|---|---|---|---|"]
    for verdict in verdicts:
        bound = ("at least " if verdict["at_least"] else "at most ") + short(verdict["bound"], verdict["unit"])
        cells = (verdict["what"], bound, short(verdict["median"], verdict["unit"]),
                 spread(verdict["rounds"], verdict["unit"]), verdict_word(verdict))
        lines.append("| " + " | ".join(cells) + " |")
    return lines


def row_cell(samples: list, row: str, figure: str, server: str) -> str:
    """The median, and for others how ours compares."""
    theirs = by_round(samples, row, server, figure)
    if not theirs:
        return "-"
    ratio = median(ratios(by_round(samples, row, OURS, figure), theirs))
    text = short(median(theirs.values()))
    return text if server == OURS or ratio is None else f"{text} ({short(ratio)})"


def row_lines(results: dict) -> list:
    servers = results["servers"]
    lines = ["| row | unit | " + " | ".join(server["title"] for server in servers) + " |",
             "|---|---|" + "---|" * len(servers)]
    for title, row, figure, unit in table_rows(results):
        cells = [row_cell(results["samples"], row, figure, server["key"]) for server in servers]
        lines.append(f"| {title} | {unit} | " + " | ".join(cells) + " |")
    return lines


def disturbed(samples: list) -> tuple:
    shares = [sample["figures"]["load_cpu_pct"] for sample in samples if "load_cpu_pct" in sample["figures"]]
    return sum(share < UNDISTURBED_PCT for share in shares), len(shares)


def quiet_line(results: dict) -> str:
    machine = results["machine"]
    if machine["server_cpu"] is None:
        return "One processor: server and load generator shared it, so that round trips say little."
    bad, total = disturbed(results["samples"])
    return (f"In {bad} of {total} measurements the load generator had less than {UNDISTURBED_PCT} % of its core: "
            "somebody else was at work then.")


def problem_lines(results: dict) -> list:
    lines = [f"- left out, not built: {name}" for name in results["left_out"]]
    return lines + [f"- {problem}" for problem in results["problems"]]


def markdown(results: dict, verdicts: list) -> str:
    machine = results["machine"]
    kind = "Quick run: for checking the machinery, not for quoting. " if results["quick"] else ""
    lines = [
        "# Benchmark results", "",
        f"{kind}{results['when']}, commit {machine['commit']}, {machine['cpus']} processors ({machine['model']}), "
        f"{machine['system']}; {results['round_count']} interleaved rounds of {short(results['seconds'], 's')} per "
        "measurement. " + quiet_line(results), "", "## Targets", "", *target_lines(verdicts), "", "## All rows", "",
        "Medians of the rounds. In brackets: ours to theirs, the median of the ratios within a round.", "",
        *row_lines(results), "", "## Contents", "",
        "Messages of 16 sizes from 0 to 131,000 bytes, both directions, text and binary, arrived unchanged and in "
        f"order: {', '.join(results['checked']) or 'nowhere'}."
    ]
    problems = problem_lines(results)
    if problems:
        lines += ["", "## Problems", "", *problems]
    return "\n".join(lines) + "\n"
