"""A server upstream that answers nonsense, or is the wrong one, is given another chance; so is the right one
that takes its place."""
import gzip
import itertools
import re
import socket
import threading
import time

import pytest
import zmq

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import wait_until
from counting_server import small_listener

GROUP = "Names and servers"

BRIDGE = wire.mac(0xB001)
NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)


class Nonsense:
    """Listens where a server should, and answers every connection with the same bytes."""

    def __init__(self, gateway, name: str, answer: bytes):
        self.answer = answer
        self.asked = 0
        self.listener = socket.socket()
        self.listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        self.listener.bind(("127.0.0.1", gateway.ports[name]))
        self.listener.listen()
        self.thread = threading.Thread(target=self._serve, daemon=True)
        self.thread.start()

    def _serve(self):
        while True:
            try:
                client, _ = self.listener.accept()
            except OSError:
                return
            with client:
                client.settimeout(2)
                try:
                    client.recv(64)
                    client.sendall(self.answer)
                    client.shutdown(socket.SHUT_WR)
                    self.asked += 1
                    while client.recv(4096):
                        pass
                except OSError:
                    pass

    def close(self):
        self.listener.shutdown(socket.SHUT_RDWR)
        self.listener.close()
        self.thread.join()


class WrongKind:
    def __init__(self, gateway, name: str, kind: int):
        self.sock = gateway.context.socket(kind)
        self.monitor = self.sock.get_monitor_socket(zmq.EVENT_ACCEPTED)
        self.sock.bind(gateway._endpoint(name))

    @property
    def asked(self) -> int:
        return self.monitor.poll(0)

    def close(self):
        self.sock.disable_monitor()
        self.sock.close(0)


FIRST = {
    "an HTTP error": lambda g, name: Nonsense(g, name, b"HTTP/1.1 400 Bad Request\r\n"
                                                b"Content-Encoding: gzip\r\n\r\n" + gzip.compress(b"400")),
    "no protocol at all": lambda g, name: Nonsense(g, name, b"\xff" * 64),
    "REP": lambda g, name: WrongKind(g, name, zmq.REP),
    "PUB": lambda g, name: WrongKind(g, name, zmq.PUB if name != "proxy" else zmq.PULL),
}


# The library takes "HTTP/1.1 4" for the greeting of a socket of its first versions.
# Of two that do not fit each other, each ends it as soon as it sees what the other is.
REASONS = {"an HTTP error": {"other_socket"}, "no protocol at all": {"other_protocol"},
           "REP": {"other_socket", "broken_off"}, "PUB": {"other_socket", "broken_off"}}


@pytest.mark.parametrize("first", FIRST)
@pytest.mark.parametrize("name", ["handler", "proxy_input", "proxy", "broker"])
def test_the_right_server_is_served_after_a_wrong_one(start_gateway, name, first, figure):
    upstream = [other for other in ("broker", "handler", "proxy", "proxy_input") if other != name]
    gateway = start_gateway(upstream=upstream)
    wrong = FIRST[first](gateway, name)
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    wait_until(lambda: wrong.asked, "the daemon's greeting")
    wait_until(lambda: any("connecting again" in line for line in gateway.syslog()), "the link to be given up")
    wrong.close()
    getattr(gateway, "start_" + name)()
    began = time.monotonic()
    sequence = itertools.cycle(range(1, 256))
    if name == "handler":
        def served():
            bridge.send_message(wire.root_announce(BRIDGE, next(sequence)))
            bridge.barrier()
            return gateway.handler.drain()
    elif name == "proxy_input":
        def served():
            bridge.send_message(wire.generic_server_req(next(sequence), 40, bytes(26), NODE_IP))
            bridge.barrier()
            return gateway.proxy_input.drain()
    elif name == "proxy":
        def served():
            return gateway.proxy.sock.poll(10)
    else:
        def served():
            gateway.terminal().close()
            return gateway.broker.drain()
    wait_until(served, "the right server to be served")
    took = time.monotonic() - began
    figure("until the right server is served", "not in 200 s", f"{took:.1f} s", worst=took)
    assert took < 15    # several tries, a few seconds apart, on a busy machine


def deaf_server(gateway) -> zmq.Socket:
    """A message handler that never reads; it and TCP hold little."""
    sock = gateway.context.socket(zmq.PULL)
    sock.setsockopt(zmq.RCVHWM, 1)
    sock.setsockopt(zmq.USE_FD, small_listener(gateway._endpoint("handler")).detach())
    sock.bind(gateway._endpoint("handler"))
    return sock


QUEUE = 1000    # the library's, towards one server
HANDLER = {"queue": "message_handler"}


