"""The framing of the WIN port: START, bytes of which START, ESC and END are preceded by ESC, END."""
import re

START, ESC, END = 0xF5, 0xF6, 0xF7
_special = re.compile(rb"[\xf5\xf6\xf7]")
_whole_frames = re.compile(rb"\xf5((?:[^\xf5\xf6\xf7]|\xf6[\xf5\xf6\xf7])*)\xf7", re.S)


def encode(message: bytes) -> bytes:
    return b"\xf5" + _special.sub(b"\xf6\\g<0>", message) + b"\xf7"


class Decoder:
    """Takes a stream apart as the gateway does. `feed` gives the messages that the bytes complete."""

    NONE, BEGUN, ESCAPED, DATA = range(4)

    def __init__(self):
        self.state = self.NONE
        self.pending = bytearray()

    def feed(self, data: bytes) -> list:
        messages, at = [], 0
        while at < len(data):
            if self.state == self.ESCAPED:
                self.pending.append(data[at])
                self.state = self.DATA
                at += 1
                continue
            special = _special.search(data, at)
            plain_end = special.start() if special else len(data)
            if plain_end > at and self.state != self.NONE:
                self.pending += data[at:plain_end]
                self.state = self.DATA
            if special:
                self._special_byte(data[plain_end], messages)
            at = plain_end + 1
        return messages

    def _special_byte(self, byte: int, messages: list):
        if byte == START:
            self.pending.clear()
            self.state = self.BEGUN
        elif self.state == self.NONE:
            return
        elif byte == ESC:
            self.state = self.ESCAPED
        else:
            if self.state == self.DATA:
                messages.append(bytes(self.pending))
            self.state = self.NONE


def frames(stream: bytes):
    """The raw frames of what the gateway sent, and the rest behind the last whole one. The gateway escapes
    exactly what must be, and puts nothing between frames: whatever else stands there raises ValueError."""
    found, at = [], 0
    for match in _whole_frames.finditer(stream):
        if match.start() != at:
            break
        found.append(match.group(0))
        at = match.end()
    rest = stream[at:]
    if rest and (rest[0] != START or b"\xf7" in re.sub(rb"\xf6.", b"", rest, flags=re.S)):
        raise ValueError(f"not a frame of the gateway: {rest[:64].hex(' ')}")
    return found, rest


def decode(frame: bytes) -> bytes:
    """The message in one raw frame of the gateway."""
    return re.sub(rb"\xf6(.)", rb"\1", frame[1:-1], flags=re.S)
