"""An operator who vanishes behind a router does not stay: not for a quarter of an hour with lines on their way to him,
and not for ever with none."""
import re
import time

import pytest

from harness import wire
from harness.daemon import Daemon
from harness.peers import Stream, wait_until
from network import available

GROUP = "Operators"
pytestmark = [pytest.mark.measured, pytest.mark.slow,
              pytest.mark.skipif(not available(), reason="needs the rights to make network namespaces")]

BRIDGE = wire.mac(0xB001)


def sessions(operator) -> set:
    return set(re.findall(r"ip:([0-9.]+):\d+ sub:", operator.command("pcl", "\n##\n")))


def test_an_operator_who_vanished_among_lines_is_gone_and_one_who_does_not_read_stays(tmp_path, namespaces, figure):
    with namespaces.enter("ours"):
        gateway = Daemon(tmp_path, upstream=())
        bridge, here = gateway.bridge(BRIDGE), gateway.terminal()
    with namespaces.enter("router"):
        deaf = Stream(gateway.ports["terminal"], host="10.77.1.1", rcvbuf=2048)
    with namespaces.enter("server"):
        vanishing = Stream(gateway.ports["terminal"], host="10.77.1.1")
    try:
        here.command("dbg raw y", "ul_tdoa n\n")
        for subscriber in (deaf, vanishing):
            subscriber.send(b"sub\n")
            wait_until(lambda: subscriber.pull(0.2), "the subscription")
        assert sessions(here) == {"127.0.0.1", "10.77.1.2", "10.77.2.2"}
        namespaces.route(False)
        gone = time.monotonic()

        def is_noticed():
            bridge.introduce(int(time.monotonic() * 10) % 255 + 1)
            bridge.barrier()        # its lines go to both
            return "10.77.2.2" not in sessions(here)
        wait_until(is_noticed, "the end of the session", 120)
        noticed = time.monotonic() - gone
        figure("until a session that is owed lines is gone", "15 min", f"{noticed:.0f} s")
        assert noticed < 40
        assert sessions(here) == {"127.0.0.1", "10.77.1.2"}, "who does not read is not cut off"
    finally:
        for stream in (deaf, vanishing, bridge, here):
            stream.close()
        gateway.close()


def test_an_operator_who_vanished_and_is_owed_nothing_is_gone(tmp_path, namespaces, figure):
    """TCP asks for him after a minute without a word; the first question that stays unanswered is enough."""
    with namespaces.enter("ours"):
        gateway = Daemon(tmp_path, upstream=())
        here = gateway.terminal()
    with namespaces.enter("router"):
        idle = Stream(gateway.ports["terminal"], host="10.77.1.1")
    with namespaces.enter("server"):
        vanishing = Stream(gateway.ports["terminal"], host="10.77.1.1")
    try:
        for guest in (idle, vanishing):
            guest.send(b"sub-\n")
            wait_until(lambda: guest.pull(0.2), "the answer")
        assert sessions(here) == {"127.0.0.1", "10.77.1.2", "10.77.2.2"}
        namespaces.route(False)
        gone = time.monotonic()
        wait_until(lambda: "10.77.2.2" not in sessions(here), "the end of the session", 180)
        noticed = time.monotonic() - gone
        figure("until a session that is owed nothing is gone", "never", f"{noticed:.0f} s")
        assert 60 < noticed < 120
        assert sessions(here) == {"127.0.0.1", "10.77.1.2"}, "who is there and says nothing stays"
    finally:
        for stream in (idle, vanishing, here):
            stream.close()
        gateway.close()
