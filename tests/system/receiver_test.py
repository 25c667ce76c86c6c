"""The reference host as its user and its clients meet it: what it prints, whom it serves, how it ends."""
import asyncio
import contextlib
import json
import os
import re
import signal
import socket
import struct
import subprocess
import tempfile
import time
import unittest

import websockets

from host import BUILD, IS_SANITIZED, PATIENCE, Host, Program, connect, free_port, wait_until

HALF_A_REQUEST = b"GET /css-ts/ HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: webs"


def through(script):
    """Has a shell start the host: "$@" in the script."""
    return ["bash", "-c", script, "bash"]


@contextlib.asynccontextmanager
async def pair(host, name="witness"):
    async with connect(host.at("app2app-local") + name) as tv, connect(host.at("app2app-remote") + name) as phone:
        if [await tv.recv(), await phone.recv()] != ["pairingcompleted"] * 2:
            raise AssertionError("the pair did not meet")
        yield tv, phone


async def exchange(tv, phone):
    for sender, receiver in [(tv, phone), (phone, tv)]:
        await sender.send("hello")
        if await asyncio.wait_for(receiver.recv(), PATIENCE) != "hello":
            raise AssertionError("a message is lost or altered")


def reset(client):
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


class Receiver(unittest.IsolatedAsyncioTestCase):
    async def test_prints_its_urls_and_ends_with_zero_on_both_signals(self):
        for number in signal.SIGINT, signal.SIGTERM:
            with self.subTest(number), Host() as host:
                self.assertEqual(list(host.urls), ["app2app-local", "app2app-remote", "css-cii", "css-ts", "css-wc"])
                address, port = re.escape(re.search(r"//([\d.]+):", host.urls["css-wc"])[1]), host.port
                self.assertRegex(" ".join(host.urls.values()), "^{0}/local/hbbtv/{1} {0}/remote/hbbtv/{1} {0}/css-cii/{1} "
                                 "{0}/css-ts/ udp://{2}:{3}$".format(f"ws://{address}:{port}", "[0-9a-f]{32}/", address,
                                                                   host.wc_port))
                self.assertEqual(len(set(re.findall("[0-9a-f]{32}", str(host.urls)))), 3)
                async with connect(host.at("app2app-local") + "game") as waiting:
                    self.assertEqual(await asyncio.to_thread(host.end, number), 0)
                    await waiting.wait_closed()
                    self.assertEqual(waiting.close_code, 1001)
            with Host("--no-sync", ready=False) as early:
                self.assertTrue(early.line("app2app-local"))  # comes about when the services start
                self.assertEqual(early.end(number), 0)

    @unittest.skipIf(subprocess.run(["unshare", "--net", "true"], check=False).returncode, "no network of its own here")
    def test_finds_its_address_by_the_first_route_or_falls_back_to_loopback(self):
        name = "exactly15chars_"
        route = f"ip link add {name} type dummy && ip address add 192.168.100.200/24 dev {name} && ip link set {name} up;"
        for setup, address, token in [("", "127.0.0.1", "loopback"), (route, "192.168.100.200", "[0-9a-f]{32}")]:
            shell = through(f'ip link set lo up; {setup} exec "$@"')
            with self.subTest(address), Host(prefix=["unshare", "--net", *shell]) as host:
                self.assertRegex(host.urls["app2app-local"], f"^ws://{address}:{host.port}/local/hbbtv/{token}/$")
                self.assertEqual(host.urls["css-wc"], f"udp://{address}:{host.wc_port}")
                self.assertEqual(host.end(signal.SIGTERM), 0)
                self.assertEqual("no IPv4 address" in host.errors(), not setup)

    def test_names_the_port_that_is_taken_and_refuses_wrong_options(self):
        for kind, name, option in [(socket.SOCK_STREAM, "TCP", "--port"), (socket.SOCK_DGRAM, "UDP", "--wc-port")]:
            with self.subTest(name), socket.socket(type=kind) as holder:
                holder.bind(("", free_port()))
                if kind == socket.SOCK_STREAM:
                    holder.listen()
                port = holder.getsockname()[1]
                with Host(option, port, ready=False) as host:
                    self.assertEqual(host.exit_code(), 1)
                    self.assertIn(f"{name} port {port}: ", host.errors())
                    self.assertIsNone(host.line("ready"))
        for option, code in [("--help", 0), ("--port=0", 105), ("--wc-port=65536", 105), ("--port=x", 104), ("--no", 109)]:
            with self.subTest(option), Program(BUILD / "zenk_receiver", option) as program:
                self.assertEqual(program.exit_code(), code)

    async def test_companion_devices_are_greeted_answered_and_told_to_the_host_in_order(self):
        with Host() as host:
            async def stamp(client, message):
                await client.send(message)
                answer = json.loads(await asyncio.wait_for(client.recv(), PATIENCE))
                return answer["contentTime"], answer["timelineSpeedMultiplier"], int(answer["wallClockTime"])
            async with connect(host.at("css-cii")) as cii, connect(host.at("css-ts")) as ts, connect(
                    host.at("css-ts")) as lost:
                greeting = json.loads(await cii.recv())
                self.assertEqual((greeting["protocolVersion"], greeting["tsUrl"], greeting["wcUrl"]),
                                 ("1.1", host.urls["css-ts"], host.urls["css-wc"]))
                setup = json.dumps({"contentIdStem": "", **greeting["timelines"][0]})
                first, second = await stamp(ts, setup), await stamp(ts, "{}")
                self.assertEqual(first[1], 1.0)
                self.assertTrue(0 <= int(first[0]) <= int(second[0]) and 0 < first[2] < second[2])
                # The first message decides, later ones only report what the client can play.
                for message in ['{"timelineSelector":"urn:dvb:css:timeline:temi:1:1"}', setup, "[[[ no JSON"]:
                    self.assertEqual((await stamp(lost, message))[:2], (None, None))
                await cii.send(b"a\0b")
                await cii.close()
                self.assertEqual([host.line("event") for _ in range(10)],
                                 [f"event {event} client {client} bytes {size}" for event, client, size in [
                                     (0, 1, 0), (3, 2, 0), (3, 3, 0), (4, 2, len(setup)), (4, 2, 2), (4, 3, 52),
                                     (4, 3, len(setup)), (4, 3, 11), (1, 1, 3), (2, 1, 0)]])

    async def test_refuses_with_403_while_disabled_and_with_503_when_full(self):
        with tempfile.NamedTemporaryFile("w") as config:
            config.write("[HbbTV]\nMSMaxClientNum=1\n")
            config.flush()
            for name in "css-cii", "css-ts":
                async def refusal():
                    with self.assertRaises(websockets.InvalidStatusCode) as refused:
                        await connect(host.at(name))
                    return refused.exception.status_code
                with self.subTest(name):
                    with Host("--no-sync", "--no-pairing") as host:
                        self.assertEqual(await refusal(), 403)
                        async with connect(host.at("app2app-local")) as tv, connect(host.at("app2app-remote")) as phone:
                            await tv.send("hello?")
                            await tv.close()
                            self.assertEqual([message async for message in phone], [], "nothing is exchanged")
                            self.assertEqual(phone.close_code, 1000)
                    with Host(environment={"VEL_CONFIG_FILE": config.name}) as host:
                        async with connect(host.at(name)):
                            self.assertEqual(await refusal(), 503)
                        self.assertTrue(host.line("event") and host.line("event"))  # it came and left
                        async with connect(host.at(name)):
                            pass

    async def test_bad_clients_disturb_nobody_and_leave_nothing(self):
        with Host("--no-sync") as host:
            async with pair(host) as witness:
                before = None
                for cycle in range(600):
                    async with pair(host, str(cycle % 7)) as (tv, phone):
                        reset(tv.transport.get_extra_info("socket").dup())
                        tv.transport.abort()
                        await phone.wait_closed()
                        self.assertEqual(phone.close_code, 1000)
                    for rubbish in b"\x16\x03\x01 no HTTP\r\n\r\n", HALF_A_REQUEST:
                        client = socket.create_connection(("127.0.0.1", host.port))
                        client.send(rubbish)
                        reset(client)
                    if cycle == 300:
                        before = host.resident()
                await exchange(*witness)
                self.assertLess(IS_SANITIZED or host.resident() - before, 1 << 20)
            self.assertTrue(wait_until(lambda: host.descriptors() < 20))

    # The log goes nowhere: the disk is full, the reader has gone, or there never was an output.
    async def test_standard_output_may_fail(self):
        for output in "> /dev/full", "> >(sed -n '/^ready/q')", ">&-", ">&- 2>&- <&-":
            with self.subTest(output), Host(prefix=through(f'exec "$@" {output}'), ready=False) as host:
                def is_serving():
                    with socket.socket() as probe:
                        return probe.connect_ex(("127.0.0.1", host.port)) == 0
                self.assertTrue(wait_until(is_serving))
                async with pair(host) as witness:
                    for _ in range(20):  # each coming and going prints event lines
                        async with connect(host.at("/css-cii/t/")) as css:
                            self.assertIn("protocolVersion", await css.recv())
                            await css.send("{}")
                    await exchange(*witness)  # and no line of the log comes between
                self.assertEqual(host.end(signal.SIGTERM), 0)

    # Who does not finish is cut after five seconds, whatever comes in that time; steps of the wall clock neither shorten
    # that nor harm the clients that stay. A sanitizer's own library wants to be the first.
    async def test_unfinished_handshakes_are_cut_in_time_while_the_wall_clock_steps(self):
        async def ends_after(beginning, drip):
            started = time.monotonic()
            reader, writer = await asyncio.open_connection("127.0.0.1", host.port)
            writer.write(beginning)
            with contextlib.suppress(ConnectionError):
                while time.monotonic() < started + PATIENCE:
                    with contextlib.suppress(asyncio.TimeoutError):
                        if not await asyncio.wait_for(reader.read(), 0.2):
                            break
                    writer.write(drip)
            writer.close()
            return time.monotonic() - started

        async def talk(witness):
            for _ in range(400):
                await exchange(*witness)
                await asyncio.sleep(0.01)
        stepping = {} if IS_SANITIZED else {"LD_PRELOAD": os.environ["ZENK_STEPPING_CLOCK"]}
        with Host(environment=stepping) as host:
            async with pair(host) as witness:
                times, _ = await asyncio.gather(asyncio.gather(*(ends_after(*client) for client in [
                    (b"", b""), (HALF_A_REQUEST, b""), (HALF_A_REQUEST, b"x"), (b"GET / HTTP/1.1\r\n", b"A: b\r\n")])),
                    talk(witness))
                for seconds in times:
                    self.assertTrue(4 < seconds < 9.5, times)  # the library's own limit is 10 s
                await exchange(*witness)
            self.assertEqual(host.end(signal.SIGTERM), 0)
