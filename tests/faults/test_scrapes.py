"""Who reads the figures costs those who report nothing: a daemon with a thousand bridges, scraped far more often than any
Prometheus does."""
import http.client
import socket
import statistics
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
PINGS = 1000
# Scrapes without a pause, in a process of its own.
SCRAPER = """
import http.client, sys
client = http.client.HTTPConnection("127.0.0.1", int(sys.argv[1]))
while True:
    client.request("GET", "/metrics")
    assert client.getresponse().read()
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
    yield port, bridge
    for sock in others:
        sock.close()


def milliseconds(times: list) -> tuple:
    return statistics.median(times) * 1e3, sorted(times)[len(times) * 99 // 100] * 1e3


def round_trips(bridge) -> list:
    times = []
    for number in range(PINGS):
        message = wire.ping(number % 256, b"mark")
        begin = time.perf_counter()
        bridge.send_message(message)
        assert bridge.receive() == message
        times.append(time.perf_counter() - begin)
    return times


@pytest.mark.measured
def test_a_scrape_of_a_thousand_bridges(loaded, figure):
    port, _ = loaded
    client = http.client.HTTPConnection("127.0.0.1", port, timeout=20)
    times = []
    for _ in range(SCRAPES):
        begin = time.perf_counter()
        client.request("GET", "/metrics")
        assert b"rtls_gateway_bridges 1000\n" in client.getresponse().read()
        times.append(time.perf_counter() - begin)
    client.close()
    median, slow = milliseconds(times)
    figure("/metrics with 1,000 bridges, median (99 %)", "no figures", f"{median:.2f} ms ({slow:.2f} ms)")
    assert median < 5


@pytest.mark.measured
def test_scrapes_do_not_hold_up_a_report(loaded, figure):
    """One after the other, without a pause: several hundred times as many as a Prometheus."""
    port, bridge = loaded
    alone, _ = milliseconds(round_trips(bridge))
    scraper = subprocess.Popen([sys.executable, "-c", SCRAPER, str(port)])
    try:
        wait_until(lambda: Figures(port).sum("bridge_frames_total") > 0 and scraper.poll() is None, "the scraper")
        beside, slow = milliseconds(round_trips(bridge))
        assert scraper.poll() is None
    finally:
        scraper.kill()
        scraper.wait()
    figure("there and back beside scrapes without a pause, median (99 %; median without any)", "no figures",
           f"{beside:.2f} ms ({slow:.2f} ms; {alone:.2f} ms)")
    assert beside < 2 * alone + 1
