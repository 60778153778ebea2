import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from harness.daemon import Daemon  # noqa: E402


def pytest_collection_modifyitems(items):
    """What takes minutes starts first, so that the rest runs beside it; with E2E_QUICK set, it does not run."""
    if os.environ.get("E2E_QUICK"):
        items[:] = [item for item in items if not item.get_closest_marker("slow")]
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


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
