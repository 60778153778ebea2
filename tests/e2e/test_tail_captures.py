"""rtls-tail on captures of the bridges' port, which were composed here segment by segment."""
import json
import struct
import subprocess

import pytest

from harness import wire
from harness.captures import FIN, SYN, WIN, Capture, Connection
from harness.daemon import BUILD, environment
from harness.peers import DEADLINE

BRIDGE, NODE = wire.mac(0xB001), wire.mac(0x1A2B)


def tail(*arguments, status: int = 0, data: bytes = None) -> tuple:
    done = subprocess.run([BUILD / "rtls-tail", *map(str, arguments)], env=environment(), check=False, input=data,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=DEADLINE)
    assert done.returncode == status, (done.stdout, done.stderr)
    return done.stdout.decode(), done.stderr.decode()


def told(text: str) -> list:
    """What is said of each line: connection, direction, kind, sequence number; of an event its name alone."""
    lines = [json.loads(line) for line in text.splitlines()]
    return [(line["connection"], line["way"], line["message"]["kind"], line["message"].get("seqNo")) if "message" in line
            else (line["connection"], line["event"]["event"]) for line in lines]


def shown(capture, *arguments, **options) -> list:
    return told(tail("--capture", capture, "--json", *arguments, **options)[0])


def heartbeat(seq: int) -> bytes:
    return wire.frame(wire.heartbeat(NODE, seq, bridge=BRIDGE, addr=wire.ip(1)))


def ping(seq: int) -> bytes:
    return wire.frame(wire.ping(seq, b"\xf5\xf7"))


@pytest.fixture
def capture(tmp_path):
    return Capture(tmp_path / "links.pcap")


def two_connections(capture: Capture):
    first, second = Connection(capture, 1), Connection(capture, 2)
    first.segment("down", b"sync\n")
    stream = ping(1) + heartbeat(2) + ping(3)
    first.segment("up", stream[:5])
    second.segment("up", ping(4)[:3])
    first.segment("up", stream[5:40])
    first.segment("up", stream[40:])
    second.segment("up", ping(4)[3:])
    first.segment("down", ping(1))
    capture.datagram(("10.0.0.2", 7), ("10.0.0.1", WIN), heartbeat(9))
    Connection(capture, 3, port=5010).segment("up", ping(5))
    return capture.close()


TWO = [(1, "connection_seen"), (2, "connection_seen"), (1, "up", "ping", 1), (1, "up", "heartbeat", 2), (1, "up", "ping", 3),
       (2, "up", "ping", 4), (1, "down", "ping", 1)]


def test_both_directions_are_put_together(capture):
    file = two_connections(capture)
    assert shown(file) == TWO
    assert shown(file, "--port", 5010) == [(1, "connection_seen"), (1, "up", "ping", 5)]
    assert shown(file, "--direction", "down") == [(1, "down", "ping", 1)]
    assert shown(file, "--topic", "link/in", "--where", "seqNo > 2") == [(1, "up", "ping", 3), (2, "up", "ping", 4)]
    assert shown(file, "--mac", "1A2B", "-n", 1) == [(1, "up", "heartbeat", 2)]


def test_lines_are_those_of_the_tap(capture):
    lines = [json.loads(line) for line in tail("--capture", two_connections(capture), "--json")[0].splitlines()]
    assert lines[0]["event"] == {"event": "connection_seen", "bridge": "id-00000001", "connection": 1,
                                 "address": "10.0.0.2:20001", "gateway": "10.0.0.1:4001"}
    assert [line["topic"] for line in lines[-2:]] == ["link/in/id-00000002", "link/out/id-00000001"]
    assert [line["bridge"] for line in lines if line["connection"] == 1 and "message" in line][-1] == BRIDGE.hex().upper()
    assert lines[2]["clock"].startswith("2023-11-14T22:13:20.0") and lines[2]["clock_ns"] % 10**6 == 0
    table = json.loads(tail("--capture", capture.path, "--stats", "--json")[0])
    assert {kind: of["messages"] for kind, of in table["kinds"].items()} == {
        "event connection_seen": 2, "link/in heartbeat": 1, "link/in ping": 3, "link/out ping": 1}


