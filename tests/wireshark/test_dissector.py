"""tshark reads with the dissectors of tools/wireshark what was composed here, byte by byte, without any code of theirs."""
import ipaddress
import json
import os
import re
import struct
import subprocess

import pytest
from capture import (DISCOVERY, PLUGINS, ROOT, Capture, Connection, Recording, as_list, fields_of, layers_of, messages_of,
                     run_tshark, tshark)
from harness import wire
from harness.tshark import as_nobody
from messages import ROLES, Composer

PREFIX = "rtlsgw."
MALFORMED = '_ws.expert.group == "Malformed" || _ws.expert.message contains "Lua Error"'
GENERATED = {"direction", "msgType", "request_in", "response_in", "response_time", "line"}


def shown(message: dict) -> dict:
    """A message as tshark has it, by names without the prefix; children stand where their parent does."""
    own = {}
    for name, value in message.items():
        if name.startswith("_ws"):
            continue
        name = name.removeprefix(PREFIX)
        if name.endswith("_tree"):
            own |= {key: one for key, one in shown(value).items() if not key.startswith("_ws")}
        elif isinstance(value, dict):
            own[name] = shown(value)
        else:
            own[name] = value
    return own


def same(expected, found) -> bool:
    """Whether the text that tshark has for a value is that value."""
    if isinstance(expected, bool):
        return found == str(int(expected))
    if isinstance(expected, int):
        return int(found, 0) == expected
    if isinstance(expected, ipaddress.IPv6Address | ipaddress.IPv4Address):
        return ipaddress.ip_address(found) == expected
    return expected in (found, found.replace(":", ""), found.removeprefix("0x"))


def entries_of(found: dict, name: str) -> list:
    (inner,) = found.values() if isinstance(found, dict) else [found]
    return [{key.removeprefix(f"{name}."): value for key, value in shown(entry).items()} for entry in as_list(inner)]


def compare(expected: dict, found: dict, where: str = ""):
    assert set(found) - GENERATED == set(expected), f"{where}: {expected} {found}"
    for name, value in expected.items():
        if isinstance(value, dict):
            compare(value, found[name], f"{where}{name}.")
        elif isinstance(value, list):
            entries = entries_of(found[name], name)
            assert len(entries) == len(value), f"{where}{name}"
            for one, other in zip(value, entries):
                compare(one, other, f"{where}{name}[].")
        else:
            assert same(value, found[name]), f"{where}{name}: {value} is shown as {found[name]}"


def cut(data: bytes, random) -> list:
    """The bytes in segments of random sizes, some of one byte."""
    segments = []
    while data:
        size = random.choice([1, 2, 7, 50, 200, 1000, 1400])
        size = random.randrange(1, size + 1)
        segments.append(data[:size])
        data = data[size:]
    return segments


def send_mixed(connection, streams: dict, random):
    """The segments of both directions, in turns."""
    while any(streams.values()):
        way = random.choice([way for way, segments in streams.items() if segments])
        connection.segment(way, streams[way].pop(0))


