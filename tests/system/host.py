"""zenk_receiver as a process of its own, and what else the system tests share. Nothing here waits for a fixed time."""
import asyncio
import contextlib
import ctypes
import os
import pathlib
import queue
import random
import re
import signal
import socket
import subprocess
import threading
import time

import websockets

BUILD = pathlib.Path(os.environ.get("ZENK_BUILD_DIR", "build"))
PATIENCE = 20  # seconds; enough for a loaded machine under a sanitizer, and a test that passes never waits for it


def free_port():
    """Free for TCP and UDP, and below the range from which the system takes the ports of outgoing connections."""
    while True:
        port = random.randrange(10000, 32000)
        with contextlib.suppress(OSError), socket.socket() as tcp, socket.socket(type=socket.SOCK_DGRAM) as udp:
            tcp.bind(("", port))
            udp.bind(("", port))
            return port


def wait_until(condition, patience=PATIENCE):
    """The first true value of `condition`, or its last value at the deadline."""
    deadline = time.monotonic() + patience
    while not (value := condition()) and time.monotonic() < deadline:
        time.sleep(0.01)
    return value


def enter_own_network():
    """A network with nothing but a loopback interface, for this process and its children. False: not allowed here."""
    if ctypes.CDLL(None).unshare(0x40000000) != 0:  # CLONE_NEWNET
        return False
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    return True


def connect(url, **options):
    """A client of python3-websockets that asks for nothing but the connection."""
    return websockets.connect(url, **{"ping_interval": None, "max_size": None, "compression": None,
                                      "open_timeout": PATIENCE, "close_timeout": PATIENCE, **options})


async def hear(client):
    return await asyncio.wait_for(client.recv(), PATIENCE)


@contextlib.asynccontextmanager
async def pair(host, name, **options):
    """A television's and a phone's application that have met."""
    async with connect(host.at(f"/local/hbbtv/t/{name}"), **options) as tv, connect(
            host.at(f"/remote/hbbtv/u/{name}"), **options) as phone:
        for side in tv, phone:
            assert await hear(side) == "pairingcompleted", "a pair did not meet"
        yield tv, phone


async def exchange(sides):
    """A message each way, the second when the first has come."""
    for sender, receiver in sides, sides[::-1]:
        await sender.send("hello")
        assert await hear(receiver) == "hello", "a message is lost or altered"


class Program(subprocess.Popen):
    """A running program. Its output is read all the time, so it never waits for us. Use with `with`."""

    def __init__(self, *command):
        super().__init__([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                         stderr=subprocess.STDOUT, text=True, errors="replace")
        self._lines = queue.Queue()
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self.stdout:
            self._lines.put(re.sub(r"\x1b\[[0-9;]*m", "", line).rstrip("\n"))  # without colours
        self._lines.put(None)

    def __exit__(self, *details):
        self.kill()
        self._reader.join()
        super().__exit__(*details)

    def line(self, prefix=""):
        """The next line of its output with this beginning; None at the end of the output, or when none comes."""
        with contextlib.suppress(queue.Empty):
            while (line := self._lines.get(timeout=PATIENCE)) is not None:
                if line.startswith(prefix):
                    return line
            self._lines.put(None)
        return None

    def say(self, line):
        """One line to its standard input."""
        self.stdin.write(line + "\n")
        self.stdin.flush()

    def end(self, number=signal.SIGINT):
        """The exit status, once the signal has ended it."""
        self.send_signal(number)
        return self.wait(PATIENCE)

    def rest(self):
        """All lines to the end of the output."""
        return "\n".join(iter(self.line, None))


class Host(Program):
    """zenk_receiver on free ports, ready to serve unless `ready` says not to wait for it; its URLs by name."""

    def __init__(self, *arguments, ready=True, prefix=()):
        self.port, self.wc_port, told = free_port(), free_port(), []
        super().__init__(*prefix, BUILD / "zenk_receiver", "--port", self.port, "--wc-port", self.wc_port, *arguments)
        while ready and told[-1:] != ["ready"]:
            told.append(self.line())
            if told[-1] is None:
                with self:
                    raise RuntimeError(f"zenk_receiver did not get ready: {told}")
        self.urls = dict(line.split(" ", 1) for line in told if "://" in line)

    def at(self, name_or_path):
        """The URL of a service, or of a path, at the loopback address."""
        path = re.sub("^ws://[^/]+", "", self.urls.get(name_or_path, name_or_path))
        return f"ws://127.0.0.1:{self.port}{path}"
