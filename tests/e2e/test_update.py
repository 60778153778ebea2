"""Fifty nodes behind five bridges update over the air at once, each page checked byte for byte."""
import struct
import time
import zlib

from harness import wire
from harness.peers import DEADLINE
from test_firmware import image, web  # noqa: F401

GIT, SIZE, PAGE = 0xCAFE0001, 200_000, 512
PAGES = -(-SIZE // PAGE)


class Node:
    """Asks for one page after the other and compares what it gets."""

    def __init__(self, number: int, forwarded: bool, data: bytes):
        self.mac, self.ip, self.forwarded = wire.mac(number), wire.ip(number), forwarded
        self.data, self.crc, self.page = data, zlib.crc32(data), 0

    def announce(self, bridge) -> bytes:
        if self.forwarded:
            return wire.envelope(wire.forwarded_heartbeat(self.mac, 1, reporting=255), self.mac, self.ip)
        return wire.heartbeat(self.mac, 1, bridge=bridge.mac, addr=self.ip, reporting=255)

    def request(self) -> bytes:
        body = struct.pack(">IIHH", GIT, self.crc, PAGE, self.page)
        if self.forwarded:
            # A forwarded message whose number is that of the one before counts as its repeat.
            inner = wire.generic_server_req((self.page + 2) % 256, 16, body, b"")
            return wire.envelope(inner, self.mac, self.ip)
        return wire.generic_server_req(self.page % 256, 16, body, self.ip)

    def take(self, response: bytes):
        head = struct.pack(">HIIHH", 16, GIT, self.crc, PAGE, self.page)
        page = self.data[self.page * PAGE:(self.page + 1) * PAGE].ljust(PAGE, b"\xff")
        assert response[5:19] == head and response[19:19 + PAGE] == page and len(response) == 19 + PAGE
        self.page += 1


def deliver(nodes: dict, message: bytes) -> Node:
    """Finds whom a message from the gateway is for, by the address at its end, and hands it over."""
    node = nodes[message[-16:]]
    if node.forwarded:
        assert message[:5] == struct.pack(">HBH", 0x0008, 0, PAGE + 19) and message[-24:-16] == node.mac
        node.take(message[5:-24])
    else:
        node.take(message[:-16])
    return node


def test_fifty_nodes_update_at_once(gateway, web):  # noqa: F811
    data = image(GIT, SIZE, PAGE, pages=1024)
    assert gateway.terminal().command(f"fw get {web.serve('/i.bin', data)}", "\n") == "Firmware downloaded. Index: 0\n"
    bridges, nodes = [], {}
    for b in range(5):
        bridge = gateway.bridge(wire.mac(0xB000 + b))
        bridge.send_message(wire.heartbeat(bridge.mac, 1, bridge=bridge.mac, addr=wire.ip(0xB000 + b), reporting=255))
        behind = [Node(b * 16 + n, n % 2 == 1, data) for n in range(10)]
        nodes.update({node.ip: node for node in behind})
        bridge.send_message(*(node.announce(bridge) for node in behind))
        bridges.append((bridge, behind))
    for bridge, _ in bridges:
        bridge.barrier()

    begin = time.monotonic()
    for bridge, behind in bridges:
        bridge.send_message(*(node.request() for node in behind))
    pending = len(nodes)
    while pending:
        assert time.monotonic() - begin < 5 * DEADLINE
        for bridge, _ in bridges:
            answers = [deliver(nodes, m) for m in bridge.deframer.feed(bridge.pull(0.001))]
            pending -= sum(node.page == PAGES for node in answers)
            bridge.send_message(*(node.request() for node in answers if node.page < PAGES))
    seconds = time.monotonic() - begin
    assert all(node.page == PAGES for node in nodes.values())
    print(f"\n{len(nodes)} nodes, {PAGES} pages each of {PAGE} bytes: {seconds:.2f} s, {len(nodes) * PAGES / seconds:.0f} pages/s")
    assert not [m for m in gateway.reports(bridges[0][0]) if m[:2] == b"\x01\x0e"], "no page was asked upstream"
