"""Two applications find each other through the printed URLs."""
import signal
import unittest

from host import Host, connect


class App2App(unittest.IsolatedAsyncioTestCase):
    async def test_pairs_relays_both_ways_and_closes_the_partner_with_1000(self):
        with Host() as host:
            for _ in range(2):  # the endpoint can be used again
                name = "game?level=3"
                async with connect(host.at("app2app-local") + name) as tv, connect(
                        host.at("app2app-remote") + name) as phone:
                    self.assertEqual([await tv.recv(), await phone.recv()], ["pairingcompleted"] * 2)
                    for message in ["h\u00e9llo", b"\x00\xff\x80", "", "x" * 131072]:
                        for sender, receiver in [(tv, phone), (phone, tv)]:
                            await sender.send([message[:1], message[:0], message[1:]] if message else message)
                            self.assertEqual(await receiver.recv(), message)
                    await tv.close()
                    await phone.wait_closed()
                    self.assertEqual(phone.close_code, 1000)
            self.assertEqual(host.end(signal.SIGTERM), 0)
