"""A registry that is as full as it gets costs nobody anything, and locks nobody out."""
import struct
import time

import pytest

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import with_http

GROUP = "Registry"
pytestmark = [pytest.mark.measured, pytest.mark.slow]

BRIDGE = wire.mac(0xB001)
LIMIT = 1_000_000
REPORTS = 200
EXPIRED = 100
PART = 1000


def framed(message: bytes) -> bytes:
    """As wire.frame, for millions."""
    for special in (b"\xf6", b"\xf5", b"\xf7"):
        message = message.replace(special, b"\xf6" + special)
    return b"\xf5" + message + b"\xf7"


NOBODYS = b"\xff\xfe"    # last bytes of a MAC that no node of the crowd has


def mac_of(number: int) -> bytes:
    if number & 0xFFFF == 0xFFFE:
        number = 0x40000000 | number >> 16
    return b"\x02\xab\x34" + struct.pack(">BI", 0x77, number)


def late_mac() -> bytes:
    """One that ends so, and comes among the last in the order in which 900,000 nodes are gone through."""
    def place(mac):
        value = 0
        for byte in mac:
            value = (value * 33 ^ byte) & (1 << 64) - 1
        return value % 2097091
    macs = (b"\x02\xac" + struct.pack(">I", i) + NOBODYS for i in range(1 << 32))
    return next(mac for mac in macs if place(mac) > 2_090_000)


class Crowd:
    """Nodes by the hundred thousand: two share each address. Without servers, which would get what they say."""

    def __init__(self, start_gateway, http_port):
        def change(config):
            del config["debug_broker_address"]    # its lines are not what is measured
            return with_http(http_port)(config)
        self.gateway = start_gateway(upstream=(), change=change)
        self.port = http_port
        self.bridge = self.gateway.bridge(BRIDGE)
        self.bridge.introduce()
        self.number = 1     # nodes, with the bridge's own
        self.bytes = 0      # what it took to make them

    def grow_to(self, number: int, reporting: int = 255):
        """`reporting`: a fifth of their lifetime in seconds."""
        template = wire.heartbeat(mac_of(0), 1, bridge=BRIDGE, addr=wire.ip(0), reporting=reporting)
        begin, end = template[:7], template[15:47]
        for first in range(self.number, number, PART):
            last = min(first + PART, number)
            part = b"".join(framed(begin + mac_of(i) + end + wire.ip(i // 2)) for i in range(first, last))
            self.bridge.send(part)
            self.bytes += len(part)
            self.bridge.barrier()
        self.number = number

    def refused(self) -> int:
        return Figures(self.port).sum("message_outcomes_total", outcome="registry_full")

    def nodes(self) -> int:
        return Figures(self.port).sum("nodes")

    def cost_of_a_report(self) -> float:
        """Of 25 bytes, by a node that shares its address; seconds."""
        def sent(address):
            begin = time.monotonic()
            self.bridge.send_message(*[wire.sensor(1, b"four", address) for _ in range(REPORTS)])
            self.bridge.barrier()
            return time.monotonic() - begin
        return max(min(sent(address) for _ in range(5)) for address in (wire.ip(self.number // 4), bytes(16))) / REPORTS

    def longest_ping(self, seconds: float) -> float:
        waits, end = [], time.monotonic() + seconds
        while time.monotonic() < end:
            began = time.monotonic()
            self.bridge.barrier()
            waits.append(time.monotonic() - began)
        return max(waits)


    def longest_report_beside_reboots(self, answer: str) -> float:
        """A report asks for the registry, unlike a ping alone."""
        operator, waits = self.gateway.terminal(), []
        for _ in range(200):
            operator.send(b"reboot " + NOBODYS.hex().encode() + b"\n")
            began = time.monotonic()
            self.bridge.send_message(wire.sensor(1, b"four", wire.ip(1)))
            self.bridge.barrier()
            waits.append(time.monotonic() - began)
            assert operator.read_until("\n") == answer
        operator.close()
        return max(waits)


def test_a_full_registry_costs_nobody_anything_and_lets_newcomers_in(start_gateway, figure):
    crowd = Crowd(start_gateway, free_port())
    crowd.grow_to(100_000)
    few = crowd.cost_of_a_report()
    crowd.grow_to(900_000)
    many = crowd.cost_of_a_report()
    figure("a report of 25 bytes, 100,000 nodes", "17 ms", f"{few * 1e6:.0f} us")
    figure("a report of 25 bytes, 900,000 nodes", "173 ms", f"{many * 1e6:.0f} us")
    assert many < 0.002

    unknown = min(crowd.longest_report_beside_reboots("Node FFFE not in nodes list\n") for _ in range(3))
    crowd.bridge.send_message(wire.heartbeat(late_mac(), 1, bridge=BRIDGE, addr=wire.ip(0xFFFFFF), reporting=255))
    crowd.bridge.barrier()
    crowd.number += 1
    late = min(crowd.longest_report_beside_reboots("Command sent successfully!\n") for _ in range(3))
    figure("the longest report and ping beside 200 `reboot` lines for an unknown node, 900,000 nodes", "-",
           f"{unknown * 1000:.0f} ms")
    figure("the longest report and ping beside 200 `reboot` lines for the last node of 900,000", "-",
           f"{late * 1000:.0f} ms")
    assert unknown < 0.05 and late < 0.05

    crowd.grow_to(LIMIT - EXPIRED)
    crowd.grow_to(LIMIT, reporting=0)
    assert crowd.refused() == 0
    ageing = min(crowd.longest_ping(1.5) for _ in range(3))     # the host may be busy elsewhere for one of them
    figure("the longest ping while a million nodes age", "200 ms, every second", f"{ageing * 1000:.0f} ms")
    assert ageing < 0.05

    bridges = [crowd.gateway.bridge(wire.mac(0xB100 + i)) for i in range(20)]
    for bridge in bridges:
        bridge.introduce()
        bridge.barrier()
    figure(f"new bridges that a registry lets in which {crowd.bytes // 1_000_000} MB have filled", "0 of 20, after 13 MB", f"{20 - crowd.refused()} of 20")
    assert crowd.refused() == 0 and crowd.nodes() == LIMIT

    crowd.grow_to(LIMIT + 20_000)
    refused = crowd.refused()
    lines = sum("out of memory" in line for line in crowd.gateway.syslog())
    figure("lines about newcomers that find no room", "200,000 in 7.8 s", f"{lines}, of {refused:,} newcomers")
    assert refused == 20_000 - (EXPIRED - 20) and lines == 1
