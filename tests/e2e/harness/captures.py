"""Captures of a network, composed by hand from the bytes up."""
import pathlib
import struct

WIN, DISCOVERY = 4001, 4002
ETHERNET = 1
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


class Connection:
    """A TCP connection from a bridge to the gateway."""

    def __init__(self, capture: Capture, number: int, port: int = WIN):
        self.capture, self.sent, self.first = capture, {"up": 1000, "down": 5000}, {"up": 1001, "down": 5001}
        self.ends = {"up": ("10.0.0.2", 20000 + number), "down": ("10.0.0.1", port)}
        self.segment("up", b"", SYN)
        self.segment("down", b"", SYN | ACK)
        self.segment("up", b"", ACK)

    def segment(self, way: str, payload: bytes, flags: int = PSH | ACK, at: int = None):
        """`at`: where these bytes stand in their direction, when it is not behind all that was sent."""
        sequence = self.sent[way] if at is None else self.first[way] + at
        back = "down" if way == "up" else "up"
        (source, source_port), (target, target_port) = self.ends[way], self.ends[back]
        header = struct.pack(">HHIIBBHHH", source_port, target_port, sequence, self.sent[back], 0x50, flags, 0xFFFF, 0, 0)
        self.capture.packet(6, source, target, header + payload)
        if at is None:
            self.sent[way] += len(payload) + (1 if flags & SYN else 0)


def address(text: str) -> bytes:
    return bytes(int(part) for part in text.split("."))
