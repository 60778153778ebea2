"""Random frames and commands. Nodes, addresses and sequence numbers come from small pools, so that nodes are heard
again, over other bridges, with repeated numbers and with addresses that others have. Much is a little wrong."""
import struct

from . import link

IND, TRF2SRV, ACK, DIRECT = 0x0100, 0x0A00, 0x1000, 0x2000
PANID_REQ, ROOT, HEARTBEAT, GENERIC, ANNOUNCE, SENSOR = 0x0101, 0x0103, 0x0104, 0x010E, 0x010F, 0x0116
OTHER_TYPES = (0x0001, 0x0100, 0x0102, 0x0105, 0x0106, 0x010C, 0x0115, 0x0117, 0x0118, 0x0200, 0x0205, 0x0800, 0x0A00,
               0x1000, 0x2000, 0x4104, 0x8104, 0x2101, 0x2107, 0x8102, 0xFFFF)
TIMES = (0, 1, 978307200, 1700000000, 1 << 31, 0xFFFFFFFF)
PREFIX = bytes.fromhex("fd00000000000001")


def le16(value: int) -> bytes:
    return struct.pack("<H", value)


def be16(value: int) -> bytes:
    return struct.pack(">H", value)


class Generator:
    def __init__(self, random, bridges: int, nodes: int = 40):
        self.r = random
        self.bridge_macs = [bytes.fromhex("e40000000000b0") + bytes((number + 1,)) for number in range(bridges)]
        self.macs = [self._new_mac() for _ in range(nodes)]
        self.macs += [mac[:4] + self._bytes(2) + mac[6:] for mac in random.sample(self.macs, 4)]   # same short MAC
        self.shared = [PREFIX + bytes((2, 0, 0, 0, 0, 0, 0, n)) for n in range(3)] + [bytes(16)]
        self.commands = []

    def _new_mac(self) -> bytes:
        r = self.r
        tail = bytes(r.choice((0, 0xF5, 0xF6, 0xF7, r.randrange(256))) if r.random() < 0.3 else r.randrange(256)
                     for _ in range(7))
        return (b"\xe4" if r.random() < 0.7 else self._bytes(1)) + tail

    def _bytes(self, count: int) -> bytes:
        return self.r.randbytes(count)

    def mac(self) -> bytes:
        return self.r.choice(self.macs)

    def any_mac(self) -> bytes:
        return self._bytes(8) if self.r.random() < 0.003 else self.mac()

    def ip_of(self, mac: bytes) -> bytes:
        """An address that is this node's own, mostly."""
        x = self.r.random()
        if x < 0.6:
            return PREFIX + b"\xe6" + mac[1:]
        if x < 0.75:
            return self.r.choice(self.shared)
        return PREFIX + b"\xe6" + self.mac()[1:]

    def seq(self) -> int:
        return self.r.randrange(4) if self.r.random() < 0.3 else self.r.randrange(256)

    # Messages of bridges, without envelopes

    def heartbeat(self, bridge: int, kind: int, flags: int, own: bool = True) -> bytes:
        """With `own` false without bridge and address, for which a trailer stands."""
        r, mac = self.r, self.mac()
        position = struct.pack("<iihh", r.randrange(-2 ** 31, 2 ** 31), r.randrange(-99999, 99999),
                               r.randrange(-32768, 32768), r.randrange(-32768, 32768))
        frequency = r.choice((0, 0, 12, 20, 60, 255, r.randrange(1, 256)))
        fixed = (le16(kind | flags) + bytes((self.seq(), frequency)) + self._bytes(3) + mac + self.mac()
                 + self._bytes(4) + position)
        if not own:
            return fixed
        bridge_mac = self.mac() if r.random() < 0.15 else self.bridge_macs[bridge]
        return fixed + bridge_mac + self.ip_of(mac)

    def panid_request(self, flags: int) -> bytes:
        return le16(PANID_REQ | flags) + bytes((self.seq(),)) + self.mac()

    def root(self, flags: int) -> bytes:
        return le16(ROOT | flags) + bytes((self.seq(),)) + self.mac() + self._bytes(3)

    def payload(self) -> bytes:
        """Of a generic request: a sub-command and as many bytes as it needs, or nearly."""
        r = self.r
        command = r.choice((10, 10, 16, 16, 17, 40, 40, 48, 48, r.randrange(64), r.randrange(65536)))
        if command == 10:
            size = r.choice((17, 18, 19, 25, 26, 34, 10 + 8 * r.randrange(8), r.randrange(60)))
        elif command == 16:
            size = r.choice((14, 14, 14, 14, 13, 15))
            return (be16(16) + self.image() + be16(self.page_size()) + be16(r.randrange(4)) + b"\0")[:size]
        elif command == 40:
            size = r.choice((27, 28, 29, 36, 37, 38, 39, 40))
        elif command == 48:
            size = r.choice((9, 10, 11, 18, 26, 2 + 8 * r.randrange(6)))
        else:
            size = r.choice((0, 1, 2, 3, 14, r.randrange(100)))
        return (be16(command) + self._bytes(max(0, size - 2)))[:size]

    def image(self) -> bytes:
        return bytes((0, 0, 0, self.r.randrange(3))) + b"\x11\x22\x33\x44"

    def page_size(self) -> int:
        return self.r.choice((32, 32, 64, 64, 64, 0, 33, 768, 800))

    def with_payload(self, kind: int, flags: int) -> bytes:
        r = self.r
        if kind == SENSOR:
            size = r.choice((286, 287, 288)) if r.random() < 0.03 else r.randrange(0, 60)
            payload = self._bytes(size)
        elif r.random() < 0.02:
            payload = be16(r.choice((0, 48))) + self._bytes(r.choice((1034, 1035, 1036)))
        else:
            payload = self.payload()
        return self.head(kind | flags, payload) + payload

    def head(self, kind: int, payload: bytes) -> bytes:
        r, size = self.r, len(payload)
        x = r.random()
        if x < 0.03:
            size += r.choice((-8, -1, 1, 8))
        elif x < 0.04:
            size = r.choice((65530, 65531, 65532, 65533, 65534, 65535))
        return le16(kind) + bytes((self.seq(),)) + le16(size & 0xFFFF)

    def message(self, bridge: int, flags: int) -> bytes:
        r = self.r
        x = r.random()
        if x < 0.28:
            return self.heartbeat(bridge, HEARTBEAT, flags)
        if x < 0.42:
            return self.heartbeat(bridge, ANNOUNCE, flags)
        if x < 0.54:
            return self.panid_request(flags)
        if x < 0.66:
            return self.root(flags)
        if x < 0.84:
            return self.with_payload(GENERIC, flags) + self.ip_of(self.mac())
        if x < 0.93:
            return self.with_payload(SENSOR, flags) + self.ip_of(self.mac())
        if x < 0.96:
            return b"\0\0" + self._bytes(r.choice((1, 1, 2, 8, 30)))
        return le16(r.choice(OTHER_TYPES)) + self._bytes(r.choice((1, 3, 9, 12, 61)))

    def inner(self, bridge: int) -> bytes:
        r = self.r
        flags = r.choice((0, 0, 0, 0, 0, 0, ACK, DIRECT))
        x = r.random()
        if x < 0.3:
            return self.heartbeat(bridge, HEARTBEAT, flags, own=False)
        if x < 0.55:
            return self.heartbeat(bridge, ANNOUNCE, flags, own=False)
        if x < 0.92:
            message = self.with_payload(GENERIC if x < 0.77 else SENSOR, flags)
            if r.random() < 0.25:      # the end of the message by its own length is not that of the envelope's
                message += self.any_mac() + self._bytes(r.randrange(9))
            return message
        return self.message(bridge, flags)

    def envelope(self, bridge: int, flags: int) -> bytes:
        r = self.r
        inner, mac = self.inner(bridge), self.any_mac()
        size = len(inner) + (r.choice((-1, 1)) if r.random() < 0.03 else 0)
        return (le16((IND if r.random() < 0.55 else TRF2SRV) | flags) + bytes((self.seq(),)) + le16(size) + inner + mac
                + self.ip_of(mac))

    def timestamp(self) -> bytes:
        r = self.r
        seconds = r.choice(TIMES) if r.random() < 0.6 else r.randrange(1 << 32)
        fraction = r.choice((0, 0x8000, 0xFFFF, r.randrange(65536)))
        return b"\x00\x02" + self._bytes(3) + struct.pack(">IH", seconds, fraction)

    def bridge_message(self, bridge: int) -> bytes:
        r = self.r
        flags = r.choice((0, 0, 0, ACK, DIRECT, ACK | DIRECT))
        message = self.envelope(bridge, flags) if r.random() < 0.4 else self.message(bridge, flags)
        if r.random() < 0.15:
            message = self.timestamp() + message
            if r.random() < 0.05:
                message = self.timestamp() + message
        x = r.random()
        if x < 0.02:
            message = message[:-1]
        elif x < 0.04:
            message += self._bytes(1)
        elif x < 0.05:
            message = message[:r.randrange(len(message) + 1)]
        elif x < 0.053:
            message = self._bytes(r.randrange(40))
        elif x < 0.055:
            message += self._bytes(r.choice((470, 500, 1000)))
        return message

    def bridge_frame(self, bridge: int) -> bytes:
        """A message as it may stand in the stream: framed, rarely as no bridge would."""
        r = self.r
        frame = link.encode(self.bridge_message(bridge))
        x = r.random()
        if x > 0.04:
            return frame
        if x > 0.03:
            noise = self._bytes(r.randrange(1, 9)).replace(b"\xf5", b"\xf6")
            return noise + frame
        if x > 0.02:
            return frame[:r.randrange(1, len(frame))].rstrip(b"\xf6") + frame
        if x > 0.015:
            return b"\xf5" + b"".join(b"\xf6" + bytes((byte,)) for byte in link.decode(frame)) + b"\xf7"
        if x > 0.01:
            return frame + b"\xf5\xf7" + b"\xf7\xf6"
        return frame[:-1]

    # Commands of the proxy

    def command(self) -> bytes:
        """A text; often one that has been published before."""
        r = self.r
        if self.commands and r.random() < 0.15:
            data = r.choice(self.commands[-3:] if r.random() < 0.5 else self.commands)
            if len(data) > 2 and r.random() < 0.5:
                data = data[:2] + self._bytes(1) + data[3:]
        else:
            data = self._command()
            if data[5:7] != b"\0\x10":      # a page is stored or not: whether that is a repeat may not be in doubt
                self.commands = self.commands[-200:] + [data]
        text = data.hex()
        if r.random() < 0.5:
            text = text.upper()
        x = r.random()
        if data[:2] in (b"\x00\x12", b"\x08\x0d"):      # cut, they might order a download
            pass
        elif x < 0.01:
            text += r.choice(("0", "\n", "g", "a", " "))
        elif x < 0.02:
            text = text[:r.randrange(len(text) + 1)]
        elif x < 0.025 and text:
            at = r.randrange(len(text))
            text = text[:at] + r.choice("gG /:@`\xc3") + text[at + 1:]
        return text.encode("latin-1")

    def _command(self) -> bytes:
        r, mac = self.r, self.any_mac()
        if r.random() < 0.04:
            mac = r.choice(self.bridge_macs)
        x = r.random()
        if x < 0.45:
            return self._generic_command(r.choice((2062, 2062, 2062, 2069, 2070, 2071))) + mac
        if x < 0.6:
            block = self._bytes(r.randrange(40))
            size = len(block) + self._off()
            return be16(2048) + self._bytes(1) + be16(size & 0xFFFF) + self._bytes(8) + block + mac
        if x < 0.8:
            data = be16(2052) + self._bytes(16)
            return data[:18 + min(0, self._off())] + mac
        if x < 0.93:
            return be16(2064) + self._bytes(1 + max(0, self._off())) + mac
        if x < 0.96:
            url = self._bytes(r.randrange(20))
            length = len(url) + r.choice((-2, -1, 1, 2)) & 0xFFFF
            return be16(r.choice((18, 2061))) + self._bytes(8) + be16(length) + url
        return be16(r.choice((0, 0x0801, 0x0104, 2065, 2068, 0x8102))) + self._bytes(r.randrange(30)) + mac

    def _off(self) -> int:
        return self.r.choice((-1, 1)) if self.r.random() < 0.06 else 0

    def _generic_command(self, kind: int) -> bytes:
        r = self.r
        if r.random() < 0.3:
            size = self.page_size()
            page = self._bytes(size)[:760]
            payload = be16(16) + self.image() + be16(size) + be16(r.randrange(4)) + page
        elif r.random() < 0.03:
            payload = self._bytes(r.choice((786, 787, 788)))
        else:
            payload = self._bytes(r.randrange(40))
        size = 65535 if r.random() < 0.01 else len(payload) + self._off()
        return be16(kind) + self._bytes(1) + be16(size & 0xFFFF) + payload
