#!/usr/bin/env python3
"""Measures the relay beside its peers, in interleaved rounds, and writes the results.

scripts/bench.sh builds everything and calls this.
"""

import argparse
import datetime
import json
import os
import platform
import re
import resource
import shlex
import shutil
import subprocess
import sys
import tempfile
import time
from dataclasses import asdict
from pathlib import Path

from runner import chart, micro, report, targets
from runner.rows import ROWS, plan_of
from runner.servers import OURS, SERVERS, RunningServer, Server, pinned

FOLDER = Path(__file__).resolve().parent
DESCRIPTORS = 16384
LOAD_SECONDS = 120
ENOUGH_DISK_BYTES = 2 * 1024**3


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--quick", action="store_true", help="one short round, to check the machinery")
    parser.add_argument("--rounds", type=int, help="interleaved rounds (default 3, quick 1)")
    parser.add_argument("--seconds", type=float, help="length of one measurement (default 1, quick 0.3)")
    parser.add_argument("--rows", default="", metavar="REGEX", help="only the rows whose key matches")
    parser.add_argument("--servers", metavar="KEYS", help="only these of the usual ones, separated by commas")
    parser.add_argument("--extra", action="append", default=[], metavar="KEY=COMMAND",
                        help="one more relay, such as an older build; {port} and {udp_port} are filled in")
    parser.add_argument("--check-only", action="store_true", help="check contents, measure nothing")
    parser.add_argument("--no-micro", action="store_true", help="leave the benchmarks of single parts out")
    parser.add_argument("--build-dir", type=Path, default=FOLDER.parent / "build")
    parser.add_argument("--output", type=Path, help="path without suffix (default bench/results/latest or quick)")
    arguments = parser.parse_args()
    arguments.rounds = arguments.rounds or (1 if arguments.quick else 3)
    arguments.seconds = arguments.seconds or (0.3 if arguments.quick else 1.0)
    name = "quick" if arguments.quick else "latest"
    arguments.output = arguments.output or FOLDER / "results" / name
    arguments.build_dir = arguments.build_dir.resolve()
    return arguments


def extra_server(text: str) -> Server:
    key, _, command = text.partition("=")
    if not key or not command:
        sys.exit(f"--extra needs KEY=COMMAND, not {text}")
    return Server(key, key, tuple(shlex.split(command)))


def choose_servers(arguments) -> tuple:
    """Those that run, and the names of those that are not built."""
    wanted = (arguments.servers or ",".join(server.key for server in SERVERS)).split(",")
    unknown = set(wanted) - {server.key for server in SERVERS}
    if unknown:
        sys.exit(f"no such server: {', '.join(sorted(unknown))}")
    servers = [server for server in SERVERS if server.key in wanted]
    servers += [extra_server(text) for text in arguments.extra]
    built = [server for server in servers if server.is_built(arguments.build_dir)]
    return built, [server.title for server in servers if server not in built]


def two_cpus() -> tuple:
    """One processor for the server and one for the load, where there are two."""
    cpus = sorted(os.sched_getaffinity(0))
    return (cpus[0], cpus[1]) if len(cpus) > 1 else (None, None)


def raise_descriptor_limit():
    """Servers inherit it. Not higher than needed: some libraries size tables by it."""
    _, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    limit = DESCRIPTORS if hard == resource.RLIM_INFINITY else min(hard, DESCRIPTORS)
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, hard))


def describe_machine(server_cpu) -> dict:
    model = re.search(r"model name\s*:\s*(.+)", Path("/proc/cpuinfo").read_text())
    commit = subprocess.run(["git", "-C", str(FOLDER), "describe", "--always", "--dirty"], capture_output=True,
                            text=True, check=False).stdout.strip()
    return {"cpus": len(os.sched_getaffinity(0)), "model": model.group(1) if model else platform.machine(),
            "system": f"{platform.system()} {platform.release()}", "commit": commit or "unknown",
            "load_at_start": os.getloadavg()[0], "server_cpu": server_cpu}