def composed(folder, count: int, seed: int) -> tuple:
    """A capture of `count` messages on several connections, and what they are by connection and direction."""
    composer, capture = Composer(seed), Capture(folder / f"composed-{seed}.pcap")
    sent = {}
    for number in range(4):
        connection, streams = Connection(capture, number), {}
        for way, share in (("up", 2), ("down", 1)):
            made = [getattr(composer, way)() for _ in range(count * share // 12)]
            sent[(str(number), way)] = [fields for _, fields in made]
            begin = b"sync\n" if way == "down" else b""
            streams[way] = cut(begin + b"".join(wire.frame(data) for data, _ in made), composer.random)
        send_mixed(connection, streams, composer.random)
    return capture.close(), sent


def read_by_connection(capture) -> dict:
    found = {}
    for packet in layers_of(capture, "-J", "tcp rtlsgw", "-Y", "rtlsgw"):
        for message in as_list(packet["rtlsgw"]):
            if PREFIX + "kind" in message:
                key = (packet["tcp"]["tcp.stream"], message[PREFIX + "direction"])
                found.setdefault(key, []).append(message)
    return found


def check_all(capture, sent: dict) -> int:
    found, count = read_by_connection(capture), 0
    assert set(found) == set(sent)
    for key, expected in sent.items():
        assert len(found[key]) == len(expected), key
        for number, (one, other) in enumerate(zip(expected, found[key])):
            compare(one, shown(other), f"{key} {number}: ")
            count += 1
    return count


def malformed(capture) -> list:
    return fields_of(capture, "frame.number", "_ws.expert.message", options=["-Y", MALFORMED])


def test_every_value_of_frames_cut_at_random_is_what_was_composed(tmp_path):
    """WIRESHARK_FRAMES and WIRESHARK_SEED: how many, and which."""
    frames, seed = int(os.environ.get("WIRESHARK_FRAMES", "3000")), int(os.environ.get("WIRESHARK_SEED", "20261122"))
    count = 0
    while count < frames:
        capture, sent = composed(tmp_path, min(12_000, frames - count + 11), seed + count)
        count += check_all(capture, sent)
        assert malformed(capture) == []
        capture.unlink()


# ---- the layouts are those of the library

def test_the_layouts_are_what_the_tables_of_the_library_say():
    made = subprocess.run([PLUGINS / "make-layouts"], check=True, text=True, stdout=subprocess.PIPE).stdout
    assert (PLUGINS / "rtls_layouts.module").read_text() == made, "tools/wireshark/make-layouts > tools/wireshark/rtls_layouts.module"


def examples(*ways) -> list:
    """The bytes in docs/decode.md, and what they are decoded to there."""
    text = (ROOT / "docs/decode.md").read_text()
    found = re.findall(r"^    (\w+) ([0-9a-f]+)\n    (\{.*\})$", text, re.M)
    return [(way, bytes.fromhex(data), json.loads(decoded)) for way, data, decoded in found if way in ways]


def sub_command_code(name) -> int:
    text = (ROOT / "docs/decode.md").read_text()
    return name if isinstance(name, int) else int(re.search(rf"^\| `{name}` (\d+) \|", text, re.M)[1])


def as_shown(decoded: dict) -> dict:
    """What differs between JSON and Wireshark: names of numbers are only shown, and positions are shown twice."""
    own = {name: as_shown(value) if isinstance(value, dict) else value for name, value in decoded.items()
           if name not in ("direction", "msgType")}
    if "node_role" in own:
        own["node_role"] = ROLES.index(own["node_role"]) if isinstance(own["node_role"], str) else own["node_role"]
    if "sub_command" in own:
        own["sub_command"] = sub_command_code(own["sub_command"])
    if "pos_Z" in own:
        own["z_val"], own["z_offset"] = struct.unpack("<hh", struct.pack("<i", own["pos_Z"]))
    return own | {name: ipaddress.ip_address(own[name]) for name in ("ipaddr", "address") if name in own}


def test_examples_of_the_documentation_are_shown_as_they_are_there(tmp_path):
    wanted = examples("up", "down")
    capture = Capture(tmp_path / "examples.pcap")
    connection = Connection(capture, 1)
    for way, data, _ in wanted:
        connection.segment(way, wire.frame(data))
    found = messages_of(layers_of(capture.close(), "-J", "rtlsgw", "-Y", "rtlsgw"))
    assert len(found) == len(wanted) > 50
    for (way, _, decoded), message in zip(wanted, found):
        assert message["rtlsgw.direction"] == way
        compare(as_shown(decoded), shown(message))


# ---- discovery

GATEWAY, DEVICE = ("10.0.0.1", DISCOVERY), ("10.0.0.9", 40000)


def send_datagrams(folder, datagrams) -> list:
    capture = Capture(folder / "discovery.pcap")
    for way, data in datagrams:
        capture.datagram(*((DEVICE, GATEWAY) if way == "discovery_request" else (GATEWAY, DEVICE)), data)
    return capture.close()


def test_discovery_is_shown_as_in_the_documentation(tmp_path):
    wanted = examples("discovery_request", "discovery_answer")
    found = messages_of(layers_of(send_datagrams(tmp_path, [(way, data) for way, data, _ in wanted]), "-J", "rtlsgw"))
    assert [message["rtlsgw.direction"] for message in found] == [way for way, _, _ in wanted]
    for (_, _, decoded), message in zip(wanted, found, strict=True):
        compare(as_shown(decoded), shown(message))


def test_a_request_that_gateways_do_not_answer_is_malformed(tmp_path):
    wanted = [b"\x02" + bytes(8), b"\x01" + bytes(9), bytes(5), b"\x01" + bytes(40)]
    capture = send_datagrams(tmp_path, [("discovery_request", data) for data in wanted])
    assert [number for number, _ in malformed(capture)] == [str(number + 1) for number in range(len(wanted))]
    for data, message in zip(wanted, messages_of(layers_of(capture, "-J", "rtlsgw")), strict=True):
        assert message["rtlsgw.kind"] == "invalid" and same(data.hex(), message["rtlsgw.bytes"])


# ---- what is malformed

def heartbeat() -> bytes:
    return wire.heartbeat(wire.mac(1), bridge=wire.mac(2), addr=wire.ip(3))


def envelope() -> bytes:
    return wire.envelope(wire.forwarded_heartbeat(wire.mac(1)), wire.mac(1), wire.ip(1))


INVALID_UP = {
    "too short a heartbeat": heartbeat()[:-1],
    "too long a heartbeat": heartbeat() + b"\0",
    "a request without its last byte": wire.panid_req(wire.mac(1))[:-1],
    "an announcement with one too many": wire.root_announce(wire.mac(1)) + b"\0",
    "an envelope that counts too much": envelope()[:3] + b"\x28\0" + envelope()[5:],
    "an envelope that counts too little": envelope()[:3] + b"\x26\0" + envelope()[5:],
    "an envelope around nothing": wire.envelope(b"", wire.mac(1), wire.ip(1)),
    "an envelope around what is none": wire.envelope(wire.forwarded_heartbeat(wire.mac(1))[:-1], wire.mac(1), wire.ip(1)),
    "a time around too little": wire.wrap_ts(b"\x01\x01\x01\x00\x00", 1, 1),
    "a payload that is not there": wire.payload_message(wire.SENSOR_NEW, 1, bytes(3) + wire.ip(1), total_len=4),
    "half a type": b"\x01",
}
INVALID_DOWN = {
    "a type that goes up": heartbeat(),
    "an acknowledgement without its last byte": bytes.fromhex("100807") + wire.ip(1)[:-1],
    "a length in the other order": bytes.fromhex("0e080706000001000200 00".replace(" ", "")) + wire.ip(1),
}


def on_own_connections(folder, named: list) -> dict:
    """Each of the (way, bytes) on a connection of its own between two pings; what is shown of them, and the reason."""
    capture = Capture(folder / "own.pcap")
    for number, (way, data) in enumerate(named):
        Connection(capture, number).segment(way, wire.frame(wire.ping(1)) + data + wire.frame(wire.ping(2)))
    packets = layers_of(capture.close(), "-J", "tcp rtlsgw", "-Y", "rtlsgw")
    reasons = fields_of(capture.path, "tcp.stream", "_ws.expert.message", options=["-Y", MALFORMED])
    shown_of = {packet["tcp"]["tcp.stream"]: [shown(one) for one in as_list(packet["rtlsgw"])] for packet in packets}
    return [(shown_of[str(number)], [reason for stream, reason in reasons if stream == str(number)])
            for number in range(len(named))]


def test_a_frame_that_is_no_message_is_malformed_and_its_neighbours_are_not(tmp_path):
    cases = [("up", name, data) for name, data in INVALID_UP.items()] + [("down", name, data) for name, data in INVALID_DOWN.items()]
    found = on_own_connections(tmp_path, [(way, wire.frame(data)) for way, _, data in cases])
    for (_, name, data), ((before, invalid, behind), reasons) in zip(cases, found, strict=True):
        assert (before["seqNo"], behind["seqNo"]) == ("1", "2"), name
        assert set(invalid) == {"direction", "kind", "reason", "bytes"} and same(data.hex(), invalid["bytes"]), name
        assert reasons == [invalid["reason"]], name


ODD = {"outside": b"\xF6\xF7no frame", "broken": b"\xF5\x01\x02", "empty": b"\xF5\xF7", "repeated": b"\xF5"}


def test_what_is_odd_between_frames_is_flagged(tmp_path):
    found = on_own_connections(tmp_path, [("up", data) for data in ODD.values()])
    for (name, data), (messages, reasons) in zip(ODD.items(), found, strict=True):
        assert [one.get("kind") for one in messages] == ["ping", None, "ping"], name
        assert same(data.hex(), messages[1]["outside"]) and len(reasons) == 1, name


def test_odd_bytes_among_many_frames_cut_at_random_are_all_flagged_and_nothing_else_is(tmp_path):
    composer, capture = Composer(7), Capture(tmp_path / "mixed.pcap")
    wanted, stream = {name: 0 for name in [*ODD, "invalid"]}, b""
    made = [composer.up() for _ in range(500)]
    odd = ODD | {"outside": b"\xF6"}  # one byte: more of them may be in two segments
    for data, _ in made:
        name = composer.random.choice([*wanted, *[None] * 10])
        if name:
            wanted[name] += 1
            stream += wire.frame(composer.random.choice(list(INVALID_UP.values()))) if name == "invalid" else odd[name]
        stream += wire.frame(data)
    connection = Connection(capture, 1)
    for segment in cut(stream, composer.random):
        connection.segment("up", segment)
    names = [f"rtlsgw.expert.{name}" for name in wanted]
    rows = fields_of(capture.close(), *names, options=["-Y", "rtlsgw"])
    assert {name: sum(len(row[place].split(",")) for row in rows if row[place]) for place, name in enumerate(wanted)} == wanted
    messages = [shown(one) for one in messages_of(layers_of(capture.path, "-J", "rtlsgw", "-Y", "rtlsgw"))]
    valid = [one for one in messages if one.get("kind", "invalid") != "invalid"]
    for (_, fields), message in zip(made, valid, strict=True):
        compare(fields, message)


IN_DOUBT = {
    "nothing is known of the type 7abc": bytes.fromhex("bc7a01"),
    "ota_page: it ends before page_number does": wire.generic_server_req(1, 16, bytes(11), wire.ip(1)),
    "nobody reads these bytes": wire.sensor(1, b"abc", wire.ip(1) + b"x")}


def test_what_the_gateway_passes_on_unread_is_in_doubt_and_not_malformed(tmp_path):
    capture = Capture(tmp_path / "doubt.pcap")
    connection = Connection(capture, 1)
    for data in IN_DOUBT.values():
        connection.segment("up", wire.frame(data))
    rows = fields_of(capture.close(), "_ws.expert.message", options=["-Y", "rtlsgw.expert.doubt"])
    assert [text for (text,) in rows] == list(IN_DOUBT) and malformed(capture.path) == []


# ---- requests and answers

def ack(seq: int, address: bytes) -> bytes:
    return bytes.fromhex("1008") + bytes([seq]) + address


class Pairs:
    """Requests on two connections, and their answers in another order."""

    def __init__(self, folder):
        self.capture = Capture(folder / "pairs.pcap")
        self.connections = [Connection(self.capture, number) for number in range(2)]
        self.packets = 6  # of the two handshakes

    def send(self, connection: int, way: str, data: bytes) -> int:
        self.connections[connection].segment(way, wire.frame(data))
        self.packets += 1
        return self.packets

    def found(self) -> dict:
        """By packet: the packet of its request, that of its answer, the time between them."""
        names = ["rtlsgw.request_in", "rtlsgw.response_in", "rtlsgw.response_time"]
        rows = fields_of(self.capture.close(), "frame.number", *names, options=["-2", "-R", "frame"])
        return {int(number): tuple(values) for number, *values in rows if any(values)}


def acknowledged() -> dict:
    """Messages that are acknowledged, and with which address."""
    mac, ip = wire.mac(1), wire.ip(9)
    payload = wire.sensor(5, b"abc", b"")
    return {
        "heartbeat": (wire.heartbeat(mac, 7, bridge=wire.mac(2), addr=ip, flags=wire.ACK), ip),
        "sensor": (wire.sensor(7, b"abc", ip, flags=wire.ACK), ip),
        "heartbeat in an envelope": (wire.envelope(wire.forwarded_heartbeat(mac, 5), mac, ip, 7, flags=wire.ACK), ip),
        "sensor in an envelope": (wire.envelope(payload, mac, ip, 7, flags=wire.ACK), mac + ip[:8]),
        "with a time": (wire.wrap_ts(wire.envelope(payload, mac, ip, 7, flags=wire.ACK), 1, 1), mac + ip[:8]),
    }


def test_an_acknowledgement_belongs_to_its_message(tmp_path):
    pairs, wanted = Pairs(tmp_path), {}
    for message, address in acknowledged().values():
        elsewhere = pairs.send(1, "up", message)
        first, second = pairs.send(0, "up", message), pairs.send(0, "up", message)
        pairs.send(0, "down", ack(8, address))
        pairs.send(0, "down", ack(7, wire.ip(77)))
        of_first, of_second = pairs.send(0, "down", ack(7, address)), pairs.send(0, "down", ack(7, address))
        of_elsewhere = pairs.send(1, "down", ack(7, address))
        wanted |= {
            first: ("", str(of_first), ""), second: ("", str(of_second), ""), elsewhere: ("", str(of_elsewhere), ""),
            of_first: (str(first), "", "0.004000000"), of_second: (str(second), "", "0.004000000"),
            of_elsewhere: (str(elsewhere), "", "0.007000000")}
    assert pairs.found() == wanted


def test_an_echo_belongs_to_its_ping_and_a_page_to_its_request(tmp_path):
    pairs, ip = Pairs(tmp_path), wire.ip(9)
    ping, timed = wire.ping(3, b"abc"), wire.wrap_ts(wire.ping(3, b"abcd"), 1, 2)
    wanted = bytes.fromhex("0a0b0c0d 11223344 0004 0003")
    sent = [pairs.send(0, "up", data) for data in (
        ping, timed, wire.envelope(wire.generic_server_req(1, 16, wanted, b""), wire.mac(1), ip))]
    page = bytes.fromhex("0e08 00 0012 0010") + wanted + b"page"
    answers = [pairs.send(0, "down", data) for data in (
        timed, bytes.fromhex("0008 00 0017") + page + wire.mac(1) + ip, ping)]
    found = pairs.found()
    assert [found[number][1] for number in sent] == [str(answers[2]), str(answers[0]), str(answers[1])]
    assert [found[number][0] for number in answers] == [str(sent[1]), str(sent[2]), str(sent[0])]


# ---- recordings of the tap

def test_reports_commands_and_lines_of_a_recording_are_shown_as_in_the_documentation(tmp_path):
    recording, wanted = Recording(tmp_path / "tap.pcapng"), []
    text = (ROOT / "docs/decode.md").read_text()
    for line, decoded in re.findall(r"^    management (@.*)\n    (\{.*\})$", text, re.M):
        recording.message("management", line.encode(), direction=Recording.UP)
        wanted.append(("management", json.loads(decoded)))
    for way, data, decoded in examples("report", "command"):
        if way == "report":
            recording.message("report/0012AB0000000001", data[:6], data[6:], direction=Recording.UP)
        else:
            recording.message("command", data.hex().upper().encode() + b"0", direction=Recording.DOWN)
        wanted.append((way, decoded))
    found = messages_of(layers_of(recording.close(), "-J", "rtlsgw"))
    assert len(wanted) > 15
    for (way, decoded), message in zip(wanted, found, strict=True):
        assert message["rtlsgw.direction"] == way
        compare(as_shown(decoded), shown(message))
    assert malformed(recording.path) == []


def test_the_head_of_a_recorded_message_is_shown(tmp_path):
    recording = Recording(tmp_path / "tap.pcapng")
    event = '{"event":"bridge_closed","reason":"its end, says it","bridge":"id-00000007","port":4711,"last":null}'
    recording.message("event", event.encode(), connection=7)
    names = ["topic", "version", "direction", "connection", "number", "event", "event.member"]
    (row,) = fields_of(recording.close(), *(f"rtls_tap.{name}" for name in names), "frame.time_epoch", "rtls_tap.clock")
    assert row[:6] == ["event", "1", "2", "7", "1", "bridge_closed"]
    assert row[6] == "event: bridge_closed,reason: its end, says it,bridge: id-00000007,port: 4711,last: null"
    assert row[7] == "1700000000.001000001" and "22:13:20.001000001" in row[8]


def test_a_greeting_in_pieces_is_one(tmp_path):
    capture = Capture(tmp_path / "greeting.pcap")
    connection = Connection(capture, 1)
    for data in (b"s", b"yn", b"c\n" + wire.frame(wire.ping(1))):
        connection.segment("down", data)
    assert malformed(capture.close()) == []
    assert fields_of(capture.path, "rtlsgw.sync", "rtlsgw.kind", options=["-Y", "rtlsgw"]) == [["sync", "ping"]]


def test_another_version_of_the_head_is_flagged(tmp_path):
    recording = Recording(tmp_path / "version.pcapng")
    recording.message("command", b"0801", version=2)
    recording.message("command", b"0801")
    assert fields_of(recording.close(), "frame.number", options=["-Y", "rtls_tap.expert.version"]) == [["1"]]


def recorded_streams(folder, count: int) -> tuple:
    """A recording of `count` messages on several connections, in reads of random sizes, and what they are."""
    composer, recording = Composer(3), Recording(folder / "links.pcapng")
    sent, waiting = {}, []
    for number in range(1, 4):
        for way, topic in (("up", "link/in"), ("down", "link/out")):
            made = [getattr(composer, way)() for _ in range(count // 6)]
            sent[(str(number), way)] = [fields for _, fields in made]
            reads = cut(b"".join(wire.frame(data) for data, _ in made), composer.random)
            waiting.append((f"{topic}/id-{number:08X}", number, ([b"sync\n"] if way == "down" else []) + reads))
    while waiting := [entry for entry in waiting if entry[2]]:
        greetings = [entry for entry in waiting if entry[2][0] == b"sync\n"]
        topic, number, reads = composer.random.choice(greetings or waiting)
        recording.message(topic, reads.pop(0), direction=topic.startswith("link/out"), connection=number)
    return recording.close(), sent


def test_links_of_a_recording_are_joined_as_those_of_a_capture(tmp_path):
    recording, sent = recorded_streams(tmp_path, 600)
    found = {}
    for packet in layers_of(recording, "-J", "rtls_tap rtlsgw", "-Y", "rtlsgw.kind"):
        for message in as_list(packet["rtlsgw"]):
            if PREFIX + "kind" in message:
                key = (packet["rtls_tap"]["rtls_tap.connection"], message[PREFIX + "direction"])
                found.setdefault(key, []).append(shown(message))
    assert set(found) == set(sent) and malformed(recording) == []
    for key, expected in sent.items():
        for one, other in zip(expected, found[key], strict=True):
            compare(one, other)


def test_a_connection_that_begins_anew_has_nothing_left_over(tmp_path):
    recording = Recording(tmp_path / "anew.pcapng")
    for way, data in (("out", b"sync\n"), ("in", b"\xF5half a fra"), ("out", b"sync\n"), ("in", wire.frame(wire.ping(1)))):
        recording.message(f"link/{way}/id-00000001", data, connection=1)
    assert malformed(recording.close()) == []
    rows = fields_of(recording.path, "rtlsgw.kind", options=["-Y", "rtlsgw.kind"])
    assert rows == [["ping"]]


def wrong_lines() -> list:
    """Those of the documentation with one change each, after which no gateway writes them so."""
    text = (ROOT / "docs/decode.md").read_text().encode()
    route, ul_tdoa = re.findall(rb"^    management (@.*)$", text, re.M)
    changes = [(route, b'"lqi":100', b'"lqi":256'), (route, b'"lqi":  7', b'"lqi":7'), (route, b"510000000102", b"51000000010A"),
               (route, b"1700000000", b"170000000"), (ul_tdoa, b'"flags":"A1"', b'"flags":"a1"'),
               (ul_tdoa, b'"pe_seq_no":258', b'"pe_seq_no":0258'), (ul_tdoa, b'"tag":{"mac":"51', b'"tag":{"mac":"5'),
               (ul_tdoa, b'"batt_voltage":3700', b'"batt_voltage":65536'), (ul_tdoa, b"-1500", b"-2147483649"),
               (ul_tdoa, b'"percent_of_charge":80', b'"percent_of_charge":80,')]
    assert all(before in line for line, before, _ in changes)
    return [line.replace(before, after, 1) for line, before, after in changes]


def test_what_is_wrong_in_a_recording_is_malformed(tmp_path):
    recording = Recording(tmp_path / "wrong.pcapng")
    wrong = [("command", b"0800zz"), ("command", b""), ("command", b"08:00"), ("report/0012AB0000000001", b"", b""),
             ("report/0012AB0000000001", bytes(5)), ("report/0012AB0000000001", bytes(4) + b"\x03\xE8", b"\x01\x06"),
             ("command", b"0012" + b"00" * 10), ("command", b"080d" + b"00" * 8 + b"000178"),
             ("management", b"@win_management {}"), ("management", b""), *(("management", line) for line in wrong_lines())]
    for topic, *frames in wrong:
        recording.message(topic, *frames)
    recording.packet(b"\x00\x07command" + bytes(23))
    recording.packet(b"\x00\x07command" + bytes(24) + b"\0\0\0\x05abcd")
    recording.packet(b"\0")
    numbers = [number for number, _ in malformed(recording.close())]
    assert numbers == [str(number + 1) for number in range(len(wrong) + 3)]


def test_an_acknowledgement_in_a_recording_belongs_to_its_message(tmp_path):
    recording = Recording(tmp_path / "pairs.pcapng")
    message, address = acknowledged()["sensor in an envelope"]
    recording.message("link/in/id-00000001", wire.frame(message), connection=1)
    recording.message("link/out/id-00000002", wire.frame(ack(7, address)), connection=2)
    recording.message("link/out/E45E510000000100", wire.frame(ack(7, address)), connection=1)
    rows = fields_of(recording.close(), "rtlsgw.response_in", "rtlsgw.request_in", options=["-2", "-R", "frame"])
    assert rows == [["3", ""], ["", ""], ["", "1"]]


# ---- what docs/wireshark.md says

def documented_filters() -> list:
    """The filters for captures, and those for recordings."""
    section = re.search(r"^## Filters$(.*?)^## ", (ROOT / "docs/wireshark.md").read_text(), re.M | re.S)[1]
    return [re.findall(r"^    (.*)$", part, re.M) for part in section.split("In a recording also:")]


def count_packets(capture, *filters) -> dict:
    """How many packets each filter finds."""
    text = tshark(capture, "-2", "-R", "frame", "-q", "-z", ",".join(["io,stat,0", *filters]))
    (row,) = re.findall(r"<> *[\d.]+ *\|(.*)\|$", text, re.M)
    return dict(zip(filters, (int(cell) for cell in row.split("|")[::2]), strict=True))


def test_filters_of_the_documentation_find_what_they_say(tmp_path):
    capture, ip = Capture(tmp_path / "filters.pcap"), wire.ip(9)
    connection = Connection(capture, 1)
    for way, data in [
            ("up", wire.frame(wire.heartbeat(wire.mac(1), 7, bridge=wire.mac(2), addr=ip, flags=wire.ACK))),
            ("up", wire.frame(wire.heartbeat(wire.mac(2), 8, bridge=wire.mac(2), addr=ip, flags=wire.ACK, role=1))),
            ("up", wire.frame(wire.envelope(wire.sensor(3, b"\0\xF5\xF6\xF7", b""), wire.mac(7), ip))),
            ("up", wire.frame(wire.generic_server_req(1, 48, bytes.fromhex("0102000030000001"), ip))),
            ("down", wire.frame(ack(7, ip))), ("up", wire.frame(b"\x01")), ("up", wire.frame(bytes.fromhex("bc7a01"))), ("up", b"?")]:
        connection.segment(way, data)
    capture.datagram(DEVICE, GATEWAY, b"\x01" + bytes(8))
    filters, _ = documented_filters()
    assert count_packets(capture.close(), *filters) == {
        'rtlsgw.kind == "heartbeat"': 2, 'rtlsgw.direction == "down"': 1, "rtlsgw.long_addr == 02:ab:34:cd:56:00:00:01": 1,
        "rtlsgw.mac == 02:ab:34:cd:56:00:00:07": 1, "rtlsgw.node_role == 4": 1, "rtlsgw.sub_command == 48": 1,
        "rtlsgw.ranges.distance > 10000": 1, "rtlsgw.data contains f5:f6:f7": 1,
        "rtlsgw.ack_requested == 1 && !rtlsgw.response_in": 1, "rtlsgw.response_time > 0.003": 1, "rtlsgw.expert.invalid": 1,
        "rtlsgw.expert.doubt": 1, '_ws.expert.group == "Malformed"': 2, 'rtlsgw.kind == "discovery_address"': 1}


def test_filters_for_recordings_find_what_they_say(tmp_path):
    recording = Recording(tmp_path / "filters.pcapng")
    recording.message("event", b'{"event":"bridge_closed","bridge":"E45E510000000100"}')
    recording.message("link/in/E45E510000000100", wire.frame(wire.ping(1)), connection=1)
    recording.message("link/in/E45E510000000200", wire.frame(wire.ping(1)), connection=2)
    line = re.search(r"^    management (.*route_request.*)$", (ROOT / "docs/decode.md").read_text(), re.M)[1]
    recording.message("management", line.encode())
    _, filters = documented_filters()
    assert count_packets(recording.close(), *filters) == {name: 1 for name in filters} and len(filters) == 3


def either(pairs) -> set:
    return {one or other for one, other in pairs}


def test_expert_infos_of_the_documentation_are_those_there_are():
    section = (ROOT / "docs/wireshark.md").read_text().split("## What is flagged")[1]
    code = "".join((PLUGINS / f"rtls_{name}.module").read_text() for name in ("tree", "tap", "zmtp"))
    named = either(re.findall(r"expert\.(\w+)`|`\.(\w+)`", section))
    assert named == either(re.findall(r'ProtoExpert.*expert\.(\w+)"|new\("(\w+)"', code)) and len(named) == 9


def test_ports_of_the_documentation_are_those_of_the_preferences_and_of_the_sample(tmp_path):
    named = re.findall(r"^\| `(rtlsgw\w*\.\w+_ports)` \| (\d+) \|$", (ROOT / "docs/wireshark.md").read_text(), re.M)
    prefs = run_tshark(tmp_path, "-G", "currentprefs")
    assert dict(re.findall(r"^#(rtlsgw\w*\.\w+_ports): (\S*)$", prefs, re.M)) == dict(named) and len(named) == 5
    sample = (ROOT / "config/rtls-gateway.conf").read_text()
    assert [name for name, port in named if not re.search(rf"^    \w+ = {port}$", sample, re.M)] == []


@pytest.mark.skipif(os.getuid() == 0 and not as_nobody(), reason="root, without namespaces: tshark knows what is installed")
def test_dissectors_that_are_installed_here_are_not_loaded_beside_those_of_the_sources(tmp_path):
    folders = re.findall(r"^(?:Personal|Global) .*Plugins:\s+(\S+)$", run_tshark(tmp_path, "-G", "folders"), re.M)
    assert len(folders) == 4 and all(folder.startswith(str(tmp_path)) for folder in folders), folders


def test_other_ports_are_told_by_preferences_or_for_one_connection(tmp_path):
    capture = Capture(tmp_path / "ports.pcap")
    for number, port in enumerate((5001, 5003, 4001)):
        connection = Connection(capture, number, port)
        connection.segment("up", wire.frame(wire.ping(1)))
        connection.segment("down", wire.frame(wire.ping(1)))
    capture.datagram(DEVICE, ("10.0.0.1", 6002), bytes(6))
    capture.close()

    def shown_by(*options) -> list:
        return fields_of(capture.path, "rtlsgw.direction", "tcp.port", options=["-Y", "rtlsgw.kind", *options])
    both = [["up", "20002,4001"], ["down", "4001,20002"]]
    assert shown_by() == both
    ports = [["up", "20000,5001"], ["down", "5001,20000"], ["up", "20001,5003"], ["down", "5003,20001"]]
    assert shown_by("-o", "rtlsgw.win_ports:5001,5003-5004", "-o", "rtlsgw.discovery_ports:6002") == [
        *ports, ["discovery_request", ""]]
    assert shown_by("-d", "tcp.port==5003,rtlsgw") == [*ports[2:], *both]


# ---- the links to the servers

PROXY, PROXY_INPUT, HANDLER = 5555, 5556, 5557


def greeting(mechanism: bytes = b"NULL") -> bytes:
    return b"\xFF" + bytes(8) + b"\x7F\x03\x01" + mechanism.ljust(20, b"\0") + bytes(32)


def zmtp(*frames: bytes, command: bool = False) -> bytes:
    """A message, its frames of up to 255 bytes with the short length."""
    data = b""
    for place, frame in enumerate(frames):
        flags = (place < len(frames) - 1) | (len(frame) > 255) << 1 | command << 2
        data += struct.pack(">BQ" if len(frame) > 255 else ">BB", flags, len(frame)) + frame
    return data


def test_links_to_servers_are_shown_as_in_the_documentation(tmp_path):
    composer, capture, wanted, sent = Composer(5), Capture(tmp_path / "upstream.pcap"), [], {}
    ready = greeting() + zmtp(b"\x05READY", command=True)
    text = (ROOT / "docs/decode.md").read_text()
    sent[HANDLER] = ("up", ready + b"".join(zmtp(data[:6], data[6:]) for _, data, _ in examples("report")))
    lines = re.findall(r"^    management (@.*)\n    (\{.*\})$", text, re.M)
    sent[PROXY_INPUT] = ("up", ready + b"".join(zmtp(line.encode()) for line, _ in lines))
    sent[PROXY] = ("down", ready + b"".join(zmtp(data.hex().encode()) for _, data, _ in examples("command")))
    wanted = [decoded for _, _, decoded in examples("report")] + [json.loads(decoded) for _, decoded in lines] + [
        decoded for _, _, decoded in examples("command")]
    for number, (port, (way, data)) in enumerate(sent.items()):
        connection = Connection(capture, number, port)
        for segment in cut(data, composer.random):
            connection.segment(way, segment)
    found = messages_of(layers_of(capture.close(), "-J", "rtlsgw", "-Y", "rtlsgw"))
    for decoded, message in zip(wanted, found, strict=True):
        compare(as_shown(decoded), shown(message))
    assert malformed(capture.path) == []
    rows = fields_of(capture.path, "rtlsgw_upstream.mechanism", "rtlsgw_upstream.command", options=["-Y", "rtlsgw_upstream"])
    assert ["".join(row[place] for row in rows) for place in (0, 1)] == ["NULL" * 3, "READY" * 3]


def test_what_is_no_report_or_no_zmtp_is_malformed_and_what_is_encrypted_is_not(tmp_path):
    capture = Capture(tmp_path / "upstream.pcap")
    for number, data in enumerate([zmtp(b"\x07MESSAGE" + bytes(40)), zmtp(b"12345", b"report"), b"GET / HTTP/1.1\r\n\r\n"]):
        Connection(capture, number, HANDLER).segment("up", greeting() + data)
    Connection(capture, 3, PROXY).segment("up", greeting() + zmtp(b"\x01topic"))
    rows = fields_of(capture.close(), "tcp.stream", "rtlsgw_upstream.encrypted", "rtlsgw_upstream.unknown",
                     "rtlsgw_upstream.subscription", options=["-Y", "rtlsgw_upstream"])
    assert [(row[0], row[1] != "", row[2] != "", row[3]) for row in rows] == [
        ("0", True, False, ""), ("1", False, False, ""), ("2", False, True, ""), ("3", False, False, "subscribe topic")]
    assert len(malformed(capture.path)) == 2


# ---- garbage

def damaged(data: bytes, random) -> bytes:
    """With some bytes changed, or without its end."""
    data = bytearray(data)
    for _ in range(random.randrange(4)):
        if data:
            data[random.randrange(len(data))] = random.choice([0, 1, 0x28, 0x30, 0x7F, 0x80, 0xFF, random.randrange(256)])
    return bytes(data[:random.randrange(len(data) + 1)] if random.random() < 0.3 else data)


def script_errors(capture) -> list:
    return fields_of(capture, "frame.number", "_ws.expert.message", options=["-Y", '_ws.expert.message contains "Lua Error"'])


def test_damaged_messages_and_garbage_are_no_error_of_the_scripts(tmp_path):
    composer, capture = Composer(11), Capture(tmp_path / "damaged.pcap")
    random = composer.random
    for number, port in enumerate((4001, HANDLER, PROXY, PROXY_INPUT)):
        connection = Connection(capture, number, port)
        for _ in range(200):
            way = random.choice(["up", "down"])
            data = damaged(getattr(composer, way)()[0], random)
            connection.segment(way, random.choice([wire.frame(data), zmtp(data), zmtp(data[:6], data[6:]), composer.some()]))
    for _ in range(50):
        capture.datagram(DEVICE, GATEWAY, random.choice([b"", b"\x01"]) + composer.some())
    assert script_errors(capture.close()) == []


def test_damaged_recordings_are_no_error_of_the_scripts(tmp_path):
    composer, recording = Composer(12), Recording(tmp_path / "damaged.pcapng")
    random, lines = composer.random, re.findall(r"^    management (@.*)$", (ROOT / "docs/decode.md").read_text(), re.M)
    for _ in range(400):
        text = random.choice([*lines, '{"event":"node_new","mac":"0012AB0000000001","last":null}'])
        data = random.choice([composer.up()[0], composer.down()[0], text.encode(), b"0800".join(4 * [b"F5"])])
        topic = random.choice(["management", "command", "report/0012AB0000000001", "link/in/id-1", "link/out/id-1", "event", "", "new"])
        recording.message(topic, *[damaged(data, random) for _ in range(random.randrange(3))], connection=random.randrange(3))
        recording.packet(composer.some())
    assert script_errors(recording.close()) == []
