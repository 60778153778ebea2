"""Reports from bridges: what reaches the message handler and the proxy input, and what is answered."""
import itertools
import re
import struct
import time

import pytest

from harness import wire
from harness.peers import wait_until

NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
BRIDGE = wire.mac(0xB001)


def handler_message(gateway) -> bytes:
    """The next report at the message handler, its time frame checked for form."""
    parts = gateway.handler.receive()
    assert len(parts) == 2 and len(parts[0]) == 6
    return parts[1]


def upstream_heartbeat(message: bytes) -> bytes:
    """What the message handler gets for a heartbeat: header and numbers big-endian, no address."""
    kind, seq = struct.unpack_from("<HB", message)
    sw, x, y, z = struct.unpack_from("<Iiii", message, 23)
    return struct.pack(">HB", kind & 0xCFFF, seq) + message[3:23] + struct.pack(">Iiii", sw, x, y, z) + message[39:47]


@pytest.fixture
def bridge(gateway):
    return gateway.bridge(BRIDGE)


@pytest.mark.parametrize("code, name", [(wire.HEARTBEAT, "MSG_HEARTBEAT_IND"), (wire.NODE_ANNOUNCE, "MSG_NODE_ANNOUNCE_IND")])
def test_a_heartbeat_goes_to_the_handler_and_into_the_registry(gateway, bridge, code, name):
    message = wire.heartbeat(NODE, 9, bridge=BRIDGE, addr=NODE_IP, code=code, role=0x21, parent=wire.mac(0x0C0D))
    before = time.time()
    bridge.send_message(message)
    stamp, report = gateway.handler.receive()
    assert report == upstream_heartbeat(message) and len(report) == 47
    seconds, milliseconds = struct.unpack(">IH", stamp)
    assert before - 1 <= seconds + milliseconds / 1000 <= time.time() + 1 and milliseconds < 1000

    gateway.broker.wait_for(
        f"SLIP: {name} {code:04X} src:1A2B seq:09 rf:60 rngf:5 role:21 sl:03 par:0C0D sw:01020304 xyz:1000;-2000;300 zoff:-4")
    letter = "HB" if code == wire.HEARTBEAT else "NA"
    gateway.broker.wait_for(f"Change connection MAC-address from {letter} 0000000000000000 -> 02ab34cd5600B001")
    listing = gateway.terminal().command("pn", "##\n")
    assert "\n01a2b fix 20 par:00c0d sw:01020304 rgf:  5 ttl:" in listing


@pytest.mark.parametrize("size", [62, 64])
def test_a_heartbeat_of_another_size_is_dropped(gateway, bridge, size):
    message = wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP, flags=wire.ACK)
    bridge.send_message((message + b"\0")[:size])
    assert bridge.barrier() == [], "no ack after a failed size check"
    assert gateway.reports(bridge) == []


@pytest.mark.threads
def test_an_acknowledgement_goes_back_even_for_a_duplicate(gateway, bridge):
    for seq in (0, 0, 5, 5, 5):
        bridge.send_message(wire.heartbeat(NODE, seq, bridge=BRIDGE, addr=NODE_IP, flags=wire.ACK))
    acks = bridge.barrier()
    assert [a.hex() for a in acks] == [(struct.pack("<HB", wire.REST_ACK, seq) + NODE_IP).hex() for seq in (0, 0, 5, 5, 5)]
    reports = [gateway.handler.receive()[1][2] for _ in range(2)]
    assert reports == [0, 5], "the second message of a new node is the first that is compared"
    assert gateway.reports(bridge) == []


def test_a_root_announcement_is_forwarded_without_its_version(gateway, bridge):
    bridge.send_message(wire.root_announce(BRIDGE, 3, prefix=0x1234, version=0xF1))
    assert handler_message(gateway) == bytes.fromhex("010303") + BRIDGE + bytes.fromhex("1234")
    gateway.broker.wait_for("SLIP: MSG_ANNOUNCE_ROOT_IND: 03 PREF: 1234 VER: 241 MAC : 02:ab:34:cd:56:00:b0:01")


def test_a_forwarded_heartbeat_carries_its_bridge(gateway, bridge):
    bridge.introduce()
    handler_message(gateway)
    inner = wire.forwarded_heartbeat(NODE, 1)
    message = wire.envelope(inner, NODE, NODE_IP)
    assert len(message) == 68
    bridge.send_message(message)
    assert handler_message(gateway) == upstream_heartbeat(inner + BRIDGE + bytes(16))


def test_the_first_forwarded_message_with_sequence_number_zero_is_a_duplicate(gateway, bridge):
    bridge.send_message(wire.envelope(wire.forwarded_heartbeat(NODE, 0), NODE, NODE_IP))
    bridge.barrier()
    assert gateway.reports(bridge) == []
    bridge.send_message(wire.envelope(wire.forwarded_heartbeat(NODE, 1), NODE, NODE_IP))
    assert handler_message(gateway)[2] == 1


