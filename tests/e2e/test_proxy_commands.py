"""Commands from the proxy: every type in every node form, its sizes, texts and refusals."""
import itertools
import struct
import time

import pytest

from harness import wire
from harness.peers import wait_until

NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
BRIDGE = wire.mac(0xB001)
UNKNOWN = wire.mac(0xDEAD)
FORMS = ["direct", "forwarded", "forwarded direct-mask"]


def node_behind(gateway, form="direct"):
    """A bridge with one node behind it that the gateway knows in the form given."""
    bridge = gateway.bridge(BRIDGE)
    if form == "direct":
        bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    else:
        flags = wire.DIRECT if form.endswith("mask") else 0
        bridge.send_message(wire.envelope(wire.forwarded_heartbeat(NODE, 1), NODE, NODE_IP, flags=flags))
    bridge.barrier()
    return bridge


def wrapper(form: str, length: int) -> bytes:
    return bytes([0x00, 0x28 if form.endswith("mask") else 0x08, 0x00]) + struct.pack(">H", length)


def conf_node(mac_addr: bytes, role: int = 0x01, reporting: int = 10, x: int = 100, y: int = -200, z: int = 3,
              zofs: int = -4) -> bytes:
    return struct.pack(">HBBBBiihh", wire.CONF_NODE_REQ, reporting, 5, role, 7, x, y, z, zofs) + mac_addr


def barrier(gateway, bridge):
    """Everything that earlier commands sent to the bridge: the proxy's order is kept, so the line of an
    unknown type shows that the gateway is past them."""
    gateway.proxy.publish(struct.pack(">H", 0x7ABC) + struct.pack(">Q", time.monotonic_ns()) + b"end")
    seen = len([1 for line in gateway.broker.lines if "unknown type: 7ABC" in line])
    gateway.broker.wait_for("PROXY: Received unknown type: 7ABC", count=seen + 1)
    return bridge.barrier()


@pytest.mark.parametrize("form", FORMS)
@pytest.mark.parametrize("code, name", [(wire.GENERIC_REQ, "MSG_GENERIC_REQ"), (wire.SENSOR_REQ, "MSG_SENSOR_REQ"),
                                        (wire.CONF_SENSOR_REQ, "MSG_CONF_SENSOR_REQ"),
                                        (wire.TDOA_SCHED_REQ, "MSG_TDOA_SCHED_CONF_REQ")])
def test_generic_commands(gateway, form, code, name):
    bridge = node_behind(gateway, form)
    gateway.proxy.publish(wire.generic_req(b"abc", NODE, seq=9, code=code))
    message = struct.pack("<HB", code, 9) + b"\x00\x03abc"
    if form == "direct":
        assert bridge.receive() == message + NODE_IP
    else:
        assert bridge.receive() == wrapper(form, 8) + message + NODE + NODE_IP
    gateway.broker.wait_for(f"PROXY: {name}")
    gateway.broker.wait_for("GENERIC: INFO(GENERIC): dst 1A2B")
    gateway.broker.wait_for(f"PROXY_RAW_INPUT: {wire.generic_req(b'abc', NODE, seq=9, code=code).hex().upper()}")


@pytest.mark.parametrize("size, line", [
    (800, None),
    (801, "ERROR(GENERIC): msg too long, rcvd: 801"),
])
def test_the_largest_generic_command(gateway, size, line):
    bridge = node_behind(gateway)
    gateway.proxy.publish(wire.generic_req(bytes(size - 13), NODE))
    if line:
        gateway.broker.wait_for(line)
        assert barrier(gateway, bridge) == []
    else:
        assert len(bridge.receive()) == size - 8 + 16


@pytest.mark.parametrize("command, line", [
    (struct.pack(">HBH", wire.GENERIC_REQ, 0, 0xFFFF) + bytes(7), "wrong size rcvd: 12, expected 65548"),
    (wire.generic_req(bytes(9), NODE, total_len=10), "ERROR(GENERIC): wrong size rcvd: 22, expected 23"),
    (wire.generic_req(b"", UNKNOWN), "ERROR(GENERIC): dst 02AB34CD5600DEAD not found"),
])
def test_generic_commands_that_are_refused(gateway, command, line):
    bridge = node_behind(gateway)
    gateway.proxy.publish(command)
    gateway.broker.wait_for(line)
    assert barrier(gateway, bridge) == []


