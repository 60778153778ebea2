"""The servers of docs/examples around the real daemon: what the guide for upstream servers shows works as it says."""
import json
import os
import pathlib
import struct
import subprocess
import sys

import pytest

from harness import wire
from harness.daemon import ROOT, free_port
from harness.peers import wait_until

EXAMPLES = ROOT / "docs" / "examples"
NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
BRIDGE = wire.mac(0xB001)


class Example:
    """One of the programs while it runs, and what it has printed."""

    def __init__(self, output: pathlib.Path, command: list):
        self.output = output
        with open(output, "wb") as to:
            self.process = subprocess.Popen([str(part) for part in command], stdout=to, stderr=subprocess.STDOUT)

    def wait_for(self, text: str) -> str:
        """The first whole line with this text."""
        def found():
            assert self.process.poll() is None, f"it has ended: {self.output.read_text()}"
            lines = self.output.read_text().splitlines(keepends=True)
            return next((line for line in lines if text in line and line.endswith("\n")), None)
        return wait_until(found, f"{text!r} of {self.output.name}").rstrip("\n")

    def stop(self):
        self.process.terminate()
        self.process.wait()


@pytest.fixture(scope="session")
def compiled(tmp_path_factory) -> pathlib.Path:
    program = tmp_path_factory.mktemp("examples") / "servers"
    subprocess.run([os.environ.get("CXX", "g++"), "-std=c++17", "-Wall", "-Wextra", "-Wpedantic", "-Werror",
                    "-o", str(program), str(EXAMPLES / "servers.cpp"), "-lzmq"], check=True)
    return program


class Servers:
    """A message handler and a proxy of one language, and a daemon that is connected to both."""

    def __init__(self, tmp_path, start_gateway, handler: list, proxy: list):
        ports = {name: free_port() for name in ("proxy", "proxy_input", "handler")}
        self.for_servers = f"tcp://127.0.0.1:{free_port()}"
        at = {name: f"tcp://127.0.0.1:{port}" for name, port in ports.items()}
        self.handler = Example(tmp_path / "handler.txt", [*handler, at["handler"]])
        self.proxy = Example(tmp_path / "proxy.txt", [*proxy, at["proxy"], at["proxy_input"], self.for_servers])
        self.gateway = start_gateway(upstream=("broker",), ports=ports)
        self.proxy.wait_for("a gateway is here")
        self.bridge = self.gateway.bridge(BRIDGE)
        self.bridge.send_message(wire.panid_req(BRIDGE, 1))  # so that it is not closed after six seconds
        self.bridge.receive()
        self.bridge.send_message(wire.heartbeat(NODE, 9, bridge=BRIDGE, addr=NODE_IP, role=0x11, parent=wire.mac(0xC0D)))

    def stop(self):
        self.handler.stop()
        self.proxy.stop()


@pytest.fixture
def in_python(tmp_path, start_gateway):
    servers = Servers(tmp_path, start_gateway, [sys.executable, EXAMPLES / "message_handler.py"],
                      [sys.executable, EXAMPLES / "proxy.py"])
    yield servers
    servers.stop()


@pytest.fixture
def in_cpp(tmp_path, start_gateway, compiled):
    servers = Servers(tmp_path, start_gateway, [compiled, "handler"], [compiled, "proxy"])
    yield servers
    servers.stop()


def ul_tdoa() -> bytes:
    return (bytes.fromhex("a1a2a3a4a5a6") + struct.pack(">H", 513) + bytes.fromhex("b1b2b3b4b5b6") + bytes.fromhex("c1c2c3c4c5c6") +
            struct.pack(">iBB", -1500, 200, 90))


def send(servers: Servers, *command: str):
    subprocess.run([sys.executable, str(EXAMPLES / "send_command.py"), "--servers", servers.for_servers, *command],
                   check=True, timeout=30)


