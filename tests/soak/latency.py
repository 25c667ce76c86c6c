"""Round trips through one pair, from a process of its own: in that of the other clients they would measure Python."""

import multiprocessing
import socket
import time

from frames import handshake, text_frame

PAUSE = 0.02


def _open(port, path):
    side = socket.create_connection(("127.0.0.1", port), timeout=60)
    side.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    side.sendall(handshake(path))
    return side, side.makefile("rb")


def _receive(stream):
    head = stream.read(2)
    if len(head) < 2 or head[1] > 125:
        raise EOFError
    return stream.read(head[1])


def _probe(port, results):
    """Sends (seconds) of every round trip, then, if the pair breaks, None."""
    try:
        (local, from_local), (remote, from_remote) = (_open(port, f"/{side}/hbbtv/t/latency")
                                                      for side in ("local", "remote"))
        for stream in (from_local, from_remote):
            while stream.readline() != b"\r\n":
                pass
            _receive(stream)  # pairingcompleted
        while True:
            started = time.monotonic()
            local.sendall(text_frame(b"there"))
            _receive(from_remote)
            remote.sendall(text_frame(b"and back"))
            _receive(from_local)
            results.send(time.monotonic() - started)
            time.sleep(PAUSE)
    except (OSError, EOFError):
        results.send(None)


class Probe:
    def __init__(self, port):
        self._results, sending = multiprocessing.Pipe(duplex=False)
        self._process = multiprocessing.Process(target=_probe, args=(port, sending), daemon=True)
        self._process.start()

    def collect(self, record):
        """Hands over the round trips since the last call."""
        while self._results.poll():
            seconds = self._results.recv()
            if seconds is None:
                record.fault("the pair that measures the latency broke")
                break
            record.latency(seconds)

    def stop(self):
        self._process.kill()
        self._process.join()
