"""rtls-record and rtls-tail on a tap that is played here, and on recordings that were made here."""
import json
import shutil
import signal
import subprocess

import pytest

from harness import tap_publisher as taps
from harness import wire
from harness.daemon import BUILD, environment, free_port
from harness.peers import DEADLINE, wait_until

NODE, OTHER, BRIDGE = wire.mac(0x1A2B), wire.mac(0x1A2C), wire.mac(0xB001)
SECONDS = 1_700_000_000
CLOCK = SECONDS * 10**9 + 251_500_000  # 1.5 ms after generation


def name(mac: bytes) -> str:
    return mac.hex().upper()


def everything(tap) -> list:
    """One message of each class and more: two reports of which one is sent again, a read that ends within a message."""
    stream = wire.frame(wire.ping(1, b"\xf5x")) + wire.frame(wire.sensor(3, b"\x01\x02", wire.ip(1)))
    here = dict(connection=42, clock_ns=CLOCK)

    def report(node, seq):
        return tap.message("report/" + name(node), *taps.report(node, seq, SECONDS, 250, BRIDGE), **here)

    return [
        tap.message("event", json.dumps({"event": "bridge_named", "bridge": name(BRIDGE)}).encode(), way=2, **here),
        tap.message("link/in/id-0000002A", stream[:7], **here), tap.message("link/in/" + name(BRIDGE), stream[7:], **here),
        report(NODE, 7), report(OTHER, 8), report(NODE, 7),
        tap.message("link/out/" + name(BRIDGE), wire.frame(wire.ping(1)), way=1, **here),
        tap.message("management", b"not a line", clock_ns=CLOCK),
        tap.message("command", wire.generic_req(b"\x00\x01\x00\x02\x00\x00", NODE).hex().upper().encode(), way=1,
                    clock_ns=CLOCK + 10**9)]


