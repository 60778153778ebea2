"""From one end to the other: what passes a gateway is recorded by its tap, shown, read by tshark, and played against
another gateway, which hands on the same reports."""
import json
import pathlib
import subprocess

import pytest

from harness import tap_publisher as taps
from harness import wire
from harness.daemon import BUILD, Daemon, environment
from harness.peers import DEADLINE
from harness.recorder import record
from harness.tshark import run_tshark

BRIDGE, NODES = wire.mac(0xB001), [wire.mac(0x1A00 + i) for i in range(3)]
SEQUENCES = (1, 2, 3)


def run(*command) -> str:
    done = subprocess.run([str(part) for part in command], env=environment(), text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, timeout=2 * DEADLINE)
    assert done.returncode == 0, (done.stdout, done.stderr)
    return done.stdout


def talk(gateway: Daemon):
    """A bridge that introduces itself, three heartbeats of each of its nodes, and its end."""
    bridge = gateway.bridge(BRIDGE)
    bridge.send_message(wire.panid_req(BRIDGE, 1))
    for seq in SEQUENCES:
        bridge.send_message(*(wire.heartbeat(node, seq, bridge=BRIDGE, addr=wire.ip(0x1A00 + i))
                              for i, node in enumerate(NODES)))
    bridge.barrier()
    bridge.close()


@pytest.fixture(scope="module")
def recording(tmp_path_factory) -> pathlib.Path:
    folder = tmp_path_factory.mktemp("recorded")
    return record(folder, folder / "r.pcapng", talk)


def test_the_recording_shows_each_report_once(recording):
    shown = [json.loads(line) for line in run(BUILD / "rtls-tail", "--read", recording, "--json").splitlines()]
    reports = [(one["topic"], one["message"]["seqNo"]) for one in shown if one["topic"].startswith("report/")]
    assert reports == [("report/" + node.hex().upper(), seq) for seq in SEQUENCES for node in NODES]
    events = [one["event"]["event"] for one in shown if one["topic"] == "event"]
    assert events[0] == "started" and events.count("bridge_connected") == events.count("bridge_closed") == 1
    assert events.count("node_new") == len(NODES) + 1, "the bridge's own, too"


def test_tshark_reads_it(recording, tmp_path):
    topics = run_tshark(tmp_path, "-r", recording, "-T", "fields", "-e", "rtls_tap.topic").split()
    assert topics == [message[0].decode() for message in taps.recorded(recording.read_bytes())]
    assert run_tshark(tmp_path, "-r", recording, "-Y", "_ws.malformed || _ws.expert.severity >= 0x00600000") == ""


def test_another_gateway_hands_on_the_same(recording, tmp_path):
    gateway = Daemon(tmp_path, upstream=("broker", "proxy", "proxy_input"))
    try:
        outcome = json.loads(run(BUILD / "rtls-replay", "--json", "--to", f"127.0.0.1:{gateway.ports['win']}",
                                 "--check", f"tcp://127.0.0.1:{gateway.ports['handler']}", recording))
    finally:
        gateway.close()
    reports = len(SEQUENCES) * len(NODES)
    assert (outcome["reports"], outcome["equal"], outcome["first_difference"]) == (reports, reports, None)
