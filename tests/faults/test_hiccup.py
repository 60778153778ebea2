"""A pause of the daemon or the host costs no report while the message handler takes them, and one that takes
none holds up nobody."""
import re
import signal
import time

import pytest
import zmq

from harness import wire
from harness.figures import Figures
from harness.http_client import get, with_http
from harness.peers import wait_until
from test_bridges import Honest

GROUP = "Reports"
pytestmark = pytest.mark.measured

BRIDGE = wire.mac(0xB001)
CHUNK = b"".join(wire.frame(wire.root_announce(BRIDGE, i % 255 + 1)) for i in range(500))


def overflows(gateway) -> list:
    return [line for line in gateway.syslog() if "Overflow" in line or "Exemption" in line]


def flooded(start_gateway, port: int) -> tuple:
    """A gateway, a handler that is connected and takes as little as it can, a bridge that floods, an honest one."""
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"), change=with_http(port))
    handler = gateway.context.socket(zmq.PULL)
    handler.setsockopt(zmq.RCVHWM, 1)
    handler.setsockopt(zmq.RCVBUF, 4096)
    handler.bind(gateway._endpoint("handler"))
    wait_until(lambda: get(port, "/readyz").status == 200, "the links")    # else the queue is full of what nobody takes
    flooding, honest = gateway.bridge(BRIDGE), gateway.bridge(wire.mac(0xB002))
    flooding.introduce()
    honest.introduce()
    return gateway, handler, flooding, honest


@pytest.mark.parametrize("pauses, reports", [(3, 1500), (1, 10_000)])
def test_what_waits_in_tcp_during_a_pause_reaches_the_handler(gateway, pauses, reports, figure):
    bridges = [gateway.bridge(wire.mac(0xB001 + i)) for i in range(4)]
    sent = 0
    for _ in range(pauses):
        gateway.interrupt(signal.SIGSTOP)
        for i in range(reports):
            bridges[i % 4].send_message(wire.root_announce(wire.mac(i % 4), i // 4 % 255 + 1))
        gateway.interrupt(signal.SIGCONT)
        sent += reports
        for bridge in bridges:
            bridge.barrier()
    received = 0
    while received < sent and gateway.handler.sock.poll(2000):
        gateway.handler.sock.recv_multipart()
        received += 1
    figure(f"reports lost, of {pauses} pauses with {reports:,} reports each",
           {1: "3,788 in 10 s at 1,000/s", 3: "1,946 in 3 x 0.5 s at 3,000/s"}[pauses], f"{sent - received}")
    assert received == sent, f"{sent - received} of {sent} reports lost"
    assert overflows(gateway) == []


def waited_in_vain(port: int) -> int:
    return Figures(port)["reports_lost_total", {"queue": "message_handler", "cause": "waited_in_vain"}]


def test_a_handler_that_takes_nothing_holds_up_nobody(start_gateway, http_port, figure):
    gateway, handler, flooding, honest = flooded(start_gateway, http_port)
    deadline = time.monotonic() + 20
    while not overflows(gateway):   # fills what TCP holds, then the queue
        assert time.monotonic() < deadline, "the queue is never full"
        flooding.send(CHUNK)
        flooding.barrier()
    in_vain = waited_in_vain(http_port)
    waits = []
    for _ in range(100):
        flooding.send(CHUNK)
        begin = time.monotonic()
        honest.barrier()
        waits.append(time.monotonic() - begin)
    handler.close(0)
    figure("a ping beside a handler that reads nothing, median (worst)", "-",
           f"{sorted(waits)[50] * 1000:.1f} ms ({max(waits) * 1000:.0f} ms)")
    assert waited_in_vain(http_port) == in_vain, "an overflow is waited for once, at its begin"
    assert sorted(waits)[90] < 0.05 and max(waits) < 0.5, f"a ping waited {max(waits) * 1000:.0f} ms"


def test_a_handler_that_is_slow_delays_pings_for_a_moment_only(start_gateway, http_port, figure):
    gateway, handler, flooding, _ = flooded(start_gateway, http_port)
    honest = Honest(gateway, wire.mac(0xB003))
    flooding.sock.setblocking(False)
    rest = b""
    end = time.monotonic() + 4
    while time.monotonic() < end:
        try:
            rest = rest or CHUNK
            rest = rest[flooding.sock.send(rest):]
        except BlockingIOError:
            pass
        while handler.poll(0) and time.monotonic() < end:   # a few hundred a second
            handler.recv_multipart()
            break
        honest.ping()
    handler.close(0)
    waits = sorted(honest.waits)
    median, most = waits[len(waits) // 2], waits[len(waits) * 99 // 100]
    figure("a ping beside a handler that takes a few hundred reports a second, median (99 %)", "-",
           f"{median * 1000:.1f} ms ({most * 1000:.0f} ms)")
    assert median < 0.02 and most < 0.1, f"a ping took {median * 1000:.0f} ms, and {most * 1000:.0f} ms now and then"
    wait_until(lambda: overflows(gateway), "the overflow")


@pytest.mark.slow
def test_a_handler_that_stands_for_half_a_minute_is_not_cut_off(start_gateway, figure):
    """Its window is closed, but its system answers: what TCP holds for it is not given up."""
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"))
    handler = gateway.context.socket(zmq.PULL)
    handler.setsockopt(zmq.RCVHWM, 1)
    handler.setsockopt(zmq.RCVBUF, 4096)
    monitor = handler.get_monitor_socket(zmq.EVENT_ACCEPTED)
    handler.bind(gateway._endpoint("handler"))
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    chunk = b"".join(wire.frame(wire.root_announce(BRIDGE, i % 255 + 1)) for i in range(500))
    sent, end = 1, time.monotonic() + 30    # the introduction is one
    while time.monotonic() < end or not overflows(gateway):
        if not overflows(gateway):
            bridge.send(chunk)
            sent += 500
        bridge.barrier()                    # paced by the daemon: some thousands a second at most
        assert time.monotonic() < end + 30, "the queue is never full"
        monitor.poll(20)

    def lost() -> int:
        return sum(int(n) for line in gateway.syslog()
                   for n in re.findall(r"Overflow message handler queue: (\d+) lost", line))

    received = 0
    while handler.poll(2000):
        handler.recv_multipart()
        received += 1
    bridge.send_message(wire.root_announce(BRIDGE, 1))  # its end is said when the queue takes a report
    bridge.barrier()
    sent += 1
    while handler.poll(2000):
        handler.recv_multipart()
        received += 1
    wait_until(lost, "the end of the overflow")
    accepted = 0
    while monitor.poll(0):
        monitor.recv_multipart()
        accepted += 1
    handler.disable_monitor()
    handler.close(0)
    figure("reports lost beyond what the overflow says, of a handler that stands for 30 s",
           "all that TCP holds", f"{sent - received - lost()}")
    assert accepted == 1, f"{accepted} connections: it was cut off"
    assert received + lost() == sent, f"{sent} sent, {received} received, {lost()} said to be lost"
