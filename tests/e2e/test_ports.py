"""The tests' own ports: two processes never take from one range."""
import pathlib
import subprocess
import sys

from harness import ports

TAKE_ONE = "import sys; from harness.ports import free_port; print(free_port(), flush=True); sys.stdin.read()"


def range_of(port: int) -> int:
    return (port - ports.FIRST) // ports.SIZE


def test_processes_take_ports_from_ranges_of_their_own():
    others = [subprocess.Popen([sys.executable, "-c", TAKE_ONE], cwd=pathlib.Path(__file__).parent, text=True,
                               stdin=subprocess.PIPE, stdout=subprocess.PIPE) for _ in range(3)]
    try:
        taken = [range_of(int(other.stdout.readline())) for other in others] + [range_of(ports.free_port())]
    finally:
        for other in others:
            other.communicate()
    assert len(set(taken)) == 4
    assert all(0 <= number < ports.RANGES for number in taken)
