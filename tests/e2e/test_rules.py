"""Optional keys that narrow what is taken, from the configuration to what becomes of a message."""
import socket

import pytest

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import get
from harness.peers import wait_until
from test_firmware import image, listing, row, upload_order, web  # noqa: F401

BRIDGE = wire.mac(0xB001)


def with_keys(http_port, sections: dict):
    """The configuration with an HTTP port, and with these keys of these sections ("": the file's own)."""
    def change(config: dict) -> dict:
        changed = {**config, "http": {"port": http_port}}
        for section, keys in sections.items():
            if section:
                changed[section] = {**changed.get(section, {}), **keys}
            else:
                changed = {**keys, **changed}
        return changed
    return change


def test_nodes_whose_macs_are_not_listed_do_not_register(start_gateway, http_port):
    macs = BRIDGE.hex() + ", " + wire.mac(0x1000).hex() + "/56"    # itself, and 256 nodes
    gateway = start_gateway(change=with_keys(http_port, {"ports": {"win_macs": macs}}))
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    for number in (0x1000, 0x10ff, 0x1100, 0x0fff):
        bridge.send_message(wire.heartbeat(wire.mac(number), 1, bridge=BRIDGE, addr=wire.ip(number)))
    bridge.barrier()
    nodes = get(http_port, "/api/v1/nodes").json["nodes"]
    assert {node["mac"].replace(":", "") for node in nodes} == {BRIDGE.hex(), wire.mac(0x1000).hex(), wire.mac(0x10ff).hex()}
    assert Figures(http_port)["message_outcomes_total", {"outcome": "foreign_node"}] == 2


@pytest.mark.parametrize("keeps", [True, False])
def test_an_operators_download_takes_no_slot_of_an_ordered_image(start_gateway, http_port, web, keeps):  # noqa: F811
    key = {"firmware_keep_ordered": "yes" if keeps else "no"}
    gateway = start_gateway(change=lambda config: with_keys(http_port, {"": key})({**config, "firmware_files": 1}))
    ordered, typed = image(0xCAFE0001), image(0xCAFE0002)
    gateway.proxy.publish(upload_order(ordered, web.serve("/ordered.bin", ordered)))
    gateway.broker.wait_for("PROXY: Firmware downloaded. Index: 0\n")
    terminal = gateway.terminal()
    answer = terminal.command(f"fw get {web.serve('/typed.bin', typed)}", "\n")
    assert answer == ("Failed to read firmware!\n" if keeps else "Firmware downloaded. Index: 0\n")
    assert listing(terminal) == (row(0, ordered, 0xCAFE0001) if keeps else row(0, typed, 0xCAFE0002))
    assert Figures(http_port)["firmware_images_refused_total", {}] == (1 if keeps else 0)


@pytest.mark.parametrize("address, reached, not_reached", [("127.0.0.3", "127.0.0.3", "127.0.0.1"), ("*", "127.0.0.4", None)])
def test_the_http_port_is_bound_to_the_address_that_is_configured(start_gateway, address, reached, not_reached):
    port = free_port()
    start_gateway(change=with_keys(port, {"http": {"address": address}}))

    def status_line(host: str) -> bytes:
        with socket.create_connection((host, port), 20) as client:
            client.sendall(b"GET /livez HTTP/1.1\r\nHost: x\r\n\r\n")
            return client.recv(15)
    wait_until(lambda: status_line(reached) == b"HTTP/1.1 200 OK", "its own address")
    if not_reached:
        with pytest.raises(ConnectionRefusedError):
            status_line(not_reached)
