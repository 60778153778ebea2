"""The gateway link as its peers write it: framing and message layouts, from the bytes up."""
import struct

START, ESC, END = 0xF5, 0xF6, 0xF7

PING = 0x0000
NWK_DATA_IND = 0x0100
PANID_REQ = 0x0101
ANNOUNCE_ROOT = 0x0103
HEARTBEAT = 0x0104
GENERIC_SERVER_REQ = 0x010E
NODE_ANNOUNCE = 0x010F
SENSOR_NEW = 0x0116
UPDATE_CMD = 0x0118
WRAP_TS = 0x0200
TRF2SRV = 0x0A00
REST_ACK = 0x0810
VR_PANID_RESP = 0x8102
GENERIC_REQ = 0x080E
CONF_NODE_REQ = 0x0804
NWK_DATA_REQ = 0x0800
FW_IMAGE_AVAIL = 0x080D
OTA_UPLOAD = 0x0012
SENSOR_REQ = 0x0815
CONF_SENSOR_REQ = 0x0816
TDOA_SCHED_REQ = 0x0817

ACK = 0x1000
DIRECT = 0x2000


def frame(message: bytes) -> bytes:
    out = bytearray([START])
    for b in message:
        if b in (START, ESC, END):
            out.append(ESC)
        out.append(b)
    out.append(END)
    return bytes(out)


class Deframer:
    """Collects complete messages from stream bytes; bytes outside frames land in `noise`."""

    def __init__(self):
        self.noise = bytearray()
        self._current = None
        self._escaped = False

    def feed(self, data: bytes):
        done = []
        for b in data:
            if self._current is None:
                if b == START:
                    self._current = bytearray()
                else:
                    self.noise.append(b)
            elif self._escaped:
                self._current.append(b)
                self._escaped = False
            elif b == ESC:
                self._escaped = True
            elif b == END:
                done.append(bytes(self._current))
                self._current = None
            elif b == START:
                self._current = bytearray()
            else:
                self._current.append(b)
        return done


def mac(n: int) -> bytes:
    """A node MAC whose last two bytes are `n`."""
    return bytes.fromhex("02ab34cd5600") + struct.pack(">H", n)


def ip(n: int) -> bytes:
    """A node address that no MAC is derived from."""
    return bytes.fromhex("fd00000000000000") + bytes.fromhex("0011223344") + struct.pack(">I", n)[1:]


def panid_req(mac_addr: bytes, seq: int = 1, flags: int = 0) -> bytes:
    return struct.pack("<HB", PANID_REQ | flags, seq) + mac_addr


def root_announce(mac_addr: bytes, seq: int = 1, prefix: int = 1, version: int = 240, flags: int = 0) -> bytes:
    return struct.pack("<HB", ANNOUNCE_ROOT | flags, seq) + mac_addr + struct.pack("<HB", prefix, version)


def heartbeat(mac_addr: bytes, seq: int = 1, *, bridge: bytes, addr: bytes, reporting: int = 60, ranging: int = 5,
              role: int = 0x14, sublocation: int = 3, parent: bytes = bytes(8), sw: int = 0x01020304, x: int = 1000,
              y: int = -2000, z: int = 300, zofs: int = -4, flags: int = 0, code: int = HEARTBEAT) -> bytes:
    message = (struct.pack("<HBBBBB", code | flags, seq, reporting, ranging, role, sublocation) + mac_addr + parent +
               struct.pack("<Iiihh", sw, x, y, z, zofs) + bridge + addr)
    assert len(message) == 63
    return message


def forwarded_heartbeat(mac_addr: bytes, seq: int = 1, **kw) -> bytes:
    """The first 39 bytes: inside an envelope its trailer takes the place of the rest."""
    kw.setdefault("bridge", bytes(8))
    kw.setdefault("addr", bytes(16))
    return heartbeat(mac_addr, seq, **kw)[:39]


def payload_message(code: int, seq: int, payload: bytes, flags: int = 0, total_len=None) -> bytes:
    return struct.pack("<HBH", code | flags, seq, len(payload) if total_len is None else total_len) + payload


def sensor(seq: int, payload: bytes, trailer: bytes, flags: int = 0) -> bytes:
    """`trailer`: the sender's 16-byte address when sent directly, nothing inside an envelope."""
    return payload_message(SENSOR_NEW, seq, payload, flags) + trailer


def generic_server_req(seq: int, sub: int, body: bytes, trailer: bytes, flags: int = 0) -> bytes:
    return payload_message(GENERIC_SERVER_REQ, seq, struct.pack(">H", sub) + body, flags) + trailer


def envelope(inner: bytes, mac_addr: bytes, addr: bytes, seq: int = 0, code: int = NWK_DATA_IND, flags: int = 0) -> bytes:
    return struct.pack("<HBH", code | flags, seq, len(inner)) + inner + mac_addr + addr


def wrap_ts(message: bytes, seconds: int, fraction: int, seq: int = 0) -> bytes:
    return struct.pack("<HBH", WRAP_TS, seq, len(message) & 0xFFFF) + struct.pack(">IH", seconds, fraction) + message


def ping(seq: int = 0, rest: bytes = b"") -> bytes:
    return struct.pack("<HB", PING, seq) + rest


def generic_req(payload: bytes, mac_addr: bytes, seq: int = 0, code: int = GENERIC_REQ, total_len=None) -> bytes:
    """A generic-type command as the proxy publishes it: type and length big-endian, the MAC last."""
    length = len(payload) if total_len is None else total_len
    return struct.pack(">HBH", code, seq, length) + payload + mac_addr
