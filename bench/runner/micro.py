"""Figures of the benchmark programs that measure one part alone.

Those on Google Benchmark are asked for its JSON; others print text, from which a pattern takes the figure.
"""

import json
import re
import statistics
import subprocess
from dataclasses import dataclass
from pathlib import Path

from runner.servers import COLOUR

PROGRAM_SECONDS = 180
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}


@dataclass(frozen=True)
class GoogleFigure:
    """Nanoseconds per turn of the benchmark whose name matches, the median of its repetitions."""

    pattern: str

    def read(self, output: dict):
        # Processor time: what a neighbour on the machine takes is none of ours.
        times = [benchmark["cpu_time"] * NANOSECONDS[benchmark["time_unit"]]
                 for benchmark in output["benchmarks"]
                 if re.search(self.pattern, benchmark["name"]) and benchmark.get("run_type", "iteration") == "iteration"
                 and not benchmark.get("error_occurred")]
        return statistics.median(times) if times else None


@dataclass(frozen=True)
class LowestInText:
    """The lowest of the numbers that the pattern's group finds in the lines of the output."""

    pattern: str

    def read(self, output: str):
        found = [float(text) for text in re.findall(self.pattern, output, re.MULTILINE)]
        return min(found) if found else None


@dataclass(frozen=True)
class Program:
    """`figures` goes by the row's key."""

    name: str
    figures: dict
    is_google: bool = True
    quick_arguments: tuple = ("--benchmark_min_time=0.05",)

    def run(self, build: Path, folder: Path, quick: bool) -> dict:
        """The value of each figure, None for one that the program does not give."""
        results, output = folder / f"{self.name}.json", folder / f"{self.name}.out"
        words = [str(build / self.name), *(self.quick_arguments if quick else ())]
        if self.is_google:
            words += [f"--benchmark_out={results}", "--benchmark_out_format=json"]
            if not quick:
                words += ["--benchmark_repetitions=5"]
        # To a file, as everywhere here: what is measured may log.
        with open(output, "wb") as file:
            done = subprocess.run(words, cwd=folder, stdin=subprocess.DEVNULL, stdout=file, stderr=subprocess.PIPE,
                                  text=True, timeout=PROGRAM_SECONDS, check=False)
        text = COLOUR.sub(b"", output.read_bytes()).decode(errors="replace")
        output.unlink()
        if done.returncode != 0:
            raise RuntimeError(f"ended with code {done.returncode}: {done.stderr[-300:]}")
        source = json.loads(results.read_text()) if self.is_google else text
        return {key: figure.read(source) for key, figure in self.figures.items()}


PROGRAMS = (
    Program("log_bench", {
        "log_printed": GoogleFigure(r"^printedToFile\b.*threads:1$"),
        "log_silent_empty": GoogleFigure(r"^silentWithEmptyTable\b.*threads:1$"),
        "log_silent_20": GoogleFigure(r"^silentWithFullTable\b.*threads:1$"),
    }),
    Program("dispatcher_bench", {"dispatcher_events": LowestInText(r"^events per second +(\d+)")}, is_google=False,
            quick_arguments=()),
    # One request in flight and sixteen: both have to keep up.
    Program("wall_clock_bench", {"clock_ratio": LowestInText(r"^ *\d+ +ratio +([\d.]+)")}, is_google=False,
            quick_arguments=("3",)),
)
