"""The television as companion devices see it: what they are told of each change, and what becomes of those who err."""
import asyncio
import contextlib
import json
import pathlib
import socket
import subprocess
import sys
import tempfile
import unittest

from host import PATIENCE, Host, connect, wait_until

PTS = "urn:dvb:css:timeline:pts"
NO_TIMELINE = (None, None)
JUNK = ["", "[[[ no JSON", "[]", "{}", '{"contentIdStem":1,"timelineSelector":"x"}', b"\xff\xfe\0", "[" * 1000000,
        '{"contentIdStem":' + "[" * 100000]


def setup(stem="", selector=PTS):
    return json.dumps({"contentIdStem": stem, "timelineSelector": selector})


async def heard(client):
    return json.loads(await asyncio.wait_for(client.recv(), PATIENCE))


def driven(*arguments, **options):
    return Host(*arguments, stdin=subprocess.PIPE, **options)


def content(stamp):
    """Where the timeline is, and how fast it runs."""
    return stamp["contentTime"], stamp["timelineSpeedMultiplier"]


def expected(stamp, at, jump=0):
    """The content time at another timestamp's wall-clock time, `jump` seconds further."""
    passed = int(at["wallClockTime"]) - int(stamp["wallClockTime"])
    return int(stamp["contentTime"]) + (passed * stamp["timelineSpeedMultiplier"] / 1e9 + jump) * 90000


class Television(unittest.IsolatedAsyncioTestCase):
    async def test_each_change_is_told_once_to_all_who_follow(self):
        with driven() as host:
            async with (connect(host.at("css-cii")) as cii, connect(host.at("css-ts")) as pts,
                        connect(host.at("css-ts")) as zapped, connect(host.at("css-ts")) as silent):
                await pts.send(setup("dvb://233a."))
                await zapped.send(setup("dvb://233a.1004.1080"))
                greeting, last = await heard(cii), await heard(pts)
                self.assertEqual([greeting[key] for key in ("protocolVersion", "tsUrl", "wcUrl")],
                                 ["1.1", host.urls["css-ts"], host.urls["css-wc"]])
                self.assertEqual(content(await heard(zapped)), NO_TIMELINE)
                for command, speed, jump in [("pause", 0, 0), ("seek +10", 0, 10), ("play", 1, 0), ("speed 2", 2, 0),
                                             ("seek -5", 2, -5), ("blackout", None, 0), ("blackout", 2, 0)]:
                    with self.subTest(command):
                        host.say(command)
                        self.assertEqual(await heard(cii), greeting, "a whole message each time")
                        stamp = await heard(pts)
                        if speed is None:
                            self.assertEqual(content(stamp), NO_TIMELINE)
                            continue
                        self.assertEqual(stamp["timelineSpeedMultiplier"], speed)
                        self.assertAlmostEqual(int(stamp["contentTime"]), expected(last, stamp, jump), delta=3)
                        last = stamp
                host.say("service 2")
                moments = []
                for partial, status in ("dvb://233a.1004.1080", "transitioning"), (None, "okay"):
                    told, stamp = await heard(cii), await heard(pts)
                    self.assertEqual(told["presentationStatus"], status)
                    self.assertEqual(told["contentIdStatus"], "partial" if partial else "final")
                    self.assertEqual(told["contentId"], partial or "dvb://233a.1004.1080;21af~20131004T1015Z--PT01H00M")
                    self.assertEqual(stamp["timelineSpeedMultiplier"], None if partial else 1)
                    moments.append(int(stamp["wallClockTime"]))
                self.assertGreaterEqual(moments[1] - moments[0], 3e8)  # each is told with its own time
                self.assertEqual(await heard(zapped), stamp)  # its first news since the answer to its setup
                await pts.send(setup("dvb://nowhere"))
                self.assertEqual(content(await heard(pts)), NO_TIMELINE)
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
                                await heard(client)
                            await client.send(junk)
                            self.assertEqual([message async for message in client], [])
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
            host.stdin.write("status\nhelp\nspeed 3")  # the last line is one without a newline, too
            host.stdin.close()
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

            def reply():
                with contextlib.suppress(OSError):
                    asker.send(bytes(32))
                    return asker.recv(32)
            self.assertTrue(wait_until(reply))
            for _ in range(2):
                asker.send(b"quitwc")
                self.assertTrue(host.line("the wall clock was told to quit"))
                self.assertTrue(wait_until(reply))
            asker.send(b"quitwc")
            self.assertTrue(host.line("the wall clock was told to quit"))
            host.send_signal(15)
            self.assertEqual(host.wait(PATIENCE / 2), 0)  # in the pause, too

    async def test_files_of_the_options_are_used_or_refused(self):
        with tempfile.TemporaryDirectory() as folder:
            services, log = pathlib.Path(folder) / "services", pathlib.Path(folder) / "log"
            services.write_text('[{"name":"Mine","contentId":"dvb://1.2.3;4","pts":{"origin":7}}]', encoding="ascii")
            with driven("--services", services, "--log", log) as host:
                host.say("service 4\npause\nseek 0")
                self.assertIn("(Mine)", host.line("ok service 4"))
                self.assertTrue(host.line("ok ") and host.line("ok "))
                self.assertEqual((await self.is_served(host))["contentTime"], "7")
                self.assertEqual(host.end(15), 0)
                self.assertIsNone(host.line("m_maxClientNum"))
            self.assertIn("m_maxClientNum = 25", log.read_text(encoding="utf-8"))
            services.write_text("[{}]", encoding="ascii")
            for option, file, code in [("--services", services, 1), ("--services", "/nowhere", 1), ("--config", "/nowhere", 105),
                                       ("--log", "/nowhere/log", 1)]:
                with self.subTest(option), Host(option, file, ready=False) as host:
                    self.assertEqual(host.wait(), code)
                    self.assertIn(str(file), host.complaints())
                    self.assertIsNone(host.line("app2app-local"))
