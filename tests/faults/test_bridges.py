"""Bridges that flood, that do not read, or that come in too large a number cost the others little."""
import contextlib
import itertools
import os
import pathlib
import re
import socket
import statistics
import subprocess
import sys
import time

import pytest

from harness import daemon, wire
from harness.peers import wait_until

pytestmark = pytest.mark.measured

HONEST = wire.mac(0xB001)
FLOOD = pathlib.Path(__file__).parent / "flood.py"


@contextlib.contextmanager
def flood(gateway, connections: int, kind: str, reads: str = "deaf"):
    process = subprocess.Popen([sys.executable, str(FLOOD), str(gateway.ports["win"]), str(connections), kind, reads],
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE)
    try:
        assert process.stdout.readline() == b"connected\n"
        yield
    finally:
        process.stdin.close()
        process.stdout.close()
        process.wait()


class Honest:
    """A bridge that pings, and keeps its node alive."""

    def __init__(self, gateway):
        self.bridge = gateway.bridge(HONEST)
        self.number = 0

    def ping(self) -> float:
        """Seconds until the echo is there."""
        self.number += 1
        if self.number % 100 == 1:
            self.bridge.introduce(self.number % 255 + 1)
        mark = wire.ping(self.number % 200, b"honest")
        began = time.monotonic()
        self.bridge.send_message(mark)
        while self.bridge.receive(60) != mark:
            pass
        return time.monotonic() - began

    def pings(self, seconds: float, pause: float = 0.02) -> list:
        end = time.monotonic() + seconds
        times = []
        while time.monotonic() < end or len(times) < 5:
            times.append(self.ping())
            self.bridge._read(pause)    # nothing comes unasked
        return times


def peak_mib(gateway) -> int:
    status = pathlib.Path(f"/proc/{gateway.process.pid}/status").read_text()
    return int(re.search(r"VmHWM:\s+(\d+)", status)[1]) // 1024


