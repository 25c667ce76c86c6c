"""zenk_logctl on the log's control channel, whose port is fixed, and zenk_wcprobe: what they make of a receiver, and of
what comes from none."""
import json
import pathlib
import socket
import struct
import subprocess
import time
import unittest

from host import BUILD, PATIENCE, Host, Program, connect, enter_own_network, free_port

PORT = ("127.0.0.1", 54321)
# A receiver that reports a table and takes no command.
DEAF = "bash", "-c", r"while sleep 0.05; do printf 'A|\e[31mB' >/dev/udp/127.0.0.1/54321; done"
SECOND = 10 ** 9
setUpModule = enter_own_network


def run(tool, *words):
    """Exit code and all output."""
    done = subprocess.run([BUILD / tool, *words], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=PATIENCE, check=False)
    return done.returncode, done.stdout


def logctl(*words):
    return run("zenk_logctl", *words)


def reply(request, receive, transmit, kind=1):
    """A clock's answer to `request`, precision 2^-10 s and 1000 ppm."""
    return struct.pack(">BBbBI8s4I", 0, kind, -10, 0, 256000, request[8:16], *divmod(receive, SECOND),
                       *divmod(transmit, SECOND))


class LogControl(unittest.IsolatedAsyncioTestCase):
    async def test_table_of_a_running_receiver_changes_and_so_do_its_lines(self):
        with Host("--log-control") as host:
            with socket.socket(type=socket.SOCK_DGRAM) as peer:
                peer.bind(PORT)
                peer.settimeout(PATIENCE)
                receivers = {peer.recvfrom(2000)[1] for _ in range(2)}
                self.assertEqual(len(receivers), 1)
                started = time.monotonic()
                self.assertEqual(peer.recv(2000), b"")
                self.assertGreater(time.monotonic() - started, 0.8)
                # A text that fills its field, and short ones, whose level is 0.
                for command, report in (b"A|B".ljust(1024, b"|") + b"\1", b"A|B"), (b"B", b"A"), (b"A", b""):
                    peer.sendto(command, *receivers)
                    self.assertTrue(any(peer.recv(2000) == report for _ in range(9)), command)
            [thread] = [task for task in pathlib.Path(f"/proc/{host.pid}/task").iterdir()
                        if (task / "comm").read_text() == "zenk-log\n"]
            # Takes no signals, but SIGKILL, SIGSTOP and the two that the C library keeps for itself.
            self.assertIn("SigBlk:\tfffffffe7ffbfeff", (thread / "status").read_text())
            self.assertEqual(logctl("list"), (0, "the table is empty\n"))
            self.assertEqual(logctl("set", "1", "PLUGIN", "b"), (0, "PLUGIN\nb\n"))
            async with connect(host.at("css-ts")):  # the line of this event flushes the output
                self.assertRegex(host.line("time="), r"logtype=info File: \S+ Function: \w+\(\) Enter!$")
            self.assertEqual(logctl("set", "2", "a", "PLUGIN"), (
                0, "PLUGIN was in the table before: its new level cannot be confirmed\nPLUGIN\na\nb\n"))
            self.assertEqual(logctl("remove", "a", "none"), (0, "PLUGIN\nb\n"))
            for words, code in [(range(19), 5), (range(18), 0), (["PLUGIN"], 5)]:  # twenty have room
                self.assertEqual(logctl("set", "1", *map(str, words))[0], code, words)
            self.assertEqual(logctl("clear"), (0, "the table is empty\n"))

    def test_exit_code_tells_what_is_wrong_and_watch_what_changes(self):
        usage = "", "unknown", "set 1", "set 0 A", "set 256 A", "set x A", "remove", "list A"
        refused = ["x" * 33], ["A|B"], [""], ["A", "__CLIEAR_LOG_MODULES__"]
        for words, code in [*((line.split(), 2) for line in usage), *((["set", "1", *names], 4) for names in refused),
                            (["--help"], 0), (["list"], 3)]:
            self.assertEqual(logctl(*words)[0], code, words)
        with Program(*DEAF):
            self.assertEqual(logctl("list"), (0, "?[31mB\nA\n"))
            self.assertEqual(logctl("set", "1", "B")[0], 7)
            watch = self.enterContext(Program(BUILD / "zenk_logctl", "watch"))
            self.assertRegex(watch.line(), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  \?\[31mB\|A$")
            self.assertEqual(logctl("list")[0], 6)
        self.assertEqual(watch.line()[21:], "no report for 3 seconds")


class ClockProbe(unittest.TestCase):
    def test_follows_a_receiver_and_tells_what_is_wrong(self):
        with Host() as host:
            code, text = run("zenk_wcprobe", f"udp://127.0.0.1:{host.wc_port}", "--json")
            report = json.loads(text)
            self.assertEqual((code, report["lost"], report["not_matched"]), (0, 0, 0))
            self.assertLess(abs(report["offset_ns"]), report["dispersion_ns"])
            _, text = run("zenk_wcprobe", f"127.0.0.1:{host.wc_port}", "--count=3")
            self.assertIn("3 sent, 3 answered, 0 lost", text)
        for line, code in [(f"127.0.0.1:{free_port()} --count=1", 1), ("", 2), ("nowhere", 2), ("h:1 --x", 2)]:
            self.assertEqual(run("zenk_wcprobe", *line.split())[0], code, line)

    def test_takes_the_best_of_the_true_replies_each_of_them_once_by_the_formulas_of_the_standard(self):
        with socket.socket(type=socket.SOCK_DGRAM) as server:
            server.bind(("127.0.0.1", 0))
            server.settimeout(PATIENCE)
            with Program(BUILD / "zenk_wcprobe", "127.0.0.1:%d" % server.getsockname()[1], "--count=4", "--interval=60",
                         "--timeout=100", "--freq-error=500", "--clock=monotonic", "--json") as probe:
                for number in range(4):
                    request, client = server.recvfrom(100)
                    now = time.monotonic_ns() + 1000 * SECOND * number  # another clock each time shows which was taken
                    time.sleep(0.03)
                    kept = reply(request, now, now + SECOND * 3 // 100)  # these 30 ms are none of the way
                    false = [kept[:place] + bytes((byte,)) + kept[place + 1:] for place, byte in [
                        (0, 1), (1, 0), (1, 3), (11, 255), (20, 255), (28, 255)]]
                    for datagram in [[reply(request, now, now)], [
                            *false, kept[:31], kept + b"x", b"", reply(request, now, now + 10 * SECOND), kept, kept,
                    ], [reply(request, now, now, kind=2)], []][number]:
                        server.sendto(datagram, client)
                report = json.loads("".join(iter(probe.line, None)))
        self.assertEqual([report[name] for name in ("sent", "answered", "lost", "not_matched")], [4, 3, 1, 11])
        self.assertEqual(list(report["server_clock"].items()), [
            ("precision_log2", -10), ("max_freq_error", 256000), ("freq_error_ppm", 1000)])
        self.assertEqual(sum(row["count"] for row in report["histogram"]), 3)
        trips = report["round_trip_ns"]
        self.assertTrue(0 <= trips["min"] < SECOND // 100 < trips["median"] <= trips["p99"])
        self.assertLess(abs(report["offset_ns"] - 1000 * SECOND), trips["min"] + 1)
        rest = report["dispersion_ns"] - trips["min"] / 2 - report["own_clock"]["precision_ns"] - SECOND / 1024
        since_ns = 0.22 * SECOND  # about, from the second reply to the end of the run
        self.assertAlmostEqual(rest, (1500 * 30e6 + 1500 * since_ns) / 1e6, delta=1500 * 60e6 / 1e6)
