"""Starting and stopping: options, configuration, readiness, pid file, exit statuses, the system log."""
import copy
import os
import signal
import socket
import subprocess
import time

import pytest

from harness.daemon import BINARY, BUILD, SHIM, environment, free_port
from harness.peers import wait_until
from harness.stopped_thread import StoppedThread, thread_id, thread_names

ERR, INFO = 3, 6
REQUIRED = ["pidfile", "ports/win", "ports/discovery", "pub_sub_proxy/address", "pub_sub_proxy/port",
            "pub_sub_proxy/input_port", "message_handler/address", "message_handler/port", "ports/terminal",
            "firmware_files"]


def run(tmp_path, *arguments):
    """Runs the daemon to its end; gives its exit status and its system log as (priority, text)."""
    log = tmp_path / "syslog.txt"
    env = environment({"LD_PRELOAD": str(SHIM), "RTLS_SYSLOG_FILE": str(log)})
    status = subprocess.run([str(BINARY), *arguments], env=env, stdin=subprocess.DEVNULL, capture_output=True,
                            timeout=60).returncode
    records = []
    for line in log.read_text().split("\n"):
        head, _, text = line.partition(" rtls-gateway: ")
        records.append((int(head), text) if text else (None, line))
    assert status == 0 or (INFO, "Exiting") not in records, "only a gateway that was made says so"
    return status, records


def texts(records, priority):
    return [text for p, text in records if p == priority]


def without(tree: dict, path: str) -> dict:
    tree = copy.deepcopy(tree)
    *sections, name = path.split("/")
    place = tree
    for section in sections:
        place = place[section]
    del place[name]
    return tree


def errors_of(daemon, count: int) -> list:
    """The error lines of a running daemon, once there are so many: its log follows behind."""
    errors = [line for line in daemon.syslog() if line.startswith(f"{ERR} ")]
    return errors if len(errors) >= count else []


def refused(start_gateway, change) -> list:
    """Starts the daemon with a changed configuration, expects status 1 and gives its error texts."""
    daemon = start_gateway(change=change, upstream=(), wait_ready=False)
    daemon.expected_status = 1
    assert daemon.wait_exit() == 1
    assert not daemon.pid_file.exists()
    return [line.split(": ", 1)[1] for line in daemon.syslog() if line.startswith(f"{ERR} ")]


def test_without_options_the_configuration_is_missed(tmp_path):
    status, records = run(tmp_path)
    assert status == 1
    start, missed = records[0], records[1]
    assert start == (INFO, "Starting rtls-gateway"), "the logger announces itself first"
    assert missed[0] == INFO and missed[1].startswith("Starting 8.6.3, ZMQ version 4.3.4, CZMQ version 4.2.1")
    assert texts(records, ERR) == [f"The configuration file is not defined! Usage: {BINARY} -c config_file"]
    assert records[-2:] == [(None, ""), (None, "")], "the text brings a line break of its own"


@pytest.mark.parametrize("arguments", [["-x"], ["-c"]])
def test_a_wrong_option_shows_the_usage(tmp_path, arguments):
    status, records = run(tmp_path, *arguments)
    assert status == 1
    assert (INFO, f"Usage: {BINARY} -c config_file") in records
    assert texts(records, ERR) == []


def test_a_missing_file_is_named_so(tmp_path):
    status, records = run(tmp_path, "-c", str(tmp_path / "none.conf"))
    assert status == 1 and texts(records, ERR) == ["Error opening configuration file!"]


def test_the_last_configuration_counts(tmp_path):
    empty = tmp_path / "empty.conf"
    empty.write_text("")
    status, records = run(tmp_path, "-c", str(tmp_path / "none.conf"), "-c", str(empty))
    assert status == 1
    assert texts(records, ERR) == ['Parameter "pidfile" is not found in the configuration file!']


@pytest.mark.parametrize("path", REQUIRED)
def test_each_required_key_is_missed_by_name_and_alone(start_gateway, path):
    errors = refused(start_gateway, lambda tree: without(tree, path))
    assert errors == [f'Parameter "{path}" is not found in the configuration file!']