def test_the_python_handler_prints_reports(in_python):
    report = json.loads(in_python.handler.wait_for("heartbeat"))
    assert report.pop("time") > 1.7e9
    assert report == {"kind": "heartbeat", "sequence": 9, "mac": NODE.hex(), "parent": wire.mac(0xC0D).hex(),
                      "bridge": BRIDGE.hex(), "firmware": "01020304", "role": "fixed", "state": 16, "sublocation": 3,
                      "reports_every_s": 60, "ranging": 5, "x": 1000, "y": -2000, "z": 300, "z_offset": -4}
    bridge = in_python.bridge
    bridge.send_message(wire.root_announce(BRIDGE, 2, prefix=0xABCD), wire.sensor(3, b"\x01\x02", NODE_IP),
                        wire.generic_server_req(4, 48, bytes.fromhex("0203000004d2005a"), NODE_IP),
                        wire.generic_server_req(5, 0x4711, b"\x07", NODE_IP))
    said = [json.loads(in_python.handler.wait_for(f'"sequence": {seq},')) for seq in (2, 3, 4, 5)]
    assert [{k: v for k, v in one.items() if k not in ("time", "sequence")} for one in said] == [
        {"kind": "root", "mac": BRIDGE.hex(), "prefix": "abcd"},
        {"kind": "sensor", "mac": NODE.hex(), "data": "0102"},
        {"kind": "generic", "mac": NODE.hex(), "ranges": [{"to": "0203", "distance": 1234, "quality": 90}]},
        {"kind": "generic", "mac": NODE.hex(), "code": 0x4711, "data": "07"}]


def test_the_python_proxy_relays_commands(in_python):
    in_python.handler.wait_for("heartbeat")
    node = NODE.hex()
    send(in_python, "acknowledge", node, "7")
    assert in_python.bridge.receive() == struct.pack("<HB", wire.REST_ACK, 7) + NODE_IP
    send(in_python, "sensor", node, "0102")
    assert in_python.bridge.receive() == struct.pack("<HB", wire.SENSOR_REQ, 0) + b"\x00\x02\x01\x02" + NODE_IP
    send(in_python, "request", node, "0010aa")
    assert in_python.bridge.receive() == struct.pack("<HB", wire.GENERIC_REQ, 0) + b"\x00\x03\x00\x10\xaa" + NODE_IP
    send(in_python, "configure", node, "100", "-200", "3", "--sublocation", "7")
    assert in_python.bridge.receive() == (struct.pack("<HBBBB", wire.CONF_NODE_REQ, 60, 5, 1, 7) +
                                          struct.pack(">iihh", 100, -200, 3, 0) + NODE_IP)
    in_python.gateway.broker.wait_for("MSG_CONF_NODE_REQ dst:1A2B rf:60 rngf:5 role:01 sl:07 xyz:100;-200;3 zofs:0")
    send(in_python, "image", "file:///none", "102a0ff", "0x11223344")
    in_python.gateway.broker.wait_for("MSG_OTA_UPLOAD_FW mgd: 0102A0FF crc: 11223344 url: file:///none")


def test_the_python_proxy_prints_management_lines(in_python):
    in_python.handler.wait_for("heartbeat")
    in_python.bridge.send_message(wire.generic_server_req(4, 40, ul_tdoa(), NODE_IP))
    line = in_python.proxy.wait_for("@win_management")
    assert json.loads(line.removeprefix("@win_management "))["ul_tdoa_data"]["tag"]["mac"] == "a1a2a3a4a5a6"


def test_the_cpp_servers_do_the_same(in_cpp, compiled):
    line = in_cpp.handler.wait_for(" 0104 ")
    assert line.endswith(f"0104 node {NODE.hex()} at 1000,-2000 firmware 01020304 bridge {BRIDGE.hex()}")
    in_cpp.bridge.send_message(wire.sensor(3, b"\x01\x02", NODE_IP),
                               wire.generic_server_req(4, 40, ul_tdoa(), NODE_IP))
    assert in_cpp.handler.wait_for(" 0116 ").endswith(" 0116 00020102" + NODE.hex())
    assert '"ul_tdoa_data"' in in_cpp.proxy.wait_for("@win_management")
    subprocess.run([str(compiled), "acknowledge", NODE.hex(), "7", in_cpp.for_servers], check=True, timeout=30)
    assert in_cpp.bridge.receive() == struct.pack("<HB", wire.REST_ACK, 7) + NODE_IP
