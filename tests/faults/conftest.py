"""The faults' tests use the end-to-end tests' harness and fixtures."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))

import harness.daemon  # noqa: E402
import pytest  # noqa: E402


@pytest.fixture
def start_gateway(tmp_path):
    """Starts daemons with the options that a test needs; each is stopped, and its end checked."""
    started = []

    def start(**options) -> harness.daemon.Daemon:
        folder = tmp_path / f"daemon{len(started)}"
        folder.mkdir()
        daemon = harness.daemon.Daemon(folder, **options)
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
