"""The tap: what it publishes is what passed, byte for byte; what nobody takes it does not publish, and nobody is
disturbed by those who do not read."""
import os
import re
import struct
import subprocess
import sys
import time

import pytest
import zmq

from harness import wire
from harness.daemon import ROOT, Daemon, free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import wait_until
from harness.tap import DOWN, UP, Subscriber

NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
BRIDGE = wire.mac(0xB001)
CLASSES = ["report", "management", "command", "link_in", "link_out", "event"]


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    """One gateway for all of these. Its tap is a local socket: the system holds little in front of a slow reader."""
    folder = tmp_path_factory.mktemp("tap")
    http = free_port()
    endpoint = f"ipc://{folder}/tap"
    daemon = Daemon(folder, change=lambda tree: {**with_http(http)(tree), "tap": {"address": endpoint}})
    daemon.tap, daemon.http = endpoint, http
    yield daemon
    daemon.close()


@pytest.fixture
def gateway(daemon):
    """The same, with nothing left over from the case before."""
    for inbox in (daemon.handler, daemon.proxy_input):
        inbox.drain()
    wait_until(lambda: Figures(daemon.http)["tap_topics", {}] == 0, "the last subscriber's end")
    return daemon


@pytest.fixture
def subscribe(gateway):
    made = []

    def subscribe(*topics: bytes, **more) -> Subscriber:
        made.append(Subscriber(gateway.context, gateway.tap, gateway.http, *topics, **more))
        return made[-1]

    yield subscribe
    for subscriber in made:
        subscriber.close()


@pytest.fixture
def bridge(gateway):
    bridge = gateway.bridge(BRIDGE)
    gateway.reports(bridge)  # those of the case before have come, too
    yield bridge
    bridge.close()


@pytest.fixture
def sequence(daemon):
    """Sequence numbers that differ from one message to the next, for all cases together."""
    def following() -> int:
        daemon.sequence = getattr(daemon, "sequence", 0) % 250 + 1
        return daemon.sequence
    return following


def published(gateway) -> dict:
    figures = Figures(gateway.http)
    return {name: figures["tap_messages_total", {"class": name}] for name in CLASSES}


def management_request(seq: int) -> bytes:
    """A route request with one requester: it becomes a management line."""
    return wire.generic_server_req(seq, 10, NODE[:6] + bytes(2) + bytes(range(1, 9)), NODE_IP)


def test_reports_come_as_the_message_handler_gets_them(gateway, bridge, subscribe, sequence):
    tap = subscribe(b"report/")
    before = time.time_ns()
    payload = bytes([wire.START, wire.ESC, wire.END, 0, 1, 2])
    bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP),
                        wire.sensor(sequence(), payload, NODE_IP),
                        wire.root_announce(BRIDGE, sequence()),
                        wire.wrap_ts(wire.generic_server_req(sequence(), 0x7777, payload * 170, NODE_IP), 1_700_000_000, 0x8000))
    reports = tap.take(4)
    assert [m.payload for m in reports] == [gateway.handler.receive() for _ in range(4)]
    assert reports[3].payload[0] == struct.pack(">IH", 1_700_000_000, 500)
    assert [m.topic for m in reports] == [b"report/02AB34CD56001A2B", b"report/02AB34CD56001A2B", b"report/02AB34CD5600B001",
                                          b"report/02AB34CD56001A2B"]
    assert {(m.direction, m.connection) for m in reports} == {(UP, reports[0].connection)} and reports[0].connection
    assert [m.number - reports[0].number for m in reports] == [0, 1, 2, 3]
    assert all(before <= m.clock <= time.time_ns() for m in reports)
    assert tap.is_silent()


def test_reports_of_one_node(gateway, bridge, subscribe, sequence):
    tap = subscribe(b"report/" + NODE.hex().upper().encode())
    bridge.send_message(wire.root_announce(BRIDGE, sequence()),
                        wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP))
    message = tap.receive()
    gateway.handler.receive()
    assert message.payload == gateway.handler.receive()
    assert tap.is_silent()


def test_management_lines_come_as_the_proxys_input_gets_them(gateway, bridge, subscribe, sequence):
    tap = subscribe(b"management")
    bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP), management_request(sequence()))
    message = tap.receive()
    assert message.payload == gateway.proxy_input.receive()
    assert message.payload[0].startswith(b"@win_management {")
    assert (message.topic, message.direction) == (b"management", UP) and message.connection


def test_commands_come_as_the_proxy_publishes_them(gateway, subscribe):
    tap = subscribe(b"command")
    commands = ["no hex at all", "", "0817AB\0 and what is behind a zero", wire.generic_req(b"abc", NODE).hex().upper()]
    before = time.time_ns()
    for command in commands:
        gateway.proxy.publish(command)
    messages = tap.take(len(commands))
    assert [m.payload for m in messages] == [[command.encode()] for command in commands]
    assert {(m.topic, m.direction, m.connection) for m in messages} == {(b"command", DOWN, 0)}
    assert all(before - 1000 <= m.clock <= time.time_ns() for m in messages)
    assert [m.number - messages[0].number for m in messages] == [0, 1, 2, 3]


