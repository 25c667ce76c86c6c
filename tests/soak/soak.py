#!/usr/bin/env python3
"""Runs clients of all kinds against zenk_receiver and watches it: soak.py [--minutes N] [--receiver PATH].

Prints a line every ten seconds and a verdict. Exit status: 0 clean, 1 not. All traffic is on the loopback interface.
"""

import argparse
import asyncio
import contextlib
import os
import random
import resource
import signal
import socket
import subprocess
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from actors import Actors  # noqa: E402
from latency import Probe  # noqa: E402
from report import Process, Record, ServerDied  # noqa: E402

LINE_SECONDS = 10
SETTLE_SECONDS = 30  # for the server to see the last clients go
# Bounds of the verdict. The event queue may hold 64 MiB, and the C library keeps what it has once had.
MAX_GROWTH_MIB = 160
MAX_DRIFT_MIB = 8  # between the second and the last quarter of the run
MAX_P99_SECONDS = 1.0  # of the typical line; a busy machine needs room, and the clients share its cores


def free_ports():
    with socket.socket() as tcp, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
        tcp.bind(("127.0.0.1", 0))
        udp.bind(("127.0.0.1", 0))
        return tcp.getsockname()[1], udp.getsockname()[1]


def start(receiver):
    port, wc_port = free_ports()
    server = subprocess.Popen([receiver, "--port", str(port), "--wc-port", str(wc_port)], stdin=subprocess.DEVNULL,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 30
    while time.monotonic() < deadline and server.poll() is None:
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return server, port, wc_port
        time.sleep(0.05)
    server.kill()
    sys.exit("soak: the receiver does not start")


async def repeat(actor, record):
    """The actor over and over. What it does not catch itself is a fault."""
    await asyncio.sleep(random.uniform(0, 3))
    while True:
        try:
            await actor()
        except asyncio.CancelledError:
            raise
        except Exception as error:  # pylint: disable=broad-except
            record.fault(f"{actor.__name__}: {error!r}")
            await asyncio.sleep(1)


def cast(actors):
    """Who takes part, and how often. Together they stay below the 25 clients of each CSS server."""
    parts = {actors.talk: 6, actors.stall: 2, actors.follow_cii: 4, actors.follow_ts: 4, actors.flood_css: 2,
             actors.ignore_answers: 1, actors.ask_clock: 4, actors.shout_at_clock: 1, actors.stay_silent: 3,
             actors.trickle: 2, actors.vanish: 3, actors.reset_somewhere: 3, actors.talk_nonsense: 2, actors.storm: 1}
    return [actor for actor, count in parts.items() for _ in range(count)]


async def watch(process, record, probe, seconds):
    """Prints the lines. Returns the resident memory of each."""
    memory = []
    started = time.monotonic()
    while time.monotonic() - started < seconds:
        await asyncio.sleep(LINE_SECONDS)
        memory.append(process.resident_mib())
        probe.collect(record)
        median, p99, worst = record.take_latencies()
        counts = " ".join(f"{name} {count}" for name, count in sorted(record.counts.items()))
        print(f"{time.monotonic() - started:6.0f} s  rss {memory[-1]:6.1f} MiB  fds {process.descriptors():4d}  "
              f"threads {process.threads()}  cpu {process.cpu_percent():3.0f} %  "
              f"round trip ms {median:.1f}/{p99:.1f}/{worst:.1f}  {counts}", flush=True)
    return memory


async def run(port, wc_port, process, record, seconds):
    probe = Probe(port)
    tasks = [asyncio.create_task(repeat(actor, record)) for actor in cast(Actors(port, wc_port, record))]
    try:
        return await watch(process, record, probe, seconds)
    finally:
        probe.stop()
        for task in tasks:
            task.cancel()
        await asyncio.wait(tasks, timeout=SETTLE_SECONDS)  # some take leave politely


def wait_until(predicate, seconds):
    deadline = time.monotonic() + seconds
    while not predicate() and time.monotonic() < deadline:
        time.sleep(0.2)
    return predicate()


def check_memory(memory, at_start, record):
    growth = max(memory) - at_start
    if growth > MAX_GROWTH_MIB:
        record.fault(f"resident memory grew by {growth:.0f} MiB")
    quarter = len(memory) // 4
    if quarter < 3:
        return  # too short to tell a drift from a warm-up
    drift = min(memory[-quarter:]) - min(memory[quarter:2 * quarter])
    print(f"drift of resident memory from the second to the last quarter: {drift:.1f} MiB")
    if drift > MAX_DRIFT_MIB:
        record.fault(f"resident memory drifts by {drift:.1f} MiB")


def check_latency(record):
    typical = sorted(record.p99s)[len(record.p99s) // 2] if record.p99s else 0
    print(f"typical 99th percentile of a round trip: {1000 * typical:.1f} ms")
    if typical > MAX_P99_SECONDS:
        record.fault("the relay is slow")


def check_rest(process, before, record):
    """Everything that clients have taken must be given back when they have gone."""
    def left():
        return process.descriptors(), process.threads()
    if not wait_until(lambda: left() == before, SETTLE_SECONDS):
        record.fault(f"descriptors and threads: {before} before the run, {left()} after it")


def end(server, record):
    server.send_signal(signal.SIGINT)
    try:
        if server.wait(20) != 0:
            record.fault(f"the receiver ended with {server.returncode}")
    except subprocess.TimeoutExpired:
        record.fault("the receiver does not end")


@contextlib.contextmanager
def under_watch(server, record):
    """Yields what the system knows of a server that has settled, and takes the server away at the end."""
    try:
        process = Process(server.pid)
        # The connection that start() probed with must not count.
        wait_until(lambda: process.threads() >= 4, 5)
        time.sleep(1)
        yield process
        end(server, record)
    except ServerDied:
        record.fault(f"the receiver died with {server.poll()}")
    finally:
        server.kill()
        server.wait()


def verdict(name, record):
    """Prints it. Returns the exit status."""
    faults = record.counts["faults"]
    print(f"{name}: {'NOT CLEAN' if faults else 'CLEAN'}, {faults} faults")
    return 1 if faults else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--receiver", default="build/zenk_receiver")
    options = parser.parse_args()

    limit = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
    record = Record()
    server, port, wc_port = start(options.receiver)
    with under_watch(server, record) as process:
        before, at_start = (process.descriptors(), process.threads()), process.resident_mib()
        memory = asyncio.run(run(port, wc_port, process, record, 60 * options.minutes))
        check_memory(memory, at_start, record)
        check_latency(record)
        check_rest(process, before, record)
    return verdict(f"soak of {options.minutes:g} min", record)


if __name__ == "__main__":
    sys.exit(main())
