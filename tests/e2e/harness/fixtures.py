"""The fixtures of all tests that start the real daemon."""
import pytest

from .daemon import Daemon


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
