"""Free loopback ports, from a range that no other process of these tests takes any from: neither a worker of the same
run nor another run on this machine. So nobody takes a port between our looking and the daemon's binding.

The ranges lie below the ephemeral one. One belongs to whoever holds the lock of its file, until that process ends."""
import fcntl
import itertools
import os
import pathlib
import socket
import tempfile

FIRST, SIZE, RANGES = 10000, 1400, 16
_candidates = None
_lock = None    # kept open


def _lock_of(number: int):
    """The open file of a range that nobody else has; none if somebody has."""
    path = pathlib.Path(tempfile.gettempdir()) / f"rtls-gateway-test-ports-{number}"
    try:
        file = os.fdopen(os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o666))
    except PermissionError:    # another user's
        return None
    try:
        fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
    except BlockingIOError:
        file.close()
        return None
    return file


def _take_range():
    """From that range's begin on. With all taken, a later one is shared: the tests still look before they use a port."""
    global _lock
    for number in range(RANGES):
        _lock = _lock_of(number)
        if _lock:
            return itertools.count(FIRST + SIZE * number)
    return itertools.count(FIRST + SIZE * (os.getpid() % RANGES))


def free_port() -> int:
    global _candidates
    _candidates = _candidates or _take_range()
    for port in _candidates:
        with socket.socket() as tcp, socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as udp:
            try:
                tcp.bind(("0.0.0.0", port))
                udp.bind(("0.0.0.0", port))
                return port
            except OSError:
                continue
    raise RuntimeError("no free port")
