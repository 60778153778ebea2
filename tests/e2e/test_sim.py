"""rtls-sim from the command line: what it refuses, what it says, and with which status it ends."""
import signal
import subprocess

import pytest

from harness.daemon import BUILD, environment, free_port
from harness.peers import DEADLINE

SIM = BUILD / "rtls-sim"


def run(*arguments, status: int, stdout=subprocess.PIPE) -> tuple:
    """What it said on both outputs."""
    done = subprocess.run([SIM, *map(str, arguments)], env=environment(), text=True, stdin=subprocess.DEVNULL,
                          stdout=stdout, stderr=subprocess.PIPE, timeout=DEADLINE, check=False)
    assert done.returncode == status, (done.stdout, done.stderr)
    return done.stdout, done.stderr


def test_a_wrong_command_is_named():
    assert 'there is no command "brigdes"' in run("brigdes", status=2)[1]
    assert 'there is no command "mak"' in run("image", "mak", status=2)[1]


def test_it_tells_its_version_and_its_statuses():
    assert run("--version", status=0)[0].startswith("rtls-sim ")
    told = run("--help", status=0)[0]
    assert "Exit status:\n  0  done\n  1  " in told and "\n  2  " in told and "\n  3  " in told


@pytest.mark.parametrize("arguments, sentence", [
    ("all --rate -1", "--rate: -1 is not from 0 to 1000000"), ("all --rate 1e9", "--rate: 1e9 is not from"),
    ("bridges --rate nan", "--rate: nan is not from"), ("all --duration -1", "--duration: -1 is not from"),
    ("upstream --deadline -1", "--deadline: -1 is not from"), ("all --bridges 0", "--bridges: 0 is not from 1 to 60000"),
    ("bridges --win-port 70000", "--win-port: 70000 is not from 1 to 65535"),
    ("send --port 0 reboot 0102", "--port: 0 is not from 1"), ("send --times 0 reboot 0102", "--times: 0 is not from 1"),
    ("send --timeout -1 reboot 0102", "--timeout: -1 is not from"), ("discover --timeout inf", "--timeout: inf is not from"),
    ("image make --size 99999999999999 x", "--size: 99999999999999 is not from 128 to"),
    ("image make --page-size 0 x", "--page-size: 0 is not from 32"),
    ("image serve --port 70000", "--port: 70000 is not from 0 to 65535"),
])
def test_a_number_out_of_bounds_is_refused_in_one_line(arguments, sentence):
    told = run(*arguments.split(), status=2)[1]
    assert sentence in told and told.count("\n") == 1 and len(told) < 120, told


@pytest.mark.parametrize("arguments", ["--help", "--version", "config", "image info FILE", "upstream --duration 0.1"])
def test_a_full_output_is_an_error(arguments, tmp_path):
    image = tmp_path / "image.bin"
    run("image", "make", image, status=0)
    port = free_port()
    words = [image if word == "FILE" else word for word in arguments.split()]
    if "upstream" in words:
        words += ["--proxy-port", port, "--proxy-input-port", free_port(), "--handler-port", free_port(), "--no-broker"]
    with open("/dev/full", "w") as full:
        assert "cannot write the output: No space left on device" in run(*words, status=1, stdout=full)[1]


@pytest.mark.parametrize("arguments", [
    "discover --timeout 0.1 --port PORT", "send --timeout 0.1 --port PORT reboot 0102",
    "bridges --duration 0.3 --win-port PORT"])
def test_a_gateway_that_is_not_there_is_named(arguments):
    port = free_port()
    told = "".join(run(*arguments.replace("PORT", str(port)).split(), status=3))
    assert "no gateway" in told and f"127.0.0.1:{port}" in told


def test_one_port_has_one_image_server(tmp_path):
    port = free_port()
    serve = ["image", "serve", tmp_path, "--port", port]
    first = subprocess.Popen([SIM, *map(str, serve)], env=environment(), text=True, stdout=subprocess.PIPE)
    try:
        assert first.stdout.readline().startswith("serving ")
        assert f"cannot serve {tmp_path} on 127.0.0.1:{port}" in run(*serve, status=1)[1]
    finally:
        first.send_signal(signal.SIGINT)
        assert first.wait(DEADLINE) == 0
        first.stdout.close()


def test_facts_begin_in_the_same_column(tmp_path):
    for arguments in (["image", "make", tmp_path], ["image", "info", tmp_path / "obn-node.0102A0FF.bin"]):
        for line in run(*arguments, status=0)[0].splitlines():
            assert line[13] in " :" and line[14] == " " and line[15] != " ", line