@pytest.mark.parametrize("form", FORMS)
@pytest.mark.parametrize("role", [0x01, 0x81])
def test_node_configuration(gateway, form, role):
    bridge = node_behind(gateway, form)
    command = conf_node(NODE, role)
    gateway.proxy.publish(command)
    head, positions = struct.pack("<H", wire.CONF_NODE_REQ) + command[2:6], command[6:18]
    if role & 0x80:
        positions = b"".join(positions[i:i + 4][::-1] for i in (0, 4, 8))
    if form == "direct":
        expected = head + positions + NODE_IP
        assert len(expected) == 34
    else:
        expected = wrapper(form, 18) + head + positions + NODE + NODE_IP
        assert len(expected) == 47
    assert bridge.receive() == expected
    gateway.broker.wait_for(
        f"PROXY: MSG_CONF_NODE_REQ dst:1A2B rf:10 rngf:5 role:{role:02X} sl:07 xyz:100;-200;3 zofs:-4")


@pytest.mark.parametrize("form", FORMS)
def test_acknowledgements_are_never_wrapped(gateway, form):
    bridge = node_behind(gateway, form)
    gateway.proxy.publish(struct.pack(">HB", wire.REST_ACK, 0x5A) + NODE)
    assert bridge.receive() == bytes.fromhex("10085a") + NODE_IP
    gateway.broker.wait_for("PROXY: MSG_REST_ACK dst: 1A2B seq:5A")


@pytest.mark.parametrize("form", FORMS)
def test_network_data(gateway, form):
    bridge = node_behind(gateway, form)
    block = struct.pack(">HBH", wire.NWK_DATA_REQ, 1, 6) + bytes(range(14))
    gateway.proxy.publish(block + NODE)
    message = struct.pack("<H", wire.NWK_DATA_REQ) + block[2:]
    expected = message + NODE_IP if form == "direct" else wrapper(form, len(block)) + message + NODE_IP
    assert bridge.receive() == expected
    gateway.broker.wait_for("PROXY: MSG_NWK_DATA_15_4_REQ dst:1A2B")


@pytest.mark.parametrize("command, source, line", [
    (conf_node(NODE)[:-1], "main", "process_conf_node_req"),
    (conf_node(UNKNOWN), "parsing", "PROXY: MSG_CONF_NODE_REQ dst DEAD not found"),
    (struct.pack(">HB", wire.REST_ACK, 1) + UNKNOWN, "parsing", "PROXY: MSG_REST_ACK node: DEAD not found"),
    (struct.pack(">HBH", wire.NWK_DATA_REQ, 1, 0) + bytes(8) + UNKNOWN, "parsing",
     "PROXY: MSG_NWK_DATA_15_4_REQ dst DEAD not found"),
    (struct.pack(">H", 0x0801) + bytes(9), "parsing", "PROXY: Received unknown type: 0801"),
])
def test_refusals_that_name_the_node(gateway, command, source, line):
    bridge = node_behind(gateway)
    gateway.proxy.publish(command)
    if source == "parsing":
        gateway.broker.wait_for(line)
    else:
        gateway.broker.wait_for("(MSG_CONF_NODE_REQ): wrong size 25")
    assert barrier(gateway, bridge) == []


@pytest.mark.parametrize("command, line", [
    (conf_node(NODE) + b"x", "(MSG_CONF_NODE_REQ): wrong size 27"),
    (struct.pack(">HB", wire.REST_ACK, 1) + NODE + b"x", "(MSG_REST_ACK): wrong size 12"),
    (struct.pack(">HBH", wire.NWK_DATA_REQ, 1, 0) + bytes(15), "(MSG_NWK_DATA_15_4_REQ): wrong size 20"),
    (struct.pack(">HBH", wire.NWK_DATA_REQ, 1, 7) + bytes(16), "(MSG_NWK_DATA_15_4_REQ): wrong p_len 7"),
    (struct.pack(">HIIH", wire.OTA_UPLOAD, 1, 2, 0), "(MSG_OTA_UPLOAD_FW): msg too short 12"),
    (struct.pack(">HIIH", wire.OTA_UPLOAD, 1, 2, 5) + b"abcd", "(MSG_OTA_UPLOAD_FW): msg wrong size rcvd:16  expected:17"),
    (struct.pack(">HIIH", wire.FW_IMAGE_AVAIL, 1, 2, 0) + b"a", "(MSG_FW_IMAGE_AVAIL_IND): msg too short 13"),
    (struct.pack(">HIIH", wire.FW_IMAGE_AVAIL, 1, 2, 5) + b"abcd",
     "(MSG_FW_IMAGE_AVAIL_IND): msg wrong size rcvd:16  expected:17"),
])
def test_sizes_are_checked_per_type(gateway, command, line):
    bridge = node_behind(gateway)
    gateway.proxy.publish(command)
    assert gateway.broker.wait_for(line).startswith("&rtls-gateway:main ")
    assert barrier(gateway, bridge) == []


