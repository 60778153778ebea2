"""Frames from bridges: envelopes taken off, the registry kept, answers and reports made."""
import socket
import struct

WRAP_TS, IND, TRF2SRV = 0x0200, 0x0100, 0x0A00
PANID_REQ, ROOT, HEARTBEAT, GENERIC, ANNOUNCE, SENSOR = 0x0101, 0x0103, 0x0104, 0x010E, 0x010F, 0x0116
ROUTE_REQUEST, OTA_PAGE, UL_TDOA, RANGE_REPORT = 10, 16, 40, 48
LIFETIME = 300
PAGE_ONLY_TO_WHO_ASKED = True      # what a node without a route asks for: else it goes to every bridge


def le16(data: bytes, at: int) -> int:
    return data[at] | data[at + 1] << 8


def be16(data: bytes, at: int) -> int:
    return data[at] << 8 | data[at + 1]


def be32(data: bytes, at: int) -> int:
    return int.from_bytes(data[at:at + 4], "big")


def signed32(value: int) -> int:
    return value - (1 << 32) if value >> 31 else value


def colons(mac: bytes) -> str:
    return mac.hex(":")


def mixed_case(mac: bytes) -> str:
    return mac[:5].hex() + mac[5:].hex().upper()


class Frame:
    """One message on its way through the dispatch."""

    __slots__ = ("client", "data", "type", "generated", "ack_requested", "ack_seq", "ack_ip", "forwarded",
                 "change_route")


