#!/usr/bin/python3
"""More connections than the receiver has descriptors: crowd.py [--count N] [--limit N] [--receiver PATH].

N connections are attempted, as fast as they go and from one address, against a receiver that may hold --limit
descriptors, while one pair measures its round trips. Afterwards all of them leave and the receiver must be as before.
Exit status: 0 clean, 1 not.
"""

import argparse
import asyncio
import multiprocessing
import os
import resource
import sys
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from frames import RawClient  # noqa: E402
from latency import Probe  # noqa: E402
from report import Record  # noqa: E402
from soak import check_rest, start, under_watch, verdict, wait_until  # noqa: E402

AT_ONCE = 100
PATIENCE = 60


async def attempt(client, record, turns):
    """Leaves an accepted client connected."""
    async with turns:
        try:
            await client.__aenter__()
            accepted = await asyncio.wait_for(client.upgrade("/other"), PATIENCE)
            record.count("accepted" if accepted else "hung up on")
        except ConnectionError:
            record.count("hung up on")
        except OSError as error:
            record.fault(f"no attempt for want of something of our own: {error}")
        except asyncio.TimeoutError:
            record.fault("an attempt got neither an answer nor an end")


async def fill(port, count, record):
    clients = [RawClient(port) for _ in range(count)]
    turns = asyncio.Semaphore(AT_ONCE)
    await asyncio.gather(*(attempt(client, record, turns) for client in clients))
    return clients


def _attack(port, count, wire):
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    record = Record()
    clients = asyncio.run(fill(port, count, record))
    wire.send(record.counts)
    wire.recv()  # until they may go
    for client in clients:
        client.reset()


class Attackers:
    """Two processes, since one may hold no more descriptors than the receiver."""

    COUNT = 2

    def __init__(self, port, count):
        self._wires = []
        for _ in range(self.COUNT):
            ours, theirs = multiprocessing.Pipe()
            multiprocessing.Process(target=_attack, args=(port, count // self.COUNT, theirs), daemon=True).start()
            self._wires.append(ours)

    def wait(self, record):
        for wire in self._wires:
            record.counts.update(wire.recv())

    def leave(self):
        for wire in self._wires:
            wire.send("go")


async def check_room(port, record):
    async with RawClient(port) as client:
        if not await client.upgrade("/other"):
            record.fault("no room although everybody has left")


def say(what, process, record, probe):
    probe.collect(record)
    median, p99, worst = record.take_latencies()
    print(f"{what}: {dict(record.counts)}, cpu {process.cpu_percent():.0f} %, rss {process.resident_mib():.0f} MiB, "
          f"fds {process.descriptors()}, round trip ms {median:.1f}/{p99:.1f}/{worst:.1f}", flush=True)


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--count", type=int, default=20200)
    parser.add_argument("--limit", type=int, default=20000)
    parser.add_argument("--receiver", default="build/zenk_receiver")
    options = parser.parse_args()

    record = Record()
    server, port, wc_port = start(options.receiver)
    del wc_port
    with under_watch(server, record) as process:
        resource.prlimit(server.pid, resource.RLIMIT_NOFILE, (options.limit, options.limit))
        before = process.descriptors(), process.threads()
        probe = Probe(port)
        time.sleep(2)
        say("alone", process, record, probe)
        attackers = Attackers(port, options.count)
        attackers.wait(record)
        say("filled", process, record, probe)
        time.sleep(5)
        say("five seconds later", process, record, probe)
        attackers.leave()
        if not wait_until(lambda: process.descriptors() <= before[0] + 2, 60):
            record.fault("descriptors are not given back")
        asyncio.run(check_room(port, record))
        say("all left", process, record, probe)
        probe.stop()
        check_rest(process, before, record)
    return verdict("crowd", record)


if __name__ == "__main__":
    sys.exit(main())