@pytest.mark.parametrize("value", ["0", "6", "65536"])
def test_the_number_of_images_is_checked(start_gateway, value):
    errors = refused(start_gateway, lambda tree: {**tree, "firmware_files": value})
    assert errors == ['rtls_gateway_new: The parameter "firmware_files" has an incorrect value!']


@pytest.mark.parametrize("value", ["1", "5", "65537"])
def test_numbers_of_images_that_are_accepted(start_gateway, value):
    daemon = start_gateway(change=lambda tree: {**tree, "firmware_files": value})
    assert daemon.pid_file.exists()


def test_debug_keys_are_optional_but_missed_aloud(start_gateway):
    daemon = start_gateway(change=lambda tree: {k: v for k, v in tree.items() if k != "debug"})
    missed = wait_until(lambda: errors_of(daemon, 7), "all that is missed")
    assert missed == [f'3 rtls-gateway: Parameter "debug/{n}" is not found in the configuration file!' for n in
                      ("raw", "parsing", "terminal", "win", "discovery", "develop", "ul_tdoa")]


def test_an_unclear_debug_value_is_ignored_in_silence(start_gateway):
    daemon = start_gateway(change=lambda tree: {**tree, "debug": {**tree["debug"], "win": "on", "raw": "yes please"}})
    assert [line for line in daemon.syslog() if line.startswith(f"{ERR} ")] == []
    listing = daemon.terminal().command("dbg", "ul_tdoa n\n")
    assert "\twin n\n" in listing and "\traw y\n" in listing


def test_the_pid_file_is_overwritten_from_its_start_and_stays(start_gateway):
    def prepare(tree):
        tree["pidfile"].write_text("123456789012")
        return tree

    daemon = start_gateway(change=prepare)
    pid = str(daemon.process.pid)
    assert daemon.pid_file.read_text() == pid + "123456789012"[len(pid):]
    assert daemon.stop() == 0
    assert daemon.pid_file.exists()


@pytest.fixture
def hangups_count():
    """The daemon ignores hangups if we do, as under nohup."""
    before = signal.signal(signal.SIGHUP, signal.SIG_DFL)
    yield
    signal.signal(signal.SIGHUP, before)


@pytest.mark.threads
@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT, signal.SIGHUP])
def test_a_signal_ends_it_in_good_order(start_gateway, hangups_count, sig):
    daemon = start_gateway()
    bridge = daemon.bridge()
    daemon.broker.wait_for("new win client")
    daemon.interrupt(sig)
    assert daemon.wait_exit() == 0
    bridge.wait_closed()
    syslog = daemon.syslog()
    for text in ("win_loop Ending", "terminal actor_loop Ending", "Exiting"):
        assert f"6 rtls-gateway: {text}" in syslog
    assert syslog[-1] == "6 rtls-gateway: Exiting"


@pytest.mark.threads
def test_many_signals_are_no_worse_than_one(start_gateway):
    daemon = start_gateway()
    for _ in range(20):
        daemon.interrupt(signal.SIGINT)
        daemon.interrupt(signal.SIGTERM)
    assert daemon.wait_exit() == 0


@pytest.mark.threads
def test_an_early_signal_leaves_no_pid_file(start_gateway):
    for _ in range(5):
        daemon = start_gateway(wait_ready=False)
        wait_until(lambda: daemon.syslog(), "the first log line")
        daemon.interrupt()
        assert daemon.wait_exit() == 0
        assert daemon.syslog()[-1] == "6 rtls-gateway: Exiting"


def occupied(kind=socket.SOCK_STREAM):
    sock = socket.socket(socket.AF_INET, kind)
    sock.bind(("0.0.0.0", free_port()))
    if kind == socket.SOCK_STREAM:
        sock.listen()
    return sock


@pytest.mark.parametrize("port, function", [("win", "win_server_actor"), ("terminal", "terminal_server_actor")])
def test_an_occupied_port_ends_the_daemon_with_status_0(start_gateway, port, function):
    with occupied() as sock:
        daemon = start_gateway(ports={port: sock.getsockname()[1]}, wait_ready=False)
        assert daemon.wait_exit() == 0
    assert any(f"3 rtls-gateway: {function}: zsock_bind: 98, Address already in use" in line for line in daemon.syslog())
    assert not daemon.pid_file.exists()
    assert daemon.syslog()[-1] == "6 rtls-gateway: Exiting"


