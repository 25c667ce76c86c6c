"""The television as companion devices see it: what they are told of each change, and what becomes of those who err."""
import asyncio
import contextlib
import json
import pathlib
import socket
import struct
import subprocess
import sys
import tempfile
import time
import unittest

import websockets

from host import PATIENCE, Host, connect, wait_until

PTS = "urn:dvb:css:timeline:pts"
JUNK = ["", "[[[ no JSON", "[]", "{}", '{"contentIdStem":1,"timelineSelector":"x"}', b"\xff\xfe\0", "[" * 1000000,
        '{"contentIdStem":' + "[" * 100000]


def setup(stem="", selector=PTS):
    return json.dumps({"contentIdStem": stem, "timelineSelector": selector})


async def heard(client):
    return json.loads(await asyncio.wait_for(client.recv(), PATIENCE))


def driven(*arguments, **options):
    return Host(*arguments, stdin=subprocess.PIPE, **options)


class Television(unittest.IsolatedAsyncioTestCase):
    async def test_each_change_is_told_once_to_all_who_follow(self):
        with driven() as host:
            async with contextlib.AsyncExitStack() as stack:
                async def client(name, message=None):
                    opened = await stack.enter_async_context(connect(host.at(name)))
                    if message:
                        await opened.send(message)
                    return opened, await heard(opened)
                (cii, greeting), (pts, first) = await client("css-cii"), await client("css-ts", setup("dvb://233a."))
                (zapped, none), silent = await client("css-ts", setup("dvb://233a.1004.1080")), await stack.enter_async_context(
                    connect(host.at("css-ts")))
                self.assertEqual((greeting["protocolVersion"], greeting["tsUrl"], greeting["wcUrl"]),
                                 ("1.1", host.urls["css-ts"], host.urls["css-wc"]))
                self.assertEqual((none["contentTime"], none["timelineSpeedMultiplier"]), (None, None))

                async def change(command, messages=1):
                    host.say(command)
                    return [(await heard(cii), await heard(pts)) for _ in range(messages)]

                def expected(stamp, at):
                    """The content time at `at` by an earlier timestamp."""
                    passed = int(at["wallClockTime"]) - int(stamp["wallClockTime"])
                    return int(stamp["contentTime"]) + passed * stamp["timelineSpeedMultiplier"] * 90000 / 1e9
                last = first
                for command, speed, jump in [("pause", 0, 0), ("seek +10", 0, 10), ("play", 1, 0), ("speed 2", 2, 0),
                                             ("seek -5", 2, -5)]:
                    with self.subTest(command):
                        (told, stamp), = await change(command)
                        self.assertEqual(told, greeting, "a whole message each time")
                        self.assertEqual(stamp["timelineSpeedMultiplier"], speed)
                        self.assertAlmostEqual(int(stamp["contentTime"]), expected(last, stamp) + jump * 90000, delta=3)
                        last = stamp
                (_, lost), = await change("blackout")
                self.assertEqual((lost["contentTime"], lost["timelineSpeedMultiplier"]), (None, None))
                (_, back), = await change("blackout")
                self.assertAlmostEqual(int(back["contentTime"]), expected(last, back), delta=3)
                told = await change("service 2", 2)
                self.assertEqual([(c["contentIdStatus"], c["presentationStatus"], s["timelineSpeedMultiplier"])
                                  for c, s in told], [("partial", "transitioning", None), ("final", "okay", 1)])
                self.assertTrue(told[1][0]["contentId"].startswith("dvb://233a.1004.1080;"))
                self.assertEqual(await heard(zapped), told[1][1])  # its first news since the answer to its setup
                await pts.send(setup("dvb://nowhere"))
                self.assertIsNone((await heard(pts))["contentTime"])
                for unasked in silent, pts, zapped, cii:
                    with self.assertRaises(asyncio.TimeoutError):
                        await asyncio.wait_for(unasked.recv(), 0.05)

    async def test_junk_closes_its_client_and_nobody_else(self):
        with driven() as host:
            async with connect(host.at("css-cii")) as cii, connect(host.at("css-ts")) as good:
                await cii.recv()
                await good.send(setup())
                await good.recv()
                for number, junk in enumerate(JUNK):
                    with self.subTest(junk[:40]):
                        async with connect(host.at("css-ts")) as client:
                            if number % 2:  # as its first message, or as a later one
                                await client.send(setup())
                                await client.recv()
                            await client.send(junk)
                            with self.assertRaises(websockets.ConnectionClosed):
                                await asyncio.wait_for(client.recv(), PATIENCE)
                            self.assertEqual(client.close_code, 1001)
                        self.assertRegex(host.line("ts client"), "^ts client [0-9]+ is sent away: its message (is|has) ")
                point = {"contentTime": "1", "wallClockTime": "2"}
                await good.send(json.dumps({"earliest": point, "latest": {**point, "wallClockTime": "plusinfinity"}}))
                self.assertEqual(host.line("ts client"), "ts client 2 can play: earliest 1 at 2, latest 1 at plusinfinity")
                await cii.send("\x1b[2J\n\u00e9")
                self.assertEqual(host.line("event 1"), "event 1 client 1 bytes 7 cii message \\x1b[2J\\x0a\\xc3\\xa9")
                host.say("pause")
                self.assertEqual((await heard(good))["timelineSpeedMultiplier"], 0)

    def test_commands_are_answered_and_the_end_of_the_input_ends_nothing(self):
        with driven() as host:
            for line in "x" * 1000000, "\x1b[2J", "fly":
                host.say("\n" + line)
                self.assertTrue(host.line("error: "))
            host.process.stdin.write("status\nhelp\nspeed 3")  # the last line is one without a newline, too
            host.process.stdin.close()
            host.process.stdin = None
            self.assertTrue(host.line("ok service 1 (Zenk One) at "))
            self.assertTrue(host.line("ok service 1 (Zenk One) at ").endswith(", speed 3"))
            asyncio.run(self.is_served(host))

    def test_commands_wait_while_the_host_is_in_the_background_of_a_terminal(self):
        terminal = [sys.executable, "-c", "import pty, sys; pty.spawn(sys.argv[1:])"]
        # While the shell reads its lines, the host tries to.
        shell = ["bash", "-c", 'set -m; "$@" & for _ in {1..500}; do read -r; done; fg', "bash"]
        with driven(prefix=terminal + shell) as host:
            host.say("\n" * 500 + "status")
            self.assertTrue(host.line("ok service 1 "))

    async def is_served(self, host):
        async with connect(host.at("css-ts")) as client:
            await client.send(setup())
            return await heard(client)

    def test_quitwc_stops_the_wall_clock_for_a_second(self):
        with Host() as host, socket.socket(type=socket.SOCK_DGRAM) as asker:
            asker.settimeout(0.1)
            asker.connect(("127.0.0.1", host.wc_port))

            def time_of_reply():
                with contextlib.suppress(OSError):
                    asker.send(bytes(32))
                    return struct.unpack(">I", asker.recv(32)[16:20])
                return None
            self.assertTrue(wait_until(time_of_reply))
            for _ in range(2):
                asker.send(b"quitwc")
                self.assertTrue(host.line("the wall clock was told to quit"))
                self.assertTrue(wait_until(time_of_reply))
            asker.send(b"quitwc")
            began = time.monotonic()
            self.assertEqual(host.end(15), 0)  # in the pause, too
            self.assertLess(time.monotonic() - began, PATIENCE / 2)

    async def test_files_of_the_options_are_used_or_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            config, services, log = (pathlib.Path(folder) / name for name in ("config", "services", "log"))
            config.write_text("[HbbTV]\nMSMaxClientNum=2\n", encoding="ascii")
            services.write_text('[{"name":"Mine","contentId":"dvb://1.2.3;4","pts":{"origin":7}}]', encoding="ascii")
            with driven("--config", config, "--services", services, "--log", log) as host:
                host.say("service 4\npause\nseek 0")
                self.assertIn("(Mine)", host.line("ok service 4"))
                self.assertTrue(host.line("ok ") and host.line("ok "))
                self.assertEqual((await self.is_served(host))["contentTime"], "7")
                async with connect(host.at("css-cii")), connect(host.at("css-cii")):  # one place fewer for who comes at once
                    with self.assertRaises(websockets.InvalidStatusCode) as refused:
                        await connect(host.at("css-ts"))
                    self.assertEqual(refused.exception.status_code, 503)
                self.assertIn("css-cii has as many", host.line("refused a client: "))
                self.assertEqual(host.end(15), 0)
                self.assertIsNone(host.line("m_maxClientNum"))
            self.assertIn("m_maxClientNum = 2", log.read_text(encoding="utf-8"))
            services.write_text("[{}]", encoding="ascii")
            for option, file, code in [("--services", services, 1), ("--services", "/nowhere", 1), ("--config", "/nowhere", 105),
                                       ("--log", "/nowhere/log", 1)]:
                with self.subTest(option), Host(option, file, ready=False) as host:
                    self.assertEqual(host.exit_code(), code)
                    self.assertIn(str(file), host.errors())
                    self.assertIsNone(host.line("app2app-local"))
