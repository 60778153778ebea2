"""A bridge that leaves while the daemon stands still is gone afterwards, however much of it waited."""
import re
import socket

import pytest

from frozen import frozen
from harness import wire

GROUP = "Bridges"

BRIDGES = 50


def reports_of(number: int) -> int:
    """Around what the daemon's queue of one bridge holds."""
    return 10 + number % 15


@pytest.mark.parametrize("was_there", [False, True], ids=["came meanwhile", "was there"])
def test_bridges_that_leave_during_a_pause_are_gone_afterwards(start_gateway, was_there):
    gateway = start_gateway(debug=("win",))
    operator, watcher = gateway.terminal(), gateway.terminal()
    watcher.command("sub", "ok.\n")
    macs = [wire.mac(0xB100 + i) for i in range(BRIDGES)]
    present = [gateway.bridge(mac).sock for mac in macs] if was_there else []
    left = []
    with frozen(gateway.process.pid, "rtls-win"):
        for i, mac in enumerate(macs):
            sock = present[i] if was_there else socket.create_connection(("127.0.0.1", gateway.ports["win"]))
            for seq in range(reports_of(i)):
                sock.sendall(wire.frame(wire.root_announce(mac, seq + 1)))
                operator.command("sub-", "\n")    # the library serves one after the other: it has taken that
            sock.shutdown(socket.SHUT_WR)    # a reset would take what waits with it
            left.append(sock)
            operator.command("sub-", "\n")
    late = gateway.bridge(wire.mac(0xB001))    # may get a number of theirs
    late.introduce()
    seen = "".join(watcher.read_until("Connection closed by") + watcher.read_until("\n")
                   for _ in range(BRIDGES))
    ends = re.findall(r"closed by peer IP:\S+ MAC:\S+ ID:\[(\w+)\]", seen)
    assert len(ends) == BRIDGES and len(set(ends)) == BRIDGES
    reports = gateway.reports(late)
    for sock in left:
        sock.close()
    said = sum(m[:2] == b"\x01\x03" and m[3:11] in macs for m in reports)
    assert said == sum(map(reports_of, range(BRIDGES))), "what they said came before their end"
