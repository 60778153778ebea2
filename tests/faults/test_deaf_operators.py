"""Operators who do not read, have left or are too many cost the others next to nothing."""
import os
import socket
import time

import pytest

from frozen import frozen
from harness import wire
from harness.peers import DEADLINE, wait_until
from test_downloads import image

GROUP = "Operators"
pytestmark = pytest.mark.measured

SESSIONS = 20
WORD = "x" * 1900       # a command that is echoed in the debug stream


def answered_in(terminal, line="sub-", end_text="\n") -> float:
    begin = time.monotonic()
    terminal.command(line, end_text)
    return time.monotonic() - begin


def operator_who_reads_nothing(port: int) -> socket.socket:
    sock = socket.socket()
    sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
    sock.connect(("127.0.0.1", port))
    sock.sendall(b"sub\n")
    assert sock.recv(100) == b"subscribed * ok.\n"
    return sock


def test_subscribers_who_do_not_read_cost_the_others_one_wait_each(gateway, figure):
    operator = gateway.terminal()
    deaf = [operator_who_reads_nothing(gateway.ports["terminal"]) for _ in range(SESSIONS)]
    operator.command("dbg terminal y", "ul_tdoa n\n")
    for _ in range(20_000):     # until the daemon's queue and the system's buffers are full
        if answered_in(operator, WORD) > 0.09:
            break
    else:
        pytest.fail("nobody was waited for")
    begin = time.monotonic()
    for number in range(50):
        operator.command(WORD, "\n")
        took = time.monotonic() - begin
        assert took < 0.1 * SESSIONS + 1, f"{number + 1} commands took {took:.1f} s"
    figure("50 commands beside 20 who do not read", "4.0 s for the first 3", f"{took:.2f} s")
    lines = lines_a_second(gateway, operator)
    figure("lines a second past those who do not read", "10, of 13,500", f"{lines:,.0f}")
    assert lines > 500
    for sock in deaf:
        sock.close()


def lines_a_second(gateway, operator) -> float:
    """That reach an operator who reads."""
    operator.command("dbg terminal n", "ul_tdoa n\n")
    operator.command("dbg raw y", "ul_tdoa n\n")
    operator.command("sub", "ok.\n")
    bridge = gateway.bridge(wire.mac(0xB001))
    bridge.introduce()
    began, lines = time.monotonic(), 0
    for i in range(300):
        bridge.send_message(*[wire.ping(i % 200, b"%5d" % i)] * 10)
        bridge.barrier()    # no more at once than the daemon makes lines of
        lines += operator.text.count("\n")
        operator.text = operator.text[operator.text.rfind("\n") + 1:]
        operator._more(0)
    return lines / (time.monotonic() - began)


def test_who_does_not_read_gets_his_image_fetched_all_the_same(gateway, tmp_path):
    """Whether he takes the answer is not known before there is one."""
    operator, deaf = gateway.terminal(), operator_who_reads_nothing(gateway.ports["terminal"])
    operator.command("dbg terminal y", "ul_tdoa n\n")
    for _ in range(20_000):
        if answered_in(operator, WORD) > 0.09:
            break
    file = tmp_path / "image.bin"
    file.write_bytes(image(0xABCDEF))
    deaf.sendall(f"fw get file://{file}\n".encode())
    wait_until(lambda: "ABCDEF" in operator.command("fw list", "\n") + operator.command("sub-", "\n"), "the image")
    deaf.close()


def test_who_reads_again_gets_lines_again(gateway):
    operator, slow = gateway.terminal(), operator_who_reads_nothing(gateway.ports["terminal"])
    operator.command("dbg terminal y", "ul_tdoa n\n")
    for _ in range(20_000):
        if answered_in(operator, WORD) > 0.09:
            break
    slow.settimeout(20)
    seen = b""
    while b"the last of all" not in seen:
        operator.command("the last of all", "\n")
        seen = (seen + slow.recv(1 << 20))[-10_000:]
    slow.close()


def test_those_who_have_left_cost_the_others_one_wait_each(gateway, figure):
    operator = gateway.terminal()
    guests = [gateway.terminal() for _ in range(SESSIONS)]
    for guest in guests:
        guest.command("sub-", "\n")
    with frozen(gateway.process.pid, "rtls-terminal"):
        before = len(os.listdir(f"/proc/{gateway.process.pid}/fd"))
        for guest in guests:
            guest.send(b"pn\n" * 50_000)    # each read of the daemon's is one command
            guest.close()
        wait_until(lambda: len(os.listdir(f"/proc/{gateway.process.pid}/fd")) <= before - SESSIONS,
                   "the guests to be gone")
    begin = time.monotonic()
    for number in range(10):    # between two of them, one of each guest's is handled
        operator.command("sub-", "\n")
        took = time.monotonic() - begin
        first = took if number == 0 else first
        assert took < 0.1 * SESSIONS + 1, f"{number + 1} commands took {took:.1f} s"
    figure("10 commands after 20 have left", "4.0 s for the first 2", f"{took:.2f} s")
    figure("until a command is answered after 20 have left with 150 kB of commands each", "94 s", f"{first:.2f} s")


def test_a_connection_whose_end_vanished_is_probed(gateway):
    operator = gateway.terminal()
    operator.command("sub-", "\n")
    ends = f"{gateway.ports['terminal']:04X}", f"{operator.port:04X}"
    keepalive_timer = "02"

    def timer() -> str:
        for line in open("/proc/net/tcp"):
            fields = line.split()
            if (fields[1][-4:], fields[2][-4:]) == ends:
                return fields[5][:2]
        return ""

    wait_until(lambda: timer() == keepalive_timer, "the keep-alive timer")


def test_sessions_are_limited_on_demand(start_gateway):
    def three(config):
        config["ports"]["terminal_connections"] = 3
        return config

    gateway = start_gateway(change=three)
    admitted = [gateway.terminal() for _ in range(3)]
    for terminal in admitted:
        terminal.command("sub-", "\n")
    for _ in range(3):
        refused = gateway.terminal()
        assert refused.pull(DEADLINE) == b"" and refused.closed
    for terminal in admitted:
        assert terminal.command("pcl", "\n##\n").count("sub:") == 3
    said = wait_until(lambda: [line for line in gateway.syslog() if "Terminal port" in line], "the line")
    assert said == ["4 rtls-gateway: Terminal port: 127.0.0.1 is refused, all connections are taken"]
    admitted.pop().close()
    wait_until(lambda: admitted[0].command("pcl", "\n##\n").count("sub:") == 2, "one to be gone")
    assert gateway.terminal().command("sub-", "\n") == "unsubscribed * ok.\n"
