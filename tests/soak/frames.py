"""WebSocket frames by hand, for clients that do what no proper client would."""

import asyncio
import os
import socket
import struct


def handshake(path):
    return (f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
            "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n").encode()


def text_frame(payload):
    """One masked text frame. A mask of zeros leaves the payload as it is."""
    size = len(payload)
    if size < 126:
        head = struct.pack(">BB", 0x81, 0x80 | size)
    elif size < 65536:
        head = struct.pack(">BBH", 0x81, 0x80 | 126, size)
    else:
        head = struct.pack(">BBQ", 0x81, 0x80 | 127, size)
    return head + bytes(4) + payload


def close_frame():
    return struct.pack(">BB4sH", 0x88, 0x82, bytes(4), 1000)


class RawClient:
    """A TCP connection without manners. Use with `async with`."""

    def __init__(self, port, receive_buffer=None):
        self._port = port
        self._receive_buffer = receive_buffer
        self.socket = None

    async def __aenter__(self):
        self.socket = socket.socket()
        if self._receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, self._receive_buffer)
        self.socket.setblocking(False)
        await asyncio.get_running_loop().sock_connect(self.socket, ("127.0.0.1", self._port))
        return self

    async def __aexit__(self, *_):
        if self.socket:
            self.socket.close()

    async def send(self, data):
        await asyncio.get_running_loop().sock_sendall(self.socket, data)

    async def receive(self, size=65536):
        """What has come; b"" when the server has ended the connection."""
        try:
            return await asyncio.get_running_loop().sock_recv(self.socket, size)
        except ConnectionError:
            return b""

    async def upgrade(self, path):
        """Whether the server accepted."""
        await self.send(handshake(path))
        answer = b""
        while b"\r\n\r\n" not in answer:
            piece = await asyncio.wait_for(self.receive(1), 30)
            if not piece:
                return False
            answer += piece
        return b" 101 " in answer.split(b"\r\n")[0]

    async def wait_for_end(self, seconds):
        """Reads and drops until the server ends the connection. False when it has not after that time."""
        async def drain():
            while await self.receive():
                pass
        try:
            await asyncio.wait_for(drain(), seconds)
            return True
        except asyncio.TimeoutError:
            return False

    def reset(self):
        if not self.socket:
            return
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()


def garbage():
    return os.urandom(200)
