"""The fixtures of all tests that start the real daemon."""
import pytest
import zmq

from . import tap_publisher
from .daemon import Daemon, free_port
from .http_client import get, with_http
from .peers import wait_until


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


@pytest.fixture
def http_port() -> int:
    return free_port()


@pytest.fixture
def http_gateway(start_gateway, http_port):
    """A running daemon with an HTTP port, and all its links up."""
    daemon = start_gateway(change=with_http(http_port))
    wait_until(lambda: get(http_port, "/readyz").status == 200, "the links")
    return daemon


@pytest.fixture
def tap():
    """A tap of our own, without a gateway."""
    with zmq.Context() as context:
        publisher = tap_publisher.Tap(context, free_port())
        yield publisher
        publisher.close()
