"""What stands open, and what a key closes: addresses, numbers of connections, networks."""
import socket

import pytest

from harness import wire
from harness.peers import Bridge, Stream, Terminal, wait_until

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
        device.settimeout(5)
        device.bind(("127.0.0.9", 0))
        device.sendto(bytes(6), ("127.0.0.4", gateway.ports["discovery"]))
        assert device.recv(100)


def test_strangers_leave_room_for_the_other_addresses(start_gateway):
    gateway = start_gateway(change=with_ports(win_connections_per_address=20))
    strangers = [Stream(gateway.ports["win"]) for _ in range(60)]
    wait_until(lambda: refusals(gateway, "WIN"), "the refusal")
    assert len(refusals(gateway, "WIN")) == 1, "an episode is said once"
    with socket.create_connection(("127.0.0.1", gateway.ports["win"]), source_address=("127.0.0.9", 0),
                                  timeout=10) as honest:
        assert honest.recv(5) == b"sync\n"
    for stranger in strangers:
        stranger.close()


def test_networks_that_may_connect(start_gateway):
    gateway = start_gateway(change=with_ports(win_networks="127.0.0.9, 10.0.0.0/8",
                                              terminal_networks="127.0.0.0/30"))
    Stream(gateway.ports["win"]).wait_closed()
    with socket.create_connection(("127.0.0.1", gateway.ports["win"]), source_address=("127.0.0.9", 0),
                                  timeout=10) as bridge:
        assert bridge.recv(5) == b"sync\n"
    assert Terminal(gateway.ports["terminal"]).command("info", "\n\n").startswith("GW Version")
    with socket.create_connection(("127.0.0.1", gateway.ports["terminal"]), source_address=("127.0.0.9", 0),
                                  timeout=10) as stranger:
        assert stranger.recv(100) == b""
    assert len(refusals(gateway, "Terminal")) == 1


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
