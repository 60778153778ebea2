"""A server upstream that vanishes behind a router without a word is noticed within 15 s, and served within 5 s
of its return."""
import contextlib
import socket
import subprocess
import time

import pytest
import zmq

from harness import wire
from harness.daemon import Daemon, free_port
from harness.peers import wait_until
from network import available

GROUP = "Names and servers"
pytestmark = pytest.mark.measured

BRIDGE = wire.mac(0xB001)


@contextlib.contextmanager
def gateway_of_servers_elsewhere(folder, namespaces):
    """In a namespace of its own, behind a router that can lose the way to its servers."""
    def change(config):
        config["message_handler"]["address"] = config["pub_sub_proxy"]["address"] = "10.77.2.2"
        return config

    with namespaces.enter("ours"):
        gateway = Daemon(folder, upstream=(), change=change)
    try:
        yield gateway
    finally:
        gateway.close()


class Servers:
    """The message handler, the proxy and its input, in the server's namespace. Never binds an address of ours. One
    that `stands` has little room for what it does not read."""

    def __init__(self, namespaces, ports, stands: bool = False):
        self.context = zmq.Context()
        self.sockets = {}
        with namespaces.enter("server"):
            for name, kind in (("handler", zmq.PULL), ("proxy_input", zmq.PULL), ("proxy", zmq.XPUB)):
                sock = self.sockets[name] = self.context.socket(kind)
                sock.setsockopt(zmq.LINGER, 0)
                if stands:
                    sock.setsockopt(zmq.RCVHWM, 1)
                    sock.setsockopt(zmq.RCVBUF, 4096)
                sock.bind(f"tcp://10.77.2.2:{ports[name]}")

    def close(self):
        for sock in self.sockets.values():
            sock.close()
        self.context.term()


def connections(namespaces) -> list:
    """TCP connections with the server, by the daemon's side of the host."""
    out = subprocess.run(["ip", "netns", "exec", namespaces.names["ours"], "cat", "/proc/net/tcp"],
                         capture_output=True, text=True, check=True).stdout
    server = "02024D0A:"
    return [line for line in out.splitlines() if server in line.split()[2] and line.split()[3] == "01"]


def bounds_pauses_of_probes() -> bool:
    """Linux 6.15: TCP_RTO_MAX_MS."""
    with socket.socket() as sock:
        try:
            sock.setsockopt(socket.IPPROTO_TCP, 44, 2500)
            return True
        except OSError:
            return False


@pytest.mark.slow
@pytest.mark.skipif(not available() or not bounds_pauses_of_probes(), reason="needs network namespaces and Linux 6.15")
def test_a_server_that_stood_and_then_vanished_is_noticed(tmp_path, namespaces, figure):
    with gateway_of_servers_elsewhere(tmp_path, namespaces) as gateway:
        servers = Servers(namespaces, gateway.ports, stands=True)
        with namespaces.enter("ours"):
            bridge = gateway.bridge(BRIDGE)
        bridge.introduce()
        wait_until(lambda: len(connections(namespaces)) == 3, "three connections")
        chunk = b"".join(wire.frame(wire.root_announce(BRIDGE, i % 255 + 1)) for i in range(500))

        def is_full():
            bridge.send(chunk)
            bridge.barrier()
            return any("Overflow message handler" in line for line in gateway.syslog())
        wait_until(is_full, "a full queue", 60)
        stood_until = time.monotonic() + 15
        wait_until(lambda: time.monotonic() > stood_until, "probes that come ever more rarely")
        assert len(connections(namespaces)) == 3, "who stands is not cut off"
        namespaces.route(False)
        gone = time.monotonic()
        wait_until(lambda: not connections(namespaces), "the connections to be given up", 150)
        noticed = time.monotonic() - gone
        figure("until the silence of one who stood is noticed", "-", f"{noticed:.1f} s")
        assert noticed < 15
        servers.close()


@pytest.mark.skipif(not available(), reason="needs the rights to make network namespaces")
def test_a_server_that_vanished_is_noticed_and_found_again(tmp_path, namespaces, figure):
    with gateway_of_servers_elsewhere(tmp_path, namespaces) as gateway:
        servers = Servers(namespaces, gateway.ports)
        with namespaces.enter("ours"):
            bridge = gateway.bridge(BRIDGE)
        bridge.introduce()
        sequence = iter(range(1, 1 << 30))

        def delivered():
            bridge.send_message(wire.root_announce(BRIDGE, next(sequence) % 255 + 1))
            bridge.barrier()
            return servers.sockets["handler"].poll(20)

        wait_until(delivered, "the first report")
        wait_until(lambda: len(connections(namespaces)) == 3, "three connections")
        namespaces.route(False)
        gone = time.monotonic()
        for _ in range(50):     # something that is never acknowledged; the other two links are idle
            bridge.send_message(wire.root_announce(BRIDGE, next(sequence) % 255 + 1))
        bridge.barrier()
        wait_until(lambda: not connections(namespaces), "the connections to be given up", 120)
        noticed = time.monotonic() - gone
        servers.close()         # with it went what the host knew of its connections

        namespaces.route(True)
        back = time.monotonic()
        servers = Servers(namespaces, gateway.ports)
        wait_until(delivered, "a report after the return", 150)
        assert servers.sockets["proxy"].poll(5000), "no subscription"
        served = time.monotonic() - back
        figure("until the silence is noticed", "55 s", f"{noticed:.1f} s")
        figure("until it is served after its return", "up to 105 s", f"{served:.1f} s")
        assert noticed < 15 and served < 5, f"noticed after {noticed:.1f} s, served after {served:.1f} s"
        servers.close()


@pytest.mark.skipif(not available(), reason="needs the rights to make network namespaces")
def test_a_debug_broker_that_vanished_is_noticed_and_found_again(tmp_path, namespaces, figure):
    port = free_port()

    def change(config):
        config["debug_broker_address"] = f"tcp://10.77.2.2:{port}"
        return config

    context = zmq.Context()
    with namespaces.enter("server"):
        broker = context.socket(zmq.PULL)
        broker.setsockopt(zmq.LINGER, 0)
        broker.bind(f"tcp://10.77.2.2:{port}")
    with namespaces.enter("ours"):
        gateway = Daemon(tmp_path, upstream=(), change=change)
    try:
        def records() -> bool:
            with namespaces.enter("ours"):
                gateway.terminal().close()      # is worth a few
            came = broker.poll(20) != 0
            while broker.poll(0):
                broker.recv()
            return came

        def notices() -> list:
            records()
            return [line for line in gateway.syslog() if "silent for" in line]

        wait_until(records, "the first record")
        namespaces.route(False)
        gone = time.monotonic()
        said = wait_until(notices, "the line", 60)
        noticed = time.monotonic() - gone
        assert said == ["4 rtls-gateway: debug broker: silent for 12 s, connecting again"]
        namespaces.route(True)
        wait_until(records, "a record after its return")
        figure("until the silence of a debug broker is noticed", "-", f"{noticed:.1f} s")
        assert noticed < 15
    finally:
        gateway.close()
        broker.close()
        context.term()
