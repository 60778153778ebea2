"""rtls-ctl against real gateways: every command by each port that offers it, several gateways, statuses, screens."""
import fcntl
import itertools
import json
import os
import pty
import re
import signal
import socket
import struct
import subprocess
import termios

import pytest

from harness import wire
from harness.daemon import BUILD, Daemon, environment, free_port
from harness.http_client import get, with_http
from harness.peers import DEADLINE, wait_until
from harness.stopped_thread import StoppedThread, thread_id
from test_firmware import image, web  # noqa: F401

PROGRAM = BUILD / "rtls-ctl"
BRIDGE, NODE, TWIN, APPLIED = wire.mac(0xB001), wire.mac(0x1A2B), wire.mac(0x1A2C), wire.mac(0x000A)
OTHER_NODE = b"\x02\xab" + wire.mac(0x1A2C)[2:5] + b"\x77" + wire.mac(0x1A2C)[6:]  # ends as TWIN does
TOKEN = "Correct-horse"
REBOOT, APPLY = bytes.fromhex("0e0800" "0006" "0001" "0002" "0000"), bytes.fromhex("0e0800" "0002" "0011")


def text(mac: bytes) -> str:
    return f"{mac.hex()[:11]}:{mac.hex()[11:]}"


NUMBERS = itertools.cycle(range(1, 256))  # a message with the number of the one before is its repeat


def heartbeat(mac: bytes, **kw) -> bytes:
    return wire.heartbeat(mac, next(NUMBERS), bridge=BRIDGE, addr=wire.ip(int.from_bytes(mac[5:], "big")), reporting=255, **kw)


def forwarded_twin() -> bytes:
    inner = wire.forwarded_heartbeat(TWIN, next(NUMBERS), role=2, reporting=255)
    return wire.envelope(inner, TWIN, wire.ip(9), flags=wire.DIRECT)


class Site:
    """Gateway a, with an HTTP port that wants a token, and b, which has none; and who is connected to a."""

    def __init__(self, folder):
        self._kept = []
        self.token = folder / "token"
        self.token.write_text(TOKEN + "\n")
        self.http_port = free_port()
        self.a = self._daemon(folder / "a", change=with_http(self.http_port, token=self.token))
        self.b = self._daemon(folder / "b")
        self.config = folder / "ctl.conf"
        self.config.write_text(f"gateways = a\n[a]\nconfig = {self.a.config_file}\n"
                               f"[b]\nterminal = 127.0.0.1:{self.b.ports['terminal']}\n"
                               f"[gone]\nterminal = 127.0.0.1:{self._kept_port()}\n"
                               f"[half]\nterminal = 127.0.0.1:{self.b.ports['terminal']}\nhttp = 127.0.0.1:{self._kept_port()}\n")
        self.bridge = self.a.bridge(BRIDGE)
        self.bridge.send_message(heartbeat(BRIDGE), heartbeat(NODE, role=0x31, parent=BRIDGE, x=-5, zofs=-8), heartbeat(APPLIED),
                                 forwarded_twin())
        self.bridge.barrier()

    def _kept_port(self) -> int:
        """Where nobody listens, and nobody can begin to."""
        sock = socket.socket()
        sock.bind(("127.0.0.1", 0))
        self._kept.append(sock)
        return sock.getsockname()[1]

    @staticmethod
    def _daemon(folder, **options) -> Daemon:
        folder.mkdir()
        return Daemon(folder, **options)

    def environment(self, **more) -> dict:
        return environment({"RTLS_CTL_CONFIG": str(self.config), **more})

    def ctl(self, *arguments, status: int = 0):
        """Runs the program in a pipe. What it says on both outputs."""
        done = subprocess.run([PROGRAM, *map(str, arguments)], env=self.environment(TERM="xterm"), text=True, check=False,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, timeout=DEADLINE)
        assert done.returncode == status, (done.stdout, done.stderr)
        assert "\x1b" not in done.stdout + done.stderr
        return done.stdout, done.stderr

    def json(self, *arguments, status: int = 0) -> list:
        return json.loads(self.ctl(*arguments, "--json", status=status)[0])

    def close(self):
        self.a.close()
        self.b.close()
        for sock in self._kept:
            sock.close()