def cpu_seconds(gateway) -> float:
    fields = pathlib.Path(f"/proc/{gateway.process.pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def open_files(gateway) -> int:
    return len(os.listdir(f"/proc/{gateway.process.pid}/fd"))


def ms(seconds: float) -> str:
    return f"{seconds * 1000:.0f} ms"


@pytest.mark.parametrize("kind, connections, before", [
    ("small", 200, "1,577 MiB"), ("large", 200, "1,351 MiB"), ("open", 1200, "2,396 MiB")], ids=["small", "large", "open"])
def test_what_bridges_leave_unread_or_unfinished_stays_under_a_gibibyte(gateway, figure, kind, connections, before):
    honest = Honest(gateway)
    with flood(gateway, connections, kind):
        times = honest.pings(5)
        peak = 0
        while peak_mib(gateway) > peak:    # until no more is taken in
            peak = peak_mib(gateway)
            times += honest.pings(1)
    figure(f"memory under {connections} bridges, {kind} messages", before, f"{peak} MiB")
    assert peak < 1024
    assert statistics.median(times) < 1, "an honest bridge is served"


def test_the_end_of_full_bridges_stalls_nobody(gateway, figure):
    def full():
        honest.ping()    # one that says nothing is closed
        return sum("does not read" in line for line in gateway.syslog()) >= 5
    honest = Honest(gateway)
    stalls = []
    for _ in range(3):    # the host may be busy elsewhere for one of them
        with flood(gateway, 20, "large"):
            wait_until(full, "full bridges", 60)
        stalls.append(max(honest.pings(1, 0.001)))
    figure("the longest ping while 20 full bridges leave", "3,300 ms", ms(min(stalls)))
    assert min(stalls) < 0.05


def test_closing_full_bridges_stalls_nobody(gateway, figure):
    """Twenty who do not read, and whose nodes are gone, are closed with a full queue."""
    honest = Honest(gateway)
    with flood(gateway, 20, "large"):
        def full():
            honest.ping()
            return sum("does not read" in line for line in gateway.syslog()) >= 5
        wait_until(full, "full bridges", 60)
        operator = gateway.terminal()
        operator.command("a first word", "\n")    # its connection is open now
        before = open_files(gateway)
        for number in range(20):
            assert operator.command(f"del {0x2000 + number:x}", "\n") == "Command completed successfully!\n"
        pings = []

        def closed():
            pings.extend(honest.pings(0.1, 0.001))
            return open_files(gateway) <= before - 20
        wait_until(closed, "the end of the full bridges", 60)
    figure("the longest ping while 20 full bridges are closed", "20 x 100 ms", ms(max(pings)))
    assert max(pings) < 0.5


def test_a_full_house_of_operators_is_said_once(start_gateway, monkeypatch):
    monkeypatch.setattr(daemon, "WITH_FEW_FILES", ["prlimit", "--nofile=256:256"])
    gateway = start_gateway()
    known = gateway.terminal()
    assert known.command("info", "\n\n").startswith("GW Version")
    strangers = [socket.create_connection(("127.0.0.1", gateway.ports["terminal"])) for _ in range(300)]
    wait_until(lambda: any("no more operators are let in" in line for line in gateway.syslog()), "the line")
    assert strangers[-1].recv(100) == b"", "who comes too late is closed"
    assert known.command("info", "\n\n").startswith("GW Version"), "who was there is served"
    assert sum("no more operators are let in" in line for line in gateway.syslog()) == 1
    for stranger in strangers:
        stranger.close()
    wait_until(lambda: open_files(gateway) < 100, "the end of the others")
    assert gateway.terminal().command("info", "\n\n").startswith("GW Version")


@pytest.mark.parametrize("reads, before", [("read", "613 ms (3624 ms)"), ("deaf", "210 ms (5439 ms)")],
                         ids=["read", "deaf"])
def test_two_hundred_flooding_bridges_leave_an_honest_one_its_turn(gateway, figure, reads, before):
    honest = Honest(gateway)
    with flood(gateway, 200, "small", reads):
        honest.ping()
        times = honest.pings(5)
    median = statistics.median(times)
    figure(f"a ping among 200 flooding bridges that {'are deaf' if reads == 'deaf' else 'read'}, median (worst)",
           before, f"{ms(median)} ({ms(max(times))})")
    assert median < 0.1


def test_a_full_house_is_said_once_and_costs_nothing(start_gateway, figure, monkeypatch):
    monkeypatch.setattr(daemon, "WITH_FEW_FILES", ["prlimit", "--nofile=256:256"])
    gateway = start_gateway()
    honest = Honest(gateway)
    honest.ping()
    with flood(gateway, 400, "silent", "read"):
        wait_until(lambda: any("no more bridges are let in" in line for line in gateway.syslog()), "the line")
        honest.ping()
        began = cpu_seconds(gateway)
        honest.pings(2, 0.1)
        spent = cpu_seconds(gateway) - began
        figure("processor time a second while all descriptors are taken", "650 ms", ms(spent / 2))
        assert spent < 0.5
        gateway.handler.close()    # what is kept is for the servers
        gateway.start_handler()
        sequence = itertools.cycle(range(1, 256))

        def served():    # what left for the one before is lost
            honest.bridge.send_message(wire.root_announce(wire.mac(0x77), next(sequence)))
            return gateway.handler.sock.poll(200)
        wait_until(served, "the server's return")
    assert sum("no more bridges are let in" in line for line in gateway.syslog()) == 1

    wait_until(lambda: open_files(gateway) < 100, "the end of the others")
    assert gateway.bridge().sync == b"sync\n"


@pytest.mark.parametrize("allowed", [8, 40, 127])
def test_too_few_descriptors_are_refused_in_words(start_gateway, monkeypatch, allowed):
    monkeypatch.setattr(daemon, "WITH_FEW_FILES", ["prlimit", f"--nofile={allowed}:{allowed}"])
    gateway = start_gateway(wait_ready=False)
    gateway.expected_status = 1
    assert gateway.wait_exit() == 1
    refusal = f"{allowed} open files are allowed, at least 128 are needed!"
    assert any(line.startswith("3 rtls-gateway: " + refusal) for line in gateway.syslog())
