"""The programs on a tap that is encrypted: with the certificates they are let in, without them they say so."""
import json
import pathlib
import subprocess

import pytest
import zmq.auth

from harness import tap_publisher as taps
from harness.daemon import BUILD, Daemon, environment, free_port
from harness.peers import DEADLINE


@pytest.fixture(scope="module")
def keys(tmp_path_factory) -> pathlib.Path:
    folder = tmp_path_factory.mktemp("keys")
    for name in ("gateway", "watchers", "others"):
        zmq.auth.create_certificates(folder, name)
    return folder


@pytest.fixture
def endpoint(keys, tmp_path) -> str:
    endpoint = f"tcp://127.0.0.1:{free_port()}"
    curve = {"certificate": str(keys / "gateway.key_secret"), "tap": str(keys / "watchers.key")}
    daemon = Daemon(tmp_path, change=lambda tree: {**tree, "tap": {"address": endpoint}, "curve": curve})
    yield endpoint
    daemon.close()


def run(program: str, *arguments, status: int) -> tuple:
    done = subprocess.run([BUILD / program, *map(str, arguments)], env=environment(), text=True, check=False, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, timeout=2 * DEADLINE)
    assert done.returncode == status, (done.stdout, done.stderr)
    return done.stdout, done.stderr


def certificates(keys, own: str, gateway: str = "gateway.key") -> list:
    return ["--certificate", keys / own, "--gateway-certificate", keys / gateway]


def test_with_the_certificates_it_is_shown(keys, endpoint):
    out, _ = run("rtls-tail", "--tap", endpoint, *certificates(keys, "watchers.key_secret"), "--json", "-n", 1, status=0)
    assert json.loads(out)["event"]["event"] == "started"


def test_with_the_certificates_it_is_recorded(keys, endpoint, tmp_path):
    file = tmp_path / "a.pcapng"
    run("rtls-record", "--tap", endpoint, *certificates(keys, "watchers.key_secret"), "-n", 1, file, status=0)
    assert b"started" in taps.recorded(file.read_bytes())[0][-1]


@pytest.mark.parametrize("program", ["rtls-tail", "rtls-record"])
def test_without_them_nobody_is_let_in(keys, endpoint, tmp_path, program):
    file = [tmp_path / "none.pcapng"] if program == "rtls-record" else []
    _, err = run(program, "--tap", endpoint, "--timeout", 1, *file, status=3)
    assert f"{endpoint} does not let us in: it is no tap, or an encrypted one (--certificate)" in err
    _, err = run(program, "--tap", endpoint, "--timeout", 1, *certificates(keys, "others.key_secret"), *file, status=3)
    assert f"{endpoint} does not let us in: it is not encrypted, or knows other certificates" in err
    assert not (tmp_path / "none.pcapng").exists()


def test_certificates_that_are_none_are_refused(keys):
    nobody = f"tcp://127.0.0.1:{free_port()}"
    for arguments, says in [
            (certificates(keys, "nothing"), "nothing is no certificate"), (certificates(keys, "watchers.key_secret", "nothing"), "is no certificate"),
            (["--certificate", keys / "watchers.key_secret"], "--gateway-certificate")]:
        assert says in run("rtls-tail", "--tap", nobody, *arguments, status=2)[1]
