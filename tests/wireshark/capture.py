"""Captures composed by hand, and what tshark reads in them."""
import json
import pathlib
import struct
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

sys.path.insert(0, str(ROOT / "tests/e2e"))
from harness.captures import DISCOVERY, WIN, Capture, Connection  # noqa: E402, F401
from harness.tshark import PLUGINS, run_tshark  # noqa: E402, F401

UPPER_PDU = 252


class Recording:
    """A pcapng file as a recorder writes it: messages of a gateway's tap."""

    UP, DOWN, NEITHER = 0, 1, 2

    def __init__(self, path: pathlib.Path):
        self.path, self.clock, self.numbers = path, 1_700_000_000_000_000_000, {}
        self.file = open(path, "wb")
        self.block(0x0A0D0D0A, struct.pack("<IHHq", 0x1A2B3C4D, 1, 0, -1))
        self.block(1, struct.pack("<HHI", UPPER_PDU, 0, 0) + struct.pack("<HHBxxx", 9, 1, 9) + bytes(4))  # if_tsresol: 10^-9 s

    def block(self, kind: int, body: bytes):
        body += bytes(-len(body) % 4)
        self.file.write(struct.pack("<II", kind, len(body) + 12) + body + struct.pack("<I", len(body) + 12))

    def packet(self, data: bytes):
        data = struct.pack(">HH", 12, 8) + b"rtls_tap" + bytes(4) + data
        self.block(6, struct.pack("<IIIII", 0, self.clock >> 32, self.clock & 0xFFFFFFFF, len(data), len(data)) + data)

    def message(self, topic: str, *frames: bytes, direction: int = NEITHER, connection: int = 0, version: int = 1):
        """A millisecond and a nanosecond behind the one before."""
        self.clock += 1_000_001
        of_class = topic.rpartition("/")[0] or topic
        number = self.numbers[of_class] = self.numbers.get(of_class, 0) + 1
        head = struct.pack(">BBHIQQ", version, direction, 0, connection, number, self.clock)
        self.packet(struct.pack(">H", len(topic)) + topic.encode() + head +
                    b"".join(struct.pack(">I", len(frame)) + frame for frame in frames))

    def close(self) -> pathlib.Path:
        self.file.close()
        return self.path


def tshark(capture: pathlib.Path, *options) -> str:
    return run_tshark(capture.parent, "-n", "-r", capture, *options)


def layers_of(capture: pathlib.Path, *options) -> list:
    """The packets' protocols and fields, one dictionary a packet."""
    text = tshark(capture, "-T", "json", "--no-duplicate-keys", *options)
    return [packet["_source"]["layers"] for packet in json.loads(text)]


def as_list(value) -> list:
    return value if isinstance(value, list) else [] if value is None else [value]


def messages_of(layers: list) -> list:
    """Every decoded message, in the order of the packets."""
    return [message for packet in layers for message in as_list(packet.get("rtlsgw"))]


def fields_of(capture: pathlib.Path, *names, options=()) -> list:
    """The fields of each packet, as texts."""
    wanted = [word for name in names for word in ("-e", name)]
    text = tshark(capture, "-T", "fields", "-E", "separator=;", *wanted, *options)
    return [line.split(";") for line in text.splitlines()]
