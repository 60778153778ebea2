"""Messages with random values, composed from the bytes up, and the fields that they have.

A composed message is its bytes and a dictionary: `kind`, then the fields by the names of docs/decode.md.
"""
import ipaddress
import random
import struct

SPECIAL = b"\xF5\xF6\xF7"
ROLES = ["undefined", "fixed", "mobile", "pending", "bridge", "tdoa-mobile", "sensor"]
UNREAD = {"panid_resp": 0x0102, "sensor_ind": 0x0106, "video_resp": 0x0107, "mobile_pos_ind": 0x010C, "video_ack": 0x0117,
          "update_req": 0x0119, "emergency_ind": 0x011A, "range_report_ind": 0x0205, "mobile_pos_ind_new": 0x020C,
          "video_req": 0x0807, "diag_req": 0x0808, "link_qual_req": 0x0809, "link_qual_resp": 0x080A, "loopback_req": 0x080B,
          "loopback_resp": 0x080C}
REQUESTS = {"generic_req": 0x080E, "sensor_req": 0x0815, "conf_sensor_req": 0x0816, "tdoa_sched_conf_req": 0x0817}
UNKNOWN = [0x0099, 0x0303, 0x0BCD, 0x4104, 0x7ABC, 0xF5F6]


class Composer:
    def __init__(self, seed: int):
        self.random = random.Random(seed)

    # ---- values

    def raw(self, size: int) -> bytes:
        """Every other byte is one that the link stuffs."""
        return bytes(self.random.choice(SPECIAL) if self.random.random() < 0.2 else self.random.randrange(256)
                     for _ in range(size))

    def some(self, most: int = 40) -> bytes:
        return self.raw(self.random.randrange(most + 1))

    def number(self, size: int) -> int:
        return int.from_bytes(self.raw(size), "big")

    def signed(self) -> int:
        return struct.unpack(">i", self.raw(4))[0]

    def address(self) -> tuple:
        raw = self.random.choice([self.raw(16), bytes(10) + self.raw(6), b"\xfe\x80" + bytes(6) + self.raw(8)])
        return raw, ipaddress.IPv6Address(raw)

    def flags(self, names=("ack_requested", "direct_mask")) -> tuple:
        chosen = {name: self.random.random() < 0.5 for name in names}
        bits = {"ack_requested": 0x1000, "direct_mask": 0x2000}
        return sum(bits[name] for name, is_set in chosen.items() if is_set), chosen

    # ---- what several have

    def typed(self, order: str, code: int, kind: str, *rest, names=()) -> tuple:
        """A message of these pieces, each its bytes and its fields."""
        bits, flags = self.flags(names)
        fields = {"kind": kind, **flags}
        data = struct.pack(order + "H", code | bits)
        for piece, own in rest:
            data += piece
            fields |= own
        return data, fields

    def one(self, name: str) -> tuple:
        value = self.number(1)
        return bytes([value]), {name: value}

    def piece(self, name: str, size: int) -> tuple:
        value = self.raw(size)
        return value, {name: value.hex()}

    def big(self, name: str, size: int) -> tuple:
        value = self.number(size)
        return value.to_bytes(size, "big"), {name: value}

    def name_of_bytes(self, name: str, size: int, order: str) -> tuple:
        """An identifier: hex with the highest byte first."""
        value = self.raw(size)
        return value if order == ">" else value[::-1], {name: value.hex()}

    def ip(self, name: str = "ipaddr") -> tuple:
        raw, text = self.address()
        return raw, {name: text}

    def seq(self) -> tuple:
        return self.one("seqNo")

    def role(self) -> tuple:
        value = self.number(1)
        return bytes([value]), {"node_role": value & 0x0F, "node_state": value & 0xF0}

    def position(self, order: str) -> tuple:
        values = {name: self.signed() for name in ("pos_X", "pos_Y", "pos_Z")}
        low, high = struct.unpack("<hh", struct.pack("<i", values["pos_Z"]))
        return struct.pack(order + "iii", *values.values()), values | {"z_val": low, "z_offset": high}

    @staticmethod
    def counted(order: str, name: str, inner: tuple, less: int = 0) -> tuple:
        """The length of `inner`, and it."""
        size = len(inner[0]) - less
        return struct.pack(order + "H", size) + inner[0], {name: size, **inner[1]}

    @staticmethod
    def within(message: tuple) -> tuple:
        return message[0], {"message": message[1]}

    BOTH = ("ack_requested", "direct_mask")

    # ---- up

    def ping(self) -> tuple:
        return self.typed("<", 0, "ping", self.seq(), self.piece("data", self.random.randrange(9)))

    def panid_req(self) -> tuple:
        return self.typed("<", 0x0101, "panid_req", self.seq(), self.piece("ieee_addr", 8), names=self.BOTH)

    def announce_root(self) -> tuple:
        return self.typed("<", 0x0103, "announce_root", self.seq(), self.piece("ieee_addr", 8),
                          self.name_of_bytes("rplPrefix", 2, "<"), self.one("rpl_version"), names=self.BOTH)

    def node_state(self, order: str, code: int, kind: str, names, *rest) -> tuple:
        return self.typed(order, code, kind, self.seq(), self.one("reporting_freq"), self.one("ranging_freq"), self.role(),
                          self.one("sublocation_id"), self.piece("long_addr", 8), self.piece("parent_addr", 8),
                          self.name_of_bytes("sw_version", 4, order), self.position(order), *rest, names=names)

    def heartbeat(self, forwarded: bool = False) -> tuple:
        code, kind = self.random.choice([(0x0104, "heartbeat"), (0x010F, "node_announce")])
        rest = () if forwarded else (self.piece("bridge_mac", 8), self.ip())
        return self.node_state("<", code, kind, self.BOTH, *rest)

    def sensor(self, forwarded: bool = False) -> tuple:
        payload = self.some(60)
        rest = () if forwarded else (self.ip(),)
        return self.typed("<", 0x0116, "sensor", self.seq(), self.counted("<", "total_len", (payload, {"data": payload.hex()})),
                          *rest, names=self.BOTH)

    def generic(self, forwarded: bool = False) -> tuple:
        rest = () if forwarded else (self.ip(),)
        return self.typed("<", 0x010E, "generic_server_req", self.seq(), self.counted("<", "total_len", self.body_up()), *rest,
                          names=self.BOTH)

    def unread(self) -> tuple:
        kind, code = self.random.choice(sorted(UNREAD.items()))
        if kind == "video_resp":  # with the other bit it is a range_req
            return self.typed("<", code, kind, (b"", {"direct_mask": False}), self.piece("data", 5), names=("ack_requested",))
        return self.typed("<", code, kind, self.piece("data", self.random.randrange(20)), names=self.BOTH)

    def range_message(self) -> tuple:
        code, kind = self.random.choice([(0x2107, "range_req"), (0x2207, "range_resp")])
        return self.typed("<", code, kind, self.piece("data", self.random.randrange(20)), names=("ack_requested",))

    def other(self) -> tuple:
        code = self.random.choice(UNKNOWN)
        return self.typed("<", code, "other", self.piece("data", self.random.randrange(20)))

    def envelope(self) -> tuple:
        code, kind = self.random.choice([(0x0100, "nwk_data_ind"), (0x0A00, "trf2srv_via_client")])
        inner = self.random.choice([self.heartbeat, self.sensor, self.generic])(forwarded=True)
        return self.typed("<", code, kind, self.seq(), self.counted("<", "total_len", self.within(inner)), self.piece("mac", 8),
                          self.ip(), names=self.BOTH)

    def timed(self) -> tuple:
        """Nobody looks at the length of this one."""
        wrapped = self.random.choice([self.panid_req, self.heartbeat, self.envelope, self.generic, self.sensor])()
        length = self.number(2)
        return self.typed("<", 0x0200, "wrap_ts", self.seq(), (struct.pack("<H", length), {"total_len": length}),
                          self.big("seconds", 4), self.big("fraction", 2), self.within(wrapped))

    def up(self) -> tuple:
        return self.random.choice([self.ping, self.panid_req, self.announce_root, self.heartbeat, self.sensor, self.generic,
                                   self.generic, self.unread, self.range_message, self.other, self.envelope, self.envelope,
                                   self.timed, self.timed])()

    # ---- bodies of generic requests

    @staticmethod
    def joined(code: int, *pieces) -> tuple:
        data, fields = struct.pack(">H", code), {"sub_command": code}
        for piece, own in pieces:
            data += piece
            fields |= own
        return data, fields

    def entries(self, name: str, make) -> tuple:
        entries = [make() for _ in range(self.random.randrange(1, 6))]
        return b"".join(data for data, _ in entries), {name: [fields for _, fields in entries]}

    def requester(self) -> tuple:
        data = self.raw(8)
        return data, {"mac": data[:6].hex(), "mac_skipped": data[6:7].hex(), "lqi": data[7]}

    def range(self) -> tuple:
        data = self.raw(8)
        distance, quality = struct.unpack(">IH", data[2:])
        return data, {"short_mac": data[:2].hex(), "distance": distance, "quality": quality}

    def rest(self, below: int) -> tuple:
        data = self.raw(self.random.randrange(below))
        return data, {"payload_rest": data.hex()} if data else {}

    def ul_tdoa(self) -> tuple:
        range_mm = self.signed()
        pieces = [self.piece("tag_mac", 6), self.big("pe_seq_no", 2), self.piece("responder_mac", 6), self.piece("reporter_mac", 6),
                  (struct.pack(">i", range_mm), {"range_mm": range_mm}), self.one("tag_lqi"), self.one("resp_anchor_lqi")]
        more = self.random.randrange(4)
        if more == 0:
            pieces.append(self.rest(10))
        if more > 1:
            pieces += [self.one("board_version"), self.one("board_revision"), self.name_of_bytes("flags", 2, ">"),
                       self.name_of_bytes("firmware_id", 4, ">"), self.big("batt_voltage", 2)]
        if more > 2:
            pieces += [self.one("percent_of_charge"), self.rest(4)]
        return self.joined(40, *pieces)

    def image(self) -> tuple:
        git_id, crc = self.name_of_bytes("git_id", 4, ">"), self.name_of_bytes("crc32", 4, ">")
        return git_id[0] + crc[0], git_id[1] | crc[1]

    def unread_body(self) -> tuple:
        """Of a sub-command that nothing is known of; of one whose form the body has not; none."""
        code = self.random.choice([77, 500, 0xF5F7])
        return self.random.choice([lambda: self.joined(code, self.piece("data", self.random.randrange(30))),
                                   lambda: self.joined(16, self.piece("data", 13)),
                                   lambda: self.piece("data", self.random.randrange(2))])()

    def body_up(self) -> tuple:
        return self.random.choice([
            lambda: self.joined(10, self.piece("reporter", 6), self.piece("reporter_skipped", 2),
                                self.entries("requesters", self.requester), self.rest(8)),
            lambda: self.joined(48, self.entries("ranges", self.range), self.rest(8)),
            lambda: self.joined(16, self.image(), self.big("page_size", 2), self.big("page_number", 2)),
            self.ul_tdoa, self.unread_body])()

    def body_down(self) -> tuple:
        page = self.some(100)
        number = self.big("page_number", 2)
        image = self.name_of_bytes("git_ver", 4, ">"), self.name_of_bytes("crc32", 4, ">"), self.big("image_size", 4)
        return self.random.choice([
            lambda: self.joined(1, self.big("parameter_len", 2), self.piece("parameter", 2)),
            lambda: self.joined(14, self.piece("body_head", 1), self.one("description_size"), *image,
                                *self.random.choice([(), (self.piece("source", 2),)])),
            lambda: self.joined(16, self.image(), (struct.pack(">H", len(page)) + number[0] + page,
                                                   {"page_size": len(page), **number[1], "page": page.hex()})),
            lambda: self.joined(17)])()

    # ---- down

    def request(self) -> tuple:
        """The pieces of a command that a node gets."""
        kind, code = self.random.choice(sorted(REQUESTS.items()))
        data = self.some(60)
        inner = self.body_down() if kind == "generic_req" else (data, {"data": data.hex()})
        return code, kind, (self.seq(), self.counted(">", "total_len", inner))

    def configuration(self) -> tuple:
        role = self.role()
        order = "<" if role[0][0] & 0x80 else ">"
        return 0x0804, "conf_node_req", (self.one("reporting_freq"), self.one("ranging_freq"), role, self.one("sublocation_id"),
                                         self.position(order))

    def block(self) -> tuple:
        opaque = self.raw(8) + self.some()
        return 0x0800, "nwk_data_req", (self.seq(), self.counted(">", "p_len", (opaque, {"opaque": opaque.hex()}), less=8))

    def any_command(self) -> tuple:
        return self.random.choice([self.request, self.request, self.configuration])()

    def direct_command(self) -> tuple:
        code, kind, pieces = self.any_command()
        return self.typed("<", code, kind, *pieces, self.ip())

    def wrapped_command(self) -> tuple:
        code, kind, pieces = self.any_command()
        inner = self.within(self.typed("<", code, kind, *pieces))
        return self.typed("<", 0x0800, "nwk_data_req", self.seq(), self.counted(">", "total_len", inner), self.piece("mac", 8),
                          self.ip(), names=("direct_mask",))

    def wrapped_block(self) -> tuple:
        code, kind, pieces = self.block()
        inner = self.within(self.typed("<", code, kind, *pieces))
        return self.typed("<", 0x0800, "nwk_data_req", self.seq(), self.counted(">", "total_len", inner), self.ip(),
                          names=("direct_mask",))

    def direct_block(self) -> tuple:
        code, kind, pieces = self.block()
        return self.typed("<", code, kind, *pieces, self.ip())

    def panid_answer(self) -> tuple:
        return self.typed("<", 0x8102, "vr_panid_resp", self.name_of_bytes("rplPrefix", 2, "<"), self.one("rpl_version"))

    def ack(self) -> tuple:
        return self.typed("<", 0x0810, "rest_ack", self.seq(), self.ip())

    def update(self) -> tuple:
        return self.typed("<", 0x0118, "update_cmd", self.seq())

    def echo_with_time(self) -> tuple:
        length = self.number(2)
        data, fields = self.ping()
        more = self.raw(5)
        ping = data + more, fields | {"data": fields["data"] + more.hex()}
        return self.typed("<", 0x0200, "wrap_ts", self.seq(), (struct.pack("<H", length), {"total_len": length}),
                          self.big("seconds", 4), self.big("fraction", 2), self.within(ping))

    def down(self) -> tuple:
        return self.random.choice([self.ping, self.echo_with_time, self.panid_answer, self.ack, self.update, self.direct_command,
                                   self.direct_command, self.wrapped_command, self.wrapped_command, self.wrapped_block,
                                   self.direct_block])()
