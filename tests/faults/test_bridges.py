"""Bridges that flood, that do not read, or that come in too large a number cost the others little."""
import contextlib
import itertools
import os
import pathlib
import re
import socket
import statistics
import struct
import subprocess
import sys
import threading
import time

import pytest

from frozen import thread_of
from harness import daemon, wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import wait_until

GROUP = "Bridges"
GROUPS = dict.fromkeys(("test_a_full_house_is_said_once_and_costs_nothing", "test_too_few_descriptors_are_refused_in_words"),
                       "Log and descriptors")
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
    """A bridge that pings, and keeps its node alive. `work`: what the bridges' thread did during each ping, in seconds
    of processor time, which a busy host does not lengthen. `waits`: what each ping took, but for the time in which the
    host kept those at work (the bridges' thread, the library's, and us) waiting for a processor."""

    def __init__(self, gateway, mac: bytes = HONEST):
        self.bridge = gateway.bridge(mac)
        self.number = 0
        self.work, self.waits = [], []
        self.tasks = pathlib.Path(f"/proc/{gateway.process.pid}/task")
        self.own = pathlib.Path(f"/proc/self/task/{threading.get_native_id()}")
        self.bridges_thread = self.tasks / str(thread_of(gateway.process.pid, "rtls-win"))
        self.at_work = [self.own, self.bridges_thread]
        self.at_work += [task for task in self.tasks.iterdir() if (task / "comm").read_text().startswith("ZMQbg/IO")]

    @staticmethod
    def _schedule(task, field: int) -> float:
        return int((task / "schedstat").read_text().split()[field]) / 1e9

    def worked(self) -> float:
        return self._schedule(self.bridges_thread, 0)

    def kept_waiting(self) -> float:
        return sum(self._schedule(task, 1) for task in self.at_work)

    def ping(self) -> float:
        """Seconds until the echo is there."""
        self.number += 1
        if self.number % 100 == 1:
            self.bridge.introduce(self.number % 255 + 1)
        mark = wire.ping(self.number % 200, b"honest")
        worked, kept = self.worked(), self.kept_waiting()
        began = time.monotonic()
        self.bridge.send_message(mark)
        while self.bridge.receive(60) != mark:
            pass
        took = time.monotonic() - began
        self.work.append(self.worked() - worked)
        self.waits.append(took - (self.kept_waiting() - kept))
        return took

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


def resident_kib(gateway) -> int:
    status = pathlib.Path(f"/proc/{gateway.process.pid}/status").read_text()
    return int(re.search(r"VmRSS:\s+(\d+)", status)[1])


def pings_of(port: int) -> int:
    return Figures(port).sum("messages_total", type="ping")


def test_a_connection_that_reads_nothing_takes_little_beside_what_is_counted(start_gateway, figure):
    """What the library holds of each is in no total: sixteen pieces of 2 KiB, four reads of 8 KiB, and its own records."""
    port = free_port()
    gateway = start_gateway(change=with_http(port))
    number, honest = 100, Honest(gateway)
    before = resident_kib(gateway)
    with flood(gateway, number, "silent"):
        honest.pings(1)
        silent = (resident_kib(gateway) - before) / number
    with flood(gateway, number, "small"):
        def waiting():
            honest.ping()
            return Figures(port)["bridges_waiting_memory_bytes", {}] / 1024
        wait_until(lambda: waiting() > 64 * number, "all to have filled what the library holds of them", 60)
        unread = (resident_kib(gateway) - before - waiting()) / number
    with socket.create_connection(("127.0.0.1", gateway.ports["win"])) as deaf:
        mac = wire.mac(0x2FFF)
        deaf.sendall(wire.frame(wire.heartbeat(mac, 1, bridge=mac, addr=wire.ip(0x2FFFFF))))
        honest.ping()
        at_rest, pings = resident_kib(gateway), pings_of(port) + 300_000
        deaf.sendall(b"\xf5\x00\x00\x01\xf7" * 300_000)
        wait_until(lambda: honest.ping() and pings_of(port) >= pings, "1.5 MB of pings", 60)
        small = resident_kib(gateway) - at_rest
    figure("memory for 1.5 MB of pings of 5 bytes that are not read", "100 MiB", f"{small / 1024:.1f} MiB")
    figure("memory of a connection that says nothing", "-", f"{silent:.0f} KiB")
    figure("memory of one that reads nothing, beside what waits for it", "250 KiB", f"{unread:.0f} KiB")
    assert silent < 40 and unread < 160


