"""The reference host as its user and its clients meet it: what it prints, whom it serves, how it ends."""
import asyncio
import contextlib
import os
import re
import signal
import socket
import tempfile
import time
import unittest

import websockets

from host import PATIENCE, Host, connect, exchange, pair, wait_until


class Receiver(unittest.IsolatedAsyncioTestCase):
    async def test_prints_its_urls_and_ends_with_zero_on_both_signals(self):
        for number in signal.SIGINT, signal.SIGTERM:
            with self.subTest(number), Host() as host:
                self.assertEqual(len(set(re.findall("/([0-9a-f]{32})/", str(host.urls)))), 3, host.urls)
                async with connect(host.at("app2app-local") + "game") as waiting:
                    self.assertEqual(await asyncio.to_thread(host.end, number), 0)
                    await waiting.wait_closed()
                    self.assertEqual(waiting.close_code, 1001)
            with Host("--no-sync", ready=False) as early:
                self.assertTrue(early.line("app2app-local"))  # comes about when the services start
                self.assertEqual(early.end(number), 0)

    async def test_refuses_css_clients_while_full_or_disabled_and_relays_on(self):
        with tempfile.NamedTemporaryFile("w") as config:
            config.write("[HbbTV]\nMSMaxClientNum=1\n")
            config.flush()
            with Host("--config", config.name) as full, Host("--no-sync") as disabled:
                async with connect(full.at("css-cii")), pair(full, "witness") as witness:
                    for host, status in (full, "503"), (disabled, "403"):
                        for name in "css-cii", "css-ts":
                            with self.assertRaisesRegex(websockets.InvalidStatusCode, status):
                                await connect(host.at(name))
                    await exchange(witness)
                self.assertIn("css-cii has as many as MSMaxClientNum", full.line("refused a client: "))

    async def test_standard_output_may_be_a_full_disk_or_closed(self):
        for output in "> /dev/full", ">&- 2>&- <&-":
            with self.subTest(output), Host(prefix=["sh", "-c", f'exec "$@" {output}', "sh"], ready=False) as host:
                with socket.socket() as probe:
                    self.assertTrue(wait_until(lambda: probe.connect_ex(("127.0.0.1", host.port)) == 0))
                async with pair(host, "witness") as witness:
                    for _ in range(20):  # each coming and going prints event lines
                        async with connect(host.at("/css-cii/t/")) as css:
                            self.assertIn("protocolVersion", await css.recv())
                    await exchange(witness)  # and no line of the log comes between
                self.assertEqual(host.end(), 0)

    # Steps of the wall clock neither lengthen the time that a handshake has, nor harm the clients that stay.
    async def test_an_unfinished_handshake_is_cut_in_time_while_the_wall_clock_steps(self):
        with Host(prefix=["env", "LD_PRELOAD=" + os.environ["ZENK_STEPPING_CLOCK"]]) as host:
            async with pair(host, "witness") as witness:
                started = time.monotonic()
                reader, writer = await asyncio.open_connection("127.0.0.1", host.port)
                writer.write(b"GET /css-ts/ HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: webs")
                with contextlib.suppress(ConnectionError):
                    while time.monotonic() < started + PATIENCE and not reader.at_eof():
                        await exchange(witness)
                        with contextlib.suppress(asyncio.TimeoutError):
                            await asyncio.wait_for(reader.read(), 0.2)
                        writer.write(b"x")
                writer.close()
                self.assertTrue(4 < time.monotonic() - started < 9.5)  # the WebSocket library's own limit is 10 s
