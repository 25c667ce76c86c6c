#!/usr/bin/python3
"""Runs clients of all kinds against zenk_receiver and watches it: soak.py [--minutes N]. A line every ten seconds.

soak.py --crowd N [--limit N] has N connections come at once, from one address, to a receiver that may hold --limit
descriptors; then all are reset. Both end with a verdict. Exit status: 0 clean, 1 not. The receiver is that of
ZENK_BUILD_DIR.
"""
import argparse
import asyncio
import collections
import contextlib
import logging
import multiprocessing
import os
import random
import resource
import socket
import struct
import sys
import time

import websockets
from websockets.frames import Frame, Opcode

from host import Host, connect, wait_until

PATIENCE = 30  # seconds; only a server that is stuck takes as long
CUT_UNFINISHED = 3.5, 20  # an unfinished handshake ends after about 5 s, later only on a machine that is very busy
CUT_VANISHED = 55, 110  # a peer that does not answer pings ends after 75 s
# Bounds of the verdict. The event queue may hold 64 MiB, and the C library keeps what it has once had.
MAX_GROWTH_MIB, MAX_DRIFT_MIB, MAX_P99_SECONDS = 160, 8, 1.0
FIRST_PROCESSOR = min(os.sched_getaffinity(0))
OUR_PROCESSORS = os.sched_getaffinity(0) - {FIRST_PROCESSOR} or {FIRST_PROCESSOR}
TEXTS = [f"{number} " + "x" * (0, 10, 100, 1000, 20000, 100000)[number % 6] for number in range(1000)]
TS_SETUP = b'{"contentIdStem":"","timelineSelector":"urn:dvb:css:timeline:pts"}'  # each is answered


def frame(payload):
    return Frame(Opcode.TEXT, payload).serialize(mask=True)


async def hear(client):
    return await asyncio.wait_for(client.recv(), PATIENCE)


async def see_cut(end, earliest, latest):
    """The server must end a connection within these seconds."""
    started = time.monotonic()
    with contextlib.suppress(ConnectionError):
        await asyncio.wait_for(end, latest)
    assert time.monotonic() - started > earliest, f"cut after {time.monotonic() - started:.1f} s"


