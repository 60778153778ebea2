"""No filter stops the operators' thread, or takes the daemon's memory, whatever lines come."""
import re
import time

import pytest

GROUP = "Operators"
pytestmark = pytest.mark.measured

# Refused or not, each of these leaves the terminal as quick as before. The first two made the C library's
# matcher keep every set of positions that a line led it through.
FILTERS = [".*[0-7].{450}!", ".*[0-7].{250}!", "((a|b|c|.)?){20}!", "((.{1,20}){1,20})!"]
LINES = 5


def resident_kb(pid: int) -> int:
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(r"^VmRSS:\s+(\d+) kB", status.read(), re.M)[1])


@pytest.mark.parametrize("pattern", FILTERS)
def test_no_filter_holds_up_the_terminal(gateway, pattern, figure):
    watcher, filtered, other = gateway.terminal(), gateway.terminal(), gateway.terminal()
    watcher.command("sub", "\n")
    filtered.command("sub", "\n")
    begin = time.monotonic()
    filtered.command("grep " + pattern, "\n")
    assert time.monotonic() - begin < 1
    other.command("dbg terminal y", "ul_tdoa n\n")
    before = resident_kb(gateway.process.pid)

    # The terminal's section shows what operators type: a long word makes a long line of the debug stream.
    word = "".join("3x"[bits * 2654435761 >> 16 & 1] for bits in range(1900))
    begin = time.monotonic()
    for _ in range(LINES):
        assert other.command(word, "\n").startswith("Unknown command.")
        assert other.command("grep-", "\n") == "GREP: -- undefined --\n"
    assert other.command("info", "\n\n").startswith("GW Version")
    took = time.monotonic() - begin
    watcher.read_until(word[:1800])
    assert took < 1, "the others' commands waited for the filter"
    assert other.command("dbg terminal n", "ul_tdoa n\n")
    grown = (resident_kb(gateway.process.pid) - before) / 1024
    figure(f"{LINES} long lines past the costliest filters", "more than 55 s", f"{took:.2f} s", worst=took)
    figure("memory that they take", "628 MB", f"{grown:.0f} MB", worst=grown)
    assert grown < 20


# Whatever the matcher is told to try at each character, a line takes it about two milliseconds.
@pytest.mark.parametrize("pattern", ["(" + "a|" * 50 + "a)*b", "a*" * 60 + "!"], ids=["choices", "loops"])
def test_no_filter_takes_long_for_a_line(gateway, pattern, figure):
    watcher, filtered, other = gateway.terminal(), gateway.terminal(), gateway.terminal()
    watcher.command("sub", "\n")
    filtered.command("sub", "\n")
    filtered.command("grep " + pattern, "\n")
    other.command("dbg terminal y", "ul_tdoa n\n")
    begin = time.monotonic()
    for _ in range(300):
        other.command("a" * 1900, "\n")
    other.command("the last of all", "\n")
    watcher.read_until("the last of all")
    took = time.monotonic() - begin
    figure("300 lines past a filter", "6.9 to 9.2 s", f"{took:.2f} s", worst=took)
    assert took < 1.5, f"300 lines took {took:.1f} s"


def test_an_honest_filter_passes_lines_quickly(gateway, figure):
    """Lines as long as they get, each typed and answered before the next: what that takes is in the figure."""
    filtered, other = gateway.terminal(), gateway.terminal()
    filtered.command("sub", "\n")
    filtered.command("grep SENSOR|(RAW_(IN|OUT)PUT.*[0-9A-F]{16}$)|the end", "\n")
    other.command("dbg terminal y", "ul_tdoa n\n")

    def rate() -> float:
        lines, word = 1000, "0123456789ABCDEF RAW " * 90
        begin = time.monotonic()
        for _ in range(lines):
            other.command(word, "\n")
        other.command("the end", "\n")
        filtered.read_until("the end")
        return lines * len(word) / 1e6 / (time.monotonic() - begin)

    best = max(rate() for _ in range(3))
    figure("lines through an honest filter", "1 MB/s", f"{best:.0f} MB/s")
    assert best > 3
