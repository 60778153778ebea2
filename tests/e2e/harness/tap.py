"""A subscriber of the tap that shares nothing with the gateway: the layout of its head is written here once more."""
import struct

import zmq

from .figures import Figures
from .peers import DEADLINE, wait_until

HEAD = struct.Struct("!BBHIQQ")
UP, DOWN, NEITHER = 0, 1, 2


class Message:
    def __init__(self, frames):
        self.topic, head, *self.payload = frames
        assert len(head) == 24
        version, self.direction, zero, self.connection, self.number, self.clock = HEAD.unpack(head)
        assert (version, zero) == (1, 0)


class Subscriber:
    """The topics count when it is made: the gateway with this HTTP port has taken notice of them. Nobody else
    subscribes or leaves meanwhile."""

    def __init__(self, context, endpoint: str, http_port: int, *topics: bytes, options=None):
        self.http_port = http_port
        before = self.topics()
        self.sock = context.socket(zmq.SUB)
        self.sock.setsockopt(zmq.LINGER, 0)
        self.sock.setsockopt(zmq.RCVHWM, 0)
        for option, value in (options or {}).items():
            self.sock.setsockopt(option, value)
        for topic in topics:
            self.sock.setsockopt(zmq.SUBSCRIBE, topic)
        self.sock.connect(endpoint)
        wait_until(lambda: self.topics() == before + len(topics), "the subscriptions")

    def topics(self) -> int:
        return Figures(self.http_port)["tap_topics", {}]

    def receive(self, deadline: float = DEADLINE) -> Message:
        assert self.sock.poll(int(deadline * 1000)), "nothing was published"
        return Message(self.sock.recv_multipart())

    def take(self, number: int) -> list:
        return [self.receive() for _ in range(number)]

    def is_silent(self, within: float = 0.3) -> bool:
        return not self.sock.poll(int(within * 1000))

    def close(self):
        self.sock.close()