class Bench:
    """One run of the driver; gathers samples and problems."""

    def __init__(self, arguments, servers: list, left_out: list, folder: Path):
        self._arguments, self._servers, self._folder = arguments, servers, folder
        self.left_out = left_out
        self.server_cpu, self._load_cpu = two_cpus()
        self._rows = [row for row in ROWS if re.search(arguments.rows, row.key)]
        self.samples, self.problems, self.checked = [], [], []
        self._began = time.monotonic()
        self._done, self._total = 0, 0

    def check_contents(self):
        for server in self._servers:
            if self._guarded(f"content check of {server.key}", self._load, server, ("--mode", "check"), 1):
                self.checked.append(server.title)
                print(f"contents of {server.title} arrive unchanged", flush=True)

    def run_rounds(self):
        plan = plan_of(self._rows, self._servers, OURS)
        self._total = len(plan) * self._arguments.rounds
        for round_ in range(1, self._arguments.rounds + 1):
            for row, server in plan:
                self._measure(round_, row, server)

    def run_micro(self):
        for program in micro.PROGRAMS:
            if not (self._arguments.build_dir / program.name).exists():
                print(f"LEFT OUT, not built: {program.name}", flush=True)
                self.left_out.append(program.name)
                continue
            print(f"running {program.name}", flush=True)
            values = self._guarded(program.name, program.run, self._arguments.build_dir, self._folder,
                                   self._arguments.quick)
            for row, value in (values or {}).items():
                self._keep_micro(program.name, row, value)

    def results(self) -> dict:
        servers = [{"key": server.key, "title": server.title} for server in self._servers]
        return {"when": datetime.datetime.now().strftime("%Y-%m-%d %H:%M"), "quick": self._arguments.quick,
                "machine": describe_machine(self.server_cpu), "round_count": self._arguments.rounds,
                "seconds": self._arguments.seconds, "servers": servers, "left_out": self.left_out,
                "rows": [asdict(row) for row in self._rows], "checked": self.checked, "problems": self.problems,
                "samples": self.samples}

    def _measure(self, round_: int, row, server):
        name = f"{row.key} of {server.key}, round {round_}"
        figures = self._guarded(name, self._load, server, row.arguments, self._arguments.seconds)
        self._done += 1
        if figures is None:
            return  # the problem has been told
        self.samples.append({"round": round_, "row": row.key, "server": server.key, "figures": figures})
        left = (time.monotonic() - self._began) / self._done * (self._total - self._done)
        print(f"[{self._done:3}/{self._total}] round {round_} {row.key:18} {server.key:12} "
              f"{report.short(figures[row.figure]):>9} {row.unit} ({left:.0f} s to go)", flush=True)

    def _load(self, server, row_arguments: tuple, seconds: float) -> dict:
        with RunningServer(server, self._arguments.build_dir, self._folder, self.server_cpu) as running:
            words = [str(self._arguments.build_dir / "bench_load"), *row_arguments, "--port", str(running.port),
                     "--pid", str(running.process.pid), "--time", str(seconds)]
            done = subprocess.run(words, capture_output=True, text=True, timeout=LOAD_SECONDS, check=False,
                                  preexec_fn=pinned(self._load_cpu))
        if running.complaint():
            self._note(f"{server.key} {running.complaint()}, after {' '.join(row_arguments)}")
        if done.returncode != 0:
            raise RuntimeError(done.stderr.strip() or f"bench_load ended with code {done.returncode}")
        return json.loads(done.stdout)

    def _keep_micro(self, program: str, row: str, value):
        if value is None:
            self._note(f"{program} gives no figure for {row}")
        else:
            self.samples.append({"round": 1, "row": row, "server": OURS, "figures": {"value": value}})

    def _guarded(self, name: str, action, *arguments):
        """A measurement that fails is told and counted, and the others go on."""
        try:
            return action(*arguments)
        except (RuntimeError, OSError, ValueError, KeyError, subprocess.TimeoutExpired) as error:
            self._note(f"{name}: {error}")
            return None

    def _note(self, problem: str):
        print(f"PROBLEM {problem}", flush=True)
        self.problems.append(problem)


def write_results(output: Path, results: dict, verdicts: list):
    output.parent.mkdir(parents=True, exist_ok=True)
    output.with_suffix(".json").write_text(json.dumps({**results, "targets": verdicts}, indent=1) + "\n")
    output.with_suffix(".md").write_text(report.markdown(results, verdicts))
    output.with_suffix(".svg").write_text(chart.svg(results))


def run(bench: Bench, arguments) -> dict:
    bench.check_contents()
    if arguments.check_only:
        return None
    bench.run_rounds()
    if not arguments.no_micro:
        bench.run_micro()
    return bench.results()


def publish(output: Path, results: dict):
    verdicts = [target.verdict(results["samples"]) for target in targets.TARGETS]
    write_results(output, results, verdicts)
    print("\n" + "\n".join(report.target_lines(verdicts)))
    print(f"\nWritten: {output}.json, .md and .svg")


def main() -> int:
    arguments = parse_arguments()
    servers, left_out = choose_servers(arguments)
    for title in left_out:
        print(f"LEFT OUT, not built: {title}", flush=True)
    raise_descriptor_limit()
    with tempfile.TemporaryDirectory(prefix="zenk_bench.") as folder:
        if shutil.disk_usage(folder).free < ENOUGH_DISK_BYTES:
            sys.exit(f"{folder} has less than 2 GiB free, which a log at full speed needs; set TMPDIR elsewhere")
        bench = Bench(arguments, servers, left_out, Path(folder))
        results = run(bench, arguments)
    if results:
        publish(arguments.output, results)
    # Without the server under test the run says nothing about it, and must not look like a success.
    has_ours = any(server.key == OURS for server in servers)
    return 0 if has_ours and not bench.problems else 1


if __name__ == "__main__":
    sys.exit(main())
