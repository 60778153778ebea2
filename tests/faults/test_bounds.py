"""What one peer sends costs bounded answers, and what a queue has lost is said."""
import pathlib
import re
import select
import socket
import struct
import time

import pytest

from harness import wire
from harness.daemon import Daemon, free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import DEADLINE, wait_until
from network import Namespaces, available

GROUP = "Discovery and proxy"
GROUPS = {"test_a_stop_amid_an_overflow_says_how_much_was_lost": "Reports"}

BRIDGE = wire.mac(0xB001)


def udp(source: str, port: int = 0) -> socket.socket:
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind((source, port))
    sock.settimeout(DEADLINE)
    return sock


def losses(gateway) -> list:
    found = (re.fullmatch(r"6 rtls-gateway: Overflow message handler queue: (\d+) lost in (\d+) ms", line)
             for line in gateway.syslog())
    return [int(match[1]) for match in found if match]


def overflowing(start_gateway):
    """A gateway without its message handler, whose queue has lost 42 reports, and the bridge that sent them."""
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"))
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()      # the first; so that it stays, however long the link takes
    for i in range(1041):
        bridge.send_message(wire.root_announce(BRIDGE, i % 255 + 1))
    bridge.barrier()
    wait_until(lambda: any("Overflow message handler" in line for line in gateway.syslog()), "the overflow")
    return gateway, bridge


def test_a_request_from_our_own_discovery_port_is_not_answered(gateway, figure):
    port = gateway.ports["discovery"]
    # More specific than the daemon's own socket, so that an answer would come here instead of going round.
    with udp("127.0.0.9", port) as forged, udp("127.0.0.10") as honest:
        for request in (bytes(6), b"\x01" + bytes(8)):
            forged.sendto(request, ("127.0.0.1", port))
        honest.sendto(bytes(6), ("127.0.0.1", port))
        assert len(honest.recv(100)) == 6, "the others are served on"
        forged.setblocking(False)
        try:
            answer = forged.recv(100)
        except BlockingIOError:
            answer = b""
    figure("answers to requests that claim our own address and port", "20,000 a second", f"{len(answer)}")
    assert answer == b""
    said = wait_until(lambda: [line for line in gateway.syslog() if "our own port" in line], "the line")
    assert said == ["3 rtls-gateway: discovery: requests from our own port at 127.0.0.9 are not answered!"]


def test_one_address_gets_a_hundred_answers_a_second(gateway):
    to = ("127.0.0.1", gateway.ports["discovery"])
    # Two others: one address in a thousand shares the counter of the greedy one.
    with udp("127.0.0.9") as greedy, udp("127.0.0.10") as honest, udp("127.0.0.11") as other:
        began = time.monotonic()
        for i in range(200):    # as many as the daemon's receive buffer holds
            greedy.sendto(bytes(6) if i % 2 else b"\x01" + bytes(8), to)
        honest.sendto(bytes(6), to)
        other.sendto(bytes(6), to)
        answered, _, _ = select.select([honest, other], [], [], DEADLINE)
        assert answered, "the others have their own hundred"
        seconds = int(time.monotonic() - began) + 1
        greedy.setblocking(False)
        answers = 0
        try:
            while greedy.recv(100):
                answers += 1
        except BlockingIOError:
            pass
    assert 100 <= answers <= 100 * seconds
    said = wait_until(lambda: [line for line in gateway.syslog() if "requests a second" in line], "the line")
    assert len(said) == 1


def forge(sender: tuple, to: tuple, data: bytes):
    """A datagram that claims to come from `sender`, with no checksum, which UDP allows."""
    udp_header = struct.pack(">HHHH", sender[1], to[1], 8 + len(data), 0)
    ip_header = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 28 + len(data), 0, 0, 64, socket.IPPROTO_UDP, 0,
                            socket.inet_aton(sender[0]), socket.inet_aton(to[0]))
    with socket.socket(socket.AF_INET, socket.SOCK_RAW, socket.IPPROTO_RAW) as raw:
        raw.sendto(ip_header + udp_header + data, (to[0], 0))


