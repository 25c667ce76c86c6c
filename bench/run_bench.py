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
from pathlib import Path

from runner import report
from runner.rows import ROWS, plan_of
from runner.servers import OURS, SERVERS, RunningServer, Server, pinned

FOLDER = Path(__file__).resolve().parent
DESCRIPTORS = 16384
LOAD_SECONDS = 120
MICRO_SECONDS = 300
NANOSECONDS = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
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
    parser.add_argument("--no-micro", action="store_true", help="leave the benchmarks of single parts out")
    parser.add_argument("--build-dir", type=Path, default=FOLDER.parent / "build")
    parser.add_argument("--output", type=Path, help="the table (default bench/results/latest.md; quick in the build)")
    arguments = parser.parse_args()
    arguments.rounds = arguments.rounds or (1 if arguments.quick else 3)
    arguments.seconds = arguments.seconds or (0.3 if arguments.quick else 1.0)
    arguments.build_dir = arguments.build_dir.resolve()
    table = arguments.build_dir / "bench_quick.md" if arguments.quick else FOLDER / "results" / "latest.md"
    arguments.output = arguments.output or table
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


def describe_machine() -> dict:
    model = re.search(r"model name\s*:\s*(.+)", Path("/proc/cpuinfo").read_text())
    commit = subprocess.run(["git", "-C", str(FOLDER), "describe", "--always", "--dirty"], capture_output=True,
                            text=True, check=False).stdout.strip()
    return {"cpus": len(os.sched_getaffinity(0)), "model": model.group(1) if model else platform.machine(),
            "system": f"{platform.system()} {platform.release()}", "commit": commit or "unknown"}


class Bench:
    """One run of the driver; gathers samples and problems."""

    def __init__(self, arguments, servers: list, folder: Path):
        self._arguments, self._servers, self._folder = arguments, servers, folder
        self._server_cpu, self._load_cpu = two_cpus()
        self.samples, self.problems = [], []

    def run_rounds(self):
        plan = plan_of([row for row in ROWS if re.search(self._arguments.rows, row.key)], self._servers)
        runs = [(round_, *step) for round_ in range(1, self._arguments.rounds + 1) for step in plan]
        for done, (round_, row, server) in enumerate(runs, 1):
            figures = self._guarded(f"{row.key} of {server.key}, round {round_}", self._load, row, server)
            if figures is None:
                continue  # the problem has been told
            self.samples.append({"round": round_, "row": row.key, "server": server.key, "figures": figures})
            print(f"[{done:3}/{len(runs)}] round {round_} {row.key:18} {server.key:12} "
                  f"{report.short(figures[row.figure]):>9} {row.figure}", flush=True)

    def run_micro(self):
        print("running micro_bench", flush=True)
        for benchmark in self._guarded("micro_bench", self._micro) or []:
            if benchmark.get("error_occurred"):
                self._note(f"{benchmark['name']}: {benchmark['error_message']}")
                continue
            figures = {"real_ns": benchmark["real_time"] * NANOSECONDS[benchmark["time_unit"]]}
            figures |= {name: benchmark[name] for name in ("items_per_second",) if name in benchmark}
            self.samples.append({"round": benchmark["repetition_index"], "row": benchmark["run_name"], "server": OURS,
                                 "figures": figures})

    def _micro(self) -> list:
        output = self._folder / "micro.json"
        words = [str(self._arguments.build_dir / "micro_bench"), f"--benchmark_out={output}",
                 f"--benchmark_repetitions={1 if self._arguments.quick else 5}",
                 f"--benchmark_min_time={0.02 if self._arguments.quick else 0.2}",
                 "--benchmark_enable_random_interleaving=true"]
        subprocess.run(words, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=MICRO_SECONDS, check=True)
        benchmarks = json.loads(output.read_text())["benchmarks"]
        return [benchmark for benchmark in benchmarks if benchmark["run_type"] == "iteration"]

    def _load(self, row, server) -> dict:
        arguments = self._arguments
        prepare = pinned(self._server_cpu, row.descriptors)
        with RunningServer(server, arguments.build_dir, self._folder, prepare) as running:
            words = [str(arguments.build_dir / "bench_load"), *row.arguments, "--port", str(running.port),
                     "--pid", str(running.process.pid), "--time", str(arguments.seconds)]
            done = subprocess.run(words, capture_output=True, text=True, timeout=LOAD_SECONDS, check=False,
                                  preexec_fn=pinned(self._load_cpu))
        if running.complaint():
            self._note(f"{server.key} {running.complaint()}, after {' '.join(row.arguments)}")
        if done.returncode != 0:
            raise RuntimeError(done.stderr.strip() or f"bench_load ended with code {done.returncode}")
        return json.loads(done.stdout)

    def _guarded(self, name: str, action, *arguments):
        """A measurement that fails is told and counted, and the others go on."""
        try:
            return action(*arguments)
        except (RuntimeError, OSError, ValueError, KeyError, subprocess.SubprocessError) as error:
            self._note(f"{name}: {error}")
            return None

    def _note(self, problem: str):
        print(f"PROBLEM {problem}", flush=True)
        self.problems.append(problem)


def publish(arguments, servers: list, bench: Bench):
    """The table goes to --output, each single measurement to the build folder."""
    results = {"when": datetime.datetime.now().strftime("%Y-%m-%d %H:%M"), "quick": arguments.quick,
               "machine": describe_machine(), "rounds": arguments.rounds, "seconds": arguments.seconds,
               "problems": bench.problems, "samples": bench.samples}
    arguments.output.parent.mkdir(parents=True, exist_ok=True)
    arguments.output.write_text(report.markdown(results, servers))
    raw = arguments.build_dir / "bench.json"
    raw.write_text(json.dumps(results, indent=1) + "\n")
    print("\n" + "\n".join(report.target_lines(bench.samples)))
    print(f"\nWritten: {arguments.output}, and each measurement to {raw}")


def main() -> int:
    arguments = parse_arguments()
    servers, left_out = choose_servers(arguments)
    for title in left_out:
        print(f"LEFT OUT, not built: {title}", flush=True)
    raise_descriptor_limit()
    with tempfile.TemporaryDirectory(prefix="zenk_bench.") as folder:
        if shutil.disk_usage(folder).free < ENOUGH_DISK_BYTES:
            sys.exit(f"{folder} has less than 2 GiB free, which a log at full speed needs; set TMPDIR elsewhere")
        bench = Bench(arguments, servers, Path(folder))
        bench.run_rounds()
        if not arguments.no_micro:
            bench.run_micro()
    publish(arguments, servers, bench)
    # Without the server under test the run says nothing about it, and must not look like a success.
    has_ours = any(server.key == OURS for server in servers)
    return 0 if has_ours and not bench.problems else 1


if __name__ == "__main__":
    sys.exit(main())