def test_an_occupied_discovery_port_ends_the_daemon(start_gateway):
    with occupied(socket.SOCK_DGRAM) as sock:
        daemon = start_gateway(ports={"discovery": sock.getsockname()[1]}, wait_ready=False)
        assert daemon.wait_exit() == 0
    assert any("udp_new_connection: bind: 98" in line for line in daemon.syslog())


def test_without_a_broker_address_it_runs_says_so_twice_and_stops_at_once(start_gateway):
    daemon = start_gateway(change=lambda tree: without(tree, "debug_broker_address"), upstream=())
    assert wait_until(lambda: errors_of(daemon, 2), "both errors") == [
        '3 rtls-gateway: Parameter "debug_broker_address" is not found in the configuration file!',
        "3 rtls-gateway: 'debug_broker_address' is not defined in the config file"]
    began = time.monotonic()
    assert daemon.stop() == 0 and time.monotonic() - began < 2.5, "there is no broker that records wait for"


def test_debug_records_reach_the_broker_but_not_the_system_log(gateway):
    gateway.bridge()
    gateway.broker.wait_for("new win client")
    assert gateway.broker.lines[0].startswith("&rtls-gateway:logger ")
    assert gateway.broker.lines[0].endswith(" Connected to socket")
    assert not any("new win client" in line for line in gateway.syslog())


def test_it_raises_its_limit_of_descriptors(gateway):
    limits = open(f"/proc/{gateway.process.pid}/limits").read()
    line = next(li for li in limits.splitlines() if li.startswith("Max open files"))
    soft, hard = line.split()[3:5]
    assert soft == hard


def test_only_main_takes_signals(gateway):
    pid = gateway.process.pid
    for task in os.listdir(f"/proc/{pid}/task"):
        status = open(f"/proc/{pid}/task/{task}/status").read()
        blocked = int(next(li for li in status.splitlines() if li.startswith("SigBlk")).split()[1], 16)
        for sig in (signal.SIGINT, signal.SIGTERM):
            if int(task) != pid:
                assert blocked >> (sig - 1) & 1, f"thread {task} takes signal {sig}"


def test_every_thread_has_a_name_of_its_own(gateway):
    """But main, which has the program's, and the library's. A thread names itself when it begins."""
    expected = ["rtls-log", "rtls-terminal", "rtls-win"]
    if BUILD.name == "tsan":
        expected.insert(0, "rtls-gateway")  # the sanitizer's

    def named():
        names = thread_names(gateway)
        assert names.pop(gateway.process.pid) == "rtls-gateway"
        return sorted(name for name in names.values() if not name.startswith("ZMQbg/")) == expected
    wait_until(named, f"no names but {expected}")


def test_the_bridges_thread_leaves_the_processor_to_those_who_read_for_it(gateway):
    wait_until(lambda: os.sched_getscheduler(thread_id(gateway, "rtls-win")) == os.SCHED_BATCH, "its class")
    assert {os.sched_getscheduler(thread) for thread, name in thread_names(gateway).items()
            if name != "rtls-win"} == {os.SCHED_OTHER}


def test_the_thread_that_limits_the_stop_has_a_name_of_its_own(start_gateway):
    daemon = start_gateway()
    with StoppedThread(thread_id(daemon, "rtls-terminal")):  # a stop that takes its time
        daemon.interrupt()
        wait_until(lambda: "rtls-stop" in thread_names(daemon).values(), "the thread")
    assert daemon.wait_exit() == 0


@pytest.mark.threads
@pytest.mark.parametrize("report", ["WARNING: ThreadSanitizer: data race", "ERROR: AddressSanitizer: heap-use-after-free",
                                    "x.cpp:1:2: runtime error: signed integer overflow"])
def test_a_report_of_a_sanitizer_fails_the_test_that_caused_it(start_gateway, report):
    """Of the harness itself: whatever the exit status, what a sanitizer writes is seen at the daemon's end."""
    daemon = start_gateway(wrap=["sh", "-c", f"echo '{report}' >&2; exec \"$@\"", "sh"])
    with pytest.raises(AssertionError, match=report.rsplit(":", 1)[0]):
        daemon.stop()
    daemon.output.truncate(0)