def datagrams_out() -> int:
    """Of the namespace that this thread is in."""
    with open("/proc/thread-self/net/snmp") as table:
        names, values = [line.split() for line in table if line.startswith("Udp:")]
    return int(values[names.index("OutDatagrams")])


@pytest.mark.skipif(not available(), reason="needs the rights to make network namespaces")
def test_two_gateways_that_answer_each_other_are_bounded(tmp_path, figure):
    """An answer to six bytes is a request of six bytes. Neither knows the other's address for a gateway's."""
    namespaces = Namespaces()
    gateways = []
    try:
        for name in ("ours", "router"):
            (tmp_path / name).mkdir()
            ports = {"discovery": 4567}
            with namespaces.enter(name):
                gateways.append(Daemon(tmp_path / name, upstream=(), ports=ports))
        with namespaces.enter("router"):
            before = datagrams_out()
            began = time.monotonic()
            forge(("10.77.1.2", 4567), ("10.77.1.1", 4567), bytes(6))
            floods = [lambda gateway=gateway: any("requests a second" in line for line in gateway.syslog())
                      for gateway in gateways]
            wait_until(lambda: any(flood() for flood in floods), "a gateway that answers no more")
            seconds = int(time.monotonic() - began) + 1
            answers = datagrams_out() - before
            with udp("10.77.1.2") as honest:    # of the same address, but in the next second
                def served():
                    honest.sendto(b"\x01" + bytes(8), ("10.77.1.1", 4567))
                    honest.settimeout(0.2)
                    try:
                        return honest.recv(100)
                    except TimeoutError:
                        return b""
                wait_until(served, "an answer to somebody else of that host")
        figure("answers of one gateway to the other in a second", "20,000", f"{answers / seconds:.0f}")
        assert answers <= 101 * (seconds + 1)
    finally:
        for gateway in gateways:
            gateway.close()
        namespaces.close()


@pytest.mark.measured
@pytest.mark.skipif(not available(), reason="needs the rights to make network namespaces")
def test_requests_from_addresses_that_nobody_has_hold_up_nobody(tmp_path, figure):
    """What is answered waits in the system until it has given up asking for the neighbour, and fills the socket."""
    namespaces, gateway = Namespaces(), None
    try:
        with namespaces.enter("ours"):
            port = free_port()
            gateway = Daemon(tmp_path, upstream=(), ports={"discovery": 4567}, change=with_http(port))
            bridge = gateway.bridge(BRIDGE)
        bridge.introduce()
        bridge.barrier()
        waits = []
        with namespaces.enter("router"):
            for number in range(400):
                forge((f"10.77.1.{50 + number // 100}", 5000), ("10.77.1.1", 4567), bytes(6))
                if number % 20 == 0:
                    began = time.monotonic()
                    bridge.barrier()
                    waits.append(time.monotonic() - began)
        assert max(waits) < 0.5, f"a ping waited {max(waits):.1f} s"
        said = wait_until(lambda: [line for line in gateway.syslog() if "no room for answers" in line], "the line")
        with namespaces.enter("ours"):
            unsent = Figures(port)["discovery_requests_total", {"outcome": "not_sent"}]
        figure("the longest ping beside 400 requests from 4 addresses that nobody has", "3 s, again and again",
               f"{max(waits) * 1000:.0f} ms")
        assert len(said) == 1 and unsent > 0
    finally:
        if gateway:
            gateway.close()
        namespaces.close()


def test_the_end_of_an_overflow_says_how_much_was_lost(start_gateway):
    gateway, bridge = overflowing(start_gateway)
    gateway.start_handler()
    delivered = [gateway.handler.receive() for _ in range(1000)]
    assert len(delivered) == 1000 and losses(gateway) == []

    def exempted():
        bridge.send_message(wire.root_announce(BRIDGE, 7))
        bridge.barrier()
        return losses(gateway)

    wait_until(exempted, "the count")
    assert len(losses(gateway)) == 1 and losses(gateway)[0] >= 42


