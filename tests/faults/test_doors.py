"""What stands open, and what a key closes: addresses, numbers of connections, networks."""
import socket

import pytest
import zmq
import zmq.auth
import zmq.auth.thread

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import DEADLINE, Bridge, Stream, Terminal, wait_until

GROUP = "Doors"

BRIDGE = wire.mac(0xB001)


def with_ports(**keys):
    """A change of the configuration: keys beside ports/win and the others."""
    def change(config: dict) -> dict:
        config["ports"].update(keys)
        return config
    return change


def refusals(gateway, door: str) -> list:
    return [line for line in gateway.syslog() if f"{door} port:" in line and "is refused" in line]


def test_a_door_on_one_address(start_gateway):
    gateway = start_gateway(change=with_ports(win_address="127.0.0.2", terminal_address="127.0.0.3",
                                              discovery_address="127.0.0.4"))
    for door, address in (("win", "127.0.0.2"), ("terminal", "127.0.0.3")):
        Stream(gateway.ports[door], host=address).close()
        with pytest.raises(ConnectionRefusedError):
            Stream(gateway.ports[door], host="127.0.0.1")
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as device:
        device.settimeout(DEADLINE)
        device.bind(("127.0.0.9", 0))
        device.sendto(bytes(6), ("127.0.0.4", gateway.ports["discovery"]))
        assert device.recv(100)


def test_strangers_leave_room_for_the_other_addresses(start_gateway, figure):
    port = free_port()
    gateway = start_gateway(change=lambda config: with_http(port)(with_ports(win_connections_per_address=20)(config)))
    strangers = [Stream(gateway.ports["win"]) for _ in range(60)]
    wait_until(lambda: refusals(gateway, "WIN"), "the refusal")
    assert len(refusals(gateway, "WIN")) == 1, "an episode is said once"
    with socket.create_connection(("127.0.0.1", gateway.ports["win"]), source_address=("127.0.0.9", 0),
                                  timeout=DEADLINE) as honest:
        assert honest.recv(5, socket.MSG_WAITALL) == b"sync\n"
    refused = Figures(port)["bridges_refused_total", {"reason": "address"}]
    figure("lines about 40 refused connections", "-", f"{len(refusals(gateway, 'WIN'))}, and {refused} counted")
    assert refused == 40
    for stranger in strangers:
        stranger.close()


def test_networks_that_may_connect(start_gateway):
    gateway = start_gateway(change=with_ports(win_networks="127.0.0.9, 10.0.0.0/8",
                                              terminal_networks="127.0.0.0/30"))
    Stream(gateway.ports["win"]).wait_closed()
    with socket.create_connection(("127.0.0.1", gateway.ports["win"]), source_address=("127.0.0.9", 0),
                                  timeout=DEADLINE) as bridge:
        assert bridge.recv(5, socket.MSG_WAITALL) == b"sync\n"
    assert Terminal(gateway.ports["terminal"]).command("info", "\n\n").startswith("GW Version")
    with socket.create_connection(("127.0.0.1", gateway.ports["terminal"]), source_address=("127.0.0.9", 0),
                                  timeout=DEADLINE) as stranger:
        assert stranger.recv(100) == b""
    wait_until(lambda: len(refusals(gateway, "Terminal")) == 1, "the line, which follows the close")


def test_operators_are_bounded(start_gateway):
    gateway = start_gateway(change=with_ports(terminal_connections=3))
    operators = [gateway.terminal() for _ in range(3)]
    for operator in operators:
        assert operator.command("info", "\n\n").startswith("GW Version")
    Stream(gateway.ports["terminal"]).wait_closed()
    operators.pop().close()

    def served():
        operator = Terminal(gateway.ports["terminal"])
        try:
            return operator.command("info", "\n\n").startswith("GW Version")
        except (ConnectionError, AssertionError):
            return False
    wait_until(served, "a place that is free again")


@pytest.mark.parametrize("key,value", [("win_address", "here"), ("discovery_address", "0.0.0.0.0"),
                                       ("terminal_networks", "127.0.0.1/64"), ("win_connections", "none"),
                                       ("terminal_connections_per_address", "0")])
def test_a_misprint_keeps_the_gateway_from_starting(start_gateway, key, value):
    gateway = start_gateway(wait_ready=False, change=with_ports(**{key: value}))
    gateway.expected_status = gateway.wait_exit()
    assert any(f'The parameter "ports/{key}" is no ' in line for line in gateway.syslog())
    assert not gateway.pid_file.exists()


class Closed:
    """Servers that speak CURVE only, and certificates for all."""

    def __init__(self, folder):
        self.folder = folder
        zmq.auth.create_certificates(folder, "gateway")
        zmq.auth.create_certificates(folder, "servers")
        self.public, self.secret = zmq.auth.load_certificate(folder / "servers.key_secret")

    def server(self, gateway, kind, name):
        sock = gateway.context.socket(kind)
        sock.curve_secretkey, sock.curve_publickey, sock.curve_server = self.secret, self.public, True
        if kind == zmq.PULL:
            sock.rcvtimeo = int(DEADLINE * 1000)
        sock.bind(f"tcp://127.0.0.1:{gateway.ports[name]}")
        return sock

    def change(self, config):
        servers = str(self.folder / "servers.key")
        config["curve"] = {"certificate": str(self.folder / "gateway.key_secret"), "message_handler": servers,
                           "pub_sub_proxy": servers, "pub_sub_proxy_input": servers, "debug_broker": servers}
        return config


