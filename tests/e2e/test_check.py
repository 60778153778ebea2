"""rtls-gateway-check says what the daemon does: both read the same files."""
import json
import subprocess

import pytest

from harness.daemon import BINARY, BUILD, ROOT, SHIM, environment, free_port, zpl
from harness.peers import Bridge

CHECKER = BUILD / "rtls-gateway-check"


def run(*arguments, **options) -> subprocess.CompletedProcess:
    return subprocess.run([str(CHECKER), *map(str, arguments)], env=environment(), stdin=subprocess.DEVNULL, text=True,
                          stdout=options.pop("stdout", subprocess.PIPE), stderr=subprocess.PIPE, timeout=60, check=False,
                          **options)


def said(file, *arguments) -> list:
    """Level, kind and key of all that is wrong, worse than a warning."""
    done = run("--json", file, *arguments)
    (checked,) = json.loads(done.stdout)["files"]
    problems = [(one["level"], one["kind"], one["key"]) for one in checked["findings"] if one["level"] != "warning"]
    assert done.returncode == (1 if problems else 0), done
    return problems


def effective(file) -> dict:
    (checked,) = json.loads(run("--print", "--json", file).stdout)["files"]
    return {one["key"]: one["value"] for one in checked["effective"]}


def test_a_daemon_that_runs_does_what_the_check_says(start_gateway):
    """Numbers that are cut, words that are no booleans, names that nothing asks for, a key that stands there twice."""
    port = free_port()

    def change(tree: dict) -> dict:
        tree["ports"].update(win=65536 + port, terminal_connectoins=1, terminal=f"{tree['ports']['terminal']}; # 4000")
        tree["debug"].update(win="on", raw="yes please")
        return {**tree, "http/port": 1}

    daemon = start_gateway(change=change)
    with open(daemon.config_file, "a") as file:
        file.write(f"ports\n    win = {free_port()}\n")
    daemon.restart()
    assert said(daemon.config_file) == [
        ("harm", "boolean", "debug/win"),
        ("harm", "trailing", "ports/terminal"),
        ("harm", "cut", "ports/win"),
        ("harm", "misspelt", "ports/terminal_connectoins"),
        ("harm", "misplaced", "http/port"),
        ("harm", "repeated", "ports")]
    holds = effective(daemon.config_file)
    assert (holds["ports/win"], holds["debug/win"], holds["debug/raw"], holds["http/port"]) == (str(port), "no", "yes", None)
    bridge = Bridge(port)
    bridge.close()
    first, second = daemon.terminal(), daemon.terminal()
    first.command("dbg", "ul_tdoa n\n")
    listing = second.command("dbg", "ul_tdoa n\n")
    assert "\twin n\n" in listing and "\traw y\n" in listing
    daemon.stop()    # which writes, too
    before = {path.name: path.read_bytes() for path in daemon.folder.iterdir()}
    assert run(daemon.config_file, "--print").returncode == 1
    assert {path.name: path.read_bytes() for path in daemon.folder.iterdir()} == before, "it writes nothing"


def tree_of(**changes) -> dict:
    """A configuration whose servers are not there; no broker, because a stop would wait for it."""
    tree = {"pidfile": "/dev/null", "firmware_files": 2,
            "ports": {"terminal": free_port(), "win": free_port(), "discovery": free_port()},
            "pub_sub_proxy": {"address": "127.0.0.1", "port": free_port(), "input_port": free_port()},
            "message_handler": {"address": "127.0.0.1", "port": free_port()},
            "debug": {"raw": "no"}}
    for section, keys in changes.items():
        tree[section] = {**tree.get(section, {}), **keys} if isinstance(keys, dict) else keys
    return tree


def daemon_status(tmp_path, file, **more) -> int:
    """What the daemon ends with."""
    env = environment({"LD_PRELOAD": str(SHIM), "RTLS_SYSLOG_FILE": str(tmp_path / "syslog.txt"), **more})
    return subprocess.run([str(BINARY), "-c", str(file)], env=env, stdin=subprocess.DEVNULL, capture_output=True, timeout=60,
                          check=False).returncode