def test_a_stop_amid_an_overflow_says_how_much_was_lost(start_gateway, figure):
    gateway, _ = overflowing(start_gateway)
    gateway.interrupt()
    gateway.wait_exit()
    figure("reports that are said to be lost, of 42 that are", "not said", f"{sum(losses(gateway))}")
    assert losses(gateway) == [42]
    assert not any("Exemption" in line for line in gateway.syslog())


@pytest.mark.measured
def test_a_huge_text_from_the_proxy_is_refused_by_its_length(gateway, figure):
    """It comes whole all the same: the library has no other bound than to cut the connection. Those behind it would be
    lost with it."""
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    size = 200 << 20
    refusal = f"3 rtls-gateway: handle_pub_sub_proxy: a text of {size} bytes is too long!"
    gateway.proxy.publish("08" * (size // 2))
    gateway.proxy.publish(wire.generic_req(b"behind", BRIDGE))
    behind = []
    waits = []
    while refusal not in gateway.syslog() and sum(waits) < 60:
        begin = time.monotonic()
        behind += bridge.barrier()
        waits.append(time.monotonic() - begin)
    behind = behind or [bridge.receive()]
    assert b"behind" in behind[0], "what comes behind it is not lost"
    status = pathlib.Path(f"/proc/{gateway.process.pid}/status").read_text()
    peak = int(re.search(r"VmHWM:\s+(\d+)", status)[1]) // 1024
    figure("the longest ping beside a text of 200 MiB", "2 s", f"{max(waits) * 1000:.0f} ms")
    figure("memory that it takes for that moment", "-", f"{peak} MiB")
    assert refusal in gateway.syslog() and max(waits) < 0.5 and peak < 512


@pytest.mark.measured
def test_huge_texts_in_a_row_are_refused_one_by_one(gateway, figure):
    """The library's queue would take a thousand of them: they must be gone as quickly as they come."""
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    number, text = 20, b"08" * (50 << 20)
    refusal = f"3 rtls-gateway: handle_pub_sub_proxy: a text of {len(text)} bytes is too long!"
    for _ in range(number):
        gateway.proxy.sock.send(text, copy=False)
    gateway.proxy.publish(wire.generic_req(b"behind", BRIDGE))
    behind, waits = [], []
    while not behind and sum(waits) < 60:
        begin = time.monotonic()
        behind = bridge.barrier()
        waits.append(time.monotonic() - begin)
    assert behind and b"behind" in behind[0], "what comes behind them is not lost"
    wait_until(lambda: gateway.syslog().count(refusal) == number, "a line about each")
    status = pathlib.Path(f"/proc/{gateway.process.pid}/status").read_text()
    peak = int(re.search(r"VmHWM:\s+(\d+)", status)[1]) // 1024
    figure(f"the longest ping beside {number} texts of 100 MiB", "-", f"{max(waits) * 1000:.0f} ms")
    figure("memory that they take for that moment", "-", f"{peak} MiB")
    assert max(waits) < 0.5 and peak < 512


def resident_kib(gateway) -> int:
    status = pathlib.Path(f"/proc/{gateway.process.pid}/status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+)", status)[1])


@pytest.mark.measured
def test_the_largest_command_leaves_little_behind_in_each_node(gateway, figure):
    """What repeats a node's last command is dropped, so that is remembered; of a large one not all."""
    nodes = 200
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    for number in range(nodes):
        bridge.send_message(wire.heartbeat(wire.mac(number), 1, bridge=BRIDGE, addr=wire.ip(number)))
    bridge.barrier()
    refused = "3 rtls-gateway: process_data_from_pub_sub_proxy (MSG_CONF_NODE_REQ): wrong size"

    def order(number: int):
        gateway.proxy.publish(struct.pack(">H", wire.CONF_NODE_REQ) + bytes(131_000 - 10) + wire.mac(number))
        wait_until(lambda: sum(line.startswith(refused) for line in gateway.syslog()) > number, "the command")

    order(0)
    before = resident_kib(gateway)
    for number in range(1, nodes):
        order(number)
    a_node = (resident_kib(gateway) - before) / (nodes - 1)
    figure("memory that a node keeps of the largest command", "8 MiB", f"{a_node:.1f} KiB")
    assert a_node < 16
