"""A system log that is alive and not read stops nobody."""
import re
import time

import pytest

from harness import wire
from harness.peers import wait_until

GROUP = "Log and descriptors"
pytestmark = pytest.mark.measured

OVERSIZED = bytes([wire.START]) + bytes(1024 * 1024 + 1) + bytes([wire.END])
REFUSED = "win_client_increase_buffer_size: out of memory!"


def test_a_system_log_that_nobody_reads_stops_nobody(start_gateway, tmp_path, figure):
    unread = tmp_path / "unread"
    gateway = start_gateway(env={"RTLS_SYSLOG_UNREAD": str(unread)})
    gateway.broker.wait_for("Connected to socket")
    unread.touch()
    bridge, other, operator = gateway.bridge(), gateway.bridge(wire.mac(0xB001)), gateway.terminal()
    other.introduce()
    for _ in range(9):      # a line each
        bridge.send(OVERSIZED)
    gateway.broker.wait_for(REFUSED, count=9)
    waits, end = [], time.monotonic() + 2
    while time.monotonic() < end:
        begin = time.monotonic()
        other.barrier()
        operator.command("info", "\n\n")
        waits.append(time.monotonic() - begin)
    begin = time.monotonic()
    gateway.interrupt()
    assert gateway.wait_exit() == 0
    stop = time.monotonic() - begin
    figure("the longest ping and command", "for ever", f"{max(waits) * 1000:.0f} ms")
    figure("the stop", "never", f"{stop:.1f} s")
    assert max(waits) < 0.5 and stop < 5


def test_a_storm_of_lines_is_bounded_and_counted(gateway, figure):
    storm = 10_000
    begin = time.monotonic()
    for _ in range(storm):
        gateway.proxy.publish("0")      # too short for a command: an error each

    def held() -> list:
        return [int(number) for line in gateway.syslog()
                for number in re.findall(r"Log lines held back beyond 1000 in a second: (\d+)", line)]

    def lines() -> int:
        return sum("wrong size of input data" in line for line in gateway.syslog())
    wait_until(lambda: lines() + sum(held()) >= storm, "all of them, or their number")
    seconds = int(time.monotonic() - begin) + 1
    figure(f"lines that {storm:,} malformed commands leave in the system log", f"{storm:,}", f"{lines():,} and a count")
    assert held() and lines() + sum(held()) == storm
    assert lines() <= 1000 * (seconds + 1)
