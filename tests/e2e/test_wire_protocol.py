"""The conversations of docs/wire-protocol.md: each message reads as the page says, and the daemon says all of it."""
import re
import socket
import struct
import zlib

import pytest

from harness import wire
from harness.daemon import ROOT
from harness.peers import DEADLINE, Stream, wait_until

PAGE = (ROOT / "docs" / "wire-protocol.md").read_text()
BLOCKS = re.findall(r"^```conversation\n(.*?)^```$", PAGE, re.M | re.S)
LINES = [re.fullmatch(r"(\w+) +(.*?)(?: +# (\w+))?", line).groups() for block in BLOCKS for line in block.splitlines()]

KINDS = {"ping": 0x0000, "nwk_data_ind": wire.NWK_DATA_IND, "panid_req": wire.PANID_REQ, "announce_root": wire.ANNOUNCE_ROOT,
         "heartbeat": wire.HEARTBEAT, "generic_server_req": wire.GENERIC_SERVER_REQ, "sensor": wire.SENSOR_NEW,
         "wrap_ts": wire.WRAP_TS, "nwk_data_req": wire.NWK_DATA_REQ, "generic_req": wire.GENERIC_REQ,
         "rest_ack": wire.REST_ACK, "vr_panid_resp": wire.VR_PANID_RESP}


def of(*who) -> list:
    return [line for line in LINES if line[0] in who]


def test_the_page_has_conversations():
    assert len(BLOCKS) >= 8
    assert {who for who, _, _ in LINES} == {"bridge", "gateway", "proxy", "handler", "input", "operator", "asks", "answers"}


@pytest.mark.parametrize("who, text, kind", of("bridge", "gateway"))
def test_frames_read_as_the_page_says(who, text, kind):
    data, deframer = bytes.fromhex(text), wire.Deframer()
    if kind == "sync":
        assert deframer.feed(data) == [] and bytes(deframer.noise) == data == b"sync\n"
        return
    message, = deframer.feed(data)
    assert not deframer.noise and wire.frame(message) == data
    flags = wire.ACK | wire.DIRECT if who == "bridge" else 0
    assert struct.unpack_from("<H", message)[0] & ~flags == KINDS[kind]


@pytest.mark.parametrize("who, text, kind", of("proxy", "handler"))
def test_what_servers_say_and_get_reads_as_the_page_says(who, text, kind):
    time, _, message = text.rpartition("|")
    assert len(time.split()) == (6 if who == "handler" else 0)
    assert struct.unpack_from(">H", bytes.fromhex(message))[0] == KINDS[kind]


def test_checksums_are_as_the_page_says():
    data, usual, announced = re.search(r"^\| `([0-9a-f ]+)` \| `(\w{8})` \| `(\w{8})` \|$", PAGE, re.M).groups()
    rest = 0
    for byte in bytes.fromhex(data):
        rest ^= byte
        for _ in range(8):
            rest = rest >> 1 ^ (0xEDB88320 if rest & 1 else 0)
    assert f"{zlib.crc32(bytes.fromhex(data)):08x}" == usual and f"{rest:08x}" == announced


class Play:
    """Says what the page has, and wants to hear the rest of it."""

    def __init__(self, gateway):
        self.gateway = gateway
        self.heard = b""
        self.connection = Stream(gateway.ports["win"])
        self.asker = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.asker.settimeout(DEADLINE)
        self.terminal = gateway.terminal()

    @staticmethod
    def matches(pattern: str, data: bytes) -> bool:
        """`..` in the pattern is any byte."""
        wanted = pattern.split()
        return len(wanted) == len(data) and all(w == ".." or int(w, 16) == b for w, b in zip(wanted, data, strict=True))

    def bridge(self, text: str):
        self.connection.send(bytes.fromhex(text))

    def gateway_says(self, text: str):
        wanted = bytes.fromhex(text)

        def come():
            self.heard += self.connection.pull(0.2)
            return len(self.heard) >= len(wanted)
        wait_until(come, text)
        assert self.heard[:len(wanted)] == wanted
        self.heard = self.heard[len(wanted):]

    def proxy(self, text: str):
        self.gateway.proxy.publish(text)

    def handler(self, text: str):
        time, message = self.gateway.handler.receive()
        assert self.matches(text.replace("|", ""), time + message), (text, time.hex(), message.hex())

    def input(self, text: str):
        line = self.gateway.proxy_input.receive()[0].decode()
        assert re.fullmatch(re.escape(text).replace(r"\.", "."), line), line

    def operator(self, text: str):
        assert self.terminal.command(text, "\n") == "Command sent successfully!\n"

    def asks(self, text: str):
        self.asker.sendto(bytes.fromhex(text), ("127.0.0.1", self.gateway.ports["discovery"]))

    def answers(self, text: str):
        assert self.matches(text, self.asker.recv(100))

    def close(self):
        self.connection.close()
        self.asker.close()


def test_the_daemon_says_what_the_page_has(gateway):
    play = Play(gateway)
    for who, text, _ in LINES:
        getattr(play, {"gateway": "gateway_says"}.get(who, who))(text)
    assert gateway.handler.nothing_arrives() and gateway.proxy_input.nothing_arrives(0)
    assert play.connection.pull(0) == b"" and play.heard == b"", "the gateway says nothing that is not on the page"
    play.close()