def test_three_thousand_who_flood_and_read_nothing_stay_under_a_gibibyte(start_gateway, figure):
    """So many that what the library holds of each makes most of it, with no key that bounds their number."""
    number, port = 3000, free_port()
    gateway = start_gateway(change=with_http(port))
    honest = Honest(gateway)
    with flood(gateway, number, "usual", "shut"):
        assert open_files(gateway) > number, "all are let in"

        def is_full():
            honest.ping()
            return Figures(port)["bridges_waiting_memory_bytes", {}] > 200 << 20
        wait_until(is_full, "all that may wait for them", 60)
        times, peak = honest.pings(3), 0
        while peak_mib(gateway) > peak + 8:    # until hardly more is taken in
            peak = peak_mib(gateway)
            times += honest.pings(1)
        peak = peak_mib(gateway)
    figure("memory under 3,000 bridges that flood", "906 MiB", f"{peak} MiB")
    figure("a ping among them, median", "493 ms", ms(statistics.median(times)))
    assert peak < 768, "so that twice as many fit as well"
    assert statistics.median(times) < 5, "an honest bridge is served"


def test_pages_go_to_who_asks_for_them(gateway, figure):
    """A node without a route of its own: another client relays what it says."""
    others, asking = 50, gateway.bridge(HONEST)
    node, address, size = wire.mac(0x1A2B), wire.ip(0x1A2B), 768
    page = struct.pack(">IIHH", 1, 2, size, 0)
    asking.send_message(wire.envelope(wire.forwarded_heartbeat(node, 1), node, address, code=wire.TRF2SRV))
    asking.barrier()
    gateway.proxy.publish(wire.generic_req(b"\x00\x10" + page + bytes(size), node))
    assert asking.receive()[5:7] == b"\x00\x10"    # and the store has it
    bridges = [gateway.bridge(wire.mac(0xC000 + i)) for i in range(others)]
    asked = received = 0
    for number in range(1000):
        request = wire.envelope(wire.generic_server_req(number % 250 + 2, 16, page, b""), node, address, code=wire.TRF2SRV)
        asking.send_message(request)
        asked += len(wire.frame(request))
        received += len(wire.frame(asking.receive()))
    strayed = sum(len(bridge.pull(0)) for bridge in bridges)
    figure(f"bytes to {others} other bridges, by {asked // 1000} kB of requests for {received // 1000} kB of pages",
           "693 MB, by 74 kB", f"{strayed}")
    assert received > 1000 * size and strayed == 0


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
        honest.work.clear()

        def closed():
            pings.extend(honest.pings(0.1, 0.001))
            return open_files(gateway) <= before - 20
        wait_until(closed, "the end of the full bridges", 60)
    figure("the longest ping while 20 full bridges are closed", "20 x 100 ms; 20 s for 200", ms(max(pings)))
    most = sorted(honest.work)[-2]    # lines that nobody could know to be costly may be in one of them
    figure("the most work of the bridges' thread before an answer", "57 ms", ms(most))
    assert max(pings) < 0.3 and most < 0.1    # it used to wait, 100 ms for each of them


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
        honest.work.clear()
        honest.waits.clear()
        times = honest.pings(5)
    median = statistics.median(times)
    # The lines of the first moment are in one of them.
    most, longest = sorted(honest.work)[-2], sorted(honest.waits)[-2]
    figure(f"a ping among 200 flooding bridges that {'are deaf' if reads == 'deaf' else 'read'}, median (worst)",
           before, f"{ms(median)} ({ms(max(times))})")
    figure(f"the most work of the bridges' thread before an answer, of 200 that {'are deaf' if reads == 'deaf' else 'read'}",
           "1,215 ms" if reads == "read" else "536 ms", ms(most))
    assert most < 0.1 and longest < 0.1, f"a ping waited {ms(longest)}, with the processors to be had"


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
def test_too_few_descriptors_are_refused_in_words(start_gateway, monkeypatch, figure, allowed):
    monkeypatch.setattr(daemon, "WITH_FEW_FILES", ["prlimit", f"--nofile={allowed}:{allowed}"])
    gateway = start_gateway(wait_ready=False)
    gateway.expected_status = 1
    assert gateway.wait_exit() == 1
    refusal = f"{allowed} open files are allowed, at least 128 are needed!"
    assert any(line.startswith("3 rtls-gateway: " + refusal) for line in gateway.syslog())
    figure("a start with 8 to 127 files allowed", "abort", "refused in words, status 1", worst=0)
