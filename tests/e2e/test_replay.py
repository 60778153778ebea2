"""rtls-replay against the real daemon: recordings that were made here, reports compared with what they must be."""
import json
import subprocess

import pytest

from harness import tap_publisher as taps
from harness import wire
from harness.daemon import BUILD, Daemon, environment, free_port
from harness.peers import DEADLINE

BRIDGE, NODES = wire.mac(0xB001), [wire.mac(0x1A00 + i) for i in range(3)]
CLOCK = 1_700_000_000 * 10**9


class Unbound(taps.Tap):
    """Composes messages alone."""

    def __init__(self):
        self.numbers = {}


def heartbeat(node: bytes, seq: int) -> bytes:
    return wire.heartbeat(node, seq, bridge=BRIDGE, addr=wire.ip(node[-1]), role=0x11, sublocation=1, parent=BRIDGE,
                          sw=0x0102A0B0, x=1500, y=-2500, z=0, zofs=0)


def made(change=lambda reports: reports) -> bytes:
    """Three heartbeats of each node, by two connections, in reads that end within messages; 0.3 s long."""
    tap, messages = Unbound(), []
    for connection, nodes in [(7, NODES[:2]), (8, NODES[2:])]:
        stream = b"".join(wire.frame(heartbeat(node, seq)) for seq in (1, 2, 3) for node in nodes)
        for at in range(0, len(stream), 50):
            messages.append(tap.message("link/in/" + BRIDGE.hex().upper(), stream[at:at + 50], connection=connection,
                                        clock_ns=CLOCK + at * 10**6))
    reports = [(node, list(taps.report(node, seq, 1, 2, BRIDGE))) for seq in (1, 2, 3) for node in NODES]
    for node, report in change(reports):
        messages.append(tap.message("report/" + node.hex().upper(), *report, connection=7, clock_ns=CLOCK + 10**8))
    return taps.recording_of(sorted(messages, key=lambda message: message[1][16:]))


@pytest.fixture(scope="module")
def daemon(tmp_path_factory):
    daemon = Daemon(tmp_path_factory.mktemp("daemon"), upstream=("broker", "proxy", "proxy_input"))
    yield daemon
    daemon.close()


def replay(file, *arguments, status: int = 0) -> tuple:
    done = subprocess.run([BUILD / "rtls-replay", "--json", *map(str, arguments), file], env=environment(), text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, timeout=DEADLINE * 2)
    assert done.returncode == status, (done.stdout, done.stderr)
    return json.loads(done.stdout or "{}"), done.stderr


def checked(daemon, tmp_path, data: bytes, *arguments, **kw) -> tuple:
    file = tmp_path / "made.pcapng"
    file.write_bytes(data)
    return replay(file, "--to", f"127.0.0.1:{daemon.ports['win']}", "--check", f"tcp://127.0.0.1:{daemon.ports['handler']}",
                  *arguments, **kw)


@pytest.mark.parametrize("arguments", [[], ["--speed", 5], ["--fast"], ["--fast", "--shuffle", 3]], ids=lambda it: " ".join(map(str, it)))
def test_the_same_reports_come(daemon, tmp_path, arguments):
    told, _ = checked(daemon, tmp_path, made(), *arguments)
    stream = sum(len(wire.frame(heartbeat(node, seq))) for node in NODES for seq in (1, 2, 3))
    assert told == {"connections": 2, "bytes": stream, "closed_early": 0, "pauses_shortened": 0,
                    "clock_steps_back": 0, "reports": 9, "equal": 9, "first_difference": None}


def test_the_first_difference_is_named(daemon, tmp_path):
    def changed(reports):
        reports[4][1][1] = reports[4][1][1][:2] + b"\x09" + reports[4][1][1][3:]  # the number of one in the middle
        return reports

    told, err = checked(daemon, tmp_path, made(changed), "--fast", status=4)
    assert f"node {NODES[1].hex()}: report 2 differs at byte 2: 010409" in err and " 010402" in err
    assert told["equal"] == 7


def test_what_is_missing_and_what_is_too_much_are_named(daemon, tmp_path):
    _, err = checked(daemon, tmp_path, made(lambda reports: reports + [(NODES[2], list(taps.report(NODES[2], 4, 1, 2, BRIDGE)))]),
                     "--fast", "--patience", 0.5, status=4)
    assert f"node {NODES[2].hex()}: report 4 has not come" in err
    _, err = checked(daemon, tmp_path, made(lambda reports: reports[:-1]), "--fast", status=4)
    assert f"node {NODES[2].hex()}: report 3 has come and was not recorded" in err


def pings(clocks, connections: int = 1) -> bytes:
    tap, stream = Unbound(), wire.frame(wire.ping(1))
    return taps.recording_of([tap.message("link/in/id-00000001", stream, connection=1 + at % connections, clock_ns=clock)
                              for at, clock in enumerate(clocks)])


def test_an_absurd_clock_is_not_followed(daemon, tmp_path):
    file, year = tmp_path / "made.pcapng", 365 * 86400 * 10**9
    file.write_bytes(pings([CLOCK, CLOCK + 30 * year, CLOCK, CLOCK + 10**8, 2**64 - 1]))
    told, err = replay(file, "--to", f"127.0.0.1:{daemon.ports['win']}", "--max-pause", 0.2)
    assert (told["pauses_shortened"], told["clock_steps_back"]) == (2, 1)
    assert told["bytes"] == 5 * len(wire.frame(wire.ping(1)))
    assert "2 pauses of up to " in err and "played as 0.2 s (--max-pause)" in err and "steps back 1 time" in err


def test_descriptors_that_run_out_are_told(daemon, tmp_path):
    file = tmp_path / "made.pcapng"
    file.write_bytes(pings([CLOCK] * 40, connections=40))
    done = subprocess.run(["prlimit", "--nofile=24:24", BUILD / "rtls-replay", "--fast", "--to", f"127.0.0.1:{daemon.ports['win']}",
                           file], env=environment(), text=True, check=False, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          stdin=subprocess.DEVNULL, timeout=DEADLINE)
    assert done.returncode == 1
    assert "no descriptor is left for a connection beside " in done.stderr and "(ulimit -n)" in done.stderr


def test_nobody_there_and_no_recording_have_their_statuses(tmp_path):
    file = tmp_path / "made.pcapng"
    file.write_bytes(made())
    assert "no gateway answers" in replay(file, "--to", f"127.0.0.1:{free_port()}", status=3)[1]
    assert "is no address" in replay(file, "--to", "here", status=2)[1]
    file.write_bytes(b"GIF89a, or so it says")
    assert "this is no pcapng file" in replay(file, "--to", "127.0.0.1:1", status=1)[1]