def test_the_links_bytes_come_as_they_are_on_the_wire(gateway, subscribe, sequence):
    tap = subscribe(b"link/")
    bridge = gateway.bridge(BRIDGE)
    sent = bytes([1, 2, 3])  # noise
    bridge.send(sent)
    for message in [wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP, flags=wire.ACK), wire.ping(sequence(), b"\xf5\xf6\xf7")]:
        bridge.send(wire.frame(message))
        sent += wire.frame(message)
        bridge.receive()
    bridge.close()
    messages = []
    while sum(len(m.payload[0]) for m in messages if m.direction == UP) < len(sent) or messages[-1].direction == UP:
        messages.append(tap.receive())
    ways = {way: [m for m in messages if m.direction == way] for way in (UP, DOWN)}
    assert b"".join(m.payload[0] for m in ways[UP]) == sent
    down = b"".join(m.payload[0] for m in ways[DOWN])
    deframer = wire.Deframer()
    assert len(deframer.feed(down)) == 2 and bytes(deframer.noise) == b"sync\n"
    number = messages[0].connection
    assert {m.connection for m in messages} == {number}
    assert messages[0].topic == b"link/out/id-%08X" % number, "the greeting, before it has a name"
    assert ways[UP][0].topic == b"link/in/id-%08X" % number
    assert ways[UP][-1].topic == b"link/in/02AB34CD5600B001"
    assert ways[DOWN][-1].topic == b"link/out/02AB34CD5600B001"
    for way in ways.values():
        assert [m.number - way[0].number for m in way] == list(range(len(way)))


def test_what_nobody_takes_is_not_published(gateway, bridge, subscribe, sequence):
    before = published(gateway)
    bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP), management_request(sequence()))
    bridge.barrier()
    refused = Figures(gateway.http).sum("commands_total", outcome="malformed")
    gateway.proxy.publish("00")
    wait_until(lambda: Figures(gateway.http).sum("commands_total", outcome="malformed") > refused, "the command")
    assert published(gateway) == before
    tap = subscribe(b"reports", b"x", b"management of others", b"link/into")
    bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP), management_request(sequence()))
    bridge.barrier()
    assert published(gateway) == before and tap.is_silent(0)
    for _ in range(2):
        gateway.proxy_input.receive()


def test_numbers_go_on_where_the_last_subscriber_left(gateway, bridge, subscribe, sequence):
    numbers = []
    for _ in range(2):
        tap = subscribe(b"report/")
        bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP))
        numbers.append(tap.receive().number)
        tap.close()
        wait_until(lambda tap=tap: tap.topics() == 0, "the end of the subscription")
        bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP))
        bridge.barrier()
    assert numbers[1] == numbers[0] + 1


def test_who_does_not_read_loses_his_own_and_nobody_elses(gateway, bridge, subscribe, sequence):
    good = subscribe(b"report/")
    slow = subscribe(b"report/" + NODE.hex().upper().encode(), options={zmq.RCVHWM: 1, zmq.RCVBUF: 4096})
    overflows = {"class": "report"}
    before = Figures(gateway.http)["tap_overflows_total", overflows]
    bridge.introduce(sequence())
    numbers, reports = [], 0
    good.receive()
    gateway.handler.receive()
    while Figures(gateway.http)["tap_overflows_total", overflows] == before or reports % 5000:
        bridge.send_message(*(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP) for _ in range(500)))
        for message in good.take(500):
            assert message.payload == gateway.handler.receive()
            numbers.append(message.number)
        reports += 500
        assert reports <= 100_000, "the slow one has never had a full queue"
    assert numbers == list(range(numbers[0], numbers[0] + reports))
    assert Figures(gateway.http)["tap_overflows_total", overflows] == before + 1, "it is told when it begins"
    had = [slow.receive().number]
    while slow.sock.poll(1000):
        had.append(slow.receive().number)
    assert had == numbers[:len(had)] and 10_000 <= len(had) < reports, "up to where its queue was full, in order"
    bridge.send_message(wire.heartbeat(NODE, sequence(), bridge=BRIDGE, addr=NODE_IP))
    assert slow.receive().number == good.receive().number == numbers[-1] + 1, "the numbers show what it has missed"


def test_the_client_of_the_documentation_prints_what_comes(gateway, bridge, sequence):
    client = subprocess.Popen([sys.executable, ROOT / "docs" / "examples" / "tap_client.py", gateway.tap, "report/"],
                              stdout=subprocess.PIPE, text=True, env={**os.environ, "PYTHONUNBUFFERED": "1"})
    try:
        wait_until(lambda: Figures(gateway.http)["tap_topics", {}] == 1, "the client's subscription")
        bridge.send_message(wire.root_announce(BRIDGE, sequence(), prefix=0x1234))
        line = client.stdout.readline()
        stamp, report = gateway.handler.receive()
        assert re.fullmatch(rf"\d+\.\d{{6}} up [0-9A-F]{{8}} \d+ report/02AB34CD5600B001 {stamp.hex()} {report.hex()}\n", line)
    finally:
        client.kill()
        client.wait()


def test_the_client_is_short():
    assert len((ROOT / "docs" / "examples" / "tap_client.py").read_text().splitlines()) < 40
