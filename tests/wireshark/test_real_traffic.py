"""What the simulator and the gateway really say to each other: nothing of it is malformed, and all of it is shown."""
import selectors
import socket
import subprocess
import sys
import threading
from collections import Counter

from capture import ROOT, Capture, Connection, fields_of, layers_of, messages_of

sys.path.insert(0, str(ROOT / "tests/e2e"))
from harness import daemon, wire  # noqa: E402
from harness.fixtures import start_gateway  # noqa: E402, F401

COMMANDS = ["conf 0101 x=1500 y=-20", "conf 0100 role=0x81", "sensor 0101 f5f6f7", "conf-sensor 0102 0102", "tdoa 0100 00",
            "data 0102 aabb", "data 0100 cc", "reboot 0102", "ota-apply 0101"]


class Listener(threading.Thread):
    """Stands between bridges and the gateway, and keeps what passes: connection, direction, bytes of each read."""

    def __init__(self, gateway_port: int):
        super().__init__()
        self.gateway_port, self.passed, self.count = gateway_port, [], 0
        self.door = socket.create_server(("127.0.0.1", daemon.free_port()))
        self.port = self.door.getsockname()[1]
        self.wake, self.stopped = socket.socketpair()
        self.selector = selectors.DefaultSelector()
        self.selector.register(self.door, selectors.EVENT_READ, self.accept)
        self.selector.register(self.stopped, selectors.EVENT_READ, None)

    def run(self):
        while True:
            for key, _ in self.selector.select():
                if key.data is None:
                    return
                key.data(key.fileobj)

    def accept(self, door):
        bridge, gateway = door.accept()[0], socket.create_connection(("127.0.0.1", self.gateway_port))
        number, self.count = self.count, self.count + 1
        for way, source, target in (("up", bridge, gateway), ("down", gateway, bridge)):
            self.selector.register(source, selectors.EVENT_READ, self.passer(number, way, target))

    def passer(self, number: int, way: str, target):
        def pass_on(source):
            data = source.recv(65536)
            if not data:
                self.selector.unregister(source)
                target.shutdown(socket.SHUT_WR)
                return
            self.passed.append((number, way, data))
            target.sendall(data)
        return pass_on

    def stop(self):
        self.wake.send(b".")
        self.join()
        for key in list(self.selector.get_map().values()):
            key.fileobj.close()

    def capture(self, path):
        capture, connections = Capture(path), {}
        for number, way, data in self.passed:
            if number not in connections:
                connections[number] = Connection(capture, number)
            for at in range(0, len(data), 1400):
                connections[number].segment(way, data[at:at + 1400])
        return capture.close()

    def frames(self) -> Counter:
        """How many there are by direction."""
        deframers, count = {}, Counter()
        for number, way, data in self.passed:
            count[way] += len(deframers.setdefault((number, way), wire.Deframer()).feed(data))
        return count


def simulate(gateway, listener):
    ports = {"win": listener.port} | {name: gateway.ports[name] for name in ("proxy", "proxy_input", "handler", "broker")}
    options = [f"--{name.replace('_', '-')}-port={port}" for name, port in ports.items()]
    command = [daemon.BUILD / "rtls-sim", "all", "--quiet", "--check", "--duration=2", "--rate=200", "--acks=50", *options]
    done = subprocess.run(command, input="\n".join(COMMANDS) + "\n", text=True, check=False, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    assert done.returncode == 0, done.stdout[-2000:]


def test_nothing_that_the_simulator_and_the_gateway_say_is_malformed(start_gateway, tmp_path):  # noqa: F811
    gateway = start_gateway(upstream=())
    listener = Listener(gateway.ports["win"])
    listener.start()
    try:
        simulate(gateway, listener)
    finally:
        listener.stop()
    capture = listener.capture(tmp_path / "real.pcap")
    odd = fields_of(capture, "frame.number", "_ws.expert.message", options=["-Y", "_ws.expert"])
    assert [row for row in odd if "onnection" not in row[1]] == []
    messages = messages_of(layers_of(capture, "-2", "-R", "rtlsgw", "-J", "rtlsgw"))
    kinds = Counter(message["rtlsgw.kind"] for message in messages if "rtlsgw.kind" in message)
    ways = Counter(message["rtlsgw.direction"] for message in messages if "rtlsgw.direction" in message)
    assert ways == listener.frames() and ways["up"] > 300
    assert set(kinds) >= {"heartbeat", "nwk_data_ind", "wrap_ts", "announce_root", "vr_panid_resp", "rest_ack", "nwk_data_req"}
    acknowledgements = [message for message in messages if message.get("rtlsgw.kind") == "rest_ack"]
    assert all("rtlsgw.request_in" in message for message in acknowledgements)
