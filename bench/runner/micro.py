"""Figures of the benchmark programs that measure one part alone."""

import json
import re
import subprocess
from dataclasses import dataclass
from pathlib import Path

PROGRAM_SECONDS = 180
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


@dataclass(frozen=True)
class MicroRow:
    """`pattern` finds the benchmark by its name; `over` the one that it is divided by, if it is a ratio."""

    key: str
    program: str
    pattern: str
    rate: bool = False  # items per second; otherwise nanoseconds per turn
    over: str = ""


ROWS = (
    MicroRow("log_printed", "log_bench", r"^printedToFile\b.*threads:1$"),
    MicroRow("log_silent_empty", "log_bench", r"^silentWithEmptyTable\b.*threads:1$"),
    MicroRow("log_silent_20", "log_bench", r"^silentWithFullTable\b.*threads:1$"),
    MicroRow("dispatcher_events", "dispatcher_bench", r"^dispatcherEvents\b", rate=True),
    MicroRow("clock_ratio", "wall_clock_bench", r"^clockServer\b", rate=True, over=r"^bareLoop\b"),
)


def programs() -> list:
    return sorted({row.program for row in ROWS})


def run_program(path: Path, folder: Path, quick: bool) -> list:
    """The benchmarks of one program, as its JSON file lists them."""
    out = folder / f"{path.name}.json"
    words = [str(path), f"--benchmark_out={out}", "--benchmark_out_format=json"]
    if quick:
        words.append("--benchmark_min_time=0.05")
    done = subprocess.run(words, cwd=folder, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, timeout=PROGRAM_SECONDS, check=False)
    if done.returncode != 0:
        raise RuntimeError(f"{path.name} ended with code {done.returncode}: {done.stderr.decode()[-300:]}")
    return json.loads(out.read_text())["benchmarks"]


def find(benchmarks: list, pattern: str, rate: bool):
    for benchmark in benchmarks:
        if not re.search(pattern, benchmark["name"]) or benchmark.get("error_occurred"):
            continue
        if rate:
            return benchmark.get("items_per_second")
        return benchmark["real_time"] * NANOSECONDS[benchmark["time_unit"]]
    return None


def value_of(row: MicroRow, benchmarks: list):
    value = find(benchmarks, row.pattern, row.rate)
    if not row.over or value is None:
        return value
    base = find(benchmarks, row.over, row.rate)
    return value / base if base else None