@pytest.fixture(scope="module")
def site(tmp_path_factory):
    site = Site(tmp_path_factory.mktemp("site"))
    yield site
    site.close()


BOTH = pytest.mark.parametrize("via", ["http", "terminal"])


# --- What gateways know

@pytest.mark.parametrize("command, list_of", [(["nodes"], "nodes"), (["bridges"], "bridges"), (["operators"], "operators"),
                                              (["firmware", "list"], "images")])
def test_both_ports_tell_the_same(site, command, list_of, web):  # noqa: F811
    watcher = site.a.terminal()
    watcher.command("grep ab+c", "\n")
    site.ctl("firmware", "get", web.serve("/i.bin", image()))
    wait_until(lambda: pcl(site.a).count("sub:") == 2, "those before to be gone")     # the watcher and who asks
    wait_until(lambda: len(site.json("operators", "--via", "http")[0]["operators"]) == 1, "who asked to be gone")
    by_http, by_terminal = (site.json(*command, "--via", via)[0] for via in ("http", "terminal"))
    assert by_http["gateway"] == by_terminal["gateway"] == "a" and by_http["errors"] == []
    assert len(by_http[list_of]) == len(by_terminal[list_of]) > 0
    for one, other in zip(by_http[list_of], by_terminal[list_of]):
        assert one.keys() == other.keys()
        assert {k for k in one if one[k] != other[k] and other[k] is not None} <= {"parent", "lifetime_s"}
        assert (one.get("parent") or "00000").endswith(other.get("parent", "")), "of which the terminal tells the end"
    watcher.close()


@BOTH
def test_nodes_are_filtered(site, via):
    def macs(*options):
        return [node["mac"] for node in site.json("nodes", "--via", via, *options)[0]["nodes"]]

    assert macs() == sorted(map(text, (BRIDGE, NODE, TWIN, APPLIED)))
    assert macs("--role", "fixed") == [text(NODE)]
    assert macs("--text", "561A2") == [] and macs("--text", "5601A2") == [] and macs("--text", "1a2") == sorted([text(NODE), text(TWIN)])
    assert macs("--bridge", "B001", "--role", "mobile") == [text(TWIN)] and macs("--bridge", "b002") == []
    assert macs("--state", "expired") == [] and len(macs("--state", "connected")) == 4


@BOTH
def test_one_node(site, via):
    assert re.match(rf"mac +{text(NODE)}\nrole +fixed\n", site.ctl("node", "1a2b", "--via", via)[0])
    assert site.json("node", NODE.hex(), "--via", via)[0]["z_offset"] == -80
    assert "no node has the MAC 9999" in site.ctl("node", "9999", "--via", via, status=1)[1]


def test_tables_have_a_line_for_each(site):
    lines = site.ctl("nodes")[0].splitlines()
    assert lines[0].split() == ["MAC", "ROLE", "STATUS", "BRIDGE", "PARENT", "SOFTWARE", "LIVES", "SUB", "X", "Y", "Z", "ADDRESS", "HEARD"]
    assert len(lines) == 5 and any(line.startswith(f"{text(NODE)}  fixed") for line in lines)
    for line in site.ctl("nodes", "--width", 40)[0].splitlines():
        assert len(line) <= 40


def test_metrics(site):
    out, _ = site.ctl("metrics", "bridges_accepted", "build_info")
    assert re.fullmatch(r"rtls_gateway_bridges_accepted_total +1\nrtls_gateway_build_info\{version=\"[\d.]+\"\} +1\n", out)
    assert len(site.json("metrics")[0]["metrics"]) > 100
    assert "no metric" in site.ctl("metrics", "nothing", status=1)[1]
    assert "--http" in site.ctl("metrics", "-g", "b", status=1)[1]


def test_health(site, start_gateway):
    wait_until(lambda: get(site.http_port, "/readyz", headers={"Authorization": "Bearer " + TOKEN}).status == 200, "the links")
    well = site.json("health")[0]
    assert well["live"] is well["ready"] is True and len(well["checks"]) == 7
    by_terminal = site.json("health", "-g", "b")[0]
    assert by_terminal["live"] is True and by_terminal["ready"] is None and by_terminal["version"] == well["version"]
    port = free_port()
    start_gateway(change=with_http(port), upstream=("broker", "proxy", "proxy_input"))
    out, err = site.ctl("health", "--http", f"127.0.0.1:{port}", status=1)
    assert re.search(r"^message handler +no$", out, re.M) and "is not well" in err and "message handler" in err


