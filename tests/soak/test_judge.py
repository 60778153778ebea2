"""What a soak is judged by finds what it is for."""
import os
import pathlib
import subprocess
import sys
import threading

import judge

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent / "e2e"))

import surroundings  # noqa: E402

SUMMARY = """\
  ping               sent         9  received         9
  ota page request   sent        12  received         0
reports: sent 90  received 90  missing 0  unexpected 0  wrong time 0
acks: wanted 7  received 7   pings: sent 9  echoed 9
bridges: connections 5  messages up 121  down 40
servers: received 95  of these lines 10  commands published 30
check: every report arrived, once and right
"""
OWN = {"operators": 3, "operators' orders": 2, "images": 1, "discoveries": 4}


class Figures:
    """Those of a daemon that agrees; `wrong` changes one of them."""

    def __init__(self, **wrong):
        self.values = {
            "bridges_accepted_total": {"": 5},
            "bridge_frames_total": {"in": 121, "out": 41},
            "messages_total": {"heartbeat": 100, "sensor": 21},
            "message_outcomes_total": {"report": 85, "line": 10, "answered": 20, "duplicate": 6},
            "reports_handed_over_total": {"message_handler": 85, "proxy_input": 10},
            "acknowledgements_total": {"": 7},
            "commands_total": {"of_operator": 2, "generic": 30},
            "page_requests_total": {"served": 12},
            "operators_accepted_total": {"": 3},
            "operators": {"": 0},
            "downloads_total": {"complete": 1},
            "discovery_requests_total": {"answered": 4},
            **wrong}

    def __getitem__(self, key):
        name, labels = key
        return self.values[name][next(iter(labels.values()), "")]

    def sum(self, name, **labels):
        of = self.values.get(name, {})
        return of.get(next(iter(labels.values())), 0) if labels else sum(of.values())


def judged(**wrong) -> list:
    return judge.differences(judge.read_summary(SUMMARY.splitlines()), OWN, Figures(**wrong))


def test_counts_that_agree_are_no_difference():
    assert judged() == []


def test_each_count_that_differs_is_named():
    assert judged(bridges_accepted_total={"": 6}) == ["bridges' connections: 5 by our count, 6 by the daemon's"]
    assert judged(acknowledgements_total={"": 6}) == ["acknowledgements: 7 by our count, 6 by the daemon's"]
    assert judged(commands_total={"of_operator": 2, "generic": 29}) == [
        "commands of servers: 30 by our count, 29 by the daemon's"]
    assert judged(commands_total={"of_operator": 1, "generic": 30}) == [
        "commands of operators: 2 by our count, 1 by the daemon's"]
    assert judged(reports_lost_total={"overflow": 1}) == ["reports lost: 0 by our count, 1 by the daemon's"]
    assert judged(bridge_noise_bytes_total={"": 1}) == ["bytes outside of frames: 0 by our count, 1 by the daemon's"]
    assert judged(downloads_total={"complete": 1, "failed": 1}) == [
        "downloads that went wrong: 0 by our count, 1 by the daemon's"]
    assert judged(operators={"": 1}) == ["operators who are still there: 0 by our count, 1 by the daemon's"]
    assert len(judged(message_outcomes_total={"report": 84, "line": 10, "answered": 20, "duplicate": 6})) == 2


def test_messages_to_bridges_may_miss_who_went_and_nobody_else():
    assert judged(bridge_frames_total={"in": 121, "out": 45}) == []
    assert judged(bridge_frames_total={"in": 121, "out": 46}) == [
        "messages to bridges: 40 came, 46 by the daemon's count"]
    assert len(judged(bridge_frames_total={"in": 121, "out": 39})) == 1


def test_a_simulator_that_says_nothing_is_no_agreement():
    wrong = judge.differences(judge.read_summary(["gave up waiting"]), OWN, Figures())
    assert "the simulator does not say: messages up" in wrong


def test_log_lines_are_explained_as_a_whole():
    patterns = judge.read_patterns("# a comment\n\n6 .*: started\n")
    assert judge.unexplained(["6 gateway: started"], patterns) == []
    assert judge.unexplained(["6 gateway: started, but badly"], patterns) == [
        "unexplained log line: 6 gateway: started, but badly"]
    assert len(judge.unexplained(["odd"] * 30, patterns)) == 21


def test_the_patterns_that_are_shipped_are_sound_and_narrow():
    patterns = judge.read_patterns((HERE / "expected_log").read_text())
    assert patterns
    for line in ("", "3 rtls-gateway: anything", "Sanitizer", "Overflow"):
        assert not any(pattern.fullmatch(line) for pattern in patterns), line


def test_a_long_run_has_less_room_and_more_for_more_connections():
    assert judge.memory_room(120, 100_000) == 4096
    assert judge.memory_room(3600, 0) == 1024
    assert judge.memory_room(3600, 10_240) == 1024 + 2000


def test_what_stays_is_growth():
    assert judge.growth("memory", [10, 10, 11, 10, 10, 90, 10, 10] * 4, room=2) == []
    assert judge.growth("memory", list(range(40)), room=5) == ["memory grew from 4 to 34, 5 are allowed"]
    assert judge.growth("memory", list(range(40)), room=30) == []
    assert judge.growth("memory", list(range(40, 0, -1)), room=0) == []
    assert judge.growth("memory", [1, 2], room=5) == ["memory: 2 samples are too few to judge by"]


def test_a_simulator_that_ended_with_a_command_unread_is_waited_for(monkeypatch):
    monkeypatch.setattr(surroundings.Simulator, "__init__", lambda self: None)
    simulator = surroundings.Simulator()
    simulator.process = subprocess.Popen(["true"], stdin=subprocess.PIPE, text=True)
    simulator.reader = threading.Thread(target=lambda: None)
    simulator.reader.start()
    simulator.process.stdin.write("sensor 0101 00\n")    # in the buffer until the pipe is closed
    os.waitid(os.P_PID, simulator.process.pid, os.WEXITED | os.WNOWAIT)
    assert simulator.wait(10) == 0


def test_a_worker_that_fails_is_told_at_once(monkeypatch):
    monkeypatch.setattr(surroundings.Worker, "failed", threading.Event())

    class Failing(surroundings.Worker):
        def turn(self):
            raise ValueError("no answer")
    worker = Failing(0)
    worker.start()
    assert surroundings.Worker.failed.wait(20)
    worker.join()
    assert worker.failure == "Failing: ValueError: no answer"
