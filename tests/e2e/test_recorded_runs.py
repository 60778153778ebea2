"""The recordings in tests/replay: what was recorded comes out again, whatever has become of the daemon since.

A fault that was recorded in the field is one more file there."""
import json
import subprocess
from collections import Counter

import pytest

from harness import tap_publisher as taps
from harness.daemon import BUILD, Daemon, environment, free_port
from harness.http_client import with_http
from harness.peers import DEADLINE
from harness.recorded_runs import FOLDER, RUNS, file_of
from harness.tap import Subscriber

RECORDINGS = sorted(file.stem for file in FOLDER.glob("*.pcapng"))
MOST_BYTES = 50_000


@pytest.fixture
def start(tmp_path):
    """A gateway without a message handler, which is there already for the runs that we know."""
    started = []

    def start(name: str, **options) -> Daemon:
        gateway = Daemon(tmp_path, upstream=("broker", "proxy", "proxy_input"), **options)
        started.append(gateway)
        if name in RUNS:
            RUNS[name].prepare(gateway)
        return gateway

    yield start
    for gateway in started:
        gateway.close()


def ran(program: str, *arguments) -> str:
    done = subprocess.run([BUILD / program, *map(str, arguments)], env=environment(), text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, timeout=2 * DEADLINE)
    assert done.returncode == 0, (done.stdout, done.stderr)
    return done.stdout


def replay(gateway: Daemon, name: str, *arguments):
    """The status says that nothing differs."""
    told = json.loads(ran("rtls-replay", "--json", "--to", f"127.0.0.1:{gateway.ports['win']}",
                          "--check", f"tcp://127.0.0.1:{gateway.ports['handler']}", *arguments, file_of(name)))
    assert told["equal"] == told["reports"] > 0


def lines_of(name: str) -> list:
    return [json.loads(line) for line in ran("rtls-tail", "--json", "--link", "--read", file_of(name)).splitlines()]


@pytest.mark.parametrize("name", [name for name in RECORDINGS if name != "pages"])
def test_the_same_reports_come(start, name):
    replay(start(name), name)


def test_malformed_frames_are_found_wherever_reads_cut_them(start):
    replay(start("malformed"), "malformed", "--fast", "--shuffle", 7)


def test_the_same_reports_and_pages_come(start, tmp_path):
    port, endpoint = free_port(), f"ipc://{tmp_path}/tap"
    gateway = start("pages", change=lambda tree: {**with_http(port)(tree), "tap": {"address": endpoint}})
    tap = Subscriber(gateway.context, endpoint, port, b"link/out/", b"event")
    replay(gateway, "pages")
    written = b""
    while b"bridge_closed" not in (message := tap.receive()).payload[0]:
        written += message.payload[0] if message.topic != b"event" else b""
    tap.close()
    recorded = b"".join(message[2] for message in taps.recorded(file_of("pages").read_bytes())
                        if message[0].startswith(b"link/out/"))
    assert written == recorded and len(recorded) > 7 * 128


def test_recordings_have_what_they_are_for():
    """And are as small as what everybody clones should be."""
    assert set(RECORDINGS) >= set(RUNS)
    assert {name: size for name in RECORDINGS if (size := file_of(name).stat().st_size) > MOST_BYTES} == {}
    seen = {name: Counter((line["topic"].rpartition("/")[0] or line["topic"], line.get("message", line.get("event"))["kind"])
                          for line in lines_of(name) if line["topic"] != "event") for name in RUNS}
    assert seen["malformed"]["link/in", "invalid"] > 15 and seen["malformed"]["report", "sensor"] == 16
    heard = seen["duplicates"]["link/in", "heartbeat"] + seen["duplicates"]["link/in", "nwk_data_ind"]
    assert heard > 2 * (seen["duplicates"]["report", "heartbeat"] + seen["duplicates"]["report", "sensor"]) > 0
    assert seen["duplicates"]["link/out", "nwk_data_req"] == seen["duplicates"]["command", "generic_req"] == 2
    assert seen["pages"]["link/out", "generic_req"] == 7 and seen["pages"]["report", "generic_server_req"] == 2
    assert {"wrap_ts", "nwk_data_ind", "heartbeat"} <= {kind for topic, kind in seen["simulator"] if topic == "link/in"}