@pytest.mark.parametrize("format", ["pcapng", "nsecpcap", "pcap"])
def test_other_formats_and_links_are_the_same(capture, tmp_path, format):
    file = tmp_path / "other"
    subprocess.run(["editcap", "-F", format, two_connections(capture), file], check=True, stdout=subprocess.DEVNULL)
    assert shown(file) == TWO
    assert told(tail("--capture", "-", "--json", data=file.read_bytes())[0]) == TWO


def test_segments_that_come_again_or_in_another_order_show_each_message_once(capture):
    connection = Connection(capture, 1)
    stream = b"".join(heartbeat(seq) for seq in range(8))
    for at in (100, 0, 50, 50, 150, 0, 300, 200, 250, 120, 350):  # 50 bytes each, and a part of two
        connection.segment("up", stream[at:at + 50], at=at)
    connection.segment("up", stream[380:], at=380)
    connection.segment("up", b"", FIN, at=len(stream))
    assert shown(capture.close(), "--topic", "link/") == [(1, "up", "heartbeat", seq) for seq in range(8)]


def test_what_the_capture_has_lost_is_told_and_joins_no_message(capture):
    first, second = Connection(capture, 1), Connection(capture, 2)
    second.segment("up", ping(7)[:4])
    stream = ping(1) + heartbeat(2) + ping(3)
    first.segment("up", stream[:20], at=0)
    first.segment("up", stream[30:] + ping(4), at=30)
    second.segment("up", ping(7)[4:])
    out, err = tail("--capture", capture.close(), "--json", "--topic", "link/", status=4)
    assert told(out) == [(1, "up", "ping", 1), (2, "up", "ping", 7), (1, "up", "ping", 3), (1, "up", "ping", 4)]
    assert "10 bytes of connections are missing in " in err


def test_ends_that_are_used_again_are_another_connection(capture):
    Connection(capture, 1).segment("up", ping(1) + ping(2)[:4])
    again = Connection(capture, 1)
    again.sent["up"], again.first["up"] = 70_000, 70_001
    again.segment("up", b"", SYN)
    again.segment("up", b"", SYN, at=-1)
    again.segment("up", ping(3))
    assert shown(capture.close()) == [(1, "connection_seen"), (1, "up", "ping", 1), (2, "connection_seen"), (2, "up", "ping", 3)]


def test_a_capture_that_begins_in_the_middle_shows_what_begins_whole(capture):
    connection = Connection(capture, 1)
    stream = heartbeat(1) + heartbeat(2) + heartbeat(3)
    capture.file.seek(24)
    capture.file.truncate()
    connection.segment("up", stream[30:100], at=30)
    connection.segment("up", stream[100:], at=100)
    assert shown(capture.close(), "--topic", "link/") == [(1, "up", "heartbeat", 2), (1, "up", "heartbeat", 3)]


def test_files_that_end_or_are_none_have_their_statuses(capture, tmp_path):
    whole = two_connections(capture).read_bytes()
    file = tmp_path / "cut.pcap"
    file.write_bytes(whole[:-3])
    out, err = tail("--capture", file, "--json")
    assert told(out) == TWO and "ends within a packet" in err
    file.write_bytes(whole + struct.pack("<IIII", 0, 0, 1 << 30, 1 << 30))
    out, err = tail("--capture", file, "--json", status=1)
    assert told(out) == TWO and "a packet of an impossible length" in err
    file.write_bytes(b"GIF89a, or so it says")
    assert "neither a pcapng nor a pcap file" in tail("--capture", file, status=1)[1]
    assert "No such file" in tail("--capture", tmp_path / "none", status=1)[1]


def test_wrong_command_lines_have_status_2(capture):
    file = two_connections(capture)
    assert "one of --tap, --read and --capture" in tail("--capture", file, "--read", file, status=2)[1]
    assert "--port" in tail("--read", file, "--port", 1, status=2)[1]
    assert "--port" in tail("--capture", file, "--port", 0, status=2)[1]
    assert "has no connection with port 9 (--port)" in tail("--capture", file, "--port", 9)[1]
