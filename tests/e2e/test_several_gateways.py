"""Two gateways side by side with one set of servers: who is served when one dies, how soon, and what comes twice."""
import concurrent.futures
import select
import socket
import struct
import time

import pytest

from harness import wire
from harness.peers import DEADLINE, Bridge

BRIDGES = 20
NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
SHARED = ("proxy", "proxy_input", "handler", "broker")


@pytest.fixture
def pair(start_gateway):
    first = start_gateway()
    second = start_gateway(upstream=(), ports={name: first.ports[name] for name in SHARED})
    first.proxy.wait_subscribed()
    yield first, second
    second.stop()  # while the servers are there, which are the first one's: it has nothing to wait for


def discover(gateways, choice: bytes) -> int:
    """The WIN port of the gateway that answers first; asked until one does, as devices do."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        end = time.monotonic() + DEADLINE
        while time.monotonic() < end:
            for gateway in gateways:
                sock.sendto(b"\x01" + choice, ("127.0.0.1", gateway.ports["discovery"]))
            if select.select([sock], [], [], 0.1)[0]:
                answer = sock.recv(100)
                assert answer[:13] == b"\x01" + choice + socket.inet_aton("127.0.0.1")
                return struct.unpack(">H", answer[13:])[0]
    raise AssertionError("no gateway answers")


class Roamer:
    """A bridge with a node behind it, which looks for another gateway when its own is gone."""

    def __init__(self, number: int):
        self.mac = wire.mac(0xB000 + number)
        self.node, self.address = wire.mac(0x100 + number), wire.ip(0x100 + number)
        self.sequence = 0
        self.connection = None

    def join(self, gateways):
        self.connection = Bridge(discover(gateways, self.mac), self.mac)
        self.sequence += 1
        self.connection.introduce(self.sequence)
        self.report()

    def report(self):
        self.sequence += 1
        self.connection.send_message(wire.heartbeat(self.node, self.sequence, bridge=self.mac, addr=self.address))

    def join_again(self, gateways):
        self.connection.wait_closed()
        self.connection.close()
        self.join(gateways)


def wait_for_nodes(handler, roamers, after: dict):
    """Until a report of each one's node has come that is newer than `after` says. (Sequence numbers here stay small.)"""
    missing = {roamer.node for roamer in roamers}
    while missing:
        message = handler.receive()[1]
        if message[:2] == struct.pack(">H", wire.HEARTBEAT) and message[2] > after.get(message[7:15], 0):
            missing.discard(message[7:15])


def reach_all(proxy, roamers, mark: bytes):
    """A command to each node arrives through the bridge that it is behind."""
    for roamer in roamers:
        proxy.publish(wire.generic_req(mark, roamer.node, code=wire.SENSOR_REQ))
    for roamer in roamers:
        message = struct.pack("<HB", wire.SENSOR_REQ, 0) + struct.pack(">H", len(mark)) + mark + roamer.address
        while roamer.connection.receive() != message:
            pass


def test_all_bridges_are_served_again_when_a_gateway_dies(pair):
    first, second = pair
    roamers = [Roamer(number) for number in range(BRIDGES)]
    for number, roamer in enumerate(roamers):
        roamer.join([first if number % 2 == 0 else second])
    wait_for_nodes(first.handler, roamers, {})
    reach_all(first.proxy, roamers, b"before")

    before = {roamer.node: roamer.sequence for roamer in roamers}
    homeless, others = roamers[::2], roamers[1::2]
    first.expected_status = -9
    with concurrent.futures.ThreadPoolExecutor(len(homeless)) as each:
        began = time.monotonic()
        first.process.kill()
        for done in [each.submit(roamer.join_again, pair) for roamer in homeless]:
            done.result()
        wait_for_nodes(first.handler, homeless, before)
        took = time.monotonic() - began
    reach_all(first.proxy, roamers, b"after")
    assert not any(roamer.connection.closed for roamer in others), "who was at the other one notices nothing"
    assert took < 5
    print(f"{len(homeless)} bridges were served again after {took * 1000:.0f} ms")  # the figure of docs/several-gateways.md
    for roamer in roamers:
        roamer.connection.close()


def bridges_of(pair) -> list:
    bridges = [gateway.bridge(wire.mac(0xB001 + number)) for number, gateway in enumerate(pair)]
    for bridge in bridges:
        bridge.introduce()
        bridge.barrier()
    return bridges


def take(handler, number: int, kind: int, node: bytes = b"") -> list:
    """The next reports of a kind; of heartbeats those of that node."""
    found = []
    while len(found) < number:
        message = handler.receive()[1]
        if struct.unpack_from(">H", message)[0] == kind and node in (b"", message[7:15]):
            found.append(message)
    return found


def test_what_both_hear_comes_twice(pair):
    first, second = pair
    bridges = bridges_of(pair)
    for bridge in bridges:
        bridge.send_message(wire.heartbeat(NODE, 5, bridge=bridge.mac, addr=NODE_IP))
    reports = take(first.handler, 2, wire.HEARTBEAT, NODE)
    assert sorted(message[39:47] for message in reports) == [bridge.mac for bridge in bridges], "they tell by whom"
    assert reports[0][:39] == reports[1][:39]

    for bridge in bridges:
        bridge.send_message(wire.sensor(6, b"\x01\x02", NODE_IP))
    one, other = take(first.handler, 2, wire.SENSOR_NEW)
    assert one == other, "which do not tell"

    first.proxy.publish(struct.pack(">HB", wire.REST_ACK, 9) + NODE)
    for bridge in bridges:
        assert bridge.receive() == struct.pack("<HB", wire.REST_ACK, 9) + NODE_IP
    assert "01a2b" in first.terminal().command("pn", "##\n") and "01a2b" in second.terminal().command("pn", "##\n")


def test_a_command_takes_the_way_of_who_knows_the_node(pair):
    first, _ = pair
    here, there = bridges_of(pair)
    mark = Roamer(2)
    assert mark.mac == there.mac
    mark.connection = there
    mark.report()
    there.barrier()
    here.send_message(wire.heartbeat(NODE, 5, bridge=here.mac, addr=NODE_IP))
    here.barrier()
    command = struct.pack(">HB", wire.REST_ACK, 9) + NODE
    first.proxy.publish(command)
    assert here.receive() == struct.pack("<HB", wire.REST_ACK, 9) + NODE_IP
    reach_all(first.proxy, [mark], b"later")  # the other gateway is through with the command, too, which it refused
    assert there.barrier() == []

    here.close()  # its node moves to the other one; the first gateway still lists it
    there.send_message(wire.heartbeat(NODE, 6, bridge=there.mac, addr=NODE_IP))
    there.barrier()
    first.proxy.publish(wire.generic_req(b"other", NODE, code=wire.SENSOR_REQ))  # the same would be dropped for 50 ms
    assert there.receive() == struct.pack("<HB", wire.SENSOR_REQ, 0) + b"\0\x05other" + NODE_IP
    assert there.barrier() == [], "once"
