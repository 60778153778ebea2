"""The daemon of the end-to-end tests, under faults."""
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "e2e"))

from harness.daemon import Daemon  # noqa: E402


@pytest.fixture
def start_gateway(tmp_path):
    """Starts daemons with the options that a test needs; each is stopped, and its end checked."""
    started = []

    def start(**options) -> Daemon:
        folder = tmp_path / f"daemon{len(started)}"
        folder.mkdir()
        daemon = Daemon(folder, **options)
        started.append(daemon)
        return daemon

    yield start
    for daemon in started:
        daemon.close()


@pytest.fixture
def gateway(start_gateway):
    """A running daemon with every upstream peer connected and all debug sections off."""
    daemon = start_gateway()
    daemon.broker.wait_for("Connected to socket")
    return daemon
