"""Functions stay small enough to be read at once."""
import re

from conftest import ROOT

MOST_LINES = 60
FOLDERS = ("src", "libs", "tools", "tests", "fuzz", "bench")
# As clang-format leaves a function, and nothing else of that size: each brace on a line of its own.
BODY = re.compile(r"^( *)\{\n(.*?)^\1\}", re.S | re.M)


def test_no_function_is_longer_than_a_page():
    files = [path for folder in FOLDERS for path in (ROOT / folder).rglob("*") if path.suffix in (".h", ".cpp")]
    bodies = [(path, text, body) for path in files for text in [path.read_text()] for body in BODY.finditer(text)]
    assert len(bodies) > 4000
    assert not [f"{path.relative_to(ROOT)}:{text[:body.start()].count(chr(10)) + 1}: {lines} lines"
                for path, text, body in bodies if (lines := body[2].count("\n")) > MOST_LINES]
