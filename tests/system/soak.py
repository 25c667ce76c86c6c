#!/usr/bin/python3
"""Runs clients of all kinds against zenk_receiver and watches it: soak.py [--minutes N]. Prints a line every ten seconds.

soak.py --crowd N [--limit N] has N connections come at once, from one address, to a receiver that may hold --limit
descriptors; then all leave. Both end with a verdict. Exit status: 0 clean, 1 not. The receiver is that of ZENK_BUILD_DIR.
"""
import argparse
import asyncio
import collections
import contextlib
import itertools
import logging
import multiprocessing
import os
import random
import resource
import signal
import socket
import struct
import sys
import time

import websockets

from host import Host, connect, wait_until

TS_SETUP = b'{"contentIdStem":"","timelineSelector":"urn:dvb:css:timeline:pts"}'  # each is answered
PATIENCE = 60  # seconds; only a server that is stuck takes as long
CUT_UNFINISHED = 3.5, 20  # an unfinished handshake ends after about 5 s, later only on a machine that is very busy
CUT_VANISHED = 55, 110  # a peer that does not answer pings ends after 75 s
# Bounds of the verdict. The event queue may hold 64 MiB, and the C library keeps what it has once had.
MAX_GROWTH_MIB, MAX_DRIFT_MIB, MAX_P99_SECONDS = 160, 8, 1.0


def handshake(path):
    return (f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n").encode()


def frame(payload, opcode=1):
    """Masked with zeros, which leave the payload as it is."""
    size = len(payload)
    head = struct.pack(">BB", 0x80 | opcode, 0x80 | size) if size < 126 else struct.pack(">BBQ", 0x80 | opcode, 0xFF, size)
    return head + bytes(4) + payload


@contextlib.asynccontextmanager
async def raw(port, path=None, buffer=1 << 17):
    """A TCP connection without manners, reset in the end. With a path it is upgraded, or raises ConnectionError."""
    plain = socket.socket()
    plain.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    plain.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, buffer)
    plain.setblocking(False)
    await asyncio.get_running_loop().sock_connect(plain, ("127.0.0.1", port))
    reader, writer = await asyncio.open_connection(sock=plain, limit=buffer)
    try:
        if path:
            writer.write(handshake(path))
            answer = await asyncio.wait_for(reader.read(1000), PATIENCE)
            if b" 101 " not in answer:
                raise ConnectionRefusedError(answer)
        yield reader, writer
    finally:
        writer.transport.abort()


def measure(port, wire):
    """Round trips through one pair, in a process of its own: in that of the other clients they would measure Python."""
    with contextlib.suppress(OSError):
        sides = [socket.create_connection(("127.0.0.1", port), PATIENCE) for _ in range(2)]
        for side, name in zip(sides, ("local", "remote")):
            side.sendall(handshake(f"/{name}/hbbtv/t/latency"))
        for side in sides:
            while (piece := side.recv(1000)) and not piece.endswith(b"pairingcompleted"):
                pass
        while True:
            started = time.monotonic()
            for sender, receiver in (sides, sides[::-1]):
                sender.sendall(frame(b"there"))
                if not receiver.recv(100):
                    raise ConnectionError
            wire.send(time.monotonic() - started)
            time.sleep(0.02)
    wire.send(None)