@pytest.mark.parametrize("text, line", [
    ("", "handle_pub_sub_proxy: wrong size of input data!"),
    ("08040", "handle_pub_sub_proxy: wrong size of input data!"),
    ("080412", "process_data_from_pub_sub_proxy: invalid input data!"),
    ("00" * 10, "process_data_from_pub_sub_proxy: invalid input data!"),
    ("0G" * 20, "string_to_uint8_arr: Invalid input data: [47]"),
    ("0810" + "00" * 9 + "\n", "string_to_uint8_arr: Invalid input data: [0A]"),
])
def test_texts_that_are_no_command(gateway, text, line):
    bridge = node_behind(gateway)
    before = len(gateway.broker.texts("main"))
    gateway.proxy.publish(text)
    gateway.broker.wait_for(line)
    assert barrier(gateway, bridge) == []
    errors = gateway.broker.texts("main")[before:]
    expected = [line] + (["handle_pub_sub_proxy: string_to_uint8_arr: wrong input data!"] if "[" in line else [])
    assert errors == expected


def test_an_odd_last_digit_is_ignored(gateway):
    bridge = node_behind(gateway)
    gateway.proxy.publish((struct.pack(">HB", wire.REST_ACK, 1) + NODE).hex() + "A")
    assert bridge.receive() == bytes.fromhex("100801") + NODE_IP


def number_of(command: bytes) -> int:
    """`x` of a conf_node, on both sides of the gateway."""
    return struct.unpack(">i", command[6:10])[0]


@pytest.mark.threads
def test_repeats_within_50_ms_are_dropped_and_only_those(gateway):
    bridge = node_behind(gateway)
    bridge.introduce()
    number = itertools.count(1)

    def dropped():
        """All in one go: they reach the filter within a few milliseconds, unless the machine pauses the daemon."""
        a, b = conf_node(NODE, x=next(number)), conf_node(NODE, x=next(number))
        for command in (a, a, b, a, conf_node(NODE, reporting=99, x=number_of(a))):
            gateway.proxy.publish(command)
        received = [number_of(message) for message in barrier(gateway, bridge)]
        assert set(received) == {number_of(a), number_of(b)}
        assert [x for x, _ in itertools.groupby(received)] == [number_of(a), number_of(b), number_of(a)]
        return len(received) == 3
    wait_until(dropped, "the repeats to be dropped")


def test_hostile_texts_of_every_length(gateway):
    bridge = node_behind(gateway)
    for size in range(11, 60):
        for code in (wire.OTA_UPLOAD, wire.NWK_DATA_REQ, wire.CONF_NODE_REQ, wire.FW_IMAGE_AVAIL, wire.GENERIC_REQ,
                     wire.REST_ACK, wire.SENSOR_REQ):
            gateway.proxy.publish(struct.pack(">H", code) + b"\xff" * (size - 2))
    gateway.proxy.publish("AB" * 2_000_000)
    gateway.proxy.publish(struct.pack(">HB", wire.REST_ACK, 1) + NODE)
    assert bridge.receive() == bytes.fromhex("100801") + NODE_IP
    assert bridge.barrier() == []


@pytest.mark.threads
def test_a_node_without_a_route_is_reached_through_every_bridge(gateway):
    first, second = gateway.bridge(BRIDGE), gateway.bridge(wire.mac(0xB002))
    first.send_message(wire.envelope(wire.forwarded_heartbeat(NODE, 1), NODE, NODE_IP, code=wire.TRF2SRV))
    first.barrier()
    gateway.proxy.publish(wire.generic_req(b"abc", NODE))
    assert first.receive() == second.receive() == bytes.fromhex("0e08000003") + b"abc" + bytes(16)