def test_links_by_certificate(start_gateway, tmp_path):
    closed = Closed(tmp_path)
    gateway = start_gateway(upstream=(), change=closed.change)
    handler = closed.server(gateway, zmq.PULL, "handler")
    proxy_input = closed.server(gateway, zmq.PULL, "proxy_input")
    broker = closed.server(gateway, zmq.PULL, "broker")
    proxy = closed.server(gateway, zmq.XPUB, "proxy")
    try:
        assert b"Connected to socket" in broker.recv()
        assert proxy.poll(int(DEADLINE * 1000)) and proxy.recv() == b"\x01"
        bridge = gateway.bridge(BRIDGE)
        bridge.introduce()
        sender = wire.ip(0xB0000 + BRIDGE[7])
        bridge.send_message(wire.sensor(9, b"\xaa\xbb", sender))
        assert handler.recv_multipart()
        bridge.send_message(wire.generic_server_req(10, 10, bytes(16), sender))
        assert proxy_input.recv()
    finally:
        for sock in (handler, proxy_input, broker, proxy):
            sock.close(0)


def test_a_server_without_the_certificate_gets_nothing(start_gateway, tmp_path):
    gateway = start_gateway(change=Closed(tmp_path).change, wait_ready=False)
    gateway.wait_ready()
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    bridge.barrier()
    wait_until(lambda: [line for line in gateway.syslog() if "connecting again" in line], "the refusal")
    assert gateway.proxy_input.nothing_arrives(within=1) and gateway.handler.nothing_arrives(within=0)


def test_a_server_that_refuses_the_certificate_is_told_apart(start_gateway, tmp_path):
    closed, port = Closed(tmp_path), free_port()
    gateway = start_gateway(upstream=(), change=lambda config: with_http(port)(closed.change(config)))
    (tmp_path / "known").mkdir()     # nobody is
    guard = zmq.auth.thread.ThreadAuthenticator(gateway.context)
    guard.start()
    guard.configure_curve(domain="*", location=str(tmp_path / "known"))
    handler = closed.server(gateway, zmq.PULL, "handler")
    try:
        failures = "upstream_link_failures_total", {"link": "message_handler", "reason": "refused"}
        wait_until(lambda: Figures(port)[failures] > 0, "the refusal")
        assert Figures(port)["upstream_link_up", {"link": "message_handler"}] == 0
    finally:
        handler.close(0)
        guard.stop()


@pytest.mark.parametrize("missing", ["gateway", "servers"])
def test_a_certificate_that_is_not_there(start_gateway, tmp_path, missing):
    closed = Closed(tmp_path)
    for half in (f"{missing}.key", f"{missing}.key_secret"):
        (tmp_path / half).unlink()
    gateway = start_gateway(wait_ready=False, change=closed.change)
    gateway.expected_status = gateway.wait_exit()
    assert any("names no certificate" in line for line in gateway.syslog())


def test_a_certificate_without_its_secret(start_gateway, tmp_path):
    closed = Closed(tmp_path)
    (tmp_path / "gateway.key_secret").unlink()

    def change(config):
        config = closed.change(config)
        config["curve"]["certificate"] = str(tmp_path / "gateway.key")
        return config
    gateway = start_gateway(wait_ready=False, change=change)
    gateway.expected_status = gateway.wait_exit()
    assert any("no certificate with a secret key" in line for line in gateway.syslog())


def with_keys(**keys):
    return lambda config: {**config, **keys}


def test_firmware_comes_from_where_it_may(start_gateway, tmp_path, figure):
    image = tmp_path / "image.bin"
    image.write_bytes(b"\x7f@BoardVer\0\x03\x0e@Firmware\0" + bytes.fromhex("0102a0ff00800040") + bytes(900))
    gateway = start_gateway(change=with_keys(firmware_urls=f"https://files.example/, file://{tmp_path}/allowed/"))
    operator = gateway.terminal()
    for _ in range(10):
        assert operator.command(f"fw get file://{image}", "\n") == "Failed to read firmware!\n"
    (tmp_path / "allowed").mkdir()
    image.rename(tmp_path / "allowed" / "image.bin")
    answer = operator.command(f"fw get file://{tmp_path}/allowed/image.bin", "\n")
    assert answer == "Firmware downloaded. Index: 0\n"
    gateway.stop()      # and the log is whole
    lines = sum("firmware does not come from there" in line for line in gateway.syslog())
    figure("lines about 10 forbidden images", "10", f"{lines}")
    assert lines == 1


@pytest.mark.parametrize("key,value", [("firmware_urls", ","), ("firmware_keep_ordered", "perhaps")])
def test_a_misprinted_rule_for_firmware_keeps_the_gateway_from_starting(start_gateway, key, value):
    gateway = start_gateway(wait_ready=False, change=with_keys(**{key: value}))
    gateway.expected_status = gateway.wait_exit()
    assert any(f'"{key}"' in line for line in gateway.syslog())
