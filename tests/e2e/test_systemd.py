"""What systemd is told, by a notify socket of the test's own."""
import socket
import time

import pytest

from harness.peers import DEADLINE
from harness.stopped_thread import StoppedThread, thread_id


class NotifySocket:
    def __init__(self, path):
        self.path = str(path)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.messages = []

    def read(self, timeout: float):
        """The next message, or None when none comes in time."""
        self.sock.settimeout(max(timeout, 0.001))
        try:
            self.messages.append(self.sock.recv(4096).decode())
        except (TimeoutError, BlockingIOError):
            return None
        return self.messages[-1]

    def wait_for(self, start: str, deadline: float = DEADLINE) -> str:
        end = time.monotonic() + deadline
        while (left := end - time.monotonic()) > 0:
            message = self.read(left)
            if message is not None and message.startswith(start):
                return message
        raise AssertionError(f"no {start}, but {self.messages}")


@pytest.fixture
def manager(tmp_path):
    manager = NotifySocket(tmp_path / "notify")
    yield manager
    manager.sock.close()


@pytest.mark.threads
def test_it_says_when_it_serves_how_it_is_and_when_it_stops(start_gateway, manager):
    daemon = start_gateway(env={"NOTIFY_SOCKET": manager.path})
    assert manager.wait_for("") == "READY=1"
    status = manager.wait_for("STATUS=")
    assert status.startswith("STATUS=0 bridges, 0 nodes, 0 messages handed over, 0 lost; message handler ")
    bridge = daemon.bridge(b"\2\3\4\5\6\7\x08\x09")
    bridge.introduce()
    assert len(daemon.reports(bridge)) == 1
    # Every ten seconds. One that was made before all this may come first.
    manager.wait_for("STATUS=1 bridges, 2 nodes, 2 messages handed over, 0 lost; "
                     "message handler up, proxy up, proxy input up", 2 * DEADLINE)
    daemon.stop()
    assert manager.wait_for("STOPPING=1")
    assert manager.read(0) is None
    assert manager.messages.count("READY=1") == 1
    assert not [m for m in manager.messages if m.startswith(("WATCHDOG", "RELOADING"))]


def test_it_is_not_ready_before_both_servers_serve(start_gateway, manager):
    with socket.socket() as holder:
        holder.bind(("0.0.0.0", 0))
        holder.listen()
        daemon = start_gateway(env={"NOTIFY_SOCKET": manager.path}, ports={"terminal": holder.getsockname()[1]},
                               wait_ready=False)
        daemon.wait_exit()
    while manager.read(0):
        pass
    assert manager.messages == ["STOPPING=1"]


def test_without_a_socket_there_is_nobody_to_tell(gateway):
    assert "NOTIFY_SOCKET" not in gateway.env
    assert gateway.stop() == 0


@pytest.mark.parametrize("thread", ["rtls-win", "rtls-terminal"])
def test_the_signs_of_life_end_with_either_loop(start_gateway, manager, thread):
    daemon = start_gateway(env={"NOTIFY_SOCKET": manager.path, "WATCHDOG_USEC": "1000000"})
    while manager.read(0):      # what came while we were not looking
        pass
    began = time.monotonic()
    for _ in range(4):
        manager.wait_for("WATCHDOG=1")
    assert 1.0 < time.monotonic() - began < 4.0  # twice in WATCHDOG_USEC
    with StoppedThread(thread_id(daemon, thread)):
        end = last = time.monotonic()
        end += DEADLINE
        while (quiet := time.monotonic() - last) < 2:
            assert time.monotonic() < end, "the signs of life went on"
            if manager.read(2 - quiet) == "WATCHDOG=1":
                last = time.monotonic()
    manager.wait_for("WATCHDOG=1")


def test_somebody_elses_watchdog_is_none_of_ours(start_gateway, manager):
    daemon = start_gateway(env={"NOTIFY_SOCKET": manager.path, "WATCHDOG_USEC": "100000", "WATCHDOG_PID": "1"})
    manager.wait_for("STATUS=")
    daemon.stop()
    manager.wait_for("STOPPING=1")
    assert "WATCHDOG=1" not in manager.messages
