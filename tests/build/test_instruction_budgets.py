"""bench/instructions notices what it is for. What it counts, .ci/run sees."""
import importlib.machinery
import importlib.util
import json

import pytest
from conftest import ROOT


@pytest.fixture
def instructions(tmp_path, monkeypatch):
    """The script, with a record of its own and figures that are given: nothing is built or counted."""
    loader = importlib.machinery.SourceFileLoader("instructions", str(ROOT / "bench" / "instructions"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader("instructions", loader))
    monkeypatch.setattr("sys.dont_write_bytecode", True)
    loader.exec_module(module)
    monkeypatch.setattr(module, "RECORD", tmp_path / "record.json")
    monkeypatch.setattr(module, "made_by", lambda build: {"compiler": "one"})
    module.found = {"up: ping": 1000, "down: data": 4000}
    monkeypatch.setattr(module, "counted", lambda build: dict(module.found))
    assert module.main(["--write"]) == 0
    return module


def test_what_is_on_record_passes(instructions, capsys):
    assert instructions.main([]) == 0
    assert "2 kinds" in capsys.readouterr().out


@pytest.mark.parametrize("now,status", [(1050, 0), (1051, 1), (1, 0)])
def test_growth_by_more_than_five_percent_fails(instructions, capsys, now, status):
    instructions.found["up: ping"] = now
    assert instructions.main([]) == status
    assert ("up: ping: 1000 instructions have become 1051 (+5.1%)" in capsys.readouterr().out) == bool(status)


def test_each_kind_has_its_own_budget(instructions):
    instructions.found = {"up: ping": 1100, "down: data": 3900}  # less in all
    assert instructions.main([]) == 1


def test_a_kind_that_is_not_on_record_fails(instructions, capsys):
    instructions.found["up: new"] = 1
    assert instructions.main([]) == 1
    assert "up: new: not on record" in capsys.readouterr().out


def test_a_kind_that_is_not_counted_any_more_fails(instructions, capsys):
    del instructions.found["up: ping"]
    assert instructions.main([]) == 1
    assert "up: ping: on record, but not counted any more" in capsys.readouterr().out


def test_growth_is_said_to_be_another_compilers(instructions, monkeypatch, capsys):
    monkeypatch.setattr(instructions, "made_by", lambda build: {"compiler": "another"})
    assert instructions.main([]) == 0
    instructions.found["up: ping"] = 2000
    assert instructions.main([]) == 1
    assert "'another'" in capsys.readouterr().out


def test_the_least_of_a_kinds_counts_stands(instructions):
    lines = ["10 up: ping", "10 up: ping", "10 up: ping", "4 down: data"]
    assert instructions.least_by_kind(lines, [12_040, 10_000, 11_000, 2_000]) == {"up: ping": 1000, "down: data": 500}


def test_a_count_that_was_not_dumped_is_no_zero(instructions):
    with pytest.raises(SystemExit):
        instructions.least_by_kind(["10 up: ping", "10 up: ping"], [10_000])


def test_a_dump_is_read(instructions, tmp_path):
    dump = tmp_path / "out.1"
    dump.write_text("version: 1\nevents: Ir\nsummary: 12345\n\nfn=(1) main\n1 12345\n\ntotals: 12345\n")
    assert instructions.total_of(dump) == 12345


def test_a_profile_has_what_each_function_took_alone(instructions):
    dump = ("fn=(1) main\n10 5\n+2 7\ncfn=(2) work\ncalls=3 20\n-1 600\n* 1\n"
            "\nfn=(2)\n20 590\ncfi=(4) other.c\ncfn=(3) helper\ncalls=1 +3\n21 10\n\nfn=(3)\n5 10\n")
    assert instructions.own_costs(dump) == {"main": 13, "work": 590, "helper": 10}


def test_the_dumps_come_in_the_order_of_their_numbers(instructions, tmp_path):
    for number in (10, 9, 1):
        (tmp_path / f"out.{number}").touch()
    assert [path.suffix for path in sorted(tmp_path.glob("out.*"), key=instructions.dump_number)] == [".1", ".9", ".10"]


def test_the_record_names_what_it_was_made_by(instructions):
    assert json.loads(instructions.RECORD.read_text())["made by"] == {"compiler": "one"}


def test_the_record_in_the_repository_has_every_kind_of_way(instructions):
    record = json.loads((ROOT / "bench" / "instructions.json").read_text())
    assert {kind.split(":")[0] for kind in record["instructions"]} == {"up", "tap", "port", "down", "record"}
