"""The pages: all of them in the index, and no link that leads nowhere."""
import pathlib
import re

import pytest

from conftest import ROOT

DOCS = ROOT / "docs"
PAGES = sorted(path for path in ROOT.glob("*.md")) + sorted(DOCS.rglob("*.md"))
FENCE = re.compile(r"^(```|~~~).*?^\1\s*?$", re.M | re.S)
LINK = re.compile(r"!?\[[^\]]*\]\(\s*<?([^)\s>]+)>?(?:\s+\"[^\"]*\")?\s*\)")


def prose_of(text: str) -> str:
    """Without what is shown as typed: a link in there is none."""
    text = FENCE.sub("", text)
    text = re.sub(r"(?:(?<=\n\n)|\A)(?: {4}.*\n?)+", "", text)
    return re.sub(r"`[^`\n]*`", "", text)


def links_of(page: pathlib.Path) -> list:
    return LINK.findall(prose_of(page.read_text()))


def anchor_of(title: str) -> str:
    """As the viewers of such pages make it."""
    title = re.sub(r"\[([^\]]*)\]\([^)]*\)", r"\1", title).strip().lower()
    return re.sub(r"[^\w\- ]", "", title).replace(" ", "-")


def anchors_of(page: pathlib.Path) -> set:
    """One for each title; a title that stands there twice gets a number."""
    seen = {}
    anchors = set()
    for title in re.findall(r"^#{1,6} +(.*?)\s*#*$", FENCE.sub("", page.read_text()), re.M):
        anchor = anchor_of(title)
        anchors.add(f"{anchor}-{seen[anchor]}" if anchor in seen else anchor)
        seen[anchor] = seen.get(anchor, 0) + 1
    return anchors


def is_elsewhere(link: str) -> bool:
    return re.match(r"[a-z][a-z0-9+.-]*:", link) is not None


def fault_of(page: pathlib.Path, link: str) -> str:
    """What is wrong with a link of that page; empty when it leads somewhere."""
    path, _, anchor = link.partition("#")
    target = (page.parent / path).resolve() if path else page
    if not target.exists():
        return "no such file"
    if not target.is_relative_to(ROOT):
        return "outside of the tree"
    if anchor and target.suffix == ".md" and anchor not in anchors_of(target):
        return "no such title"
    return ""


@pytest.mark.parametrize("page", PAGES, ids=lambda page: str(page.relative_to(ROOT)))
def test_links_lead_somewhere(page):
    faults = {link: fault_of(page, link) for link in links_of(page) if not is_elsewhere(link)}
    assert not {link: fault for link, fault in faults.items() if fault}


def test_links_are_found_and_judged(tmp_path):
    """What the test above relies on: it must see links, and must not take every one of them for good."""
    assert len(links_of(ROOT / "README.md")) > 5
    page = tmp_path / "page.md"
    page.write_text("# A title: `x`, [b](c)\n## Twice\n## Twice\n[a](#none) `[no](link)`\n\n    [no](link)\n\n[d](gone.md)\n")
    assert links_of(page) == ["c", "#none", "gone.md"]
    assert anchors_of(page) == {"a-title-x-b", "twice", "twice-1"}
    assert fault_of(page, "#none") and fault_of(page, "gone.md") and not fault_of(DOCS / "doors.md", "#keys")


def test_the_index_has_every_page():
    index = DOCS / "README.md"
    pages = {path for path in DOCS.rglob("*") if path.suffix in (".md", ".json")}
    linked = {(DOCS / link.partition("#")[0]).resolve() for link in links_of(index)}
    assert pages - {index} <= linked
    assert len(pages) > 15


def test_the_readme_leads_to_the_index():
    assert "docs/README.md" in links_of(ROOT / "README.md")
