"""The commands that the pages show: programs and scripts that there are, with options that they take."""
import os
import re
import shlex
import subprocess

import pytest

from conftest import ROOT

PAGES = sorted(ROOT.glob("*.md")) + sorted((ROOT / "docs").glob("*.md"))
OURS = r"(?:build/release/)?rtls-(?:ctl|sim|gateway-check|gateway)\b"
IN_THE_TREE = r"(?:\./|scripts/|bench/|tests/|docs/)[\w./-]+"


def shown(start: str) -> list:
    """The commands of all pages that begin so: their words, up to what is the shell's."""
    found = set()
    for page in PAGES:
        for line in re.findall(rf"^ {{4}}(?:\w+=\S+ )*(?:\$ )?({start}(?: .*)?)$", page.read_text(), re.M):
            command = re.split(r" (?:\||>|<|&|\\)|  +#| >\S", line)[0]
            found.add((page.name, *shlex.split(command)))
    return sorted(found)


def of(program: str) -> list:
    return [words for words in shown(OURS) if words[1].endswith(program)]


def test_there_are_commands():
    assert len(of("rtls-ctl")) > 5 and len(of("rtls-sim")) > 1 and len(shown(IN_THE_TREE)) > 5


@pytest.mark.parametrize("words", shown(IN_THE_TREE), ids=" ".join)
def test_scripts_are_there(words):
    program = ROOT / words[1]
    assert program.exists() or program.is_relative_to(ROOT / "build") or words[1] == "./servers"


@pytest.mark.parametrize("words", of("rtls-ctl"), ids=" ".join)
def test_rtls_ctl_takes_them(build, tmp_path, words):
    """No gateway is there: 3, or 4 when it was asked until the time was over. 2 is a wrong command line."""
    nobody = "127.0.0.1:1"
    config = tmp_path / "rtls-ctl.conf"
    config.write_text("gateways = north\n" + "".join(f"[{name}]\nterminal = {nobody}\n" for name in ("north", "south", "east")))
    arguments = [*words[2:]]
    if "--timeout" in arguments:
        arguments[arguments.index("--timeout") + 1] = "0.1"
    done = subprocess.run([build.folder / "rtls-ctl", *arguments], env=dict(os.environ, RTLS_CTL_CONFIG=str(config)),
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=60, check=False)
    assert done.returncode in ((0,) if "completion" in arguments else (3, 4)), done.stdout


@pytest.mark.parametrize("words", of("rtls-sim"), ids=" ".join)
def test_rtls_sim_takes_them(build, words):
    names = [word for word in words[2:] if not word.startswith("-")][:1]
    told = subprocess.run([build.folder / "rtls-sim", *names, "--help"], stdout=subprocess.PIPE, text=True, check=True).stdout
    assert {word.split("=")[0] for word in words[2:] if word.startswith("--")} <= set(re.findall(r"--[a-z-]+", told))


@pytest.mark.parametrize("words", of("rtls-gateway-check"), ids=" ".join)
def test_the_check_takes_them(build, words):
    """On the sample, whatever file the page names."""
    arguments = [word if not word.endswith(".conf") else str(ROOT / "config" / "rtls-gateway.conf") for word in words[2:]]
    if not any(word.endswith(".conf") for word in words[2:]):
        arguments.append(str(ROOT / "config" / "rtls-gateway.conf"))
    done = subprocess.run([build.folder / "rtls-gateway-check", "--offline", *arguments], stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    assert done.returncode in (0, 1), done.stdout
