"""The clients of a soak run. Each actor is a coroutine that does one thing once; the run repeats it until the end.

An actor calls Record.fault() for whatever a server must never do; a refusal for want of room (503) is no fault.
"""

import asyncio
import itertools
import random
import socket
import struct
import time

import websockets

from frames import RawClient, close_frame, garbage, text_frame

PATIENCE = 60  # seconds; only a server that is stuck takes as long
CUT_UNFINISHED = (3.5, 20)  # an unfinished handshake ends after about 5 s, later only on a machine that is very busy
CUT_VANISHED = (55, 110)  # a peer that does not answer pings ends after 75 s
_names = itertools.count()


def no_ping(url, **options):
    return websockets.connect(url, ping_interval=None, max_size=None, open_timeout=PATIENCE, close_timeout=10,
                              compression=None, **options)


class Actors:
    def __init__(self, port, wc_port, record):
        self._port = port
        self._wc_port = wc_port
        self._record = record
        self._base = f"ws://127.0.0.1:{port}"

    # -------------------------------------------------------------- App2App pairs

    async def _with_pair(self, use, **options):
        """Opens both sides of a pair, lets `use(local, remote)` run, closes one side and sees the other end."""
        name = f"soak{next(_names)}"
        async with no_ping(f"{self._base}/local/hbbtv/t/{name}", **options) as local:
            async with no_ping(f"{self._base}/remote/hbbtv/t/{name}", **options) as remote:
                for side in (local, remote):
                    if await asyncio.wait_for(side.recv(), PATIENCE) != "pairingcompleted":
                        self._record.fault("a pair hears something else than pairingcompleted")
                await use(local, remote)
                await local.close()
                await asyncio.wait_for(remote.wait_closed(), PATIENCE)
                if remote.close_code != 1000:
                    self._record.fault(f"the partner's close came with status {remote.close_code}")

    async def talk(self):
        """Both sides of a pair send numbered messages of many sizes at an easy pace."""
        async def use(local, remote):
            end = time.monotonic() + random.uniform(5, 25)
            await asyncio.gather(self._exchange(local, remote, end), self._exchange(remote, local, end))
        await self._with_pair(use)

    async def _exchange(self, sender, receiver, end):
        sent, received = await asyncio.gather(self._say(sender, end), self._check_order(receiver))
        if received != sent:
            self._record.fault(f"{sent - received} of {sent} messages of a pair are missing")

    @staticmethod
    async def _say(sender, end):
        for sent in itertools.count():
            if time.monotonic() > end:
                await sender.send("end")
                return sent
            filling = "x" * random.choice((0, 10, 100, 1000, 20000, 100000))
            await sender.send(f"{sent} {filling}")
            await asyncio.sleep(random.uniform(0, 0.05))

    async def _check_order(self, receiver):
        for expected in itertools.count():
            message = await asyncio.wait_for(receiver.recv(), PATIENCE)
            if message == "end":
                return expected
            number = message.split(" ", 1)[0]
            self._record.count("relayed")
            if int(number) != expected:
                self._record.fault(f"message {number} of a pair came in place of {expected}")

    async def stall(self):
        """A pair whose reader stops for seconds while the sender goes on: the sender is slowed, nothing is lost."""
        async def use(local, remote):
            message = "y" * 100000
            await asyncio.gather(self._send_numbered(local, message, 200), self._read_late(remote, 200))
            self._record.count("stalls")
        # A window of the receiver's own would hide the stall from the server.
        await self._with_pair(use, max_queue=1, read_limit=4096)

    async def _read_late(self, receiver, count):
        await asyncio.sleep(random.uniform(2, 8))
        for expected in range(count):
            number = (await asyncio.wait_for(receiver.recv(), PATIENCE)).split(" ", 1)[0]
            if int(number) != expected:
                self._record.fault(f"message {number} for a slow reader came in place of {expected}")

    @staticmethod
    async def _send_numbered(sender, message, count):
        for number in range(count):
            await sender.send(f"{number} {message}")

    # -------------------------------------------------------------- CSS

    async def _refused(self, error):
        """A full server says 503; anything else is a fault."""
        if getattr(error, "status_code", None) != 503:
            self._record.fault(f"a CSS client was refused: {error!r}")
        self._record.count("refused")
        await asyncio.sleep(1)

    async def follow_cii(self):
        """A CII client that waits for the greeting, stays a while and says something now and then."""
        try:
            async with no_ping(f"{self._base}/css-cii/soak/") as client:
                greeting = await asyncio.wait_for(client.recv(), PATIENCE)
                if "protocolVersion" not in greeting:
                    self._record.fault(f"a CII client was greeted with {greeting!r}")
                for _ in range(random.randrange(10)):
                    await client.send('{"any":"thing"}')
                    await asyncio.sleep(random.uniform(0, 1))
                self._record.count("cii")
        except websockets.InvalidStatusCode as error:
            await self._refused(error)

    async def follow_ts(self):
        """A TS client: each of its messages is answered with one timestamp."""
        try:
            async with no_ping(f"{self._base}/css-ts/") as client:
                for _ in range(random.randrange(1, 20)):
                    await client.send('{"contentIdStem":"","timelineSelector":"urn:dvb:css:timeline:pts"}')
                    answer = await asyncio.wait_for(client.recv(), PATIENCE)
                    if "wallClockTime" not in answer:
                        self._record.fault(f"a TS client was answered with {answer!r}")
                    self._record.count("ts")
                    await asyncio.sleep(random.uniform(0, 0.5))
        except websockets.InvalidStatusCode as error:
            await self._refused(error)

    async def flood_css(self):
        """Small messages as fast as they go, for a second; the server must still see the end of it."""
        async with RawClient(self._port) as client:
            if not await client.upgrade("/css-cii/soak/"):
                return await asyncio.sleep(1)
            burst = text_frame(b"{}") * 200
            end = time.monotonic() + 1
            while time.monotonic() < end:
                await asyncio.wait_for(client.send(burst), PATIENCE)
                self._record.count("flooded", 200)
                await asyncio.sleep(0)
            await client.send(close_frame())
            if not await client.wait_for_end(PATIENCE):
                self._record.fault("a client that had flooded was not let go")
        await asyncio.sleep(random.uniform(2, 6))

    async def ignore_answers(self):
        """A TS client that asks and asks but reads no answer: it is cut, or it may stay, but costs bounded memory."""
        async with RawClient(self._port, receive_buffer=4096) as client:
            if not await client.upgrade("/css-ts/"):
                return await asyncio.sleep(1)
            try:
                for _ in range(100):
                    await asyncio.wait_for(client.send(text_frame(b"{}") * 100), 5)
                    await asyncio.sleep(0.01)
            except (asyncio.TimeoutError, ConnectionError):
                pass
            self._record.count("ignored")
            client.reset()
        await asyncio.sleep(random.uniform(2, 6))

    # -------------------------------------------------------------- wall clock

    async def ask_clock(self):
        """One request; the reply repeats its originate time and carries the server's times in order."""
        asker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        try:
            asker.setblocking(False)
            asker.connect(("127.0.0.1", self._wc_port))
            originate = struct.pack(">II", random.randrange(2**32), random.randrange(10**9))
            asker.send(bytes(8) + originate + bytes(16))
            reply = await asyncio.wait_for(asyncio.get_running_loop().sock_recv(asker, 128), PATIENCE)
            receive, transmit = (struct.unpack(">II", reply[at:at + 8]) for at in (16, 24))
            if len(reply) != 32 or reply[1] != 1 or reply[8:16] != originate or receive > transmit:
                self._record.fault(f"a clock reply of {reply.hex()}")
            self._record.count("clock")
        except asyncio.TimeoutError:
            self._record.fault("a clock request was not answered")
        finally:
            asker.close()
        await asyncio.sleep(random.uniform(0, 0.2))

    async def shout_at_clock(self):
        """Datagrams of every length but the right one, never "quitwc"."""
        shouter = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        for size in (0, 1, 31, 33, 500, 9000):
            shouter.sendto(bytes(size), ("127.0.0.1", self._wc_port))
        shouter.close()
        await asyncio.sleep(random.uniform(0.5, 2))

    # -------------------------------------------------------------- bad manners

    async def _expect_cut(self, client, what, window):
        started = time.monotonic()
        ended = await client.wait_for_end(window[1])
        took = time.monotonic() - started
        if not ended or took < window[0]:
            self._record.fault(f"{what}: " + (f"cut after {took:.1f} s" if ended else f"still there after {took:.0f} s"))
        self._record.count("cut")

    async def stay_silent(self):
        """A TCP connection that says nothing."""
        async with RawClient(self._port) as client:
            await self._expect_cut(client, "a silent connection", CUT_UNFINISHED)

    async def trickle(self):
        """A request that never gets finished, byte by byte."""
        async with RawClient(self._port) as client:
            dripping = asyncio.create_task(self._drip(client))
            try:
                await self._expect_cut(client, "a trickling handshake", CUT_UNFINISHED)
            finally:
                dripping.cancel()
                await asyncio.gather(dripping, return_exceptions=True)

    @staticmethod
    async def _drip(client):
        for byte in b"GET /css-ts/ HTTP/1.1\r\nX-Endless: " + b"x" * 1000:
            await client.send(bytes((byte,)))
            await asyncio.sleep(0.2)

    async def vanish(self):
        """A CSS client that answers no ping any more, as a phone that has left the house."""
        async with RawClient(self._port) as client:
            if not await client.upgrade("/css-ts/"):
                return await asyncio.sleep(5)
            await self._expect_cut(client, "a client that has vanished", CUT_VANISHED)
            self._record.count("vanished")

    async def reset_somewhere(self):
        """A reset at any step of a connection's life."""
        async with RawClient(self._port) as client:
            path = random.choice(("/css-ts/", "/css-cii/x/", f"/local/hbbtv/t/reset{random.randrange(5)}", "/other"))
            step = random.randrange(4)
            if step == 1:
                await client.send(b"GET / HTTP/1.1\r\nUpgr")
            if step >= 2 and await client.upgrade(path) and step == 3:
                await client.send(text_frame(b"z" * random.randrange(200000))[:random.randrange(200000)])
            client.reset()
            self._record.count("resets")
        await asyncio.sleep(random.uniform(0, 0.3))

    async def talk_nonsense(self):
        """Random bytes, before or after the handshake. The server ends it or waits for more."""
        async with RawClient(self._port) as client:
            if random.random() < 0.5:
                await client.upgrade("/other")
            await client.send(garbage())
            await client.wait_for_end(2)
            self._record.count("nonsense")

    async def storm(self):
        """Many connections at once from one address, most of them for nothing."""
        clients = [RawClient(self._port) for _ in range(100)]
        await asyncio.gather(*(client.__aenter__() for client in clients))
        await asyncio.gather(*(client.upgrade("/other") for client in clients[:50]))
        for client in clients:
            client.reset()
        self._record.count("stormed", 100)
        await asyncio.sleep(random.uniform(3, 8))
