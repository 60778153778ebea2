"""The comparison of daemon and model, with a seed that nobody has tried, and what the model itself must get right."""
import os
import pathlib
import random
import secrets
import subprocess
import sys

import pytest

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

from gateway_model import link                                    # noqa: E402
from gateway_model.gateway import next_version                    # noqa: E402
from gateway_model.ota import PageStore                           # noqa: E402
from gateway_model.registry import Order, Registry, mac_hash      # noqa: E402

FRAMES = int(os.environ.get("MODEL_FRAMES", "20000"))


def test_daemon_and_model_agree(capsys, record_property):
    seed = int(os.environ.get("MODEL_SEED", secrets.randbelow(1 << 32)))
    record_property("seed", seed)
    done = subprocess.run([sys.executable, HERE / "run", "--seed", str(seed), "--frames", str(FRAMES)],
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    with capsys.disabled():
        print(f"\ntests/model/run --seed {seed} --frames {FRAMES}: {done.stdout.strip().splitlines()[-1]}")
    assert done.returncode == 0, done.stdout
    assert done.stdout.endswith(f"frames, seed {seed}: equal\n")


STREAMS = [("f5f7", []), ("f501f6f702f7", ["01f702"]), ("f50102f503f7", ["03"]), ("f50102f7", ["0102"]),
           ("0102f6f7f501f7", ["01"]), ("f5f6f5f7", ["f5"]), ("f5f641f7", ["41"]), ("f501f7f7f602f502f7", ["01", "02"]),
           ("f5f5f501f7", ["01"]), ("f501f6", [])]


@pytest.mark.parametrize("stream, messages", STREAMS)
def test_decoder_takes_frames_out_of_a_stream(stream, messages):
    assert [m.hex() for m in link.Decoder().feed(bytes.fromhex(stream))] == messages


@pytest.mark.parametrize("stream, messages", STREAMS)
def test_decoder_does_not_mind_where_a_stream_is_cut(stream, messages):
    decoder, got = link.Decoder(), []
    for byte in bytes.fromhex(stream):
        got += decoder.feed(bytes((byte,)))
    assert [m.hex() for m in got] == messages


def test_encoder_escapes_what_would_end_the_frame():
    assert link.encode(bytes.fromhex("01f502")).hex() == "f501f6f502f7"
    assert link.encode(b"").hex() == "f5f7"
    r = random.Random(1)
    for _ in range(200):
        message = r.randbytes(r.randrange(1, 40)) + bytes(r.choices((0xF5, 0xF6, 0xF7), k=3))
        assert link.Decoder().feed(link.encode(message)) == [message]
        assert link.frames(link.encode(message) * 2) == ([link.encode(message)] * 2, b"")
        assert link.decode(link.encode(message)) == message


def test_frames_of_the_gateway_have_nothing_between_them():
    assert link.frames(bytes.fromhex("f501f7f502f6f7")) == ([bytes.fromhex("f501f7")], bytes.fromhex("f502f6f7"))
    for stream in ("00f501f7", "f501f700f502f7", "f5f641f7", "f501f502f7"):
        with pytest.raises(ValueError):
            link.frames(bytes.fromhex(stream))


def test_version_climbs_the_stick_and_then_circles():
    versions = [240]
    for _ in range(16 + 128):
        versions.append(next_version(versions[-1]))
    assert versions[15:18] == [255, 0, 1]
    assert versions[-2:] == [127, 0]


def test_table_tells_macs_apart_that_contain_zeros_or_share_a_hash():
    order = Order()
    macs = [bytes(8), bytes(7) + b"\x21", bytes(6) + b"\x01\x00", b"\0\0\1\2\3\4\5\6"]
    assert mac_hash(macs[1]) == mac_hash(macs[2])
    for mac in macs:
        order.insert(mac)
    assert sorted(order.walk()) == sorted(macs)
    order.delete(macs[1])
    assert sorted(order.walk()) == sorted(macs[:1] + macs[2:])


def test_sequence_number_of_a_new_node_is_not_kept():
    registry, mac = Registry(), bytes(range(8))
    assert registry.find_or_create(mac, 5)
    assert registry.find_or_create(mac, 5)
    assert registry.find_or_create(mac, 5) is None
    assert registry.find_or_create(bytes(8), 1)
    assert registry.find_or_create(bytes(8), 0) is None


def test_address_leads_to_its_node_or_to_the_mac_in_it():
    registry, mac, address = Registry(), b"\xe4" + bytes(range(1, 8)), bytes(8) + b"\xe6" + bytes(range(1, 8))
    node = registry.find_or_create(mac)
    assert registry.find_by_ip(address) is node
    other = registry.find_or_create(bytes(8))
    registry.set_ip(other, address)
    assert registry.find_by_ip(address) is other
    other.forwarded = True
    assert registry.find_by_ip(address) is node


def test_pages_are_served_once_all_their_blocks_are_there():
    store, page = PageStore(2), bytes(range(64))
    assert store.set_page("a", 64, 1, page) and not store.set_page("a", 33, 0, page)
    assert store.get_page("a", 64, 1) == page and store.get_page("a", 32, 3) == page[32:]
    assert store.get_page("a", 64, 0) is None and store.get_page("a", 100, 0) is None
    store.set_page("a", 64, 1, bytes(64))
    assert store.get_page("a", 64, 1) == page, "what is there already is not copied again"
    store.set_page("b", 32, 0, page)
    store.set_page("c", 32, 0, page)
    assert store.get_page("a", 64, 1) is None, "the third image takes the place of the first"
