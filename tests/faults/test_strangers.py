"""A stranger who comes and goes cuts nobody else off, whoever gets the number of his connection."""
import os
import socket
import struct

from frozen import frozen
from harness import wire
from harness.peers import wait_until

GROUP = "Operators"

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


def test_a_strangers_quit_cuts_no_bridge(gateway, figure):
    operator = gateway.terminal()
    assert sessions(operator) == 1
    with frozen(gateway.process.pid, "rtls-terminal"):
        come_quit_and_go(gateway)
        bridges = [gateway.bridge(wire.mac(0xB100 + i)) for i in range(NUMBER)]
        for bridge in bridges:
            bridge.introduce()
    wait_until(lambda: sessions(operator) == 1, "the strangers to be gone")
    cut = [bridge for bridge in bridges if not is_served(bridge)]
    figure("bridges cut", "100 of 100", f"{len(cut)} of {NUMBER}")
    assert len(cut) == 0, f"{len(cut)} of {NUMBER} bridges were cut"


def is_served(bridge) -> bool:
    try:
        bridge.barrier()
        return True
    except (AssertionError, OSError):
        return False


def test_a_strangers_quit_cuts_no_other_operator(gateway, figure):
    operator = gateway.terminal()
    assert sessions(operator) == 1
    with frozen(gateway.process.pid, "rtls-terminal"):
        come_quit_and_go(gateway)
        before = descriptors(gateway)
        honest = [gateway.terminal() for _ in range(NUMBER)]
        wait_until(lambda: descriptors(gateway) >= before + NUMBER, "the operators to be accepted")
    cut = [terminal for terminal in honest if not is_answered(terminal)]
    figure("operators cut", "100 of 100", f"{len(cut)} of {NUMBER}")
    assert len(cut) == 0, f"{len(cut)} of {NUMBER} operators were cut"
    wait_until(lambda: sessions(operator) == 1 + NUMBER, "the strangers to be gone")


def is_answered(terminal) -> bool:
    try:
        return terminal.command("sub-", "\n") == "unsubscribed * ok.\n"
    except (AssertionError, OSError):
        return False


def unread(ends) -> int:
    """Bytes that the daemon's library has not read yet of the connection with these ports."""
    for line in open("/proc/net/tcp"):
        fields = line.split()
        if (fields[1][-4:], fields[2][-4:]) == ends:
            return int(fields[4].split(":")[1], 16)
    return 1    # not accepted yet


def test_a_stranger_whose_end_is_not_told_cuts_nobody(gateway):
    """The library drops the notice of an end when its queue of a thousand events is just full."""
    operator = gateway.terminal()
    assert sessions(operator) == 1
    with frozen(gateway.process.pid, "rtls-terminal"):
        before = descriptors(gateway)
        stranger = gateway.terminal()
        ends = f"{gateway.ports['terminal']:04X}", f"{stranger.port:04X}"
        wait_until(lambda: descriptors(gateway) > before, "the stranger to be accepted")
        for chunk in [b"x"] * 998 + [b"quit"]:      # behind the connect, which is an event, too
            stranger.send(chunk)
            while unread(ends):
                pass
        stranger.close()
        wait_until(lambda: descriptors(gateway) <= before, "the stranger to be gone")
        honest = [gateway.terminal() for _ in range(3)]     # one of them has his number
        wait_until(lambda: descriptors(gateway) >= before + 3, "the operators to be accepted")
    for _ in range(100):    # until the stranger's last word has been handled
        assert all(is_answered(terminal) for terminal in honest)
    assert sessions(operator) >= 4
