"""A client of the HTTP port that shares nothing with the daemon: Python's own for what is in order, a bare
connection for what is not."""
import http.client
import json
import socket
import time

from .peers import DEADLINE


def with_http(port: int, **more):
    """A change of the configuration: the section `http`."""
    def change(config: dict) -> dict:
        return {**config, "http": {"port": port, **more}}
    return change


class Answer:
    def __init__(self, status: int, headers, body: bytes):
        self.status, self.headers, self.body = status, headers, body

    @property
    def json(self):
        assert self.headers["Content-Type"] == "application/json"
        return json.loads(self.body)


def get(port: int, path: str, *, method: str = "GET", headers=None, body=None) -> Answer:
    client = http.client.HTTPConnection("127.0.0.1", port, timeout=DEADLINE)
    try:
        client.request(method, path, body=body, headers=headers or {})
        answer = client.getresponse()
        return Answer(answer.status, answer.headers, answer.read())
    finally:
        client.close()


class Raw:
    """A bare connection."""

    def __init__(self, port: int, rcvbuf=None):
        self.sock = socket.socket()
        if rcvbuf:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.sock.settimeout(DEADLINE)
        self.sock.connect(("127.0.0.1", port))

    def send(self, data: bytes):
        self.sock.sendall(data)

    def read_to_the_end(self) -> bytes:
        """All that comes until the daemon closes."""
        data = b""
        while chunk := self._receive():
            data += chunk
        return data

    def read_answers(self, number: int) -> bytes:
        data = b""
        while data.count(b"HTTP/1.1 ") < number or not data.endswith(b"\n"):
            chunk = self._receive()
            assert chunk, f"closed after {data!r}"
            data += chunk
        return data

    def _receive(self) -> bytes:
        try:
            return self.sock.recv(65536)
        except ConnectionResetError:
            return b""

    def close(self):
        self.sock.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()