# --- Orders

def test_reboot_reaches_the_node(site):
    assert site.ctl("reboot", "1A2B", text(APPLIED))[0] == f"rebooted {text(NODE)}\nrebooted {text(APPLIED)}\n"
    assert site.bridge.receive()[:len(REBOOT)] == site.bridge.receive()[:len(REBOOT)] == REBOOT


def test_who_is_not_found_keeps_nobody_from_it(site):
    out, err = site.ctl("reboot", "9999", "1a2b", status=1)
    assert out == f"rebooted {text(NODE)}\n" and err == "rtls-ctl: no node has the MAC 9999\n"
    assert site.bridge.receive()[:len(REBOOT)] == REBOOT


def test_delete_forgets_the_node_and_never_one_of_two(site):
    site.bridge.send_message(heartbeat(OTHER_NODE), heartbeat(wire.mac(0x4444)))
    site.bridge.barrier()
    assert site.ctl("delete", "4444") == (f"deleted {text(wire.mac(0x4444))}\n", "")
    assert "no node" in site.ctl("node", "4444", status=1)[1]
    for word in ("1a2c", OTHER_NODE.hex()):
        out, err = site.ctl("delete", word, status=1)
        assert out == "" and "2 nodes" in err
    assert len(site.json("nodes", "--text", "1a2c")[0]["nodes"]) == 2
    terminal = site.a.terminal()  # the other one must go again: which of the two the terminal takes is its choice
    terminal.command("del 1a2c", "\n"), terminal.command("del 1a2c", "\n")
    terminal.close()
    site.bridge.send_message(forwarded_twin())
    site.bridge.barrier()


# --- Firmware

def test_firmware_comes_into_the_store(site, web):  # noqa: F811
    out, _ = site.ctl("firmware", "get", web.serve("/new.bin", image(git=0xCAFE0009)), "-g", "b")
    assert re.fullmatch(r"downloaded to slot \d\n", out)
    assert "CAFE0009" in site.ctl("firmware", "list", "-g", "b")[0]
    _, err = site.ctl("firmware", "get", web.serve("/bad.bin", b"", headers=""), "-g", "b", status=1)
    assert "did not get" in err and "Failed to read firmware!" in err


def test_only_the_node_that_the_terminal_means_applies_firmware(site):
    assert "always for node 000A" in site.ctl("firmware", "apply", "1a2b", status=1)[1]
    assert site.bridge.barrier() == []
    assert site.ctl("firmware", "apply", "000A")[0] == f"applied {text(APPLIED)}\n"
    assert site.bridge.receive()[:len(APPLY)] == APPLY