class Run:
    """A receiver, the pair that measures it, and what has been seen: counts, faults, round trips, memory."""

    def __init__(self):
        # Nobody reads what it prints, and a pipe would fill.
        self.host = Host(ready=False, prefix=["sh", "-c", 'exec "$@" >/dev/null 2>&1', "sh"])
        with socket.socket() as caller:
            wait_until(lambda: caller.connect_ex(("127.0.0.1", self.host.port)) == 0)
        time.sleep(1)  # the connection that looked must not count
        self.before, self.memory, self.p99s, self.counts = self.left(), [self.mib()], [], collections.Counter(faults=0)
        self.trips = multiprocessing.SimpleQueue()
        # A process of its own, since that of the other clients is busy with them.
        self.probe = multiprocessing.Process(target=lambda: asyncio.run(self.measure()), daemon=True)
        self.probe.start()

    def left(self):
        return self.host.descriptors(), self.host.status("Threads")

    def mib(self):
        return self.host.status("VmRSS") / 1024

    def check(self, holds, what):
        self.counts["faults"] += not holds
        if not holds and self.counts["faults"] <= 20:
            print(f"FAULT: {what}", flush=True)

    def say(self, what):
        """A line of what came since the last one; processor time is that of the whole life."""
        if self.host.poll() is not None:
            sys.exit("NOT CLEAN: the receiver has ended")
        self.check(self.probe.is_alive(), "the pair that measures the round trips broke")
        trips = sorted(self.trips.get() for _ in iter(self.trips.empty, True)) or [0]
        self.p99s.append(trips[int(len(trips) * 0.99)])
        self.memory.append(self.mib())
        typical = "/".join(f"{1000 * trip:.1f}" for trip in (trips[len(trips) // 2], self.p99s[-1], trips[-1]))
        cpu = time.clock_gettime(~self.host.pid << 3 | 2)  # what clock_getcpuclockid() makes of a process id
        print(f"{what}: rss {self.memory[-1]:.1f} MiB, descriptors and threads {self.left()}, cpu {cpu:.1f} s, "
              f"round trip ms {typical}", *sorted(self.counts.items()), flush=True)

    def verdict(self):
        """Everything that clients have taken must be given back when they have gone. Exit status."""
        self.probe.kill()
        self.check(wait_until(lambda: self.left() == self.before, 2 * PATIENCE), f"{self.before} became {self.left()}")
        with self.host:
            self.check(self.host.end() == 0, "the receiver did not end with 0")
        print(f"{'NOT CLEAN' if self.counts['faults'] else 'CLEAN'}: {self.counts['faults']} faults")
        return self.counts["faults"] > 0

    async def rude(self, path):
        """A client whose connection is reset when its transport is aborted. Without a path it has not said anything."""
        plain = socket.create_connection(("127.0.0.1", self.host.port), PATIENCE)
        plain.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        if not path:
            return (await asyncio.open_connection(sock=plain))[1]
        return await connect(self.host.at(path), sock=plain, close_timeout=1)

    async def come(self, count):
        """As many connections at once, from one address. How they fared."""
        return await asyncio.gather(*(self.rude("/other") for _ in range(count)), return_exceptions=True)

    @contextlib.asynccontextmanager
    async def pair(self, name, **options):
        async with connect(self.host.at(f"/local/hbbtv/t/{name}"), **options) as tv, connect(
                self.host.at(f"/remote/hbbtv/u/{name}"), **options) as phone:
            for side in tv, phone:
                assert await hear(side) == "pairingcompleted", "a pair did not meet"
            yield tv, phone

    async def measure(self):
        async with self.pair("measured") as sides:
            while True:
                started = time.monotonic()
                for sender, receiver in sides, sides[::-1]:
                    await sender.send("there")
                    await hear(receiver)
                self.trips.put(time.monotonic() - started)
                await asyncio.sleep(0.02)


class Soak(Run):
    """Each of the actors does one thing once, and is repeated until the end."""
    is_over = False

    async def talk(self, pause=0.05, sleep=0, count=1000, **options):
        """Numbered messages both ways, with a pause behind each; a reader sleeps first."""
        async def write(side):
            for text in TEXTS[:count]:
                await side.send(text)
                await asyncio.sleep(random.uniform(0, pause))

        async def read(side):
            await asyncio.sleep(random.uniform(0, sleep))
            for text in TEXTS[:count]:
                message = await hear(side)
                assert message == text, f"{message[:20]} came in place of {text[:20]}"
                self.counts["relayed"] += 1
        async with self.pair(os.urandom(8).hex(), close_timeout=2, **options) as (tv, phone):
            await asyncio.gather(write(tv), write(phone), read(tv), read(phone))
            await tv.close()
            await asyncio.wait_for(phone.wait_closed(), PATIENCE)
            assert phone.close_code == 1000, f"the partner's close came with status {phone.close_code}"

    async def stall(self):
        """Readers that sleep for seconds. A window of their own would hide that from the server."""
        await self.talk(0, 8, 200, max_queue=1, read_limit=4096)

    async def follow(self):
        """CII greets, and may be told anything; each message to TS is answered."""
        is_ts = random.random() < 0.5
        async with connect(self.host.at("/css-ts/" if is_ts else "/css-cii/soak/")) as client:
            assert is_ts or "protocolVersion" in await hear(client), "no greeting"
            for _ in range(random.randrange(20)):
                await client.send(TS_SETUP.decode())
                assert not is_ts or "wallClockTime" in await hear(client), "no answer"
                await asyncio.sleep(random.uniform(0, 0.5))

    async def flood(self):
        """Small messages as fast as they go, for a second; the server must still see the end of it."""
        async with connect(self.host.at("/css-cii/soak/"), close_timeout=PATIENCE) as client:
            end = time.monotonic() + 1
            while time.monotonic() < end:
                client.transport.write(frame(b"{}") * 200)
                await asyncio.wait_for(client.drain(), PATIENCE)
                self.counts["flooded"] += 200
        assert client.close_code == 1000, f"a client that had flooded ended with {client.close_code}"

    async def ignore(self):
        """A TS client that asks and asks but reads no answer: it is cut, or it may stay, but costs bounded memory."""
        client = await self.rude("/css-ts/")
        client.transport.pause_reading()
        with contextlib.suppress(asyncio.TimeoutError, websockets.ConnectionClosed):
            for _ in range(1000):
                client.transport.write(frame(TS_SETUP) * 100)
                await asyncio.wait_for(client.drain(), 5)
            await asyncio.sleep(5)
        client.transport.abort()

    async def ask_clock(self):
        """The reply repeats the originate time and carries the server's times in order, whatever is sent besides."""
        with socket.socket(type=socket.SOCK_DGRAM) as asker:
            asker.setblocking(False)
            asker.connect(("127.0.0.1", self.host.wc_port))
            originate, answer = os.urandom(4) + bytes(4), b""
            for request in *map(bytes, (0, 1, 31, 33, 500, 9000)), bytes(8) + originate + bytes(16):
                asker.send(request)
            while answer[8:16] != originate:
                answer = await asyncio.wait_for(asyncio.get_running_loop().sock_recv(asker, 128), PATIENCE)
        assert (len(answer), answer[1]) == (32, 1) and answer[16:24] <= answer[24:], f"a reply of {answer.hex()}"

    async def dawdle(self):
        """A connection that says nothing, or a request that never gets finished."""
        reader, writer = await asyncio.open_connection("127.0.0.1", self.host.port)
        for place, byte in enumerate(random.choice((b"", b"GET /css-ts/ HTTP/1.1\r\nX-Endless: " + b"x" * 100))):
            asyncio.get_running_loop().call_later(place / 5, writer.write, bytes((byte,)))
        with contextlib.closing(writer):
            await see_cut(reader.read(), *CUT_UNFINISHED)

    async def vanish(self):
        """Answers no ping any more, as a phone that has left the house."""
        async with connect(self.host.at("/css-ts/")) as client:
            client.pong = lambda _: asyncio.sleep(0)
            await see_cut(client.wait_closed(), *CUT_VANISHED)

    async def misbehave(self):
        """Half a request, half a message or nonsense, then a reset."""
        path = random.choice((None, "/css-ts/", "/css-cii/x/", f"/local/hbbtv/t/reset{random.randrange(5)}", "/other"))
        half = frame(bytes(random.randrange(200000)))[:random.randrange(200000)]
        client = await self.rude(path)
        client.transport.write(random.choice((b"", b"GET / HTTP/1.1\r\nUpgr", os.urandom(200), half)))
        await asyncio.sleep(random.choice((0, 0.3)))
        client.transport.abort()

    async def storm(self):
        """A hundred connections at once."""
        for client in await self.come(100):
            client.transport.abort()

    async def repeat(self, actor, pause):
        while not self.is_over:  # the library's close() takes no notice of being cancelled
            await asyncio.sleep(random.uniform(0, pause))
            try:
                await actor()
                self.counts[actor.__name__] += 1
            except Exception as error:  # pylint: disable=broad-except
                # To be refused for want of room is no fault.
                is_refusal = getattr(error, "status_code", 0) == 503
                self.check(is_refusal or self.is_over, f"{actor.__name__}: {error!r}")

    async def run(self, given):
        """Together they stay below the 25 clients of each CSS server."""
        parts = [(self.talk, 6, 1), (self.stall, 2, 1), (self.follow, 8, 1), (self.flood, 2, 8), (self.ignore, 1, 8),
                 (self.ask_clock, 5, 0.2), (self.dawdle, 5, 1), (self.vanish, 3, 1), (self.misbehave, 5, 0.1),
                 (self.storm, 1, 10)]  # what, how many, seconds between
        tasks = [asyncio.create_task(self.repeat(actor, pause)) for actor, count, pause in parts for _ in range(count)]
        for passed in range(10, int(60 * given.minutes) + 10, 10):
            await asyncio.sleep(10)
            self.say(f"{passed:4} s")
        self.is_over = True
        for task in tasks:
            task.cancel()
        await asyncio.wait(tasks, timeout=2 * PATIENCE)
        growth, typical = max(self.memory) - self.memory[0], sorted(self.p99s)[len(self.p99s) // 2]
        quarter = len(self.memory) // 4  # where it is less than half a minute, a drift cannot be told from a warm-up
        drift = min(self.memory[-quarter:]) - min(self.memory[quarter:2 * quarter]) if quarter >= 3 else 0
        print(f"memory grew by {growth:.1f} MiB, drift from the second to the last quarter {drift:.1f} MiB, "
              f"typical 99th percentile of a round trip {1000 * typical:.1f} ms")
        self.check(growth < MAX_GROWTH_MIB and drift < MAX_DRIFT_MIB, "memory grows")
        self.check(typical < MAX_P99_SECONDS, "the relay is slow")


class Crowd(Run):
    """Many come at once, and all are reset at once.

    The crowd would be on other machines, so it takes no processor from the receiver, and none from the pair.
    """

    async def measure(self):
        os.sched_setaffinity(0, OUR_PROCESSORS)
        with contextlib.suppress(PermissionError):
            os.sched_setscheduler(0, os.SCHED_FIFO, os.sched_param(1))
        await super().measure()

    async def attack(self, count, fared):
        clients = [client for _ in range(count // 100) for client in await self.come(100)]
        ended = sum(isinstance(client, Exception) for client in clients)
        fared.put(collections.Counter({"accepted": len(clients) - ended, "ended at once": ended}))
        time.sleep(1000)

    async def run(self, given):
        os.sched_setaffinity(0, OUR_PROCESSORS)
        for thread in os.listdir(f"/proc/{self.host.pid}/task"):
            os.sched_setaffinity(int(thread), {FIRST_PROCESSOR})
        resource.prlimit(self.host.pid, resource.RLIMIT_NOFILE, (given.limit, given.limit))
        time.sleep(2)
        self.say("alone")
        fared = multiprocessing.SimpleQueue()
        # Two, since a process may hold no more descriptors than the receiver.
        halves = [multiprocessing.Process(target=lambda: asyncio.run(self.attack(given.crowd // 2, fared)), daemon=True)
                  for _ in range(2)]
        for half in halves:
            half.start()
        self.counts += fared.get() + fared.get()
        self.check(self.counts["accepted"] >= min(given.crowd, given.limit - 100), "too few were accepted")
        self.say("filled")
        time.sleep(5)
        self.say("five seconds later")
        for half in halves:
            half.kill()
        self.check(wait_until(lambda: self.left()[0] <= self.before[0] + 2, PATIENCE), "descriptors are not given back")
        self.say("all left")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--crowd", type=int)
    parser.add_argument("--limit", type=int, default=20000)
    options = parser.parse_args()
    logging.disable()  # asyncio's own, of writes to what has been cut
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    whole = Crowd() if options.crowd else Soak()
    asyncio.run(whole.run(options))
    sys.exit(whole.verdict())