@pytest.mark.parametrize("changes,finding,status", [
    ({"firmware_files": "6"}, ("refused", "number", "firmware_files"), 1),
    ({"ports": {"win_networks": "10.0.0.0/33"}}, ("refused", "list", "ports/win_networks"), 1),
    ({"ports": {"win_connections": "many"}}, ("refused", "number", "ports/win_connections"), 1),
    ({"http": {"port": 8080, "address": "localhost"}}, ("refused", "address", "http/address"), 1),
    ({"http": {"port": 8080, "token": "/nonexistent"}}, ("refused", "token", "http/token"), 1),
    ({"curve": {"debug_broker": "/nonexistent"}}, ("refused", "certificate", "curve/debug_broker"), 1),
    ({"ports": {"terminal": 12345, "win": 12345}}, ("ends", "clash", "ports/win"), 0),
    ({"ports": {"win_address": "192.0.2.1"}}, ("ends", "address", "ports/win_address"), 0),
    ({"message_handler": {"address": "my host"}}, ("ends", "host", "message_handler/address"), 0),
    ({"pidfile": "/nonexistent/a.pid"}, ("ends", "pidfile", "pidfile"), 0),
])
def test_a_daemon_that_does_not_stay_is_foretold(tmp_path, changes, finding, status):
    file = tmp_path / "some.conf"
    file.write_text(zpl(tree_of(**changes)) + "\n")
    assert finding in said(file)
    assert daemon_status(tmp_path, file) == status


@pytest.mark.parametrize("old,new,finding", [
    ("    raw", "\traw", ("refused", "syntax", None)),
    ("    raw", "  raw", ("refused", "syntax", None)),
    ('"no"', '"no', ("refused", "syntax", None)),
    ("    win = ", "    wim = ", ("refused", "missing", "ports/win")),
])
def test_a_text_that_does_not_load_is_foretold(tmp_path, old, new, finding):
    file = tmp_path / "some.conf"
    text = zpl(tree_of()) + "\n"
    assert old in text
    file.write_text(text.replace(old, new))
    assert finding in said(file)
    # The library forgets a file that it cannot read. The daemon then ends, so it is left at that.
    assert daemon_status(tmp_path, file, ASAN_OPTIONS="verify_asan_link_order=0:detect_leaks=0") == 1


def test_exit_statuses_and_outputs(tmp_path):
    clean = tmp_path / "clean.conf"
    clean.write_text(zpl(tree_of(pidfile=str(tmp_path / "a.pid"), ports={"terminal_address": "127.0.0.1",
                                                                          "win_address": "127.0.0.1"})) + "\n")
    assert (run(clean).returncode, run(clean).stdout) == (0, f"{clean}: no problem found\n")
    assert run("--quiet", "-c", clean).stdout == ""
    sample = ROOT / "config" / "rtls-gateway.conf"
    assert (run("--offline", sample).returncode, run("--offline", "--strict", sample).returncode) == (0, 1)
    bad = tmp_path / "bad.conf"
    bad.write_text("a")
    both = run(clean, bad)
    assert both.returncode == 1 and f"{clean}: no problem found\n" in both.stdout and f"{bad}:1: warning: a: " in both.stdout
    absent = run(bad, tmp_path / "absent.conf")
    assert absent.returncode == 2 and absent.stderr == f"rtls-gateway-check: {tmp_path}/absent.conf: No such file or directory\n"
    folder = json.loads(run("--json", tmp_path).stdout)
    assert folder["status"] == 2 and folder["files"][0]["error"].startswith("it is no regular file")
    assert run("--no-such-option").returncode == 2
    assert run("--bridges", "0", clean).returncode == 2
    assert run("--help").returncode == 0 and run("--version").stdout == "8.6.3\n"
    with open("/dev/full", "w") as full:
        assert run(clean, stdout=full).returncode == 2


def test_keys_are_explained():
    assert run("--explain", "ports/win").stdout.startswith("ports/win\n    TCP: bridges and sub-gateways.\n")
    assert [key["key"] for key in json.loads(run("--explain", "win", "--json").stdout)["keys"]] == ["ports/win", "debug/win"]
    assert run("--explain", "http").stdout.count("        port = 8080\n") == 1
    unknown = run("--explain", "win_backlogs")
    assert (unknown.returncode, unknown.stderr) == (2, 'rtls-gateway-check: there is no key "win_backlogs", but "win_backlog"\n')


def test_names_are_asked_for_unless_the_file_is_judged_alone(tmp_path):
    file = tmp_path / "some.conf"
    file.write_text(zpl(tree_of(message_handler={"address": "no-such-host.invalid"})) + "\n")
    done = run("--patience", "0.2", file)
    assert 'message_handler/address: "no-such-host.invalid" has no IPv4 address from here: ' in done.stdout
    assert "no-such-host" not in run("--offline", file).stdout.replace(str(file), "")
