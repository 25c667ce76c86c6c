"""zenk_receiver as a process of its own, and what else the system tests share. Nothing here waits for a fixed time."""
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
import tempfile
import threading
import time
import urllib.parse

import websockets

BUILD = pathlib.Path(os.environ.get("ZENK_BUILD_DIR", "build"))
PATIENCE = 20  # seconds; enough for a loaded machine under a sanitizer, and a test that passes never waits for it
IS_SANITIZED = bool(os.environ.get("ZENK_SANITIZE"))
COLOUR = re.compile(r"\x1b\[[0-9;]*m")


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


async def refusal(url):
    """The HTTP status with which a client is refused; None when it is not."""
    try:
        async with connect(url):
            return None
    except websockets.InvalidStatusCode as refused:
        return refused.status_code


class Program(subprocess.Popen):
    """A running program. Its output is read all the time, so it never waits for us. Use with `with`."""

    def __init__(self, *command, environment=None, stdin=subprocess.DEVNULL, **options):
        self._lines, self._errors = queue.Queue(), tempfile.TemporaryFile("w+", errors="replace")
        super().__init__([str(word) for word in command], env={**os.environ, **(environment or {})}, stdin=stdin,
                         stdout=subprocess.PIPE, stderr=self._errors, text=True, errors="replace", **options)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def _read(self):
        for line in self.stdout:
            self._lines.put(COLOUR.sub("", line).rstrip("\n"))
        self._lines.put(None)

    def __exit__(self, *details):
        self.kill()
        self._reader.join()
        self._errors.close()
        super().__exit__(*details)

    def line(self, prefix=""):
        """The next line of standard output with this beginning; None at the end of the output, or when none comes."""
        with contextlib.suppress(queue.Empty):
            while (line := self._lines.get(timeout=PATIENCE)) is not None:
                if line.startswith(prefix):
                    return line
            self._lines.put(None)
        return None

    def say(self, line):
        """One line to its standard input, which must be a pipe."""
        self.stdin.write(line + "\n")
        self.stdin.flush()

    def wait(self, timeout=PATIENCE):
        """-N when signal N ended it. Raises at the deadline."""
        return super().wait(timeout)

    def end(self, number=signal.SIGINT):
        self.send_signal(number)
        return self.wait()

    def complaints(self):
        """All of standard error, once the program has ended."""
        self.wait()
        self._errors.seek(0)
        return self._errors.read()

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def status(self, name):
        """A number of the process, such as "VmRSS" in KiB."""
        text = pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        return int(re.search(rf"^{name}:\s+(\d+)", text, re.MULTILINE)[1])


class Host(Program):
    """zenk_receiver on free ports, ready to serve unless `ready` says not to wait for it. `urls` has its URLs by name."""

    def __init__(self, *arguments, ready=True, prefix=(), **options):
        self.port, self.wc_port, self.urls = free_port(), free_port(), {}
        super().__init__(*prefix, BUILD / "zenk_receiver", "--port", self.port, "--wc-port", self.wc_port, *arguments,
                         **options)
        while ready and (line := self.line()) != "ready":
            if line is None:
                with self:
                    raise RuntimeError("zenk_receiver did not get ready: " + self.complaints())
            name, _, rest = line.partition(" ")
            if "://" in rest:
                self.urls[name] = rest

    def at(self, name_or_path):
        """The URL of a service, or of a path, at the loopback address."""
        path = urllib.parse.urlsplit(self.urls.get(name_or_path, name_or_path)).path
        return f"ws://127.0.0.1:{self.port}{path}"
