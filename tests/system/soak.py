#!/usr/bin/python3
"""Runs clients of all kinds against zenk_receiver and watches it: soak.py [--minutes N]. A line every ten seconds.

soak.py --crowd N has N connections come at once, from one address, to a receiver that may hold 20,000 descriptors; then
all are reset. Both end with a verdict. Exit status: 0 clean, 1 not. The receiver is that of ZENK_BUILD_DIR.
"""
import argparse
import asyncio
import collections
import logging
import multiprocessing
import os
import pathlib
import random
import resource
import socket
import struct
import sys
import time

from host import PATIENCE, Host, connect, exchange, hear, pair, wait_until

# Bounds of the verdict. The event queue may hold 64 MiB, and the C library keeps what it has once had.
MAX_GROWTH_MIB, MAX_DRIFT_MIB = 160, 8
CROWD_LIMIT = 20000
TEXTS = [f"{number} " + "x" * (0, 10, 100, 1000, 20000, 100000)[number % 6] for number in range(300)]
TS_SETUP = '{"contentIdStem":"","timelineSelector":"urn:dvb:css:timeline:pts"}'  # each is answered


class Run:
    """A receiver, the pair that measures it, and what has been seen: counts, faults, round trips, memory."""
    command = 'exec "$@"'

    def __init__(self):
        # What it prints later would take our memory.
        self.host = Host(prefix=["bash", "-c", self.command + " > >(sed /^ready/q)", "bash"])
        time.sleep(1)  # its threads begin a moment behind its word
        self.before, self.memory, self.counts = self.left(), [], collections.Counter(faults=0)
        self.trips = multiprocessing.SimpleQueue()
        # A process of its own, since that of the other clients is busy with them.
        self.probe = multiprocessing.Process(target=lambda: asyncio.run(self.measure()), daemon=True)
        self.probe.start()
        time.sleep(2)
        self.say("alone")

    def left(self):
        """Descriptors and threads."""
        return tuple(len(os.listdir(f"/proc/{self.host.pid}/{each}")) for each in ("fd", "task"))

    def check(self, holds, what):
        self.counts["faults"] += not holds
        if not holds and self.counts["faults"] <= 20:
            print(f"FAULT: {what}", flush=True)

    def say(self, what):
        """A line of what came since the last one."""
        self.check(self.probe.is_alive(), "the pair that measures the round trips broke")
        pages = int(pathlib.Path(f"/proc/{self.host.pid}/statm").read_text(encoding="ascii").split()[1])
        trips = sorted(self.trips.get() for _ in iter(self.trips.empty, True)) or [0]
        self.memory.append(pages * resource.getpagesize() / 2**20)
        shown = "/".join(f"{1000 * trips[place]:.1f}" for place in (len(trips) // 2, int(len(trips) * 0.99), -1))
        print(f"{what}: rss {self.memory[-1]:.1f} MiB, descriptors and threads {self.left()}, round trip ms {shown}",
              *sorted(self.counts.items()), flush=True)

    def verdict(self):
        """Everything that clients have taken must be given back when they have gone. Exit status."""
        self.probe.kill()
        self.check(wait_until(lambda: self.left() == self.before, 3 * PATIENCE), f"{self.before} became {self.left()}")
        with self.host:
            self.check(self.host.end() == 0, "the receiver did not end with 0")
        print(f"{'NOT CLEAN' if self.counts['faults'] else 'CLEAN'}: {self.counts['faults']} faults")
        return self.counts["faults"] > 0

    async def rude(self, path):
        """A client whose connection is reset when its transport is aborted, or its process killed."""
        plain = socket.create_connection(("127.0.0.1", self.host.port), PATIENCE)
        plain.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        return await connect(self.host.at(path), sock=plain, close_timeout=1)

    async def come(self, count):
        """As many connections at once, from one address. How they fared."""
        return await asyncio.gather(*(self.rude("/other") for _ in range(count)), return_exceptions=True)

    async def measure(self):
        async with pair(self.host, "measured") as sides:
            while True:
                started = time.monotonic()
                await exchange(sides)
                self.trips.put(time.monotonic() - started)
                await asyncio.sleep(0.02)


class Soak(Run):
    """Each of the actors does one thing once, and is repeated until the end."""

    async def talk(self):
        """Numbered messages both ways; readers may sleep first, and have no window that hides it from the server."""
        sleep = random.choice((0, 8))

        async def write(side):
            for text in TEXTS:
                await side.send(text)
                await asyncio.sleep(random.uniform(0, 0.05))

        async def read(side):
            await asyncio.sleep(random.uniform(0, sleep))
            for text in TEXTS:
                message = await hear(side)
                assert message == text, f"{message[:20]} came in place of {text[:20]}"
                self.counts["relayed"] += 1
        async with pair(self.host, os.urandom(8).hex(), close_timeout=2, max_queue=1, read_limit=4096) as (tv, phone):
            await asyncio.gather(write(tv), write(phone), read(tv), read(phone))

    async def follow(self):
        """CII greets, and may be told anything; each message to TS is answered."""
        async with connect(self.host.at("/css-cii/soak/")) as cii, connect(self.host.at("/css-ts/")) as ts:
            assert "protocolVersion" in await hear(cii), "no greeting"
            for _ in range(random.randrange(20)):
                await cii.send(TS_SETUP)
                await ts.send(TS_SETUP)
                assert "wallClockTime" in await hear(ts), "no answer"
                await asyncio.sleep(random.uniform(0, 0.5))

    async def flood(self):
        """Small messages as fast as they go, for a second; the server must still see the end of it."""
        async with connect(self.host.at("/css-cii/soak/"), close_timeout=PATIENCE) as client:
            end = time.monotonic() + 1
            while time.monotonic() < end:
                client.transport.write(b"\x81\x82\0\0\0\0{}" * 200)
                await asyncio.wait_for(client.drain(), PATIENCE)
                self.counts["flooded"] += 200
        assert client.close_code == 1000, f"a client that had flooded ended with {client.close_code}"

    async def ask_clock(self):
        """The reply repeats the originate time and carries the server's times in order."""
        originate = os.urandom(4) + bytes(4)
        with socket.socket(type=socket.SOCK_DGRAM) as asker:
            asker.setblocking(False)
            asker.connect(("127.0.0.1", self.host.wc_port))
            asker.send(bytes(8) + originate + bytes(16))
            answer = await asyncio.wait_for(asyncio.get_running_loop().sock_recv(asker, 128), PATIENCE)
        assert answer[8:16] == originate and answer[16:24] <= answer[24:], f"a reply of {answer.hex()}"

    async def vanish(self):
        """Answers no ping any more, as a phone that has left the house: it is cut after 75 s."""
        async with connect(self.host.at("/css-ts/")) as client:
            client.pong = lambda _: asyncio.sleep(0)
            await asyncio.wait_for(client.wait_closed(), 75 + PATIENCE)

    async def misbehave(self):
        """Nonsense or half a message, then a reset."""
        client = await self.rude(random.choice(("/css-ts/", "/css-cii/x/", "/local/hbbtv/t/reset", "/other")))
        client.transport.write(random.choice((b"", os.urandom(200), b"\x81\xfe\xff\xff" + bytes(1000))))
        await asyncio.sleep(random.choice((0, 0.3)))
        client.transport.abort()

    async def storm(self):
        """A hundred connections at once."""
        for client in await self.come(100):
            client.transport.abort()

    async def repeat(self, actor, pause, end):
        while time.monotonic() < end:
            await asyncio.sleep(random.uniform(0, pause))
            try:
                await actor()
                self.counts[actor.__name__] += 1
            except Exception as error:  # pylint: disable=broad-except
                # To be refused for want of room is no fault.
                self.check(getattr(error, "status_code", 0) == 503, f"{actor.__name__}: {error!r}")

    async def run(self, minutes):
        """Together they stay below the 25 clients of each CSS server."""
        parts = [(self.talk, 8, 1), (self.follow, 6, 1), (self.flood, 2, 8), (self.ask_clock, 5, 0.2),
                 (self.vanish, 3, 1), (self.misbehave, 5, 0.1), (self.storm, 1, 10)]  # what, how many, seconds between
        end = time.monotonic() + 60 * minutes
        actors = asyncio.gather(*(self.repeat(actor, pause, end) for actor, many, pause in parts for _ in range(many)))
        for passed in range(10, int(60 * minutes) + 10, 10):
            await asyncio.sleep(10)
            self.say(f"{passed:4} s")
        await actors
        growth = max(self.memory) - self.memory[0]
        quarter = len(self.memory) // 4  # where it is less than half a minute, a drift cannot be told from a warm-up
        drift = min(self.memory[-quarter:]) - min(self.memory[quarter:2 * quarter]) if quarter >= 3 else 0
        print(f"memory grew by {growth:.1f} MiB, drift from the second to the last quarter {drift:.1f} MiB")
        self.check(growth < MAX_GROWTH_MIB and drift < MAX_DRIFT_MIB, "memory grows")


class Crowd(Run):
    """Many come at once, and all are reset at once.

    The crowd would be on other machines, so it takes no processor from the receiver, and none from the pair.
    """
    command = f'ulimit -n {CROWD_LIMIT}; exec taskset --cpu-list 0 "$@"'

    async def attack(self, count, fared):
        os.nice(19)
        clients = [client for _ in range(count // 100) for client in await self.come(100)]
        fared.put(sum(not isinstance(client, Exception) for client in clients))
        time.sleep(1000)

    async def run(self, count):
        fared = multiprocessing.SimpleQueue()
        # Two, since a process may hold no more descriptors than the receiver.
        halves = [multiprocessing.Process(target=lambda: asyncio.run(self.attack(count // 2, fared)), daemon=True)
                  for _ in range(2)]
        for half in halves:
            half.start()
        self.counts["accepted"] = fared.get() + fared.get()
        self.check(self.counts["accepted"] >= min(count, CROWD_LIMIT - 100), "too few were accepted")
        self.say("filled")
        time.sleep(5)
        self.say("five seconds later")
        for half in halves:
            half.kill()
        self.check(wait_until(lambda: self.left()[0] <= self.before[0] + 2), "descriptors are not given back")
        self.say("all left")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--crowd", type=int)
    options = parser.parse_args()
    logging.disable()  # asyncio's own, of writes to what has been cut
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    if options.crowd:
        os.sched_setaffinity(0, os.sched_getaffinity(0) - {0} or {0})
    whole = Crowd() if options.crowd else Soak()
    asyncio.run(whole.run(options.crowd or options.minutes))
    sys.exit(whole.verdict())