class Messages:
    """The part of the gateway that deals with frames from bridges."""

    def process_message(self, client, received: bytes):
        if len(received) <= 2:
            return
        f = Frame()
        f.client, f.data, f.generated = client, received, None
        kind = le16(received, 0)
        if kind == WRAP_TS:
            if len(received) < 17:
                return
            self._take_off_timestamp(f)
            kind = le16(f.data, 0)
        if kind == 0:
            self.say(f"SLIP: MSG_PING {f.data[2]:02x} MAC : {colons(client.mac)}")
            self.send(client, received)
            return
        f.ack_requested = bool(kind & 0x1000)
        direct = bool(kind & 0x2000)
        kind &= 0xCFFF
        f.data = struct.pack("<H", kind) + f.data[2:]
        f.ack_seq, f.ack_ip, f.forwarded, f.change_route = f.data[2], None, False, True
        if kind in (IND, TRF2SRV):
            f.change_route = kind != TRF2SRV
            if not self._take_off_envelope(f, direct):
                return
            kind = le16(f.data, 0) & 0xEFFF
            f.data = struct.pack("<H", kind) + f.data[2:]
            f.forwarded = True
        f.type = kind
        handler = self._handlers.get(kind)
        if handler and not handler(self, f):
            return
        if f.ack_requested and f.ack_ip is not None:
            self.send(client, b"\x10\x08" + bytes((f.ack_seq,)) + f.ack_ip)

    def _take_off_timestamp(self, f: Frame):
        seconds, fraction = be32(f.data, 5), be16(f.data, 9)
        milliseconds = fraction * 1000 >> 16
        f.generated = struct.pack(">IH", seconds, milliseconds)
        self.say(f"SLIP: MSG_WRAP_TS timestamp seconds:{signed32(seconds)} timestamp frac:{fraction} "
                 f"({milliseconds} milliseconds)")
        f.data = f.data[11:]

    def _take_off_envelope(self, f: Frame, direct: bool) -> bool:
        data = f.data
        inner = le16(data, 3) if len(data) >= 30 else 0
        if len(data) < 30 or len(data) != inner + 29:
            return False
        node = self.registry.find_or_create(data[5 + inner:13 + inner])
        node.direct = direct
        self._stamp(node, LIFETIME)
        if f.change_route:
            node.route = f.client
            self.registry.set_ip(node, data[13 + inner:])
            node.forwarded = True
        f.data = data[5:]
        return True

    def _stamp(self, node, lifetime=None):
        node.activity = self.moment
        if lifetime is not None:
            node.lifetime, node.lifetime_set = lifetime, self.moment

    def _panid_request(self, f: Frame) -> bool:
        if len(f.data) != 11:
            return False
        mac = f.data[3:11]
        self.say(f"SLIP: MSG_PANID_REQ {f.data[2]:02x} MAC : {colons(mac)}")
        self._learn_client_mac(f.client, mac, "PANID_REQ")
        node = self.registry.find_or_create(mac, f.data[2])
        if node:
            node.route = f.client
            self._stamp(node, LIFETIME)
            self.broadcast_version()
        return True

    def _learn_client_mac(self, client, mac: bytes, source: str):
        if client.mac != mac:
            self.say(f"SLIP: Change connection MAC-address from {source} {mixed_case(client.mac)} -> {mixed_case(mac)}",
                     "develop")
            client.mac = mac

    def _root_announcement(self, f: Frame) -> bool:
        d = f.data
        if len(d) != 14:
            return False
        mac = d[3:11]
        self.say(f"SLIP: MSG_ANNOUNCE_ROOT_IND: {d[2]:02x} PREF: {le16(d, 11):04X} VER: {d[13]} MAC : {colons(mac)}")
        node = self.registry.find_or_create(mac, d[2])
        if node:
            node.route = f.client
            self._stamp(node, LIFETIME)
            self.report(struct.pack(">H", f.type) + d[2:11] + d[11:13][::-1], f.generated)
        return True

    def _heartbeat(self, f: Frame) -> bool:
        d = f.data
        if len(d) != 63:
            return False
        bridge_mac = d[39:47]
        if f.forwarded:
            bridge_mac = f.client.mac
        else:
            self._learn_client_mac(f.client, bridge_mac, "HB" if f.type == HEARTBEAT else "NA")
        if f.ack_requested:
            f.ack_ip = d[47:63]
        mac = d[7:15]
        node = self.registry.find_or_create(mac, d[2])
        if not node:
            return True
        self._heartbeat_to_node(f, node)
        name = "MSG_HEARTBEAT_IND" if f.type == HEARTBEAT else "MSG_NODE_ANNOUNCE_IND"
        sw_version, = struct.unpack_from("<I", d, 23)
        x, y, z, offset = struct.unpack_from("<iihh", d, 27)
        self.say(f"SLIP: {name} {f.type:04X} src:{d[13]:02X}{d[14]:02X} seq:{d[2]:02X} rf:{d[3]} rngf:{d[4]} "
                 f"role:{d[5]:02X} sl:{d[6]:02x} par:{d[21]:02X}{d[22]:02X} sw:{sw_version:08x} "
                 f"xyz:{x};{y};{z} zoff:{offset}")
        self.report(struct.pack(">H", f.type) + d[2:23] + d[23:27][::-1] + d[27:31][::-1] + d[31:35][::-1]
                    + d[35:39][::-1] + bridge_mac, f.generated)
        return True

    def _heartbeat_to_node(self, f: Frame, node):
        d = f.data
        node.sw_version, = struct.unpack_from("<I", d, 23)
        node.type, node.state = d[5] & 0x0F, d[5] & 0xF0
        node.reporting_freq, node.ranging_freq, node.sublocation = d[3], d[4], d[6]
        node.position = d[27:39]
        self._stamp(node, d[3] * 5)
        if f.change_route:
            node.route = f.client
            self.registry.set_ip(node, d[47:63])
            node.forwarded = f.forwarded
        node.parent = d[15:23]

    def _report(self, f: Frame, limit: int, name: str):
        """What generic requests and sensor reports share: the copy for upstream and the node; or False when the
        size is wrong, or None when there is no node."""
        d = f.data
        if len(d) <= 5:
            return False
        total_len = le16(d, 3)
        length = total_len + 5 & 0xFFFF
        if len(d) < length + 16 or length >= limit:
            return False
        if f.ack_requested:
            f.ack_ip = d[length:length + 16]
        if f.forwarded:
            node = self.registry.find_or_create(d[length:length + 8], d[2])
            if not node:
                self.say("SLIP: nodes_container_find_or_create_by_mac returns NULL")
                return None
        else:
            address = d[length:length + 16]
            node = self.registry.find_by_ip(address)
            if not node:
                text = socket.inet_ntop(socket.AF_INET6, address)
                self.say(f"SLIP: range ip: {text} to mac return NULL")
                return None
        self._stamp(node)
        copy = bytearray(struct.pack(">HBH", f.type, d[2], total_len) + d[5:])
        if not f.forwarded:
            copy[length:length + 8] = node.mac
        self.say(f"SLIP: {name}: [{f.type & 0xFF}] in_buf_size:{total_len}  src:{node.mac[6]:02X}{node.mac[7]:02X}")
        return bytes(copy[:length + 8]), node

    def _sensor_report(self, f: Frame) -> bool:
        found = self._report(f, 293, "MSG_SENSOR_IND_NEW")
        if found:
            self.report(found[0], f.generated)
        return found is not False

    def _generic_request(self, f: Frame) -> bool:
        found = self._report(f, 1043, "MSG_GENERIC_SERVER_REQ")
        if not found:
            return found is not False
        copy, node = found
        total_len, command = le16(f.data, 3), be16(f.data, 5)
        if command == ROUTE_REQUEST and total_len >= 18:
            return self._route_request(f, (total_len - 10) // 8)
        if command == OTA_PAGE and total_len == 14 and self._serve_page(f, node):
            return True
        if command == UL_TDOA and total_len >= 28:
            return self._ul_tdoa(f, total_len)
        if command == RANGE_REPORT and total_len >= 10 and not self._range_report(f, node, (total_len - 2) // 8):
            return False
        self.report(copy, f.generated)
        return True

    def _route_request(self, f: Frame, count: int) -> bool:
        d = f.data
        if 15 + 8 * count > len(d):
            return False
        entries = ",".join(f'{{"mac":"{d[at:at + 6].hex()}","lqi":{d[at + 7]:3}}}'
                           for at in range(15, 15 + 8 * count, 8))
        self.line_up(f'"route_request":{{"reporter":{{"mac":"{d[7:13].hex()}"}},"requester":[{entries}]}}')
        return True

    def _range_report(self, f: Frame, node, count: int) -> bool:
        d = f.data
        if 7 + 8 * count > len(d):
            return False
        for at in range(7, 7 + 8 * count, 8):
            self.say(f"RANGE_RPT: {node.mac[6]:02X}{node.mac[7]:02X}, {d[at]:02X}{d[at + 1]:02X}, "
                     f"{be32(d, at + 2):10}, {be16(d, at + 6):5}")
        return True

    def _ul_tdoa(self, f: Frame, total_len: int) -> bool:
        d = f.data
        if len(d) < (44 if total_len > 38 else 43 if total_len > 37 else 33):
            return False
        sequence, range_mm = be16(d, 13), signed32(be32(d, 27))
        tag, responder, reporter = d[7:13].hex(), d[15:21].hex(), d[21:27].hex()
        self.say(f"UL_TDOA_INPUT: TagMac:{tag.upper()} PeSeqNo:{sequence} RespAnchorMac:{responder.upper()} "
                 f"ReporterMac:{reporter.upper()} RangeMm:{range_mm} TagLqi:{d[31]} RespAnchorLqi:{d[32]}")
        text = (f'"ul_tdoa_data":{{"pe_seq_no":{sequence},"range_mm":{range_mm},"tag":{{"mac":"{tag}","lqi":{d[31]}}},'
                f'"responder":{{"mac":"{responder}","lqi":{d[32]}}},"reporter":{{"mac":"{reporter}"}}')
        if total_len > 37:
            flags, firmware, voltage = be16(d, 35), be32(d, 37), be16(d, 41)
            self.say(f"UL_TDOA_INPUT: BoardVersion:{d[33]} BoardRevision:{d[34]} Flags:{flags:X} "
                     f"FirmwareId:{firmware:X} BattVoltage:{voltage}")
            text += (f',"board_version":{d[33]},"board_revision":{d[34]},"flags":"{flags:X}",'
                     f'"firmware_id":"{firmware:X}","batt_voltage":{voltage}')
        if total_len > 38:
            self.say(f"UL_TDOA_INPUT: PercentOfCharge:{d[43]}")
            text += f',"percent_of_charge":{d[43]}'
        self.line_up(text + "}")
        return True

    def _serve_page(self, f: Frame, node) -> bool:
        d = f.data
        size, number = be16(d, 15), be16(d, 17)
        page = self.store.get_page(d[7:15], size, number)
        if page is None:
            return False
        self.forward_generic(b"\x0e\x08" + d[2:3] + struct.pack(">H", size + 14) + d[5:19] + page + node.mac,
                             asking=f.client if PAGE_ONLY_TO_WHO_ASKED else None)
        return True

    _handlers = {PANID_REQ: _panid_request, ROOT: _root_announcement, HEARTBEAT: _heartbeat, ANNOUNCE: _heartbeat,
                 GENERIC: _generic_request, SENSOR: _sensor_report}
