"""A long listing reaches an operator on a slow line whole."""
import socket
import struct

import pytest

from harness import wire
from harness.peers import wait_until

GROUP = "Operators"
pytestmark = pytest.mark.measured

BRIDGE = wire.mac(0xB001)
NODES = 40_000


def test_forty_thousand_nodes_reach_a_slow_line_whole(gateway, figure):
    bridge = gateway.bridge(BRIDGE)
    for first in range(0, NODES, 1000):
        bridge.send_message(*(wire.heartbeat(b"\x02\xab" + struct.pack(">HI", 0x77, i), 1, bridge=BRIDGE,
                                             addr=wire.ip(i)) for i in range(first, first + 1000)))
    bridge.barrier()

    slow, other = socket.socket(), gateway.terminal()
    slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    slow.settimeout(5)
    slow.connect(("127.0.0.1", gateway.ports["terminal"]))
    slow.sendall(b"pnf\n")
    # The daemon has said it all before the first of it is read.
    wait_until(lambda: other.command("pcl", "\n##\n").count("sub:") == 2, "the session")
    other.command("sub-", "\n")
    slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1 << 20)
    listing = b""
    while not listing.endswith(b"\n##\n"):
        try:
            received = slow.recv(1 << 20)
        except TimeoutError:
            break
        assert received
        listing += received
    rows = listing.decode().splitlines()
    listed = sum(" par:" in row for row in rows)
    figure("nodes that arrive", "13,998 of 40,000", f"{listed:,} of {NODES:,}")
    assert listed == NODES, f"{listed} of {NODES} nodes"
    assert rows[0] == "####### Connected Nodes" and rows[-3:] == ["####### Floating nodes",
                                                                   "####### Expired nodes", "##"]
    slow.close()
