"""Captures composed by hand, and what tshark reads in them."""
import json
import pathlib
import struct
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]

sys.path.insert(0, str(ROOT / "tests/e2e"))
from harness.tshark import PLUGINS, run_tshark  # noqa: E402, F401

WIN, DISCOVERY = 4001, 4002
ETHERNET, UPPER_PDU = 1, 252
FIN, SYN, PSH, ACK = 1, 2, 8, 16


class Capture:
    """A pcap file that grows packet by packet, one a millisecond."""

    def __init__(self, path: pathlib.Path):
        self.path, self.clock = path, 1_700_000_000_000
        self.file = open(path, "wb")
        self.file.write(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 0x40000, ETHERNET))

    def packet(self, protocol: int, source: str, target: str, rest: bytes):
        header = struct.pack(">BBHHHBBH", 0x45, 0, 20 + len(rest), 0, 0x4000, 64, protocol, 0) + address(source) + address(target)
        frame = bytes(12) + b"\x08\x00" + header + rest
        self.clock += 1
        self.file.write(struct.pack("<IIII", self.clock // 1000, self.clock % 1000 * 1000, len(frame), len(frame)) + frame)

    def datagram(self, source: tuple, target: tuple, payload: bytes):
        self.packet(17, source[0], target[0], struct.pack(">HHHH", source[1], target[1], 8 + len(payload), 0) + payload)

    def close(self) -> pathlib.Path:
        self.file.close()
        return self.path


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


class Connection:
    """A TCP connection from a bridge to the gateway."""

    def __init__(self, capture: Capture, number: int, port: int = WIN):
        self.capture, self.sent = capture, {"up": 1000, "down": 5000}
        self.ends = {"up": ("10.0.0.2", 20000 + number), "down": ("10.0.0.1", port)}
        self.segment("up", b"", SYN)
        self.segment("down", b"", SYN | ACK)
        self.segment("up", b"", ACK)

    def segment(self, way: str, payload: bytes, flags: int = PSH | ACK):
        back = "down" if way == "up" else "up"
        (source, source_port), (target, target_port) = self.ends[way], self.ends[back]
        header = struct.pack(">HHIIBBHHH", source_port, target_port, self.sent[way], self.sent[back], 0x50, flags, 0xFFFF, 0, 0)
        self.capture.packet(6, source, target, header + payload)
        self.sent[way] += len(payload) + (1 if flags & SYN else 0)


def address(text: str) -> bytes:
    return bytes(int(part) for part in text.split("."))


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