def test_what_a_full_queue_held_is_lost_with_it_and_counted(start_gateway, figure):
    """A server stops reading, until the queue towards it is full, and is killed; a wrong one takes its place. The library
    drops the queue, and nobody has got any of it."""
    port = free_port()
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"), change=with_http(port))
    deaf = deaf_server(gateway)
    wait_until(lambda: Figures(port)["upstream_link_up", {"link": "message_handler"}], "the link")
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    sequence = itertools.cycle(range(1, 256))

    def is_full() -> bool:
        for _ in range(250):
            bridge.send_message(wire.root_announce(BRIDGE, next(sequence)))
        bridge.barrier()
        return Figures(port)["reports_lost_total", {**HANDLER, "cause": "overflow"}] > 0
    wait_until(is_full, "the queue to be full")
    full = Figures(port)["reports_handed_over_total", HANDLER]
    under_way = full - QUEUE     # in TCP, and in the library of a server that never read it
    assert under_way >= 0

    deaf.close(0)

    def takes_its_place():     # the library closes in its own time
        try:
            return FIRST["no protocol at all"](gateway, "handler")
        except OSError:
            return None
    wrong = wait_until(takes_its_place, "the port to be free")
    wait_until(lambda: wrong.asked, "the daemon's greeting")
    wait_until(lambda: any("connecting again" in line for line in gateway.syslog()), "the link to be given up")
    wrong.close()
    gateway.start_handler()
    received = []

    def served() -> bool:
        bridge.send_message(wire.root_announce(BRIDGE, next(sequence)))
        bridge.barrier()
        received.extend(gateway.handler.drain())
        return bool(received)
    wait_until(served, "the right server to be served")

    def missing() -> int:
        received.extend(gateway.handler.drain())
        now = Figures(port)
        return (now["reports_handed_over_total", HANDLER] - len(received) -
                now["reports_lost_total", {**HANDLER, "cause": "dropped"}])
    wait_until(lambda: missing() <= under_way, "every report to be accounted for")
    dropped = Figures(port)["reports_lost_total", {**HANDLER, "cause": "dropped"}]
    figure("reports of a full queue that are in no figure, of 1,000", "1,000", f"{max(0, QUEUE - dropped):,}")
    assert dropped >= QUEUE


@pytest.mark.parametrize("first", FIRST)
def test_what_a_wrong_server_costs_is_said(start_gateway, first, figure):
    """The library mostly drops what waits for a server when that turns out to be none: each report has come, or
    is in what is said to be lost, in the log and in the figures."""
    port = free_port()
    began = time.time()
    gateway = start_gateway(upstream=("broker", "proxy", "proxy_input"), change=with_http(port))
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    sent = 1    # the introduction
    for i in range(200):
        bridge.send_message(wire.root_announce(BRIDGE, i + 1))
    bridge.barrier()
    sent += 200
    wrong = FIRST[first](gateway, "handler")
    wait_until(lambda: wrong.asked, "the daemon's greeting")
    wait_until(lambda: any("connecting again" in line for line in gateway.syslog()), "the link to be given up")
    bridge.send_message(wire.root_announce(BRIDGE, 201))
    bridge.barrier()
    sent += 1
    wrong.close()
    gateway.start_handler()

    def lost() -> int:
        return sum(int(n) for line in gateway.syslog()
                   for n in re.findall(r"(?:Overflow message handler queue|message handler): (\d+) lost", line))

    received = []

    def accounted() -> bool:
        received.extend(gateway.handler.drain())
        return bool(received) and len(received) + lost() >= sent

    def served() -> bool:
        nonlocal sent
        bridge.send_message(wire.root_announce(BRIDGE, sent % 255 + 1))
        bridge.barrier()
        sent += 1
        received.extend(gateway.handler.drain())
        return bool(received)

    wait_until(served, "the right server to be served")
    wait_until(accounted, "every report to be accounted for")
    since = ("upstream_link_since_timestamp_seconds", {"link": "message_handler"})
    wait_until(lambda: Figures(port)[since], "the gateway to take note of its link")
    unsaid = sent - len(received) - lost()
    figure("reports lost and not said, of 200 that waited", "200", f"{unsaid}", worst=unsaid)
    assert len(received) + lost() == sent
    now = Figures(port)
    handed_over = now["reports_handed_over_total", {"queue": "message_handler"}]
    dropped = now["reports_lost_total", {"queue": "message_handler", "cause": "dropped"}]
    assert dropped == handed_over - len(received)
    failures = {reason: now["upstream_link_failures_total", {"link": "message_handler", "reason": reason}]
                for reason in ("broken_off", "other_protocol", "refused", "other_socket", "lost")}
    met = {reason for reason, number in failures.items() if number}
    assert met and met <= REASONS[first]
    assert began - 1 <= now[since] <= time.time()
    assert now.sum("reports_lost_total", queue="message_handler") == lost()
