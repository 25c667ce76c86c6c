"""The reference host as its user and its clients meet it: what it prints, whom it serves, how it ends."""
import asyncio
import contextlib
import os
import re
import signal
import socket
import subprocess
import tempfile
import time
import unittest

from host import BUILD, IS_SANITIZED, PATIENCE, Host, Program, connect, free_port, refusal, wait_until

HALF = b"GET /css-ts/ HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: webs"


def through(script):
    """Has a shell start the host: "$@" in the script."""
    return ["bash", "-c", script, "bash"]


@contextlib.asynccontextmanager
async def pair(host, name="witness"):
    async with connect(host.at("/local/hbbtv/t/" + name)) as tv, connect(host.at("/remote/hbbtv/u/" + name)) as phone:
        await exchange(tv, phone, "pairingcompleted", ())
        yield tv, phone


async def exchange(tv, phone, expected="hello", senders=(0, 1)):
    for index in senders:
        await (tv, phone)[index].send(expected)
    for side in phone, tv:
        if await asyncio.wait_for(side.recv(), PATIENCE) != expected:
            raise AssertionError("a message is lost or altered")


class Receiver(unittest.IsolatedAsyncioTestCase):
    async def test_prints_its_urls_and_ends_with_zero_on_both_signals(self):
        for number in signal.SIGINT, signal.SIGTERM:
            with self.subTest(number), Host() as host:
                address = re.search(r"//([\d.]+):", host.urls["css-wc"])[1]
                base, token = f"ws://{address}:{host.port}", "[0-9a-f]{32}/"
                self.assertEqual(list(host.urls), ["app2app-local", "app2app-remote", "css-cii", "css-ts", "css-wc"])
                self.assertRegex(" ".join(host.urls.values()), f"^{base}/local/hbbtv/{token} {base}/remote/hbbtv/{token} "
                                 f"{base}/css-cii/{token} {base}/css-ts/ udp://{address}:{host.wc_port}$")
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
        route = ("ip link add exactly15chars_ type veth && ip address add 192.168.100.200/24 dev exactly15chars_ && "
                 "ip link set exactly15chars_ up;")
        for setup, address, token in [("", "127.0.0.1", "loopback"), (route, "192.168.100.200", "[0-9a-f]{32}")]:
            shell = through(f'ip link set lo up; {setup} exec "$@"')
            with self.subTest(address), Host(prefix=["unshare", "--net", *shell]) as host:
                self.assertRegex(host.urls["app2app-local"], f"^ws://{address}:{host.port}/local/hbbtv/{token}/$")
                self.assertEqual(host.end(signal.SIGTERM), 0)
                self.assertEqual("no IPv4 address" in host.complaints(), not setup)

    def test_refuses_wrong_options(self):
        for option in "--help", "--port=0", "--wc-port=65536", "--port=x", "--unknown":
            with self.subTest(option), Program(BUILD / "zenk_receiver", option) as program:
                self.assertEqual(program.wait() == 0, option == "--help")

    async def test_refuses_with_403_while_disabled_and_exchanges_nothing(self):
        with Host("--no-sync", "--no-pairing") as host:
            self.assertEqual([await refusal(host.at(name)) for name in ("css-cii", "css-ts")], [403, 403])
            async with connect(host.at("app2app-local")) as tv, connect(host.at("app2app-remote")) as phone:
                await tv.send("hello?")
                await tv.close()
                self.assertEqual([message async for message in phone], [])
                self.assertEqual(phone.close_code, 1000)

    async def test_refuses_with_503_when_full_and_relays_on(self):
        with tempfile.NamedTemporaryFile("w") as config:
            config.write("[HbbTV]\nMSMaxClientNum=1\n")
            config.flush()
            for name, event in ("css-cii", 0), ("css-ts", 3):
                with self.subTest(name), Host("--config", config.name) as host:
                    async with connect(host.at(name)) as client, pair(host) as witness:
                        self.assertEqual([await refusal(host.at(each)) for each in ("css-cii", "css-ts")], [503, 503])
                        await exchange(*witness)
                        await client.send(b"a\0b")
                    self.assertIn(f"{name} has as many as MSMaxClientNum", host.line("refused a client: "))
                    self.assertEqual([" ".join(host.line("event").split()[:6]) for _ in range(2)], [
                        f"event {event + kind} client 1 bytes {size}" for kind, size in [(1, 3), (2, 0)]])
                    self.assertIsNone(await refusal(host.at(name)))

    async def test_bad_clients_disturb_nobody_and_leave_nothing(self):
        with Host("--no-sync") as host:
            async with pair(host) as witness:
                descriptors, memory = host.descriptors(), 0
                for cycle in range(600):
                    async with pair(host, str(cycle % 7)) as (tv, phone):
                        tv.transport.abort()
                        await phone.wait_closed()
                        self.assertEqual(phone.close_code, 1000)
                    for rubbish in b"\x16\x03\x01 no HTTP\r\n\r\n", HALF:
                        with socket.create_connection(("127.0.0.1", host.port)) as client:
                            client.send(rubbish)
                    if cycle == 300:
                        memory = host.status("VmRSS")
                await exchange(*witness)
                self.assertTrue(wait_until(lambda: host.descriptors() < descriptors + 10))
                if not IS_SANITIZED:
                    self.assertLess(host.status("VmRSS") - memory, 2048)

    async def test_standard_output_may_be_a_full_disk_have_lost_its_reader_or_be_closed(self):
        for output in "> /dev/full", "> >(sed -n '/^ready/q')", ">&-", ">&- 2>&- <&-":
            with self.subTest(output), Host(prefix=through(f'exec "$@" {output}'), ready=False) as host:
                with socket.socket() as probe:
                    self.assertTrue(wait_until(lambda: probe.connect_ex(("127.0.0.1", host.port)) == 0))
                async with pair(host) as witness:
                    for _ in range(20):  # each coming and going prints event lines
                        async with connect(host.at("/css-cii/t/")) as css:
                            self.assertIn("protocolVersion", await css.recv())
                    await exchange(*witness)  # and no line of the log comes between
                self.assertEqual(host.end(signal.SIGTERM), 0)

    # Steps of the wall clock neither lengthen the time that a handshake has, nor harm the clients that stay. A sanitizer's
    # own library wants to be the first.
    async def test_an_unfinished_handshake_is_cut_in_time_while_the_wall_clock_steps(self):
        with Host(environment={} if IS_SANITIZED else {"LD_PRELOAD": os.environ["ZENK_STEPPING_CLOCK"]}) as host:
            async with pair(host) as witness:
                started = time.monotonic()
                reader, writer = await asyncio.open_connection("127.0.0.1", host.port)
                writer.write(HALF)
                with contextlib.suppress(ConnectionError):
                    while time.monotonic() < started + PATIENCE and not reader.at_eof():
                        await exchange(*witness)
                        with contextlib.suppress(asyncio.TimeoutError):
                            await asyncio.wait_for(reader.read(), 0.2)
                        writer.write(b"x")
                writer.close()
                self.assertTrue(4 < time.monotonic() - started < 9.5)  # the WebSocket library's own limit is 10 s
            self.assertEqual(host.end(signal.SIGTERM), 0)
