"""The log's control channel, whose port is fixed: what a receiver reports there, and what zenk_logctl makes of it."""
import contextlib
import pathlib
import socket
import subprocess
import threading
import time
import unittest

from host import BUILD, PATIENCE, Host, Program, connect, enter_own_network

PORT = ("127.0.0.1", 54321)
setUpModule = enter_own_network


def run(*words):
    """Exit code and all output of one run of the tool."""
    done = subprocess.run([BUILD / "zenk_logctl", *words], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          timeout=PATIENCE)
    return done.returncode, done.stdout


@contextlib.contextmanager
def deaf_receiver(report):
    """A receiver that reports what it is told to and takes no command."""
    over = threading.Event()

    def tell():
        with socket.socket(type=socket.SOCK_DGRAM) as sender:
            while not over.wait(0.05):
                sender.sendto(report, PORT)
    thread = threading.Thread(target=tell)
    thread.start()
    yield
    over.set()
    thread.join()


class Log(unittest.IsolatedAsyncioTestCase):
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
            threads = [task for task in pathlib.Path(f"/proc/{host.pid}/task").iterdir()
                       if (task / "comm").read_text() == "zenk-log\n"]
            self.assertEqual(len(threads), 1)
            # Takes no signals, but SIGKILL, SIGSTOP and the two that the C library keeps for itself.
            self.assertIn("SigBlk:\tfffffffe7ffbfeff", (threads[0] / "status").read_text())
            self.assertEqual(run("list"), (0, "the table is empty\n"))
            self.assertEqual(run("set", "1", "PLUGIN", "b"), (0, "PLUGIN\nb\n"))
            async with connect(host.at("css-ts")):  # the line of this event flushes the output
                self.assertRegex(host.line("time="), r"logtype=info File: \S+ Function: \w+\(\) Enter!$")
            self.assertEqual(run("set", "2", "a", "PLUGIN"), (
                0, "PLUGIN was in the table before: its new level cannot be confirmed\nPLUGIN\na\nb\n"))
            self.assertEqual(run("remove", "a", "none"), (0, "PLUGIN\nb\n"))
            self.assertEqual(run("set", "1", *map(str, range(19)))[0], 5)
            self.assertEqual(run("set", "1", *map(str, range(18)))[0], 0)
            self.assertEqual(run("set", "1", "PLUGIN")[0], 5)
            self.assertEqual(run("clear"), (0, "the table is empty\n"))

    def test_exit_code_tells_what_is_wrong_and_watch_what_changes(self):
        usage = "", "unknown", "set 1", "set 0 A", "set 256 A", "set x A", "remove", "list A"
        refused = ["x" * 33], ["A|B"], [""], ["A", "__CLIEAR_LOG_MODULES__"]
        for words, code in [*((line.split(), 2) for line in usage), *((["set", "1", *names], 4) for names in refused),
                            (["--help"], 0), (["list"], 3)]:
            self.assertEqual(run(*words)[0], code, words)
        with deaf_receiver(b"A|\x1b[31mB"):
            self.assertEqual(run("list"), (0, "?[31mB\nA\n"))
            self.assertEqual(run("set", "1", "B")[0], 7)
            watch = self.enterContext(Program(BUILD / "zenk_logctl", "watch"))
            self.assertRegex(watch.line(), r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d  \?\[31mB\|A$")
            self.assertEqual(run("list")[0], 6)
        self.assertEqual(watch.line()[21:], "no report for 3 seconds")