@BOTH
def test_an_update_ends_when_all_nodes_run_it(site, via, web):  # noqa: F811
    version = 0xCAFE0100 + (via == "http")
    url = web.serve("/update.bin", image(git=version))
    command = [PROGRAM, "firmware", "update", url, "1a2b", "000a", "--interval", "0.05", "--timeout", "20"]
    if via == "terminal":
        command += ["--terminal", f"127.0.0.1:{site.a.ports['terminal']}"]
    running = subprocess.Popen(command, env=site.environment(), text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    assert running.stderr.readline().startswith(f"0 of 2 nodes run {version:08x}, ")
    site.bridge.send_message(heartbeat(NODE, role=0x31, parent=BRIDGE, sw=version))
    assert running.stderr.readline().startswith("1 of 2 nodes run")
    site.bridge.send_message(heartbeat(APPLIED, sw=version))
    out, err = running.communicate(timeout=DEADLINE)
    assert (running.returncode, out) == (0, "") and err.startswith("2 of 2 nodes run")


@BOTH
def test_an_update_that_takes_too_long_names_those_that_do_not_run_it(site, via):
    site.bridge.send_message(heartbeat(NODE, role=0x31, parent=BRIDGE, sw=0xBEEF))
    site.bridge.barrier()
    arguments = ["firmware", "update", "beef", "1a2b", "1a2c", "9999", "--interval", "0.05", "--timeout", "1", "--via", via]
    out, err = site.ctl(*arguments, status=4)
    assert [line.split() for line in out.splitlines()] == [
        ["MAC", "SOFTWARE", "STATUS"], [text(TWIN), "01020304", "connected"], ["9999", "-", "never", "heard"]]
    assert err.endswith("rtls-ctl: 2 of 3 nodes do not run 0000beef after 1 s\n")


def test_an_update_of_nobody_is_refused(site):
    assert "no living node" in site.ctl("firmware", "update", "1", "-g", "b", status=1)[1]


# --- The debug stream

def test_sections_are_switched(site):
    assert re.search(r"^win +yes$", site.ctl("debug", "win", "on", "-g", "b")[0], re.M)
    assert site.json("debug", "-g", "b")[0]["win"] is True
    assert site.json("debug", "win", "off", "-g", "b")[0]["win"] is False


@pytest.mark.parametrize("options, shown", [
    ([], r"a: \d\d-\d\d \d\d:\d\d:\d\d\.\d{3} SLIP: MSG_PANID_REQ 01 MAC : 02:ab:34:cd:56:00:0b:02\n"),
    (["--json"], r'\{"channel":"SLIP","gateway":"a","text":"MSG_PANID_REQ 01 MAC : 02:ab:34:cd:56:00:0b:02","time":"[-\d :.]+"\}\n')])
def test_the_debug_stream_is_followed_until_ctrl_c(site, options, shown):
    running = subprocess.Popen([PROGRAM, "-g", "a,b", "follow", "parsing", "--grep", "PANID_REQ .*:0b:02$", *options],
                               env=site.environment(TERM="xterm"), text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    wait_until(lambda: all("sub:1" in pcl(gateway) for gateway in (site.a, site.b)), "it to listen")
    site.bridge.send_message(wire.panid_req(wire.mac(0x0B01), 1), wire.panid_req(wire.mac(0x0B02), 1))
    assert re.fullmatch(shown, running.stdout.readline())
    running.send_signal(signal.SIGINT)
    out, err = running.communicate(timeout=DEADLINE)
    assert (running.returncode, out) == (0, "")
    assert err == "".join(f"rtls-ctl: {name}: parsing stays on, as others may watch it: rtls-ctl debug parsing off\n" for name in "ab")
    assert site.json("debug")[0]["parsing"] is True
    site.ctl("debug", "parsing", "off", "-g", "a,b")


def pcl(gateway) -> str:
    terminal = gateway.terminal()
    try:
        return terminal.command("pcl", "##\n")
    finally:
        terminal.close()


# --- Several gateways, and those that are not there

def test_lines_of_several_gateways_bear_their_names(site):
    out, _ = site.ctl("-g", "a,b", "bridges")
    assert [line.split()[0] for line in out.splitlines()] == ["GATEWAY", "a"]
    site.b.bridge().barrier()
    lines = [line.split() for line in site.ctl("-g", "b,a", "bridges")[0].splitlines()]
    assert [line[0] for line in lines] == ["GATEWAY", "b", "a"]


def test_the_worst_status_is_told_and_all_answers(site):
    out, err = site.ctl("-g", "gone,a", "node", "1a2b", status=3)
    assert re.search(rf"^a +mac +{text(NODE)}$", out, re.M)
    assert re.fullmatch(r"rtls-ctl: gone: no terminal answers at 127.0.0.1:\d+: Connection refused\n", err)
    told = site.json("-g", "b,gone,a", "node", "1a2b", status=3)
    assert [[error["status"] for error in one["errors"]] for one in told] == [[1], [3], []]


def test_the_terminal_is_asked_where_the_http_port_is_not_there(site):
    assert site.json("health", "-g", "half")[0]["ready"] is None
    assert "nobody answers at http" in site.ctl("health", "-g", "half", "--via", "http", status=3)[1]


def test_a_wrong_token_is_refused(site, tmp_path):
    wrong = tmp_path / "token"
    wrong.write_text("wrong")
    assert "the token is missing or wrong" in site.ctl("nodes", "--token", wrong, status=1)[1]
    assert "the token is missing or wrong" in site.ctl("nodes", "--http", f"127.0.0.1:{site.http_port}", status=1)[1]


def test_a_gateway_that_does_not_answer_is_waited_for_in_vain(site):
    with StoppedThread(thread_id(site.b, "rtls-terminal")):
        assert "has not answered \"pcl\" within 0.2 s" in site.ctl("operators", "-g", "b", "--timeout", "0.2", status=4)[1]
    assert site.json("operators", "-g", "b")[0]["operators"] == []


# --- Screens

def on_screen(site, columns: int, *arguments, **environ) -> str:
    """What the program writes on a terminal of that width."""
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
    running = subprocess.Popen([PROGRAM, *arguments], env=site.environment(**environ), stdin=slave, stdout=slave, stderr=slave)
    os.close(slave)
    shown = b""
    try:
        while chunk := os.read(master, 65536):
            shown += chunk
    except OSError:  # the program has ended
        pass
    os.close(master)
    running.wait(DEADLINE)
    return shown.decode()


def test_a_table_fits_its_window_and_has_colours_only_where_they_are_wanted(site):
    shown = on_screen(site, 50, "nodes", TERM="xterm")
    assert shown.startswith("\x1b[1mMAC") and text(NODE) in shown
    assert all(len(line) <= 50 for line in re.sub(r"\x1b\[\d*m", "", shown).splitlines())
    assert len(on_screen(site, 120, "nodes", TERM="xterm").splitlines()[2]) > 50
    assert "\x1b" not in on_screen(site, 50, "nodes", TERM="xterm", NO_COLOR="1") + on_screen(site, 50, "nodes", TERM="dumb")


def test_an_update_draws_a_bar_on_a_screen(site):
    shown = on_screen(site, 60, "firmware", "update", "abc", "1a2c", "--interval", "0.05", "--timeout", "2", TERM="xterm")
    bars = shown.split("\n")[0].rstrip("\r").split("\r\x1b[K")[1:]
    assert len(bars) > 1
    for bar in bars:
        assert re.fullmatch(r"\[\.+\] 0 of 1 nodes run 00000abc, \d+ s", bar) and len(bar) < 60


def test_an_output_that_takes_nothing_is_an_error_and_one_that_nobody_reads_is_none(site):
    command = [PROGRAM, "firmware", "list", "--json"]
    with open("/dev/full", "wb") as full:
        done = subprocess.run(command, env=site.environment(), stdout=full, stderr=subprocess.PIPE, text=True, check=False)
    assert (done.returncode, done.stderr) == (1, "rtls-ctl: cannot write the output: No space left on device\n")
    reader, writer = os.pipe()
    os.close(reader)
    done = subprocess.run(command, env=site.environment(), stdout=writer, stderr=subprocess.PIPE, text=True, check=False)
    os.close(writer)
    assert (done.returncode, done.stderr) == (0, "")


# --- Completion

ASK_BASH = r'''source <("$0" completion bash); COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _rtls_ctl; printf '%s\n' "${COMPREPLY[@]}"'''
ASK_ZSH = r'''compdef() { :; }; source <("$0" completion zsh); words=("$@"); CURRENT=$#
_describe() { print -rl -- "${(@)offered%%:*}"; }; compadd() { shift; print -rl -- "$@"; }; _rtls_ctl'''


@pytest.mark.parametrize("shell", [["bash", "-c", ASK_BASH], ["zsh", "-f", "-c", ASK_ZSH]], ids=["bash", "zsh"])
def test_shells_complete_the_command_line(shell):
    def offered(*words):
        out = subprocess.run([*shell, PROGRAM, "rtls-ctl", *words], env=environment(), check=True, timeout=DEADLINE,
                             stdout=subprocess.PIPE, text=True).stdout
        return {word for word in out.split() if word.startswith(words[-1])}

    assert {"nodes", "bridges", "firmware", "follow", "--json"} <= offered("")
    assert offered("fir") == {"firmware"}
    assert {"list", "get", "apply", "update"} <= offered("firmware", "") and "nodes" not in offered("firmware", "")
    assert offered("-g", "firmware", "no") == {"node", "nodes"}, "the value of an option is no subcommand"
    assert offered("nodes", "--state", "") == {"connected", "floating", "expired"}
    assert {"win", "ul_tdoa"} <= offered("follow", "raw", "") and offered("follow", "--g") == {"--gateway", "--gateway-config", "--grep"}
