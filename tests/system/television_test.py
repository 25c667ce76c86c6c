"""The television as companion devices see it: what they are told of each change, and what becomes of those who err."""
import asyncio
import json
import unittest

from host import Host, connect, hear

JUNK = ["[[[ no JSON", "{}", '{"contentIdStem":1,"timelineSelector":"x"}', b"\xff\xfe\0", "[" * 1000000]


def setup(stem=""):
    return json.dumps({"contentIdStem": stem, "timelineSelector": "urn:dvb:css:timeline:pts"})


async def heard(client):
    return json.loads(await hear(client))


def expected(stamp, at, jump):
    """The content time at another timestamp's wall-clock time, `jump` seconds further."""
    passed = int(at["wallClockTime"]) - int(stamp["wallClockTime"])
    return int(stamp["contentTime"]) + (passed * stamp["timelineSpeedMultiplier"] / 1e9 + jump) * 90000


class Television(unittest.IsolatedAsyncioTestCase):
    async def test_each_change_is_told_once_to_all_who_follow(self):
        with Host() as host:
            async with (connect(host.at("css-cii")) as cii, connect(host.at("css-ts")) as pts,
                        connect(host.at("css-ts")) as zapped, connect(host.at("css-ts")) as silent):
                await pts.send(setup("dvb://233a."))
                await zapped.send(setup("dvb://233a.1004.1080"))
                greeting, last = await heard(cii), await heard(pts)
                self.assertEqual((greeting["tsUrl"], greeting["wcUrl"]), (host.urls["css-ts"], host.urls["css-wc"]))
                self.assertIsNone((await heard(zapped))["contentTime"])
                for command, speed, jump in [("pause", 0, 0), ("seek +10", 0, 10), ("play", 1, 0), ("speed 2", 2, 0),
                                             ("seek -5", 2, -5), ("blackout", None, 0), ("blackout", 2, 0)]:
                    with self.subTest(command):
                        host.say(command)
                        self.assertEqual(await heard(cii), greeting, "a whole message each time")
                        stamp = await heard(pts)
                        self.assertEqual(stamp["timelineSpeedMultiplier"], speed)
                        if speed is not None:
                            self.assertAlmostEqual(int(stamp["contentTime"]), expected(last, stamp, jump), delta=3)
                            last = stamp
                host.say("service 2")
                for news in [("transitioning", "partial", "dvb://233a.1004.1080", None),
                             ("okay", "final", "dvb://233a.1004.1080;21af~20131004T1015Z--PT01H00M", 1)]:
                    told, stamp = await heard(cii), await heard(pts)
                    self.assertEqual((told["presentationStatus"], told["contentIdStatus"], told["contentId"],
                                      stamp["timelineSpeedMultiplier"]), news)
                self.assertEqual(await heard(zapped), stamp)  # its first news since the answer to its setup
                for unasked in silent, pts, zapped, cii:
                    with self.assertRaises(asyncio.TimeoutError):
                        await asyncio.wait_for(unasked.recv(), 0.05)

    async def test_junk_closes_its_client_and_nobody_else(self):
        with Host() as host:
            async with connect(host.at("css-cii")) as cii, connect(host.at("css-ts")) as good:
                await good.send(setup())
                await good.recv()
                for junk in JUNK:
                    with self.subTest(junk[:40]):
                        async with connect(host.at("css-ts")) as client:
                            await client.send(junk)
                            self.assertEqual([message async for message in client], [])
                            self.assertEqual(client.close_code, 1001)
                        self.assertIn("is sent away: its message ", host.line("ts client"))
                point = {"contentTime": "1", "wallClockTime": "plusinfinity"}
                await good.send(json.dumps({"latest": point, "earliest": {**point, "wallClockTime": "2"}}))
                self.assertIn("earliest 1 at 2, latest 1 at plusinfinity", host.line("ts client 2 can play"))
                await cii.send("\x1b[2J\n\u00e9")
                self.assertEqual(host.line("event 1"), "event 1 client 1 bytes 7 cii message \\x1b[2J\\x0a\\xc3\\xa9")
                host.say("pause")
                self.assertEqual((await heard(good))["timelineSpeedMultiplier"], 0)
