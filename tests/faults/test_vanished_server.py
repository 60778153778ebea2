"""A server upstream that vanishes behind a router without a word is noticed within 15 s, and served within 5 s
of its return."""
import ctypes
import os
import pathlib
import subprocess
import time

import pytest
import zmq

from harness import wire
from harness.daemon import Daemon
from harness.peers import wait_until

pytestmark = pytest.mark.measured

BRIDGE = wire.mac(0xB001)
libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000


class Namespaces:
    """Ours, a router and a server: "ours" 10.77.1.1 - 10.77.1.2 "router" 10.77.2.1 - 10.77.2.2 "server"."""

    def __init__(self):
        tag = f"rtls{os.getpid()}"
        self.names = {name: f"{tag}{name}" for name in ("ours", "router", "server")}
        for name in self.names.values():
            self._ip("netns", "add", name)
            self._ip("-n", name, "link", "set", "lo", "up")
        self._join("ours", "10.77.1.1", "router", "10.77.1.2")
        self._join("router", "10.77.2.1", "server", "10.77.2.2")
        self._ip("-n", self.names["ours"], "route", "add", "default", "via", "10.77.1.2")
        self._ip("-n", self.names["server"], "route", "add", "default", "via", "10.77.2.1")
        self.route(True)

    @staticmethod
    def _ip(*arguments):
        subprocess.run(["ip", *arguments], check=True)

    def _join(self, left, left_address, right, right_address):
        a, b = f"{left[0]}-{right}", f"{right[0]}-{left}"
        self._ip("link", "add", a, "netns", self.names[left], "type", "veth", "peer", "name", b, "netns",
                 self.names[right])
        for namespace, device, address in ((left, a, left_address), (right, b, right_address)):
            self._ip("-n", self.names[namespace], "addr", "add", address + "/24", "dev", device)
            self._ip("-n", self.names[namespace], "link", "set", device, "up")

    def route(self, on: bool):
        """A router that does not route says nothing: what it gets is gone."""
        subprocess.run(["ip", "netns", "exec", self.names["router"], "sysctl", "-qw", f"net.ipv4.ip_forward={int(on)}"],
                       check=True)

    def enter(self, name: str):
        return Inside(self.names[name])

    def close(self):
        for name in self.names.values():
            subprocess.run(["ip", "netns", "del", name], check=False)


class Inside:
    """This thread, for a while in another namespace. Sockets stay where they were made."""

    def __init__(self, name: str):
        self.name = name

    def __enter__(self):
        self.home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        with open(pathlib.Path("/var/run/netns") / self.name) as there:
            assert libc.setns(there.fileno(), CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())

    def __exit__(self, *_):
        assert libc.setns(self.home, CLONE_NEWNET) == 0
        os.close(self.home)


def available() -> bool:
    name = f"rtls{os.getpid()}try"
    made = subprocess.run(["ip", "netns", "add", name], stderr=subprocess.DEVNULL).returncode == 0
    return made and subprocess.run(["ip", "netns", "del", name]).returncode == 0


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
