"""A stranger who comes and goes cuts nobody else off, whoever gets the number of his connection."""
import os
import socket
import struct

from frozen import frozen
from harness import wire
from harness.peers import wait_until

NUMBER = 100


def descriptors(gateway) -> int:
    return len(os.listdir(f"/proc/{gateway.process.pid}/fd"))


def come_quit_and_go(gateway):
    """Connects, says `quit` and leaves without having read, and waits until the daemon's library knows."""
    before = descriptors(gateway)
    strangers = []
    for _ in range(NUMBER):
        sock = socket.create_connection(("127.0.0.1", gateway.ports["terminal"]))
        sock.sendall(b"quit\n")
        strangers.append(sock)
    wait_until(lambda: descriptors(gateway) >= before + NUMBER, "the strangers to be accepted")
    for sock in strangers:
        sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        sock.close()
    wait_until(lambda: descriptors(gateway) <= before, "their descriptors to be free again")


def sessions(terminal) -> int:
    return terminal.command("pcl", "\n##\n").count("sub:")


def test_a_strangers_quit_cuts_no_bridge(gateway):
    operator = gateway.terminal()
    assert sessions(operator) == 1
    with frozen(gateway.process.pid, "rtls-terminal"):
        come_quit_and_go(gateway)
        bridges = [gateway.bridge(wire.mac(0xB100 + i)) for i in range(NUMBER)]
        for bridge in bridges:
            bridge.introduce()
    wait_until(lambda: sessions(operator) == 1, "the strangers to be gone")
    cut = [bridge for bridge in bridges if not is_served(bridge)]
    assert len(cut) == 0, f"{len(cut)} of {NUMBER} bridges were cut"


def is_served(bridge) -> bool:
    try:
        bridge.barrier()
        return True
    except (AssertionError, OSError):
        return False


def test_a_strangers_quit_cuts_no_other_operator(gateway):
    operator = gateway.terminal()
    assert sessions(operator) == 1
    with frozen(gateway.process.pid, "rtls-terminal"):
        come_quit_and_go(gateway)
        before = descriptors(gateway)
        honest = [gateway.terminal() for _ in range(NUMBER)]
        wait_until(lambda: descriptors(gateway) >= before + NUMBER, "the operators to be accepted")
    cut = [terminal for terminal in honest if not is_answered(terminal)]
    assert len(cut) == 0, f"{len(cut)} of {NUMBER} operators were cut"
    wait_until(lambda: sessions(operator) == 1 + NUMBER, "the strangers to be gone")


def is_answered(terminal) -> bool:
    try:
        return terminal.command("sub-", "\n") == "unsubscribed * ok.\n"
    except (AssertionError, OSError):
        return False
