"""Who reads the figures costs those who report nothing: a daemon with a thousand bridges, scraped far more often than any
Prometheus does."""
import contextlib
import http.client
import pathlib
import re
import socket
import statistics
import struct
import subprocess
import sys
import time

import pytest

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import wait_until

GROUP = "Accounts"
BRIDGES = 1000
SCRAPES = 200
REPORTS = 1000
HERE = pathlib.Path(__file__).resolve().parent
# Scrapes without a pause, in a process of its own.
SCRAPER = """
import http.client, sys
client = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]))
says = "connected"
while True:
    client.request("GET", "/metrics")
    assert client.getresponse().read()
    says = says and print(says, flush=True)
"""


@pytest.fixture
def loaded(start_gateway):
    """A daemon, its HTTP port, and one of its thousand bridges, each with a node of its own."""
    port = free_port()
    gateway = start_gateway(change=with_http(port))
    bridge = gateway.bridge(wire.mac(1))
    others = [socket.create_connection(("127.0.0.1", gateway.ports["win"]), 20) for _ in range(BRIDGES - 1)]
    for number, sock in enumerate([bridge.sock, *others]):
        mac = wire.mac(number + 1)
        sock.sendall(wire.frame(wire.heartbeat(mac, 1, bridge=mac, addr=wire.ip(number), reporting=255)))
    wait_until(lambda: Figures(port)["nodes", {"state": "living"}] == BRIDGES, "the nodes")
    gateway.handler.drain()
    yield gateway, port, bridge
    for sock in others:
        sock.close()


def milliseconds(times: list) -> tuple:
    return statistics.median(times) * 1e3, sorted(times)[len(times) * 99 // 100] * 1e3


def reports_through(gateway, bridge) -> list:
    """How long each of so many reports takes to the message handler, one after the other. It passes the registry, whose lock
    and bridges a scrape reads, and the queue upstream."""
    times = []
    for number in range(REPORTS):
        mark = struct.pack("<8sH", b"measured", number)
        message = wire.sensor(number % 256, mark, wire.ip(0))
        begin = time.perf_counter()
        bridge.send_message(message)
        while mark not in gateway.handler.receive()[1]:
            pass
        times.append(time.perf_counter() - begin)
    return times


@contextlib.contextmanager
def beside(*command):
    """A program that works meanwhile, and must not end."""
    pipe = subprocess.PIPE
    with subprocess.Popen([sys.executable, *map(str, command)], stdin=pipe, stdout=pipe) as program:
        try:
            assert program.stdout.readline().strip() == b"connected"
            yield
            assert program.poll() is None
        finally:
            program.kill()


def scrapes(port: int) -> list:
    client = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
    times = []
    for _ in range(SCRAPES):
        begin = time.perf_counter()
        client.request("GET", "/metrics")
        page = client.getresponse().read()
        times.append(time.perf_counter() - begin)
        assert int(re.search(rb"^rtls_gateway_bridges (\d+)$", page, re.M)[1]) >= BRIDGES
    client.close()
    return times


@pytest.mark.measured
def test_a_scrape_of_a_thousand_bridges(loaded, figure):
    gateway, port, _ = loaded
    median, slow = milliseconds(scrapes(port))
    figure("/metrics with 1,000 bridges, median (99 %)", "no figures", f"{median:.2f} ms ({slow:.2f} ms)")
    assert median < 5
    with beside(HERE / "flood.py", gateway.ports["win"], 2, "reports", "read"):
        before = Figures(port)
        median, slow = milliseconds(scrapes(port))
        handled = Figures(port).sum("messages_total", type="sensor") - before.sum("messages_total", type="sensor")
    assert handled > SCRAPES * 10     # it was a flood
    figure("the same beside a flood of reports, median (99 %)", "-", f"{median:.2f} ms ({slow:.2f} ms)")
    assert median < 5


@pytest.mark.measured
def test_scrapes_do_not_hold_up_a_report(loaded, figure):
    """One after the other, without a pause: several hundred times as many as a Prometheus."""
    gateway, port, bridge = loaded
    alone, alone_slow = milliseconds(reports_through(gateway, bridge))
    with beside("-c", SCRAPER, port):
        median, slow = milliseconds(reports_through(gateway, bridge))
    figure("a report to the handler beside scrapes without a pause, median (99 %; without any)", "-",
           f"{median:.2f} ms ({slow:.2f} ms; {alone:.2f} ms, {alone_slow:.2f} ms)")
    assert median < 1.3 * alone + 0.3
    assert slow < 1.3 * alone_slow + 10     # who has the processor has it for some milliseconds
