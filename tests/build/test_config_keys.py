"""The keys of the configuration stand in one table, and everything that names them names the same ones."""
import json
import re
import subprocess

import pytest
from conftest import ROOT, run

SAMPLE = ROOT / "config" / "rtls-gateway.conf"


@pytest.fixture(scope="module")
def checker(build):
    return build.folder / "rtls-gateway-check"


@pytest.fixture(scope="module")
def keys(checker) -> dict:
    """What the table has, by key."""
    return {key["key"]: key for key in json.loads(run(checker, "--list-keys", "--json"))["keys"]}


def with_all_examples(keys: dict) -> str:
    """The sample, with those keys that it only shows. Its examples are indented behind the sign as they would be
    without it, by a blank less; prose has no "="."""
    sections = {key["section"] for key in keys.values() if key["section"]}
    lines = []
    for line in SAMPLE.read_text().splitlines():
        example = re.fullmatch(r"( *)#   ((?: {4})?[a-z_]+ = .*)", line)
        section = re.fullmatch(r"#   ([a-z_]+)", line)
        if example:
            line = example[1] + example[2]
        elif section and section[1] in sections:
            line = section[1]
        lines.append(line)
    return "\n".join(lines) + "\n"


def keys_in(text: str) -> list:
    found, section = [], ""
    for line in text.splitlines():
        if item := re.fullmatch(r"( *)([a-z_]+)( = .*)?", line):
            if not item[1] and not item[3]:
                section = item[2] + "/"
            else:
                found.append((section if item[1] else "") + item[2])
    return found


def test_the_sample_has_all_of_them_once(keys):
    found = keys_in(with_all_examples(keys))
    assert sorted(found) == sorted(keys)


def test_the_sample_is_clean(checker):
    done = subprocess.run([checker, "--offline", SAMPLE], text=True, stdout=subprocess.PIPE, check=False)
    assert done.returncode == 0 and "harm" not in done.stdout, done.stdout


def test_the_samples_examples_are_right(checker, keys, tmp_path):
    whole = tmp_path / "whole.conf"
    whole.write_text(with_all_examples(keys))
    done = subprocess.run([checker, "--offline", "--json", whole], text=True, stdout=subprocess.PIPE, check=False)
    (file,) = json.loads(done.stdout)["files"]
    assert [one for one in file["findings"] if one["level"] != "warning" or one["kind"] == "unknown"] == []
    assert done.returncode == 0


def test_main_asks_for_the_one_key_that_the_gateway_does_not(keys):
    """What the gateway asks for: config_keys_test."""
    main = (ROOT / "src" / "main.cpp").read_text()
    assert re.findall(r'(?:config_value\w*|zconfig)_get\(\w+, "([^"]*)"', main) == ["debug_broker_address"]
    assert "debug_broker_address" in keys


def table_of(page: str, columns: int) -> dict:
    """The further cells of each row of a page that begins with keys and has so many columns, by key."""
    rows = re.findall(r"^\| ((?:`[a-z_]+(?:/[a-z_]+)?`(?:, )?)+) \|(.*)\|$", (ROOT / "docs" / page).read_text(), re.M)
    return {key: [cell.strip() for cell in cells.split("|")] for names, cells in rows if cells.count("|") == columns - 2
            for key in re.findall(r"`([^`]+)`", names)}


def test_the_page_on_keys_says_what_the_table_says(keys):
    def cells(key: dict) -> list:
        without = key["without"] or key["presence"]
        return [key["type"], f"`{without}`" if key["default"] else without, key["help"]]
    assert table_of("configuration.md", 4) == {name: cells(key) for name, key in keys.items()}


@pytest.mark.parametrize("page,section", [("doors.md", ""), ("http.md", "http/")])
def test_other_pages_name_no_other_keys(keys, page, section):
    named = table_of(page, 2)
    if section:  # the page's other tables are of something else
        named = {section + name for name in named if "/" not in name}
        assert named == {key for key in keys if key.startswith(section)}
    else:
        assert len(named) > 15 and set(named) <= set(keys)
        assert {key for key in keys if re.search("address$|networks|connections|macs|^curve/|^firmware_[uk]", key)
                and not re.match("pub_sub|message_h|debug_", key)} <= set(named)
