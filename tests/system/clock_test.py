"""zenk_wcprobe against a receiver, and against a server whose replies are made here."""
import json
import socket
import struct
import subprocess
import threading
import time
import unittest

from host import BUILD, PATIENCE, Host, free_port

SECOND = 10 ** 9


def probe(*words):
    done = subprocess.run([BUILD / "zenk_wcprobe", *words], text=True, capture_output=True, timeout=PATIENCE, check=False)
    return done.returncode, json.loads(done.stdout) if "--json" in words and done.stdout else done.stdout


def reply(request, receive, transmit, **spoilt):
    """A clock's answer to `request`, precision 2^-10 s and 1000 ppm. `spoilt` has other bytes, as b3=7."""
    made = bytearray(struct.pack(">BBbBI8s4I", 0, 1, -10, 0, 256000, request[8:16], *divmod(receive, SECOND),
                                 *divmod(transmit, SECOND)))
    for place, byte in spoilt.items():
        made[int(place[1:])] = byte
    return bytes(made)


class Probe(unittest.TestCase):
    def test_follows_a_receiver_and_tells_what_is_wrong(self):
        with Host() as host:
            code, report = probe(f"udp://127.0.0.1:{host.wc_port}", "--json")
            self.assertEqual((code, report["lost"], report["not_matched"]), (0, 0, 0))
            self.assertLess(abs(report["offset_ns"]), report["dispersion_ns"])
            self.assertIn("3 sent, 3 answered, 0 lost", probe(f"127.0.0.1:{host.wc_port}", "--count=3")[1])
        for code, words in [(1, [f"127.0.0.1:{free_port()}", "--count=1"]), (2, []), (2, ["nowhere"]), (2, ["h:1", "--x"])]:
            self.assertEqual(probe(*words)[0], code, words)

    def test_takes_the_best_of_the_true_replies_each_of_them_once_by_the_formulas_of_the_standard(self):
        def serve():
            for number in range(4):
                request, client = server.recvfrom(100)
                now = time.monotonic_ns() + 1000 * SECOND * number  # another clock each time shows which one was taken
                time.sleep(0.03)
                kept = reply(request, now, now + SECOND * 3 // 100)  # these 30 ms are none of the way
                for datagram in [[reply(request, now, now)], [
                        *(reply(request, now, now, **other) for other in [
                            {"b0": 1}, {"b1": 0}, {"b1": 3}, {"b11": 255}, {"b20": 255}, {"b28": 255}]),
                        kept[:31], kept + b"x", b"", reply(request, now, now + 10 * SECOND), kept, kept,
                ], [reply(request, now, now, b1=2)], []][number]:
                    server.sendto(datagram, client)
        with socket.socket(type=socket.SOCK_DGRAM) as server:
            server.bind(("127.0.0.1", 0))
            server.settimeout(PATIENCE)
            thread = threading.Thread(target=serve)
            thread.start()
            _, report = probe(f"127.0.0.1:{server.getsockname()[1]}", "--count=4", "--interval=60", "--timeout=100",
                              "--freq-error=500", "--clock=monotonic", "--json")
            thread.join()
        self.assertEqual([report[name] for name in ("sent", "answered", "lost", "not_matched")], [4, 3, 1, 11])
        self.assertEqual(report["server_clock"], {"precision_log2": -10, "max_freq_error": 256000, "freq_error_ppm": 1000})
        self.assertEqual(sum(row["count"] for row in report["histogram"]), 3)
        trips = report["round_trip_ns"]
        self.assertTrue(0 <= trips["min"] < SECOND // 100 < trips["median"] <= trips["p99"])
        self.assertLess(abs(report["offset_ns"] - 1000 * SECOND), trips["min"] + 1)
        rest = report["dispersion_ns"] - trips["min"] / 2 - report["own_clock"]["precision_ns"] - SECOND / 1024
        since_ns = 0.22 * SECOND  # about, from the second reply to the end of the run
        self.assertAlmostEqual(rest, (1500 * 30e6 + 1500 * since_ns) / 1e6, delta=1500 * 60e6 / 1e6)
