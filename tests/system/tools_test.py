"""zenk_logctl on the log's control channel, whose port is fixed, and zenk_wcprobe: what they make of a receiver, and of
what comes from none."""
import json
import socket
import struct
import subprocess
import time
import unittest

from host import BUILD, PATIENCE, Host, Program, connect, enter_own_network, free_port

SECOND = 10 ** 9
setUpModule = enter_own_network


def run(tool, *words):
    """Exit code and all output."""
    done = subprocess.run([BUILD / tool, *words], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=PATIENCE, check=False)
    return done.returncode, done.stdout


def logctl(*words):
    return run("zenk_logctl", *words)


def reply(request, receive, transmit):
    """A clock's answer to `request`, precision 2^-10 s and 1000 ppm."""
    return struct.pack(">BBbBI8s4I", 0, 1, -10, 0, 256000, request[8:16], *divmod(receive, SECOND),
                       *divmod(transmit, SECOND))


class LogControl(unittest.IsolatedAsyncioTestCase):
    async def test_table_of_a_running_receiver_changes_and_so_do_its_lines(self):
        with Host("--log-control") as host:
            with Program(BUILD / "zenk_logctl", "watch") as watch:
                self.assertRegex(watch.line(), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  ")
            self.assertEqual(logctl("set", "1", "PLUGIN", "b"), (0, "PLUGIN\nb\n"))
            async with connect(host.at("css-ts")):  # the line of this event flushes the output
                line = host.line("time=")
                moment = time.localtime(int(line.partition("timestamp=")[2].partition(",")[0]))
                self.assertTrue(line.startswith(time.strftime("time=%-d/%-m/%Y %-H:%-M:%-S,", moment)), line)
                self.assertRegex(line, r"logtype=info File: \S+ Function: \w+\(\) Enter!$")
            self.assertEqual(logctl("remove", "PLUGIN", "none"), (0, "b\n"))
            self.assertEqual(logctl("set", "1", *map(str, range(19)))[0], 0)
            self.assertEqual(logctl("set", "1", "PLUGIN")[0], 5)  # twenty have room
            self.assertEqual(logctl("clear"), (0, "the table is empty\n"))

    def test_exit_code_tells_what_is_wrong(self):
        for line, code in [("--help", 0), ("set 256 A", 2), ("list A", 2), ("list", 3), ("set 1 A|B", 4)]:
            self.assertEqual(logctl(*line.split())[0], code, line)


class ClockProbe(unittest.TestCase):
    def test_follows_a_receiver_and_tells_what_is_wrong(self):
        with Host() as host:
            code, text = run("zenk_wcprobe", f"udp://127.0.0.1:{host.wc_port}", "--json")
            report = json.loads(text)
            self.assertEqual((code, report["lost"], report["not_matched"]), (0, 0, 0))
            self.assertLess(abs(report["offset_ns"]), report["dispersion_ns"])
        self.assertEqual(run("zenk_wcprobe", f"127.0.0.1:{free_port()}", "--count=1")[0], 1)

    def test_takes_the_best_of_the_true_replies_each_of_them_once(self):
        with socket.socket(type=socket.SOCK_DGRAM) as server:
            server.bind(("127.0.0.1", 0))
            server.settimeout(PATIENCE)
            with Program(BUILD / "zenk_wcprobe", "127.0.0.1:%d" % server.getsockname()[1], "--count=3", "--interval=300",
                         "--timeout=1000", "--clock=monotonic", "--json") as probe:
                for number in range(3):
                    request, client = server.recvfrom(100)
                    now = time.monotonic_ns() + 1000 * SECOND * number  # another clock each time shows which was taken
                    time.sleep(0.2)
                    kept = reply(request, now, now + SECOND // 5)  # these 200 ms are none of the way
                    false = [kept[:place] + bytes((byte,)) + kept[place + 1:] for place, byte in [
                        (0, 1), (1, 0), (11, 255), (20, 255)]]
                    for datagram in [[reply(request, now, now)], [*false, kept[:31], kept, kept], []][number]:
                        server.sendto(datagram, client)
                report = json.loads(probe.rest())
        self.assertEqual([report[name] for name in ("sent", "answered", "lost", "not_matched")], [3, 2, 1, 6])
        trips = report["round_trip_ns"]
        self.assertTrue(0 <= trips["min"] < SECOND // 10 < trips["p99"])
        self.assertLess(abs(report["offset_ns"] - 1000 * SECOND), trips["min"] + 1)
        self.assertGreater(report["dispersion_ns"], trips["min"] / 2 + SECOND / 1024)
