"""A name server that is silent costs those who have to ask it, and nobody else."""
import time

import pytest

from harness import wire
from names import SilentNameServer, available

GROUP = "Names and servers"
GROUPS = {"test_twenty_seconds_are_twenty_seconds_without_names": "Downloads"}
pytestmark = [pytest.mark.measured,
              pytest.mark.skipif(not available(), reason="needs the rights to make mount namespaces")]
BRIDGE = wire.mac(0xB001)


@pytest.fixture
def name_server(tmp_path):
    server = SilentNameServer(tmp_path)
    yield server
    server.close()


def with_names(*sections):
    def change(config):
        for section in sections:
            name = section.replace("_", "-") + ".example"
            if section == "debug_broker":
                config["debug_broker_address"] = f"tcp://{name}:5000"
            else:
                config[section]["address"] = name
        return config
    return change


@pytest.mark.parametrize("sections", [("message_handler",), ("pub_sub_proxy",), ("message_handler", "pub_sub_proxy"),
                                      ("debug_broker",), ("message_handler", "pub_sub_proxy", "debug_broker")])
def test_bridges_and_operators_do_not_wait_for_names_and_a_stop_takes_five_seconds(start_gateway, name_server, sections, figure):
    upstream = () if "debug_broker" in sections else ("broker",)
    gateway = start_gateway(upstream=upstream, change=with_names(*sections), wrap=name_server.wrap)
    name_server.wait_asked()
    bridge, terminal = gateway.bridge(BRIDGE), gateway.terminal()
    bridge.introduce()
    waits = []
    end = time.monotonic() + 4
    while time.monotonic() < end:
        begin = time.monotonic()
        bridge.barrier()
        terminal.command("info", "\n\n")
        waits.append(time.monotonic() - begin)
    assert max(waits) < 0.5, f"somebody waited {max(waits):.1f} s"

    begin = time.monotonic()
    gateway.interrupt()
    assert gateway.wait_exit(100) == 0
    took = time.monotonic() - begin
    figure("the longest ping or command", "10 s, again and again", f"{max(waits) * 1000:.0f} ms", worst=max(waits))
    figure("the stop", "27 to 88 s", f"{took:.1f} s", worst=took)
    assert took < 5.3, f"the stop took {took:.1f} s"
    assert "6 rtls-gateway: Exiting" in gateway.syslog()


def test_a_download_from_a_name_that_nobody_knows_ends_with_the_daemon(start_gateway, name_server):
    gateway = start_gateway(wrap=name_server.wrap)
    terminal = gateway.terminal()
    terminal.send(b"fw get http://images.example/image.bin\n")
    name_server.wait_asked()
    begin = time.monotonic()
    gateway.interrupt()
    assert gateway.wait_exit(100) == 0
    took = time.monotonic() - begin
    assert took < 5.3, f"the stop took {took:.1f} s"


@pytest.mark.slow
def test_twenty_seconds_are_twenty_seconds_without_names(start_gateway, name_server, figure):
    name_server.ask_patiently(30)    # whoever waits for the end of asking waits longer than that
    gateway = start_gateway(wrap=name_server.wrap)
    begin = time.monotonic()
    terminal = gateway.terminal()
    terminal.send(b"fw get http://images.example/image.bin\n")
    assert terminal.read_until("\n", 100) == "Failed to read firmware!\n"
    took = time.monotonic() - begin
    figure("a download", "28 to 56 s", f"{took:.1f} s")
    assert 19 < took < 22, f"{took:.1f} s"
