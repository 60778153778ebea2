"""A gateway's tap as its subscribers see it, and recordings of it: from the bytes up, by code of its own."""
import struct

import zmq

from . import wire
from .peers import DEADLINE

UP, DOWN, NEITHER = 0, 1, 2


def head(number: int, clock_ns: int, way: int = UP, connection: int = 0) -> bytes:
    return struct.pack(">BBHIQQ", 1, way, 0, connection, number, clock_ns)


class Tap:
    """The publishing side, with a running number for each class."""

    def __init__(self, context, port: int):
        self.endpoint = f"tcp://127.0.0.1:{port}"
        self.numbers = {}
        self.sock = context.socket(zmq.XPUB)
        self.sock.setsockopt(zmq.LINGER, 0)
        self.sock.setsockopt(zmq.SNDHWM, 0)
        self.sock.bind(self.endpoint)

    def wait_subscribed(self, times: int = 1) -> set:
        """The topics of the next so many subscriptions."""
        topics = set()
        while len(topics) < times:
            assert self.sock.poll(int(DEADLINE * 1000)), "nobody subscribes"
            said = self.sock.recv()
            if said[0] == 1:
                topics.add(said[1:].decode())
        return topics

    def lose(self, of: str, count: int):
        self.numbers[of] = self.numbers.get(of, 0) + count

    def publish(self, message: list):
        self.sock.send_multipart(message)

    def message(self, topic: str, *payload: bytes, way: int = UP, connection: int = 0, clock_ns: int) -> list:
        of = "/".join(topic.split("/")[:2]) if topic.startswith("link/") else topic.split("/")[0]
        self.lose(of, 1)
        return [topic.encode(), head(self.numbers[of], clock_ns, way, connection), *payload]

    def close(self):
        self.sock.close()


def report(node: bytes, seq: int, seconds: int, ms: int, bridge: bytes) -> tuple:
    """A heartbeat as the message handler gets it."""
    body = struct.pack(">HBBBBB", wire.HEARTBEAT, seq, 60, 5, 0x11, 1) + node + bridge
    return struct.pack(">IH", seconds, ms), body + struct.pack(">Iiii", 0x0102A0B0, 1500, -2500, 0) + bridge


# --- Recordings

def blocks(data: bytes, is_growing: bool):
    """(type, body) of each block; of a file that is being written, the last one may be there in part."""
    at = 0
    while at < len(data):
        kind, length = struct.unpack_from("<II", data.ljust(at + 8, b"\0"), at)
        if is_growing and (len(data) < at + 8 or len(data) < at + length):
            return
        assert length % 4 == 0 and struct.unpack_from("<I", data, at + length - 4) == (length,)
        yield kind, data[at + 8:at + length - 4]
        at += length


def recorded(data: bytes, is_growing: bool = False) -> list:
    """The messages of a recording, as lists of frames."""
    found = list(blocks(data, is_growing))
    if is_growing and len(found) < 2:
        return []
    (first, section), (second, interface), *packets = found
    assert (first, second) == (0x0A0D0D0A, 1)
    assert struct.unpack_from("<IHHq", section) == (0x1A2B3C4D, 1, 0, -1)
    assert struct.unpack_from("<HHIHHB", interface) == (252, 0, 0, 9, 1, 9)
    return [message_in(body) for kind, body in packets if kind == 6]


def message_in(body: bytes) -> list:
    number, high, low, size, original = struct.unpack_from("<5I", body)
    assert (number, size) == (0, original)
    packet = body[20:20 + size]
    assert packet[:16] == b"\x00\x0c\x00\x08rtls_tap\x00\x00\x00\x00"
    length = struct.unpack_from(">H", packet, 16)[0]
    frames, at = [packet[18:18 + length], packet[18 + length:42 + length]], 42 + length
    assert struct.unpack_from(">Q", frames[1], 16)[0] == high << 32 | low
    while at < len(packet):
        size = struct.unpack_from(">I", packet, at)[0]
        frames.append(packet[at + 4:at + 4 + size])
        at += 4 + size
    return frames


def recording_of(messages: list) -> bytes:
    """As another program may have written it: in the other byte order."""
    def block(kind, body):
        length = struct.pack(">I", 12 + len(body))
        return struct.pack(">I", kind) + length + body + length

    out = [block(0x0A0D0D0A, struct.pack(">IHHq", 0x1A2B3C4D, 1, 0, -1)), block(1, struct.pack(">HHI", 252, 0, 0))]
    for topic, head_bytes, *payload in messages:
        packet = b"\x00\x0c\x00\x08rtls_tap\x00\x00\x00\x00" + struct.pack(">H", len(topic)) + topic + head_bytes
        packet += b"".join(struct.pack(">I", len(part)) + part for part in payload)
        padded = packet + bytes(-len(packet) % 4)
        out.append(block(6, struct.pack(">III", 0, 0, 0) + struct.pack(">II", len(packet), len(packet)) + padded))
    return b"".join(out)
