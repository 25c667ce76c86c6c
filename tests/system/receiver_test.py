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

import websockets

from host import BUILD, IS_SANITIZED, PATIENCE, Host, Program, connect, free_port, wait_until

HALF = b"GET /css-ts/ HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: webs"
SIZES = 0, 1, 1000, 131072


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
                self.assertEqual("no IPv4 address" in host.errors(), not setup)

    def test_names_the_port_that_is_taken_and_refuses_wrong_options(self):
        for kind, name, option in [(socket.SOCK_STREAM, "TCP", "--port"), (socket.SOCK_DGRAM, "UDP", "--wc-port")]:
            with socket.socket(type=kind) as holder:
                holder.bind(("", port := free_port()))
                ports = {"--port": free_port(), "--wc-port": free_port(), option: port}
                with self.subTest(name), Program(BUILD / "zenk_receiver", *sum(ports.items(), ())) as host:
                    self.assertEqual(host.exit_code(), 1)
                    self.assertIn(f"{name} port {port}: ", host.errors())
        for option in "--help", "--port=0", "--wc-port=65536", "--port=x", "--unknown":
            with self.subTest(option), Program(BUILD / "zenk_receiver", option) as program:
                self.assertEqual(program.exit_code() == 0, option == "--help")

    async def test_relays_in_order_and_refuses_with_403_while_disabled_and_with_503_when_full(self):
        with tempfile.NamedTemporaryFile("w") as config:
            config.write("[HbbTV]\nMSMaxClientNum=1\n")
            config.flush()
            for name, event in ("css-cii", 0), ("css-ts", 3):
                async def expect_refusal(status):
                    with self.assertRaises(websockets.InvalidStatusCode) as refused:
                        await connect(host.at(name))
                    self.assertEqual(refused.exception.status_code, status)
                with self.subTest(name), Host("--no-sync", "--no-pairing") as host:
                    await expect_refusal(403)
                    async with connect(host.at("app2app-local")) as tv, connect(host.at("app2app-remote")) as phone:
                        await tv.send("hello?")
                        await tv.close()
                        self.assertEqual([message async for message in phone], [], "nothing is exchanged")
                        self.assertEqual(phone.close_code, 1000)
                with self.subTest(name), Host(environment={"VEL_CONFIG_FILE": config.name}) as host:
                    async with connect(host.at(name)) as client, pair(host) as (tv, phone):
                        await expect_refusal(503)
                        for message in ["h\u00e9llo", *("x" * size for size in SIZES), *(bytes(size) for size in SIZES)]:
                            await exchange(tv, phone, message)
                        await client.send(b"a\0b")
                    self.assertEqual([" ".join(host.line("event").split()[:6]) for _ in range(3)], [
                        f"event {event + kind} client 1 bytes {size}" for kind, size in [(0, 0), (1, 3), (2, 0)]])
                    async with connect(host.at(name)):
                        pass

    async def test_bad_clients_disturb_nobody_and_leave_nothing(self):
        with Host("--no-sync") as host:
            async with pair(host) as witness:
                left = []
                for cycle in range(600):
                    async with pair(host, str(cycle % 7)) as (tv, phone):
                        tv.transport.abort()
                        await phone.wait_closed()
                        self.assertEqual(phone.close_code, 1000)
                    for rubbish in b"\x16\x03\x01 no HTTP\r\n\r\n", HALF:
                        with socket.create_connection(("127.0.0.1", host.port)) as client:
                            client.send(rubbish)
                    if cycle in (0, 300, 599):
                        # The last client may not even have been accepted yet: what counts is that all go.
                        is_settled = wait_until(lambda: left and host.descriptors() == left[0][0], 10 if left else 2)
                        left.append((left[0][0] if is_settled else host.descriptors(),
                                     0 if IS_SANITIZED else host.status("VmRSS") // 1024))
                await exchange(*witness)
                self.assertEqual(left[2][0], left[0][0])
                self.assertLessEqual(left[2][1] - left[1][1], 1)

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

    # Who does not finish is cut after five seconds, whatever comes in that time; steps of the wall clock neither shorten
    # that nor harm the clients that stay. A sanitizer's own library wants to be the first.
    async def test_unfinished_handshakes_are_cut_in_time_while_the_wall_clock_steps(self):
        async def time_to_end(beginning, drip):
            started = time.monotonic()
            reader, writer = await asyncio.open_connection("127.0.0.1", host.port)
            writer.write(beginning)
            with contextlib.suppress(ConnectionError):
                while time.monotonic() < started + PATIENCE and not reader.at_eof():
                    with contextlib.suppress(asyncio.TimeoutError):
                        await asyncio.wait_for(reader.read(), 0.2)
                    await exchange(*witness) if (beginning, drip) == (HALF, b"x") else None
                    writer.write(drip)
            writer.close()
            return time.monotonic() - started

        with Host(environment={} if IS_SANITIZED else {"LD_PRELOAD": os.environ["ZENK_STEPPING_CLOCK"]}) as host:
            async with pair(host) as witness:
                for seconds in await asyncio.gather(*(time_to_end(*client) for client in [
                        (b"", b""), (HALF, b""), (HALF, b"x"), (b"GET / HTTP/1.1\r\n", b"A: b\r\n")])):
                    self.assertTrue(4 < seconds < 9.5, seconds)  # the library's own limit is 10 s
            self.assertEqual(host.end(signal.SIGTERM), 0)
