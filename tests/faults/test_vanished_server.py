"""A server upstream that vanishes behind a router without a word is noticed within 15 s, and served within 5 s
of its return."""
import subprocess
import time

import pytest
import zmq

from harness import wire
from harness.daemon import Daemon
from harness.peers import wait_until
from network import Namespaces, available

pytestmark = pytest.mark.measured

BRIDGE = wire.mac(0xB001)


@pytest.fixture
def namespaces():
    spaces = Namespaces()
    yield spaces
    spaces.close()


class Servers:
    """The message handler, the proxy and its input, in the server's namespace. Never binds an address of ours."""

    def __init__(self, namespaces, ports):
        self.context = zmq.Context()
        self.sockets = {}
        with namespaces.enter("server"):
            for name, kind in (("handler", zmq.PULL), ("proxy_input", zmq.PULL), ("proxy", zmq.XPUB)):
                sock = self.sockets[name] = self.context.socket(kind)
                sock.setsockopt(zmq.LINGER, 0)
                sock.bind(f"tcp://10.77.2.2:{ports[name]}")

    def close(self):
        for sock in self.sockets.values():
            sock.close()
        self.context.term()


@pytest.mark.skipif(not available(), reason="needs the rights to make network namespaces")
def test_a_server_that_vanished_is_noticed_and_found_again(tmp_path, namespaces, figure):
    def change(config):
        config["message_handler"]["address"] = config["pub_sub_proxy"]["address"] = "10.77.2.2"
        return config

    with namespaces.enter("ours"):
        gateway = Daemon(tmp_path, upstream=(), change=change)
    try:
        servers = Servers(namespaces, gateway.ports)
        with namespaces.enter("ours"):
            bridge = gateway.bridge(BRIDGE)
        bridge.introduce()
        sequence = iter(range(1, 1 << 30))

        def delivered():
            bridge.send_message(wire.root_announce(BRIDGE, next(sequence) % 255 + 1))
            bridge.barrier()
            return servers.sockets["handler"].poll(20)

        def connections():
            """TCP connections with the server, by the daemon's side of the host."""
            out = subprocess.run(["ip", "netns", "exec", namespaces.names["ours"], "cat", "/proc/net/tcp"],
                                 capture_output=True, text=True, check=True).stdout
            server = "02024D0A:"
            return [line for line in out.splitlines() if server in line.split()[2] and line.split()[3] == "01"]

        wait_until(delivered, "the first report")
        wait_until(lambda: len(connections()) == 3, "three connections")
        namespaces.route(False)
        gone = time.monotonic()
        for _ in range(50):     # something that is never acknowledged; the other two links are idle
            bridge.send_message(wire.root_announce(BRIDGE, next(sequence) % 255 + 1))
        bridge.barrier()
        wait_until(lambda: not connections(), "the connections to be given up", 120)
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
    finally:
        gateway.close()
