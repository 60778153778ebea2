"""The soak is run by hand: here only that it notices what it is for."""
import importlib.machinery
import importlib.util
import pathlib
import struct

import pytest

PATH = pathlib.Path(__file__).parent / "soak"
loader = importlib.machinery.SourceFileLoader("soak", str(PATH))
soak = importlib.util.module_from_spec(importlib.util.spec_from_loader("soak", loader))
loader.exec_module(soak)


def report(bridge: int, number: int) -> bytes:
    return b"head" + b"soak" + struct.pack("<HI", bridge, number) + b"tail"


@pytest.mark.parametrize("came, received, missing, out_of_order", [
    ([(0, 0), (1, 0), (0, 1), (1, 1)], 4, 0, 0),
    ([(0, 0), (0, 2)], 2, 1, 0),
    ([(0, 0), (0, 0)], 2, 0, 1),
    ([(0, 1), (0, 0)], 2, 1, 1),
], ids=["in order", "one lost", "one twice", "out of order"])
def test_a_receiver_keeps_account_of_each_bridges_reports(came, received, missing, out_of_order):
    receiver = soak.Receiver(None)
    for bridge, number in came:
        receiver.take(report(bridge, number))
    receiver.take(b"something else")
    assert (receiver.received, receiver.missing, receiver.out_of_order) == (received, missing, out_of_order)


def test_a_soak_fails_for_one_report_and_for_memory_that_grows():
    assert soak.has_passed(0, 0, 0)
    assert not soak.has_passed(1, 0, 0)
    assert not soak.has_passed(-1, 0, 0), "one came twice"
    assert not soak.has_passed(0, 1, 0)
    assert not soak.has_passed(0, 0, soak.MEMORY_ROOM_KIB)
