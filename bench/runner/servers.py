"""The relays that are compared, and one run of one of them."""

import os
import random
import re
import resource
import shutil
import signal
import socket
import subprocess
import time
from dataclasses import dataclass
from pathlib import Path

OURS = "zenk"
LIMIT = "raw"
BEAST = "beast"

START_SECONDS = 10
END_SECONDS = 10

# Below the range from which the system takes the ports of clients, so that none of theirs is in the way.
PORTS = range(20000, 30000)

# A log line ends with a colour reset behind its line feed, which then stands before the next line.
COLOUR = re.compile(rb"\x1b\[[0-9;]*m")


@dataclass(frozen=True)
class Server:
    """`command` is a list of words; {build}, {port} and {udp_port} are filled in at each start."""

    key: str
    title: str
    command: tuple

    def words(self, build: Path, port: int = 0, udp_port: int = 0) -> list:
        return [word.format(build=build, port=port, udp_port=udp_port) for word in self.command]

    def is_built(self, build: Path) -> bool:
        return shutil.which(self.words(build)[0]) is not None


SERVERS = (
    Server(OURS, "zenk_receiver",
           ("{build}/zenk_receiver", "--port", "{port}", "--wc-port", "{udp_port}", "--no-sync")),
    Server(LIMIT, "raw relay (the limit)", ("{build}/relay_raw", "--port", "{port}")),
    Server(BEAST, "Boost.Beast", ("{build}/relay_beast", "--port", "{port}")),
)


def free_port(kind: int) -> int:
    for port in random.sample(PORTS, 100):
        with socket.socket(socket.AF_INET, kind) as probe:
            try:
                probe.bind(("0.0.0.0", port))
                return port
            except OSError:
                continue
    raise RuntimeError("no free port found")


def pinned(cpu, descriptors=0):
    """What a child does before it becomes its program: stay on one processor, where there are two, and keep to a limit."""
    def prepare():
        if cpu is not None:
            os.sched_setaffinity(0, {cpu})
        if descriptors:
            resource.setrlimit(resource.RLIMIT_NOFILE, (descriptors, descriptors))
    return prepare


class RunningServer:
    """One server process, ready to serve, its standard output in a file; ended on leaving the `with` block."""

    def __init__(self, server: Server, build: Path, folder: Path, prepare):
        self._output = folder / f"{server.key}.out"
        self._server, self._build, self._prepare = server, build, prepare
        self.port = 0
        self.process = None

    def __enter__(self):
        self.port = free_port(socket.SOCK_STREAM)
        words = self._server.words(self._build, self.port, free_port(socket.SOCK_DGRAM))
        with open(self._output, "wb") as output:
            self.process = subprocess.Popen(words, stdin=subprocess.DEVNULL, stdout=output,
                                            preexec_fn=self._prepare)
        try:
            self._wait_until_ready()
        except BaseException:
            self._end()
            raise
        return self

    def __exit__(self, kind, error, trace):
        self._end()

    def complaint(self) -> str:
        """What was wrong with its end, after the `with` block; empty if nothing. The peers know no orderly end."""
        code = self.process.returncode
        return f"ended with code {code} after SIGTERM" if self._server.key == OURS and code != 0 else ""

    def _wait_until_ready(self):
        deadline = time.monotonic() + START_SECONDS
        while time.monotonic() < deadline:
            if self.process.poll() is not None:
                raise RuntimeError(f"{self._server.key} ended at once, with code {self.process.returncode}")
            if b"ready" in COLOUR.sub(b"", self._output.read_bytes()).splitlines():
                return
            time.sleep(0.01)
        raise RuntimeError(f"{self._server.key} was not ready within {START_SECONDS} s")

    def _end(self):
        self.process.send_signal(signal.SIGTERM)
        try:
            self.process.wait(END_SECONDS)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        finally:
            # A log at full speed grows by 100 MB a second and more.
            self._output.unlink(missing_ok=True)