class Watched:
    """A receiver, its measured pair, and what a run has seen: counts, faults, round trips, memory."""

    def __init__(self):
        # Nobody reads what it prints, and a pipe would fill.
        self.host = Host(ready=False, prefix=["sh", "-c", 'exec "$@" >/dev/null 2>&1', "sh"])
        self.port, self.wc_port = self.host.port, self.host.wc_port
        self.counts, self.p99s, self.memory = collections.Counter(), [], []
        with socket.socket() as caller:
            wait_until(lambda: caller.connect_ex(("127.0.0.1", self.port)) == 0)
        time.sleep(1)  # the connection that looked must not count
        self.before, self.start_mib, self.cpu, self.looked = self.left(), self.mib(), 0, time.monotonic()
        self.wire, theirs = multiprocessing.Pipe()
        self.probe = multiprocessing.Process(target=measure, args=(self.port, theirs), daemon=True)
        self.probe.start()

    def left(self):
        return self.host.descriptors(), self.host.status("Threads")

    def mib(self):
        return (self.host.status("VmRSS") or 0) / 1024

    def fault(self, what):
        self.counts["faults"] += 1
        if self.counts["faults"] <= 20:
            print(f"FAULT: {what}", flush=True)

    def check(self, holds, what):
        if not holds:
            self.fault(what)

    def say(self, what):
        """A line of what came since the last one."""
        trips = []
        while self.wire.poll():
            trips.append(self.wire.recv())
            self.check(trips[-1], "the pair that measures the round trips broke")
        trips = sorted(filter(None, trips)) or [0]
        self.p99s.append(trips[int(len(trips) * 0.99)])
        self.memory.append(self.mib())
        with open(f"/proc/{self.host.pid}/stat", encoding="ascii") as stat:
            cpu = sum(map(int, stat.read().rsplit(")", 1)[1].split()[11:13])) / os.sysconf("SC_CLK_TCK")
        busy = 100 * (cpu - self.cpu) / (time.monotonic() - self.looked)
        self.cpu, self.looked = cpu, time.monotonic()
        typical = "/".join(f"{1000 * trip:.1f}" for trip in (trips[len(trips) // 2], self.p99s[-1], trips[-1]))
        print(f"{what}: rss {self.memory[-1]:.1f} MiB, descriptors and threads {self.left()}, cpu {busy:.0f} %, "
              f"round trip ms {typical}", *sorted(self.counts.items()), flush=True)

    def verdict(self, name):
        """Everything that clients have taken must be given back when they have gone. Exit status."""
        self.probe.kill()
        self.check(wait_until(lambda: self.left() == self.before, PATIENCE), f"{self.before} became {self.left()}")
        self.check(self.host.end(signal.SIGINT) == 0, f"the receiver ended with {self.host.process.returncode}")
        self.host.__exit__()
        print(f"{name}: {'NOT CLEAN' if self.counts['faults'] else 'CLEAN'}, {self.counts['faults']} faults")
        return self.counts["faults"] > 0


class Actors(Watched):
    """Each of these does one thing once, and is repeated until the end."""

    numbers = itertools.count()

    async def pair(self, pause, sleep, count, **options):
        """Numbered messages both ways, with a pause before each; a reader sleeps first."""
        options, name = {"close_timeout": 2, **options}, next(self.numbers)
        async with connect(f"ws://127.0.0.1:{self.port}/local/hbbtv/t/{name}", **options) as tv, connect(
                f"ws://127.0.0.1:{self.port}/remote/hbbtv/u/{name}", **options) as phone:
            async def say(side):
                for number in range(count):
                    await side.send(f"{number} " + "x" * random.choice((0, 10, 100, 1000, 20000, 100000)))
                    await asyncio.sleep(random.uniform(0, pause))

            async def hear(side):
                await asyncio.sleep(random.uniform(0, sleep))
                for number in range(count):
                    message = await asyncio.wait_for(side.recv(), PATIENCE)
                    self.check(message.startswith(f"{number} "), f"{message[:20]} came in place of {number}")
                    self.counts["relayed"] += 1
            for side in tv, phone:
                self.check(await asyncio.wait_for(side.recv(), PATIENCE) == "pairingcompleted", "a pair did not meet")
            await asyncio.gather(say(tv), say(phone), hear(tv), hear(phone))
            await tv.close()
            await asyncio.wait_for(phone.wait_closed(), PATIENCE)
            self.check(phone.close_code == 1000, f"the partner's close came with status {phone.close_code}")

    async def talk(self):
        await self.pair(0.05, 0, random.randrange(200, 1000))

    async def stall(self):
        """Readers that sleep for seconds. A window of their own would hide that from the server."""
        await self.pair(0, 8, 200, max_queue=1, read_limit=4096)

    async def follow(self):
        """Each message to TS is answered; CII greets, and may be told anything."""
        is_ts = random.random() < 0.5
        path, expected = ("/css-ts/", "wallClockTime") if is_ts else ("/css-cii/soak/", "protocolVersion")
        async with connect(f"ws://127.0.0.1:{self.port}{path}") as client:
            for number in range(random.randrange(1, 20)):
                if is_ts or number > 0:
                    await client.send('{"contentIdStem":"","timelineSelector":"urn:dvb:css:timeline:pts"}')
                if is_ts or number == 0:
                    self.check(expected in await asyncio.wait_for(client.recv(), PATIENCE), f"no {expected}")
                    self.counts[path] += 1
                await asyncio.sleep(random.uniform(0, 0.5))

    async def flood(self):
        """Small messages as fast as they go, for a second; the server must still see the end of it."""
        async with raw(self.port, "/css-cii/soak/") as (reader, writer):
            end = time.monotonic() + 1
            while time.monotonic() < end:
                writer.write(frame(b"{}") * 200)
                await asyncio.wait_for(writer.drain(), PATIENCE)
                self.counts["flooded"] += 200
            writer.write(frame(b"\x03\xe8", 8))
            await self.ends(reader, "a client that had flooded", (0, PATIENCE))
        await asyncio.sleep(random.uniform(2, 6))

    async def ignore(self):
        """A TS client that asks and asks but reads no answer: it is cut, or it may stay, but costs bounded memory."""
        with contextlib.suppress(asyncio.TimeoutError, ConnectionError):
            async with raw(self.port, "/css-ts/", 4096) as (_, writer):
                for _ in range(100):
                    writer.write(frame(TS_SETUP) * 100)
                    await asyncio.wait_for(writer.drain(), 5)
        await asyncio.sleep(random.uniform(2, 6))

    async def ask_clock(self):
        """The reply repeats the originate time and carries the server's times in order. Others shout meanwhile."""
        with socket.socket(type=socket.SOCK_DGRAM) as asker, socket.socket(type=socket.SOCK_DGRAM) as shouter:
            for size in 0, 1, 31, 33, 500, 9000:
                shouter.sendto(bytes(size), ("127.0.0.1", self.wc_port))
            asker.setblocking(False)
            asker.connect(("127.0.0.1", self.wc_port))
            originate = os.urandom(4) + bytes(4)
            asker.send(bytes(8) + originate + bytes(16))
            answer = await asyncio.wait_for(asyncio.get_running_loop().sock_recv(asker, 128), PATIENCE)
            times = struct.unpack(">8xQQQ", answer)
            self.check(answer[1] == 1 and answer[8:16] == originate and times[1] <= times[2], f"a reply of {answer.hex()}")
        self.counts["clock"] += 1
        await asyncio.sleep(random.uniform(0, 0.2))

    async def ends(self, reader, what, window):
        """The server must end a connection within these seconds."""
        async def drain():
            with contextlib.suppress(ConnectionError):
                while await reader.read(65536):
                    pass
        started = time.monotonic()
        with contextlib.suppress(asyncio.TimeoutError):
            await asyncio.wait_for(drain(), window[1] + 1)
        took = time.monotonic() - started
        self.check(window[0] <= took <= window[1], f"{what} was cut after {took:.1f} s")
        self.counts["cut"] += 1

    async def dawdle(self):
        """A connection that says nothing, or a request that never gets finished."""
        async with raw(self.port) as (reader, writer):
            async def drip():
                for byte in b"GET /css-ts/ HTTP/1.1\r\nX-Endless: " + b"x" * 1000:
                    writer.write(bytes((byte,)))
                    await asyncio.sleep(0.2)
            dripping = asyncio.create_task(drip() if random.random() < 0.5 else asyncio.sleep(0))
            await self.ends(reader, "an unfinished handshake", CUT_UNFINISHED)
            dripping.cancel()

    async def vanish(self):
        """Answers no ping any more, as a phone that has left the house."""
        async with raw(self.port, "/css-ts/") as (reader, _):
            await self.ends(reader, "a client that has vanished", CUT_VANISHED)

    async def misbehave(self):
        """Half a request, half a message or nonsense, then a reset."""
        path = random.choice((None, "/css-ts/", "/css-cii/x/", f"/local/hbbtv/t/reset{random.randrange(5)}", "/other"))
        with contextlib.suppress(ConnectionError):
            async with raw(self.port, path) as (_, writer):
                writer.write(random.choice((b"", b"GET / HTTP/1.1\r\nUpgr", os.urandom(200),
                                            frame(bytes(random.randrange(200000)))[:random.randrange(200000)])))
                await asyncio.sleep(random.choice((0, 0.3)))
        self.counts["resets"] += 1

    async def storm(self):
        """Many connections at once from one address, most of them for nothing."""
        async with contextlib.AsyncExitStack() as stack:
            for i in range(100):
                await stack.enter_async_context(raw(self.port, "/other" if i % 2 else None))
        self.counts["stormed"] += 100
        await asyncio.sleep(random.uniform(3, 8))

    async def repeat(self, actor):
        await asyncio.sleep(random.uniform(0, 3))
        while True:
            try:
                await actor()
            except (ConnectionRefusedError, websockets.InvalidStatusCode) as refusal:  # for want of room, nothing else
                self.check("503" in str(refusal), refusal)
                await asyncio.sleep(1)
            except Exception as error:  # pylint: disable=broad-except
                self.fault(f"{actor.__name__}: {error!r}")
                await asyncio.sleep(1)

    async def run(self, seconds):
        """Together they stay below the 25 clients of each CSS server."""
        parts = {self.talk: 6, self.stall: 2, self.follow: 8, self.flood: 2, self.ignore: 1,
                 self.ask_clock: 5, self.dawdle: 5, self.vanish: 3, self.misbehave: 5, self.storm: 1}
        tasks = [asyncio.create_task(self.repeat(actor)) for actor, count in parts.items() for _ in range(count)]
        started = time.monotonic()
        while time.monotonic() < started + seconds and self.host.process.poll() is None:
            await asyncio.sleep(10)
            self.say(f"{time.monotonic() - started:6.0f} s")
        for task in tasks:
            task.cancel()
        await asyncio.wait(tasks, timeout=30)  # some take leave politely


def soak(minutes):
    run = Actors()
    asyncio.run(run.run(60 * minutes))
    growth, typical = max(run.memory) - run.start_mib, sorted(run.p99s)[len(run.p99s) // 2]
    run.check(growth < MAX_GROWTH_MIB, f"resident memory grew by {growth:.0f} MiB")
    quarter = len(run.memory) // 4
    if quarter >= 3:  # shorter is too short to tell a drift from a warm-up
        drift = min(run.memory[-quarter:]) - min(run.memory[quarter:2 * quarter])
        run.check(drift < MAX_DRIFT_MIB, f"resident memory drifts by {drift:.1f} MiB")
        print(f"drift of resident memory from the second to the last quarter: {drift:.1f} MiB")
    print(f"typical 99th percentile of a round trip: {1000 * typical:.1f} ms")
    run.check(typical < MAX_P99_SECONDS, "the relay is slow")
    return run.verdict(f"soak of {minutes:g} min")


def attack(port, count, wire):
    """One half of a crowd: comes, tells how it fared, and leaves when told to."""
    async def attempt(stack, turns):
        async with turns:
            try:
                await stack.enter_async_context(raw(port, "/other"))
                return "accepted"
            except ConnectionError:
                return "ended at once"

    async def come_and_leave():
        async with contextlib.AsyncExitStack() as stack:
            turns = asyncio.Semaphore(100)
            wire.send(collections.Counter(await asyncio.gather(*(attempt(stack, turns) for _ in range(count)))))
            await asyncio.to_thread(wire.recv)
    asyncio.run(come_and_leave())


def crowd(count, limit):
    run = Watched()
    resource.prlimit(run.host.pid, resource.RLIMIT_NOFILE, (limit, limit))
    time.sleep(2)
    run.say("alone")
    wires = []
    for _ in range(2):  # processes, since one may hold no more descriptors than the receiver
        ours, theirs = multiprocessing.Pipe()
        multiprocessing.Process(target=attack, args=(run.port, count // 2, theirs), daemon=True).start()
        wires.append(ours)
    for wire in wires:
        run.counts.update(wire.recv())
    run.say("filled")
    time.sleep(5)
    run.say("five seconds later")
    for wire in wires:
        wire.send("go")
    run.check(wait_until(lambda: run.left()[0] <= run.before[0] + 2, PATIENCE), "descriptors are not given back")
    run.say("all left")
    return run.verdict("crowd")


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--minutes", type=float, default=1)
    parser.add_argument("--crowd", type=int)
    parser.add_argument("--limit", type=int, default=20000)
    options = parser.parse_args()
    logging.disable()  # asyncio's own, of writes to what has been cut
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    sys.exit(crowd(options.crowd, options.limit) if options.crowd else soak(options.minutes))