class Running:
    """A program at work; what it says on both outputs when it has ended."""

    def __init__(self, program: str, *arguments):
        self.process = subprocess.Popen([BUILD / program, *map(str, arguments)], env=environment(), text=True,
                                        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def ended(self, status: int = 0) -> tuple:
        out, err = self.process.communicate(timeout=DEADLINE)
        assert self.process.returncode == status, (out, err)
        assert "\x1b" not in out + err
        return out, err


def run(program: str, *arguments, status: int = 0) -> tuple:
    return Running(program, *arguments).ended(status)


def lines_of(*arguments, status: int = 0) -> list:
    return [json.loads(line) for line in run("rtls-tail", "--json", *arguments, status=status)[0].splitlines()]


@pytest.fixture
def recording(tap, tmp_path):
    file = tmp_path / "made.pcapng"
    file.write_bytes(taps.recording_of(everything(tap)))
    return file


# --- rtls-record

@pytest.mark.parametrize("ends", [signal.SIGINT, signal.SIGTERM])
def test_a_recording_has_each_message_as_it_was_published(tap, tmp_path, ends):
    file = tmp_path / "all.pcapng"
    recorder = Running("rtls-record", "--tap", tap.endpoint, file)
    assert tap.wait_subscribed() == {""}
    messages = everything(tap)
    for message in messages:
        tap.publish(message)
    tap.publish([b"event", b"no head", b"{}"])
    wait_until(lambda: file.exists() and len(taps.recorded(file.read_bytes(), is_growing=True)) == len(messages),
               "it to be flushed")
    recorder.process.send_signal(ends)
    _, err = recorder.ended()
    assert taps.recorded(file.read_bytes()) == messages
    assert f"{len(messages)} messages in 1 file, 0 missing" in err and "1 not understood" in err


def test_what_is_missing_is_told_and_the_status_says_it(tap, tmp_path):
    file = tmp_path / "gaps.pcapng"
    recorder = Running("rtls-record", "--tap", tap.endpoint, "-n", 3, "--topic", "report", "--topic", "event", "--json", file)
    assert tap.wait_subscribed(2) == {"report", "event"}
    first = everything(tap)
    tap.lose("report", 2)
    later = everything(tap)
    for message in [first[3], later[0], later[3]]:  # of the first's reports two are not sent, and two were lost
        tap.publish(message)
    out, err = recorder.ended(status=4)
    assert "report: 4 messages are missing before number 6" in err
    assert json.loads(out) == {"messages": 3, "missing": 4, "too_large": 0, "not_understood": 0, "files_written": 1,
                               "files": [str(file)]}
    assert len(taps.recorded(file.read_bytes())) == 3


def test_files_are_rotated_by_size_and_the_oldest_go(tap, tmp_path):
    recorder = Running("rtls-record", "--tap", tap.endpoint, "--max-size", 1000, "--keep", 2, "-n", 18, tmp_path / "r.pcapng")
    tap.wait_subscribed()
    messages = everything(tap) + everything(tap)
    for message in messages:
        tap.publish(message)
    recorder.ended()
    files = sorted(tmp_path.iterdir())
    assert len(files) == 2 and files[0].name != "r-00001.pcapng"
    kept = [message for file in files for message in taps.recorded(file.read_bytes())]
    assert kept == messages[-len(kept):] and len(kept) > 3


@pytest.mark.skipif(not shutil.which("zstd"), reason="without zstd")
def test_a_compressed_recording_is_one_for_everybody(tap, tmp_path):
    file = tmp_path / "a.pcapng.zst"
    recorder = Running("rtls-record", "--tap", tap.endpoint, "-n", 9, "--zstd", file)
    tap.wait_subscribed()
    messages = everything(tap)
    for message in messages:
        tap.publish(message)
    recorder.ended()
    plain = subprocess.run(["zstd", "-dc", file], stdout=subprocess.PIPE, check=True).stdout
    assert taps.recorded(plain) == messages
    assert len(lines_of("--read", file, "--link")) == 9


def test_refusals_have_their_statuses(tap, tmp_path):
    there = tmp_path / "there.pcapng"
    there.write_text("mine")
    nobody = f"tcp://127.0.0.1:{free_port()}"
    for arguments, status, says in [
            (["--tap", tap.endpoint, there], 1, "File exists"), (["--tap", "nonsense", tmp_path / "a"], 2, "no endpoint"),
            (["--tap", tap.endpoint], 2, "file is missing"), (["x"], 2, "--tap is missing"), (["--no"], 2, "--no"),
            (["--tap", nobody, "--timeout", 0.3, tmp_path / "b"], 3, f"nobody answers at {nobody}")]:
        _, err = run("rtls-record", *arguments, status=status)
        assert says in err and err.startswith("rtls-record: ")
    assert there.read_text() == "mine"


def test_what_cannot_begin_leaves_no_file_and_replaces_none(tmp_path):
    nobody, file, there = f"tcp://127.0.0.1:{free_port()}", tmp_path / "a.pcapng", tmp_path / "there.pcapng"
    for _ in range(2):
        run("rtls-record", "--tap", nobody, "--timeout", 0.2, file, status=3)
        assert not file.exists()
    there.write_text("mine")
    run("rtls-record", "--tap", nobody, "--timeout", 0.2, "--force", there, status=3)
    assert there.read_text() == "mine"


def test_after_a_restart_the_numbers_go_on(tap, tmp_path):
    published = []
    for _ in range(2):
        recorder = Running("rtls-record", "--tap", tap.endpoint, "--max-size", 1000, "-n", 9, tmp_path / "r.pcapng")
        tap.wait_subscribed()
        published += everything(tap)
        for message in published[-9:]:
            tap.publish(message)
        recorder.ended()
    files = sorted(tmp_path.iterdir())
    assert [file.name for file in files] == [f"r-{number:05}.pcapng" for number in range(1, len(files) + 1)]
    assert [message for file in files for message in taps.recorded(file.read_bytes())] == published


# --- rtls-tail

def test_lines_have_what_was_published(tap):
    tail = Running("rtls-tail", "--tap", tap.endpoint, "--link", "--json", "-n", 9)
    assert tap.wait_subscribed(5) == {"report/", "management", "command", "event", "link/"}
    for message in everything(tap):
        tap.publish(message)
    lines = [json.loads(line) for line in tail.ended()[0].splitlines()]
    assert [line["topic"].split("/")[0] for line in lines] == ["event", "link", "link", "report", "report", "report", "link",
                                                               "management", "command"]
    kinds = [line.get("message", {}).get("kind") for line in lines]
    assert kinds == [None, "ping", "sensor", "heartbeat", "heartbeat", "heartbeat", "ping", "invalid", "generic_req"]


def test_filters_choose(recording):
    def chosen(*arguments):
        return [(line["topic"].split("/")[0], line["number"]) for line in lines_of("--read", recording, *arguments)]

    assert chosen("--mac", "1A:2B") == [("report", 1), ("report", 3), ("command", 1)]
    assert chosen("--mac", name(OTHER)) == [("report", 2)]
    assert chosen("--kind", "generic_req,bridge_named") == [("event", 1), ("command", 1)]
    assert chosen("--direction", "down", "--link") == [("link", 1), ("command", 1)]
    assert chosen("--bridge", "B001", "--topic", "report") == [("report", 1), ("report", 2), ("report", 3)]
    assert chosen("--bridge", "B002", "--link") == []


def test_conditions_choose(recording):
    def chosen(*conditions):
        options = [word for condition in conditions for word in ("--where", condition)]
        return [(line["topic"].split("/")[0], line["number"]) for line in lines_of("--read", recording, "--link", *options)]

    assert chosen('kind == "heartbeat" and seqNo < 8') == [("report", 1), ("report", 3)]
    assert chosen(f"long_addr == '{OTHER.hex()}' or event.event == 'bridge_named'") == [("event", 1), ("report", 2)]
    assert chosen("not (seqNo or event) and way == 'up'") == [("management", 1)], "it is no line, and has no fields"
    assert chosen("pos_Y <= -2500", "seqNo != 7", "clock_ns > 0") == [("report", 2)]
    assert chosen("bridge == 'x'") == []
    assert len(run("rtls-tail", "--read", recording, "--where", "reporting_freq == 60")[0].splitlines()) == 3


@pytest.mark.parametrize("condition, says", [
    ("seqNo <", "character 8: a number, a text in quotes, true or false is wanted"), ("seqNo = 8", "character 7: this means"),
    ("(seqNo", 'character 7: "and", "or" or ")" is wanted'), ("", "character 1: the name of a field")])
def test_a_condition_that_is_none_is_refused_with_its_place(recording, condition, says):
    out, err = run("rtls-tail", "--read", recording, "--where", condition, status=2)
    assert out == "" and err.startswith(f"rtls-tail: --where {condition}: {says}")


def test_a_line_for_people_is_one_line(recording):
    out, _ = run("rtls-tail", "--read", recording, "--mac", "1A2B", "-n", 1)
    assert out == (f"2023-11-14T22:13:20.251500Z report/{name(NODE)} #1 heartbeat seconds=1700000000 milliseconds=250 seqNo=7 "
                   "reporting_freq=60 ranging_freq=5 node_role=fixed node_state=16 sublocation_id=1 "
                   f"long_addr={NODE.hex()} parent_addr={BRIDGE.hex()} sw_version=0102a0b0 pos_X=1500 pos_Y=-2500 pos_Z=0 "
                   f"bridge_mac={BRIDGE.hex()}\n")


def test_statistics_count_rates_repeats_and_ages(recording):
    (told,) = lines_of("--read", recording, "--stats")
    assert told["seconds"] == 1 and told["messages"] == 6
    assert told["kinds"]["report heartbeat"] == {"messages": 3, "per_second": 3, "repeats": 1}
    assert told["bridges"][name(BRIDGE)] == {"messages": 4, "per_second": 4, "repeats": 1}
    assert told["age_ms"]["reports"] == 3 and abs(told["age_ms"]["median"] - 1.5) < 0.2
    assert set(told["missing"].values()) == {0}
    assert told["sequences"] == {"gaps": 0, "missing": 0, "repeats": 1, "late": 0, "resets": 0}
    assert "report heartbeat" in run("rtls-tail", "--read", recording, "--stats")[0]


def test_a_cut_recording_is_shown_and_a_damaged_one_refused(recording):
    whole = recording.read_bytes()
    recording.write_bytes(whole[:-20])
    out, err = run("rtls-tail", "--read", recording)
    assert len(out.splitlines()) == 5 and "ends within a block" in err
    recording.write_bytes(whole[:-2] + b"xx")
    out, err = run("rtls-tail", "--read", recording, status=1)
    assert len(out.splitlines()) == 5 and "lengths of a block differ" in err


def test_gaps_of_sequence_numbers_are_counted(tap, tmp_path):
    def report(seq):
        return tap.message("report/" + name(NODE), *taps.report(NODE, seq, SECONDS, 250, BRIDGE), clock_ns=CLOCK)

    file = tmp_path / "sequences.pcapng"
    file.write_bytes(taps.recording_of([report(seq) for seq in (254, 255, 0, 3, 3, 2, 5)]))
    (told,) = lines_of("--read", file, "--stats")
    assert told["sequences"] == {"gaps": 2, "missing": 3, "repeats": 1, "late": 1, "resets": 0}
    assert "sequence numbers of nodes: gaps 2 missing 3 repeats 1 late 1 resets 0" in run("rtls-tail", "--read", file, "--stats")[0]


@pytest.mark.skipif(not shutil.which("zstd"), reason="without zstd")
def test_damage_of_a_compressed_recording_is_told_with_its_place(tap, tmp_path):
    plain, packed = tmp_path / "plain", tmp_path / "packed.pcapng.zst"
    plain.write_bytes(taps.recording_of([message for _ in range(3000) for message in everything(tap)]))
    subprocess.run(["zstd", "-q", plain, "-o", packed], check=True)
    data = bytearray(packed.read_bytes())
    data[-40:-20] = bytes(byte ^ 0xFF for byte in data[-40:-20])
    packed.write_bytes(data)
    out, err = run("rtls-tail", "--read", packed, "--stats", "--json", status=1)
    assert f"cannot decompress {packed} behind byte " in err
    assert json.loads(out)["messages"] > 1000, "what was before is counted"


def test_gaps_in_a_recording_have_status_4(tap, tmp_path):
    messages = everything(tap)
    file = tmp_path / "gap.pcapng"
    file.write_bytes(taps.recording_of([messages[3], messages[5]]))
    _, err = run("rtls-tail", "--read", file, status=4)
    assert "report: 1 message is missing before number 3" in err


@pytest.mark.parametrize("program", ["rtls-record", "rtls-tail"])
def test_shells_can_load_the_completion(program):
    for shell in [["bash", "-c"], ["zsh", "-f", "-c"]]:
        ask = f'compdef() {{ echo "$@"; }}; complete() {{ echo "$@"; }}; source <("$0" --completion {shell[0]})'
        told = subprocess.run([*shell, ask, BUILD / program], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              check=True).stdout
        assert told.split()[-1] == program and "rror" not in told
