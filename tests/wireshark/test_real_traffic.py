"""What the simulator and the gateway really say to each other: nothing of it is malformed, and all of it is shown."""
import contextlib
import json
import selectors
import socket
import subprocess
import threading
from collections import Counter

from capture import WIN, Capture, Connection, fields_of, layers_of, messages_of
from harness import daemon, wire
from harness.fixtures import start_gateway  # noqa: F401

SERVERS = {"proxy": 5555, "proxy_input": 5556, "handler": 5557}


class Listener(threading.Thread):
    """Stands in front of a port, and keeps what passes: connection, direction, bytes of each read. `shown_as`: the port in
    the capture."""

    def __init__(self, target_port: int, shown_as: int):
        super().__init__()
        self.target_port, self.shown_as, self.passed, self.count = target_port, shown_as, [], 0
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
        client = door.accept()[0]
        try:
            server = socket.create_connection(("127.0.0.1", self.target_port))
        except ConnectionRefusedError:  # not there yet: the client tries again
            client.close()
            return
        number, self.count = self.count, self.count + 1
        for way, source, target in (("up", client, server), ("down", server, client)):
            self.selector.register(source, selectors.EVENT_READ, self.passer(number, way, target))

    def passer(self, number: int, way: str, target):
        def pass_on(source):
            try:
                data = source.recv(65536)
                self.passed.append((number, way, data))
                target.sendall(data)
            except OSError:
                data = b""
            if not data:
                self.selector.unregister(source)
                with contextlib.suppress(OSError):
                    target.shutdown(socket.SHUT_WR)
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
                connections[number] = Connection(capture, number, self.shown_as)
            for at in range(0, len(data), 1400):
                connections[number].segment(way, data[at:at + 1400])
        return capture.close()

    def frames(self) -> Counter:
        """How many there are by direction."""
        deframers, count = {}, Counter()
        for number, way, data in self.passed:
            count[way] += len(deframers.setdefault((number, way), wire.Deframer()).feed(data))
        return count


def simulate(ports: dict):
    options = [f"--{name.replace('_', '-')}-port={port}" for name, port in ports.items()]
    command = [daemon.BUILD / "rtls-sim", "all", "--quiet", "--check", "--no-broker", "--duration=2", "--rate=200", "--acks=50", *options]
    done = subprocess.run(command, text=True, check=False, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT)
    assert done.returncode == 0, done.stdout[-2000:]


def without_broker(config: dict) -> dict:
    """It would be gone when the gateway stops, which waits for it then."""
    return {name: value for name, value in config.items() if name != "debug_broker_address"}


def malformed(capture) -> list:
    return fields_of(capture, "frame.number", "_ws.expert.message", options=["-Y", "rtlsgw && _ws.expert || _ws.malformed"])


def shown_by_tail(capture) -> Counter:
    text = subprocess.run([daemon.BUILD / "rtls-tail", "--capture", capture, "--topic", "link/", "--json"], text=True, check=True,
                          stdout=subprocess.PIPE, stdin=subprocess.DEVNULL).stdout
    return Counter((line["way"], line["message"]["kind"]) for line in map(json.loads, text.splitlines()))


def see_links(messages: list, frames: Counter):
    kinds = Counter(message["rtlsgw.kind"] for message in messages if "rtlsgw.kind" in message)
    ways = Counter(message["rtlsgw.direction"] for message in messages if "rtlsgw.direction" in message)
    assert ways == frames and ways["up"] > 100
    assert set(kinds) >= {"heartbeat", "nwk_data_ind", "wrap_ts", "announce_root", "vr_panid_resp", "rest_ack", "nwk_data_req"}
    acknowledgements = [message for message in messages if message.get("rtlsgw.kind") == "rest_ack"]
    assert all("rtlsgw.request_in" in message for message in acknowledgements)


def test_nothing_that_the_simulator_and_the_gateway_say_is_malformed(start_gateway, tmp_path):  # noqa: F811
    real = {name: daemon.free_port() for name in SERVERS}
    listeners = {name: Listener(port, SERVERS[name]) for name, port in real.items()}
    gateway = start_gateway(upstream=(), change=without_broker, ports={name: listener.port for name, listener in listeners.items()})
    listeners["win"] = Listener(gateway.ports["win"], WIN)
    for listener in listeners.values():
        listener.start()
    try:
        simulate(real | {"win": listeners["win"].port})
    finally:
        for listener in listeners.values():
            listener.stop()
    found = {}
    for name, listener in listeners.items():
        capture = listener.capture(tmp_path / f"{name}.pcap")
        assert malformed(capture) == [], name
        found[name] = messages_of(layers_of(capture, "-2", "-R", "rtlsgw", "-J", "rtlsgw"))
    see_links(found["win"], listeners["win"].frames())
    assert shown_by_tail(tmp_path / "win.pcap") == Counter(
        (message["rtlsgw.direction"], message["rtlsgw.kind"]) for message in found["win"] if "rtlsgw.kind" in message)
    directions = {name: {message["rtlsgw.direction"] for message in found[name]} for name in SERVERS}
    assert directions == {"proxy": {"command"}, "proxy_input": {"management"}, "handler": {"report"}}
    assert len(found["handler"]) > 100
    assert {message["rtlsgw.kind"] for message in found["proxy"]} >= {"generic_req", "sensor_req", "nwk_data_req"}
