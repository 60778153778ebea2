"""The WIN port: connecting, framing, RPL broadcasts, misbehaving peers."""
import random
import socket
import struct

import pytest

from harness import wire
from harness.peers import wait_until


def test_a_bridge_is_greeted_and_named_in_the_debug_stream(gateway):
    bridge = gateway.bridge()
    assert bridge.sync == b"sync\n"
    line = gateway.broker.wait_for("new win client [")
    assert f"IP 127.0.0.1:{bridge.port}" in line
    assert "&rtls-gateway:win       " in line, "section names are padded"

    port = bridge.port
    bridge.close()
    line = gateway.broker.wait_for("Connection closed by peer")
    assert f"IP:127.0.0.1:{port} MAC:00000000000:00000 ID:[00" in line


@pytest.mark.parametrize("given, stream, then", [
    ("empty frame", "F5 F7", []),
    ("an escaped END inside", "F5 00 00 F6 F7 02 F7", ["00 00 F7 02"]),
    ("START inside a frame", "F5 01 02 F5 00 00 03 F7", ["00 00 03"]),
    ("noise before START", "FF 00 F6 F7 F5 00 00 0A F7", ["00 00 0A"]),
    ("ESC first", "F5 F6 00 00 0B F7", ["00 00 0B"]),
])
@pytest.mark.parametrize("cut", [1, 2, 64])
def test_frames_are_found_however_they_are_cut(gateway, given, stream, then, cut):
    bridge = gateway.bridge()
    data = bytes.fromhex(stream)
    for at in range(0, len(data), cut):
        bridge.send(data[at:at + cut])
    assert bridge.barrier() == [bytes.fromhex(m) for m in then], "pings that come back show what was found"


def test_a_prefix_request_is_answered_to_every_bridge_at_most_once_a_second(gateway):
    first, second = gateway.bridge(wire.mac(0xB001)), gateway.bridge(wire.mac(0xB002))
    for seq in (1, 2, 3):
        first.send_message(wire.panid_req(first.mac, seq))
    answers = [first.receive(), first.receive()]
    assert [a.hex() for a in answers] == ["0281" + "0100" + "f0", "0281" + "0100" + "f1"]
    assert [second.receive().hex(), second.receive().hex()] == ["02810100f0", "02810100f1"]
    assert first.barrier() == [] and second.barrier() == []


def test_a_repeated_prefix_request_is_no_reason_to_broadcast(gateway):
    bridge = gateway.bridge(wire.mac(0xB003))
    bridge.send_message(wire.heartbeat(bridge.mac, 4, bridge=bridge.mac, addr=wire.ip(3)),
                        wire.heartbeat(bridge.mac, 5, bridge=bridge.mac, addr=wire.ip(3)),
                        wire.panid_req(bridge.mac, 5))
    assert bridge.barrier() == []
    bridge.send_message(wire.panid_req(bridge.mac, 6))
    assert bridge.receive().hex() == "02810100f0"


def test_a_frame_beyond_the_limit_is_dropped_and_the_connection_kept(gateway):
    bridge, other = gateway.bridge(), gateway.bridge()
    bridge.send(bytes([wire.START]) + bytes(1024 * 1024 + 1) + bytes([wire.END]))
    assert bridge.barrier() == []
    gateway.broker.wait_for("win_client_increase_buffer_size: out of memory!")
    assert other.barrier() == []


def test_a_large_ping_comes_back_whole(gateway):
    bridge = gateway.bridge()
    message = wire.ping(7, bytes(i % 256 for i in range(300_000)))
    bridge.send_message(message)
    assert bridge.receive() == message


@pytest.mark.threads
def test_bridges_that_connect_and_vanish_disturb_nobody(gateway):
    witness = gateway.bridge()
    for _ in range(200):
        with socket.create_connection(("127.0.0.1", gateway.ports["win"])) as sock:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            sock.sendall(b"\xf5\x04\x01")
    assert witness.barrier() == []
    terminal = gateway.terminal()
    wait_until(lambda: terminal.command("pcl", "##\n").count(" ip:127.0.0.1:") <= 3, "vanished bridges to be forgotten")


def test_a_thousand_silent_bridges_are_all_greeted(gateway):
    socks = []
    for _ in range(1000):
        sock = socket.socket()
        sock.setblocking(False)
        sock.connect_ex(("127.0.0.1", gateway.ports["win"]))
        socks.append(sock)
    for sock in socks:
        sock.settimeout(5)  # less than until silent bridges make room for others
        assert sock.recv(5, socket.MSG_WAITALL) == b"sync\n"
    for sock in socks:  # not before: together they are more than the files that the daemon may open at first
        sock.close()


def test_garbage_of_every_kind_is_survived(gateway):
    rng = random.Random(20240501)
    witness = gateway.bridge()
    bridge = gateway.bridge()
    for _ in range(300):
        size = rng.choice([0, 1, 2, 3, 5, 10, 29, 30, 63, 64, 300, 1100])
        message = bytearray(rng.randbytes(size))
        if size >= 5 and rng.random() < 0.8:
            code = rng.choice([wire.PANID_REQ, wire.ANNOUNCE_ROOT, wire.HEARTBEAT, wire.GENERIC_SERVER_REQ,
                               wire.NODE_ANNOUNCE, wire.SENSOR_NEW, wire.WRAP_TS, wire.NWK_DATA_IND, wire.TRF2SRV])
            message[0:2] = struct.pack("<H", code | rng.choice([0, wire.ACK, wire.DIRECT]))
            message[3:5] = struct.pack("<H", rng.choice([0, 1, 10, 14, 18, 28, size, max(size - 21, 0), max(size - 29, 0),
                                                         65531, 65532, 65533, 65534, 65535]))
        bridge.send_message(bytes(message))
    bridge.barrier()
    assert all(m[:2] == b"\x02\x81" for m in witness.barrier()), "only broadcasts reach the others"
