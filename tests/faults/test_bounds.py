"""What one peer sends costs bounded answers, and what a queue has lost is said."""
import re
import select
import socket
import time

from harness import wire
from harness.peers import wait_until

BRIDGE = wire.mac(0xB001)


def udp(source: str, port: int = 0) -> socket.socket:
    sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    sock.bind((source, port))
    sock.settimeout(5)
    return sock


def losses(gateway) -> list:
    found = (re.fullmatch(r"6 rtls-gateway: Overflow message handler queue: (\d+) lost in (\d+) ms", line)
             for line in gateway.syslog())
    return [int(match[1]) for match in found if match]


def overflowing(start_gateway):
    """A gateway without its message handler, whose queue has lost 42 reports, and the bridge that sent them."""
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"))
    bridge = gateway.bridge(BRIDGE)
    for i in range(1042):
        bridge.send_message(wire.root_announce(BRIDGE, i % 255 + 1))
    bridge.barrier()
    wait_until(lambda: any("Overflow message handler" in line for line in gateway.syslog()), "the overflow")
    return gateway, bridge


def test_a_request_from_our_own_discovery_port_is_not_answered(gateway):
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
        answered, _, _ = select.select([honest, other], [], [], 5)
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


def test_a_stop_amid_an_overflow_says_how_much_was_lost(start_gateway):
    gateway, _ = overflowing(start_gateway)
    gateway.interrupt()
    gateway.wait_exit()
    assert losses(gateway) == [42]
    assert not any("Exemption" in line for line in gateway.syslog())


def test_a_huge_text_from_the_proxy_is_refused_by_its_length(gateway):
    gateway.proxy.publish("08" * (8 << 20))
    refusal = "3 rtls-gateway: handle_pub_sub_proxy: a text of 16777216 bytes is too long!"
    wait_until(lambda: refusal in gateway.syslog(), "the refusal")