@pytest.mark.parametrize("size, forwarded", [(287, True), (288, False), (0, True)])
def test_sensor_reports_up_to_their_limit(gateway, bridge, size, forwarded):
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    handler_message(gateway)
    payload = bytes(i % 251 for i in range(size))
    bridge.send_message(wire.sensor(8, payload, NODE_IP))
    bridge.barrier()
    if forwarded:
        assert handler_message(gateway) == struct.pack(">HBH", wire.SENSOR_NEW, 8, size) + payload + NODE
        gateway.broker.wait_for(f"SLIP: MSG_SENSOR_IND_NEW: [22] in_buf_size:{size}  src:1A2B")
    assert gateway.reports(bridge) == []


@pytest.mark.parametrize("size, forwarded", [(1037, True), (1038, False)])
def test_generic_requests_up_to_their_limit(gateway, bridge, size, forwarded):
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    handler_message(gateway)
    body = bytes(size - 2)
    bridge.send_message(wire.generic_server_req(8, 0x7777, body, NODE_IP))
    bridge.barrier()
    if forwarded:
        assert handler_message(gateway) == struct.pack(">HBHH", wire.GENERIC_SERVER_REQ, 8, size, 0x7777) + body + NODE
    assert gateway.reports(bridge) == []


def test_a_report_from_an_unknown_address_is_named_and_acknowledged(gateway, bridge):
    bridge.send_message(wire.sensor(8, b"x", NODE_IP, flags=wire.ACK))
    assert bridge.barrier() == [struct.pack("<HB", wire.REST_ACK, 8) + NODE_IP]
    gateway.broker.wait_for("SLIP: range ip: fd00::11:2233:4400:1a2b to mac return NULL")
    assert gateway.reports(bridge) == []


def test_the_ack_of_a_forwarded_report_takes_the_trailer_as_it_stands(gateway, bridge):
    inner = wire.sensor(7, b"abc", b"")
    bridge.send_message(wire.envelope(inner, NODE, NODE_IP, seq=9, flags=wire.ACK))
    assert bridge.barrier() == [struct.pack("<HB", wire.REST_ACK, 9) + NODE + NODE_IP[:8]]
    assert handler_message(gateway) == struct.pack(">HBH", wire.SENSOR_NEW, 7, 3) + b"abc" + NODE


@pytest.mark.parametrize("fraction, milliseconds", [(0x8000, 500), (0xFFFF, 999), (0, 0)])
def test_a_timestamp_envelope_gives_the_time_of_generation(gateway, bridge, fraction, milliseconds):
    bridge.send_message(wire.wrap_ts(wire.root_announce(BRIDGE, 1), 1_700_000_000, fraction))
    stamp, _ = gateway.handler.receive()
    assert stamp == struct.pack(">IH", 1_700_000_000, milliseconds)
    gateway.broker.wait_for(f"MSG_WRAP_TS timestamp seconds:1700000000 timestamp frac:{fraction} ({milliseconds} milliseconds)")


def test_pings_come_back_as_they_were(gateway, bridge):
    ping = wire.ping(0x21, b"\xf5\xf6\xf7 any")
    wrapped = wire.wrap_ts(wire.ping(0x22, b"abc"), 1, 0)
    bridge.send_message(ping, wrapped)
    assert bridge.receive() == ping
    assert bridge.receive() == wrapped
    gateway.broker.wait_for("SLIP: MSG_PING 21 MAC : 00:00:00:00:00:00:00:00")
    bridge.send_message(struct.pack("<HB", 0x1000, 1))
    assert bridge.barrier() == [], "a ping with a flag is no ping"


def management(gateway) -> str:
    (line,) = gateway.proxy_input.receive()
    text = line.decode()
    match = re.fullmatch(r'@win_management \{"ts":([ \d]{10}),"ms":([ \d]{3}),(.*)\}', text)
    assert match, text
    assert abs(int(match[1]) - time.time()) < 60
    return match[3]


def know_node(gateway, bridge):
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    handler_message(gateway)


