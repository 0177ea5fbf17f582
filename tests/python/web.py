"""A client of HTTP and WebSockets without a browser's manners."""

import base64
import json
import os
import socket
import struct
import time

from desk import DEADLINE


def request(address, path="/", method="GET", timeout=20, **headers):
    """Returns status, headers and body. A header of None is left out."""
    headers = {"Host": f"{address[0]}:{address[1]}", **headers}
    with socket.create_connection(address, timeout=timeout) as connection:
        lines = [f"{name.replace('_', '-')}: {value}" for name, value in headers.items() if value is not None]
        connection.sendall("\r\n".join([f"{method} {path} HTTP/1.1", *lines, "", ""]).encode())
        answer = b""
        while chunk := connection.recv(65536):
            answer += chunk
    head, _, body = answer.partition(b"\r\n\r\n")
    first, *rest = head.decode().split("\r\n")
    return int(first.split()[1]), dict(line.split(": ", 1) for line in rest), body


class WebSocket:
    def __init__(self, address, path="/feed", receive_buffer=None, **headers):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(DEADLINE)
        self.socket.connect(address)
        headers = {"Host": f"{address[0]}:{address[1]}", "Upgrade": "websocket", "Connection": "Upgrade",
                   "Sec-WebSocket-Version": "13", "Sec-WebSocket-Key": base64.b64encode(os.urandom(16)).decode(), **headers}
        lines = [f"{name}: {value}" for name, value in headers.items()]
        self.socket.sendall("\r\n".join([f"GET {path} HTTP/1.1", *lines, "", ""]).encode())
        self.stream = self.socket.makefile("rb")
        self.status = int(self.stream.readline().split()[1])
        while self.stream.readline() not in (b"\r\n", b""):
            pass

    def close(self):
        self.stream.close()
        self.socket.close()

    @staticmethod
    def framed(payload, opcode=1, final=True, masked=True, length=None):
        """`length` is what the frame says; that of the payload unless it is given."""
        length = len(payload) if length is None else length
        size = bytes([length]) if length < 126 else b"\x7e" + struct.pack(">H", length) if length < 65536 \
            else b"\x7f" + struct.pack(">Q", length)
        head = bytes([0x80 * final | opcode, 0x80 * masked | size[0]]) + size[1:]
        return head + b"\0" * 4 * masked + payload

    def send(self, payload, **frame):
        self.socket.sendall(self.framed(payload, **frame))

    def receive(self):
        """Opcode and payload of the next message; pings are answered. None: the connection has ended."""
        message, kind = b"", None
        while head := self.stream.read(2):
            length = head[1]
            if length > 125:
                length = int.from_bytes(self.stream.read(2 if length == 126 else 8), "big")
            payload, opcode = self.stream.read(length), head[0] & 0xF
            if opcode == 9:
                self.send(payload, opcode=10)
            elif opcode == 8:
                return opcode, payload
            else:
                message, kind = message + payload, opcode or kind
                if head[0] & 0x80:
                    return kind, message
        return None, b""

    def frame(self):
        opcode, payload = self.receive()
        assert opcode == 1, (opcode, payload)
        return json.loads(payload)

    def until(self, topic, condition=lambda data: True):
        """The next frame of the topic whose data fulfils the condition."""
        end = time.monotonic() + DEADLINE
        last = None
        while time.monotonic() < end:
            frame = self.frame()
            if frame["topic"] != topic:
                continue
            if condition(frame["data"]):
                return frame
            last = frame
        raise AssertionError(f"not within {DEADLINE:g} s: {topic}; the last one: {last}")

    def closed_with(self):
        """The code with which the server closes."""
        while True:
            opcode, payload = self.receive()
            if opcode == 8:
                return struct.unpack(">H", payload[:2])[0]
            if opcode is None:
                return None
