"""The picture of the demo: a screen is drawn as a terminal would show it, and the picture that we have is one of it."""
import importlib.machinery
import importlib.util
import xml.etree.ElementTree as xml

from conftest import ROOT

SVG = "{http://www.w3.org/2000/svg}"


def load():
    loader = importlib.machinery.SourceFileLoader("demo_picture", str(ROOT / "scripts" / "demo-picture"))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(loader.name, loader))
    loader.exec_module(module)
    return module


PICTURE = load()


def shown(screen) -> list:
    return ["".join(cell[0] for cell in row).rstrip() for row in screen.rows]


def test_a_recorded_screen_is_shown_as_by_a_terminal():
    screen = PICTURE.Screen(columns=10, lines=3)
    screen.feed("gone\r\n\x1b[1mbold\x1b[0m <&>\r\n\r\x1b[K\x1b[7m[1s] sent\x1b[0m\r\x1b[Kreport\r\n\x1b[7m[2s] sent \x1b[0m")
    assert shown(screen) == ["bold <&>", "report", "[2s] sent"]
    assert list(PICTURE.runs(screen.rows[0])) == [(0, "bold", True, False), (4, " <&>  ", False, False)]
    assert list(PICTURE.runs(screen.rows[2])) == [(0, "[2s] sent ", False, True)]


def test_a_line_that_is_too_long_goes_on_in_the_next():
    screen = PICTURE.Screen(columns=4, lines=3)
    screen.feed("abcdef\b\bXY\tZ")
    assert shown(screen) == ["abcd", "XY Z", ""]


def test_the_drawing_has_what_is_shown():
    screen = PICTURE.Screen(columns=10, lines=2)
    screen.feed("\x1b[1ma<b\x1b[0m\r\n\x1b[7mcount\x1b[0m")
    root = xml.fromstring(PICTURE.svg(screen))
    texts = {text.text: text.attrib for text in root.iter(SVG + "text")}
    assert list(texts) == ["a<b", "count"] and texts["a<b"]["font-weight"] == "bold"
    assert len(list(root.iter(SVG + "rect"))) == 2, "the ground, and one behind what is reversed"


def test_the_picture_is_of_a_run():
    root = xml.parse(ROOT / "docs" / "demo.svg").getroot()
    text = "\n".join(element.text for element in root.iter(SVG + "text"))
    assert "heartbeat" in text and " bridges 2/2 " in text
    assert "](docs/demo.svg)" in (ROOT / "README.md").read_text()
