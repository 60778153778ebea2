"""Commands of the proxy: checked, repeats dropped, turned into frames for the bridge that reaches the node."""
import struct

from .messages import be16

OTA_UPLOAD, NWK_DATA, CONF_NODE, FW_AVAIL, GENERIC_REQ, REST_ACK = 18, 2048, 2052, 2061, 2062, 2064
SENSOR_REQ, CONF_SENSOR_REQ, TDOA_SCHED = 2069, 2070, 2071
GENERIC_NAMES = {GENERIC_REQ: "MSG_GENERIC_REQ", SENSOR_REQ: "MSG_SENSOR_REQ", CONF_SENSOR_REQ: "MSG_CONF_SENSOR_REQ",
                 TDOA_SCHED: "MSG_TDOA_SCHED_CONF_REQ"}
REPEAT_WITHIN = 0.05   # seconds
_digits = set(b"0123456789abcdefABCDEF")


def short(mac: bytes) -> str:
    return mac[6:].hex().upper()


class Commands:
    """The part of the gateway that deals with the proxy."""

    def process_command(self, text: bytes):
        """One text as the proxy published it; without zeros."""
        if len(text) // 2 <= 2:
            self.say("handle_pub_sub_proxy: wrong size of input data!", "main")
            return
        wrong = next((byte for byte in text if byte not in _digits), None)
        if wrong is not None:
            printed = wrong if wrong < 128 else wrong | 0xFFFFFF00
            self.say(f"string_to_uint8_arr: Invalid input data: [{printed:02X}]", "main")
            self.say("handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!", "main")
            return
        data = bytes.fromhex(text[:len(text) & ~1].decode())
        if len(data) <= 10:
            self._complain(": invalid input data!")
            return
        data = data[1::-1] + data[2:]
        kind = data[0] | data[1] << 8
        repeat = self._repeat(data)
        if repeat == "yes":
            return
        self.optional = repeat == "perhaps"
        self._dispatch_command(kind, data)
        self.optional = False

    def _complain(self, text: str):
        self.say("process_data_from_pub_sub_proxy" + text, "main")

    def _repeat(self, data: bytes) -> str:
        """Whether the command is dropped as a repeat: "no", or "perhaps", by the daemon's clock."""
        node = self.registry.find(data[-8:])
        if not node:
            return "no"
        command = data[:2] + data[3:-8]
        before, node.last_command_moment = node.last_command_moment, self.moment
        same = node.last_command == command
        node.last_command = command
        if not same:
            return "no"
        if before.mono_hi is not None and self.moment.mono_lo - before.mono_hi > REPEAT_WITHIN + 0.005:
            return "no"
        return "perhaps"

    def _dispatch_command(self, kind: int, data: bytes):
        if kind in GENERIC_NAMES:
            self.say("PROXY: " + GENERIC_NAMES[kind])
            if self.forward_generic(data) and kind == GENERIC_REQ:
                self._intercept_page(data)
        elif kind == NWK_DATA:
            self._network_data(data)
        elif kind == CONF_NODE:
            self._configure_node(data)
        elif kind == REST_ACK:
            self._acknowledge(data)
        elif kind in (FW_AVAIL, OTA_UPLOAD):
            self._firmware_order(kind, data)
        else:
            self.say(f"PROXY: Received unknown type: {kind:04X}")

    def forward_generic(self, data: bytes, asking=None) -> bool:
        """`asking`: the client that has asked for what is sent, and gets it when its node has no route."""
        if len(data) < 5:
            self.say(f"GENERIC: ERROR(GENERIC): msb too short, rcvd: {len(data)}")
            return False
        if len(data) > 800:
            self.say(f"GENERIC: ERROR(GENERIC): msg too long, rcvd: {len(data)}")
            return False
        expected = be16(data, 3) + 13
        if len(data) != expected:
            self.say(f"GENERIC: ERROR(GENERIC): wrong size rcvd: {len(data) & 0xFFFF}, expected {expected}")
            return False
        message, mac = data[:-8], data[-8:]
        self.say(f"GENERIC: INFO(GENERIC): dst {short(mac)}")
        node = self.registry.find(mac)
        if not node:
            self.say(f"GENERIC: ERROR(GENERIC): dst {mac.hex().upper()} not found")
            return False
        if node.forwarded:
            message = self._wrapper(node, len(message)) + message + mac
        self.send_by_route(node.route or asking, message + node.ip)
        return True

    @staticmethod
    def _wrapper(node, length: int) -> bytes:
        return struct.pack(">BBBH", 0, 0x28 if node.direct else 0x08, 0, length)

    def _intercept_page(self, data: bytes):
        total_len = be16(data, 3)
        if total_len >= 15 and data[5:7] == b"\x00\x10" and total_len >= be16(data, 15) + 14:
            size = be16(data, 15)
            self.store.set_page(data[7:15], size, be16(data, 17), data[19:19 + size])

    def _network_data(self, data: bytes):
        if len(data) <= 20:
            self._complain(f" (MSG_NWK_DATA_15_4_REQ): wrong size {len(data)}")
            return
        length = be16(data, 3)
        if len(data) != length + 21:
            self._complain(f" (MSG_NWK_DATA_15_4_REQ): wrong p_len {length}")
            return
        block, mac = data[:-8], data[-8:]
        node = self.registry.find(mac)
        if not node:
            self.say(f"PROXY: MSG_NWK_DATA_15_4_REQ dst {short(mac)} not found")
            return
        self.say(f"PROXY: MSG_NWK_DATA_15_4_REQ dst:{short(mac)}")
        if node.forwarded:
            block = self._wrapper(node, len(block)) + block
        self.send_by_route(node.route, block + node.ip)

    def _configure_node(self, data: bytes):
        if len(data) != 26:
            self._complain(f" (MSG_CONF_NODE_REQ): wrong size {len(data)}")
            return
        mac = data[-8:]
        node = self.registry.find(mac)
        if not node:
            self.say(f"PROXY: MSG_CONF_NODE_REQ dst {short(mac)} not found")
            return
        x, y, z, offset = struct.unpack_from(">iihh", data, 6)
        self.say(f"PROXY: MSG_CONF_NODE_REQ dst:{short(mac)} rf:{data[2]} rngf:{data[3]} role:{data[4]:02X} "
                 f"sl:{data[5]:02x} xyz:{x};{y};{z} zofs:{offset}")
        if data[4] & 0x80:
            data = data[:6] + data[9:5:-1] + data[13:9:-1] + data[17:13:-1] + data[18:]
        message = self._wrapper(node, 18) + data if node.forwarded else data[:18]
        self.send_by_route(node.route, message + node.ip)

    def _acknowledge(self, data: bytes):
        if len(data) != 11:
            self._complain(f" (MSG_REST_ACK): wrong size {len(data)}")
            return
        mac = data[-8:]
        node = self.registry.find(mac)
        if not node:
            self.say(f"PROXY: MSG_REST_ACK node: {short(mac)} not found")
            return
        self.say(f"PROXY: MSG_REST_ACK dst: {short(mac)} seq:{data[2]:02X}")
        self.send_by_route(node.route, data[:3] + node.ip)

    def _firmware_order(self, kind: int, data: bytes):
        """Only those of a wrong size: nothing is downloaded here."""
        name, least = ("MSG_OTA_UPLOAD_FW", 13) if kind == OTA_UPLOAD else ("MSG_FW_IMAGE_AVAIL_IND", 14)
        if len(data) < least:
            self._complain(f" ({name}): msg too short {len(data)}")
            return
        expected = be16(data, 10) + 12
        assert len(data) != expected, "the generator orders no downloads"
        self._complain(f" ({name}): msg wrong size rcvd:{len(data)}  expected:{expected}")
