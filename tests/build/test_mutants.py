"""What scripts/mutants takes for noticed: a failure of what passes without the change, and nothing else."""
import argparse
import importlib.machinery
import importlib.util
import json
import shutil

import pytest
from conftest import ROOT

OPTIONS = argparse.Namespace(jobs=1, timeout=60)
GUARDED = """
struct __attribute__((capability("mutex"))) lock { void take() __attribute__((acquire_capability()));
                                                   void give() __attribute__((release_capability())); };
lock a_lock;
int guarded __attribute__((guarded_by(a_lock)));
void count();
void count() { a_lock.take(); ++guarded; a_lock.give(); }
"""


@pytest.fixture
def mutants(tmp_path):
    """The script, with a tree of one source, which is as it should be."""
    loader = importlib.machinery.SourceFileLoader("mutants", str(ROOT / "scripts" / "mutants"))
    script = importlib.util.module_from_spec(importlib.util.spec_from_loader("mutants", loader))
    loader.exec_module(script)
    script.ROOT = script.TREE = tmp_path
    script.BUILD = tmp_path / "build"
    script.BUILD.mkdir()
    source = tmp_path / "src" / "counting.cpp"
    source.parent.mkdir()
    source.write_text(GUARDED)
    command = f"g++ -std=c++20 -isystem {tmp_path} -c {source}"
    (script.BUILD / "compile_commands.json").write_text(json.dumps([{"file": str(source), "command": command}]))
    return script


def rule(mutants, runs: str, old: str, new: str):
    path = mutants.ROOT / "a.mutant"
    path.write_text(f"# What it protects.\nrun: {runs}\n<<<<\n{old}\n====\n{new}\n>>>>\n")
    return mutants.Rule(path)


@pytest.mark.parametrize("command,timeout,outcome", [
    (["true"], None, "passed"), (["false"], None, "failed"), (["sleep", "60"], 0.2, "timed out")])
def test_a_program_that_takes_too_long_has_not_failed(mutants, command, timeout, outcome):
    assert mutants.quietly(command, timeout)[0] == outcome


@pytest.mark.parametrize("outcomes,verdict,remark", [
    ({"one": "passed"}, "SURVIVED", ""),
    ({"one": "passed", "two": "failed"}, "noticed", "two"),
    ({"one": "timed out", "two": "passed", "three": "timed out"}, "timed out", "one"),
    ({"one": "timed out", "two": "failed"}, "noticed", "two"),      # a failure says more
])
def test_what_failed_has_noticed_and_what_timed_out_is_told_apart(mutants, monkeypatch, outcomes, verdict, remark):
    monkeypatch.setattr(mutants, "build", lambda *_: None)
    monkeypatch.setattr(mutants, "outcome_of", lambda run, *_: outcomes[run])
    change = rule(mutants, " ".join(outcomes), "++guarded", "--guarded")
    judged = mutants.judge(change, {"src/counting.cpp": GUARDED}, [], OPTIONS)
    assert (judged[0], judged[2]) == (verdict, remark)


@pytest.mark.skipif(not shutil.which("clang++"), reason="the analysis is clang's")
@pytest.mark.parametrize("old,new,verdict", [
    ("++guarded", "--guarded", "SURVIVED"),
    ("a_lock.take();", "", "noticed"),
    ("++guarded", "++nobody", "broken"),
    ("a_lock.take();", "++nobody;", "broken"),          # although the analysis has something to say, too
])
def test_the_analysis_notices_by_its_own_warnings_alone(mutants, old, new, verdict):
    change = rule(mutants, "thread-safety", old, new)
    assert mutants.judge(change, {"src/counting.cpp": GUARDED}, [], OPTIONS)[0] == verdict


@pytest.mark.skipif(not shutil.which("clang++"), reason="the analysis is clang's")
def test_what_fails_without_any_change_notices_nothing(mutants):
    wrong = GUARDED.replace("a_lock.take(); ++guarded;", "++guarded; a_lock.take();")
    (mutants.TREE / "src/counting.cpp").write_text(wrong)
    change = rule(mutants, "thread-safety", "++guarded", "--guarded")
    assert mutants.check_unchanged([change], {"src/counting.cpp": wrong}, OPTIONS) == ["thread-safety"]
    assert mutants.judge(change, {"src/counting.cpp": wrong}, ["thread-safety"], OPTIONS)[0] == "SURVIVED"
