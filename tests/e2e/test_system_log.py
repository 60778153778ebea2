"""A system log that is alive but not read, or gets more than it should."""
import signal
import time

import pytest

from harness import wire
from harness.peers import wait_until

OVERSIZED = bytes([wire.START]) + bytes(1024 * 1024 + 1) + bytes([wire.END])
REFUSED = "win_client_increase_buffer_size: out of memory!"


@pytest.mark.threads
def test_nobody_waits_for_a_log_that_is_not_read(start_gateway, tmp_path):
    unread = tmp_path / "unread"
    daemon = start_gateway(env={"RTLS_SYSLOG_UNREAD": str(unread)})
    daemon.broker.wait_for("Connected to socket")
    unread.touch()
    bridge, other = daemon.bridge(), daemon.bridge()
    for _ in range(9):
        bridge.send(OVERSIZED)
    daemon.broker.wait_for(REFUSED, count=9)
    assert bridge.barrier() == [] and other.barrier() == []
    assert "##" in daemon.terminal().command("pcl", "##")
    unread.unlink()
    wait_until(lambda: daemon.syslog().count(f"3 rtls-gateway: {REFUSED}") == 9, "the lines")


def test_a_log_that_is_not_read_does_not_hold_up_the_end(start_gateway, tmp_path):
    unread = tmp_path / "unread"
    daemon = start_gateway(env={"RTLS_SYSLOG_UNREAD": str(unread)})
    unread.touch()
    daemon.bridge().send(OVERSIZED)
    daemon.broker.wait_for(REFUSED)
    begin = time.monotonic()
    daemon.interrupt(signal.SIGTERM)
    assert daemon.wait_exit() == 0
    assert time.monotonic() - begin < 5
    assert not any("Exiting" in line for line in daemon.syslog()), "nobody has read it"