@pytest.mark.threads
def test_route_requests_become_management_lines(gateway, bridge):
    know_node(gateway, bridge)
    requesters = [(0x11, 7), (0x22, 255), (0x33, 42)]
    body = wire.mac(0xAB)[:6] + b"\0\0" + b"".join(
        bytes([0xAA, 0xBB, 0xCC, 0xDD, 0xEE, n, 0x99, lqi]) for n, lqi in requesters)
    bridge.send_message(wire.generic_server_req(1, 10, body, NODE_IP))
    entries = ",".join('{"mac":"aabbccddee%02x","lqi":%3u}' % r for r in requesters)
    assert management(gateway) == '"route_request":{"reporter":{"mac":"02ab34cd5600"},"requester":[%s]}' % entries
    assert gateway.reports(bridge) == [], "a route request is not for the message handler"
    bridge.send_message(wire.generic_server_req(1, 10, body[:15], NODE_IP))
    assert handler_message(gateway)[5:7] == b"\0\x0a", "too short a one is any generic request"


@pytest.mark.parametrize("size", [28, 37, 38, 39])
def test_ul_tdoa_data_become_management_lines(gateway, bridge, size):
    know_node(gateway, bridge)
    body = (bytes.fromhex("a1a2a3a4a5a6") + struct.pack(">H", 513) + bytes.fromhex("b1b2b3b4b5b6") +
            bytes.fromhex("c1c2c3c4c5c6") + struct.pack(">iBB", -1500, 200, 100) +
            struct.pack(">BBHIHB", 3, 4, 0xBEEF, 0xCAFE01, 3700, 88))
    bridge.send_message(wire.generic_server_req(1, 40, (body + bytes(4))[:size - 2], NODE_IP))
    text = ('"ul_tdoa_data":{"pe_seq_no":513,"range_mm":-1500,"tag":{"mac":"a1a2a3a4a5a6","lqi":200},'
            '"responder":{"mac":"b1b2b3b4b5b6","lqi":100},"reporter":{"mac":"c1c2c3c4c5c6"}')
    if size > 37:
        text += ',"board_version":3,"board_revision":4,"flags":"BEEF","firmware_id":"CAFE01","batt_voltage":3700'
    if size > 38:
        text += ',"percent_of_charge":88'
    assert management(gateway) == text + "}"
    assert gateway.reports(bridge) == []


def test_range_reports_are_printed_and_forwarded(gateway, bridge):
    know_node(gateway, bridge)
    body = bytes.fromhex("0102" "00000100" "0020" "0304" "FFFFFFFF" "FFFF")
    bridge.send_message(wire.generic_server_req(5, 48, body, NODE_IP))
    assert handler_message(gateway) == struct.pack(">HBHH", wire.GENERIC_SERVER_REQ, 5, 18, 48) + body + NODE
    gateway.broker.wait_for("RANGE_RPT: 1A2B, 0102,        256,    32")
    gateway.broker.wait_for("RANGE_RPT: 1A2B, 0304, 4294967295, 65535")


def test_wrapped_lengths_read_nothing_beyond_the_frame(gateway, bridge):
    know_node(gateway, bridge)
    for total_len in range(65531, 65536):
        for code in (wire.GENERIC_SERVER_REQ, wire.SENSOR_NEW):
            for sub in (10, 16, 40, 48):
                frame = wire.payload_message(code, 1, struct.pack(">H", sub) + bytes(33), total_len=total_len)
                bridge.send_message(frame)
    assert bridge.barrier() == [], "nothing is answered, and the bridge is served on"


@pytest.mark.threads
def test_a_dead_handler_overflows_once_and_recovers(start_gateway):
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"))
    bridge = gateway.bridge(BRIDGE)
    for i in range(1010):
        bridge.send_message(wire.root_announce(BRIDGE, (i + 1) % 256 or 1))
    bridge.introduce()      # so that it stays, however long the link takes; lost with the last ten
    bridge.barrier()
    wait_until(lambda: gateway.syslog().count("3 rtls-gateway: Overflow message handler queue!") == 1, "the overflow")
    gateway.start_handler()
    assert gateway.handler.receive()[1][:2] == b"\x01\x03"
    sequence = itertools.count(1)

    def exempted():
        bridge.send_message(wire.root_announce(BRIDGE, next(sequence) % 256))
        bridge.barrier()
        return "3 rtls-gateway: Exemption message handler queue!" in gateway.syslog()

    wait_until(exempted, "the exemption")
    assert gateway.syslog().count("3 rtls-gateway: Overflow message handler queue!") == 1
    assert gateway.syslog().count("3 rtls-gateway: Exemption message handler queue!") == 1


def test_a_dead_proxy_input_never_stalls_the_bridges(start_gateway):
    gateway = start_gateway(upstream=("broker", "handler", "proxy"))
    bridge = gateway.bridge(BRIDGE)
    know_node(gateway, bridge)
    for seq in range(1100):
        bridge.send_message(wire.generic_server_req(seq % 256, 40, bytes(26), NODE_IP))
    assert bridge.barrier() == []
    wait_until(lambda: gateway.syslog().count("3 rtls-gateway: Overflow proxy input queue!") == 1, "the overflow")
