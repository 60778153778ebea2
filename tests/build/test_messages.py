"""docs/messages.md has every text of the log and the debug stream, and none that the code has not."""
import collections
import re

import pytest

from conftest import ROOT

PAGE = ROOT / "docs" / "messages.md"
SOURCES = sorted(path for path in (ROOT / "src").rglob("*") if path.suffix in (".cpp", ".h"))
CORE = ROOT / "libs" / "core" / "src"

TOKEN = re.compile(r'//[^\n]*|/\*.*?\*/|"(?:\\.|[^"\\])*"|\'(?:\\.|[^\'\\])*\'|[A-Za-z_]\w*|\d[\w.\']*|\S', re.S)
LITERAL = re.compile(r'"((?:\\.|[^"\\])*)"')

LEVELS = {"error": "error", "warning": "warning", "info": "information", "debug": "debug"}
# Which argument is the text.
LOGGERS = {f"logger_{level}": (1, name) for level, name in LEVELS.items()} | {"syslog": (1, "error")}
DEBUG = {"dbg_print": 3, "dbg_print_ts": 4}
CALLS = {"log_call_error": 1, "log_system_call_error": 1, "made": 1, "log_failure": 1}
REASONS = {"note_reason": 1, "refuse": 1}
# Names of texts that stand elsewhere: what a wrapper passes on is collected where the wrapper is called.
PASSED_ON = {"format", "call", "as_it_is", "as", "const", "why", "reason", "text", "attach_name"}
# Their "%s" are whole texts, which are collected, too.
FRAMES = {"%s", "%s: %s: %d, %s"}


def tokens_of(text: str) -> list:
    return [token for token in TOKEN.findall(text) if not token.startswith(("//", "/*"))]


def calls_in(tokens: list, names):
    """Each call's name and the tokens of its arguments."""
    for at, token in enumerate(tokens[:-1]):
        if token not in names or tokens[at + 1] not in "({":
            continue
        depth, arguments = 0, [[]]
        for inner in tokens[at + 1:]:
            depth += (inner in "([{") - (inner in ")]}")
            if depth == 0:
                break
            if inner == "," and depth == 1:
                arguments.append([])
            elif depth > 1 or inner not in "({":
                arguments[-1].append(inner)
        yield token, arguments


def constants_of(text: str) -> dict:
    """Texts with a name of their own."""
    found = re.findall(r'constexpr char (\w+)\[\] =\s*((?:"(?:\\.|[^"\\])*"\s*)+);', text)
    return {name: "".join(LITERAL.findall(value)) for name, value in found}


def array_of(file, name: str) -> set:
    body = re.search(rf"\b{name}\b[^=;]*=\s*\{{(.*?)\}};", file.read_text(), re.S)
    return {"".join(LITERAL.findall(text)) for text in re.findall(r'(?:"(?:\\.|[^"\\])*"\s*)+', body.group(1))}


class Code:
    """What the sources say, as pairs of text and level."""

    def __init__(self):
        self.said = set()
        self.unknown = []
        self.shared = {}
        for file in SOURCES:
            if file.suffix == ".h":
                self.shared |= constants_of(file.read_text())
        for file in SOURCES:
            self.read(file)
        self.read_queues()
        self.read_core()
        self.read_reasons()

    def texts(self, argument: list, own: dict) -> set:
        """All that the argument may be: literals, named texts, both sides of a choice."""
        if argument and all(token.startswith('"') for token in argument):
            return {"".join(token[1:-1] for token in argument)}
        known = self.shared | own
        named = {known[token] for token in argument if token in known}
        literals = {token[1:-1] for token in argument if token.startswith('"')}
        return named | literals

    def read(self, file):
        text = file.read_text()
        own = constants_of(text)
        tokens = tokens_of(text)
        for name, arguments in calls_in(tokens, LOGGERS | DEBUG | CALLS | REASONS):
            index = LOGGERS[name][0] if name in LOGGERS else (DEBUG | CALLS | REASONS)[name]
            if name == "refuse" and arguments[0] != ["reason"] or name == "made" and file.parent.name != "server":
                continue  # others of that name
            if len(arguments) <= index:
                continue
            found = self.texts(arguments[index], own)
            if not found and not PASSED_ON & set(arguments[index]) and "." not in arguments[index] \
                    and "(" not in arguments[index]:
                self.unknown.append((str(file), name, arguments[index]))
            self.said |= {self.entry(name, arguments, text, own) for text in found} - {None}
        for _, arguments in calls_in(tokens, {"open_socket"}):  # of the terminal, and the call is named there
            self.said |= {(f"%s: {text}: %d, %s", "error") for text in self.texts(arguments[2], own)}
        if "link_plan" in text:  # and here
            self.said |= {(f"%s: {call}: %d, %s", "error") for call in re.findall(r'"(zsock_new_\w+)"', text)}

    def entry(self, name: str, arguments: list, text: str, own: dict):
        if name in LOGGERS:
            return None if text in FRAMES else (text, LOGGERS[name][1])
        if name in CALLS:
            return f"%s: {text}: %d, %s", "error"
        if name in REASONS:
            return text, "reason"
        section, channel = arguments[DEBUG[name] - 2], arguments[DEBUG[name] - 1]
        return f"{self.texts(channel, own).pop()}: {text}", section[0].removeprefix("DBG_").lower()

    def read_queues(self):
        """Queues say their overflows by texts that they are made with; and the call that failed."""
        for file in SOURCES:
            for quoted in re.findall(r'"((?:Overflow|Exemption) [^"%]*queue!)"', file.read_text()):
                self.said.add((quoted, "error"))
        made = (ROOT / "src" / "link" / "win_server_private.h").read_text()
        self.said |= {(f"%s: {call}: %d, %s", "error") for call in re.findall(r'"(z\w+send \(\w+\))"', made)}

    def read_core(self):
        """The logging library's own: streamed together, its numbers stand for %s."""
        thread = (CORE / "impl" / "log_thread.cpp").read_text()
        self.said |= {(f"{text}: %s", "warning") for name, text in constants_of(thread).items()
                      if name.endswith("_text")}
        for name in ("logger.cpp", "clogger.cpp"):
            text = (CORE / "impl" / name).read_text()
            own = constants_of(text)
            for _, arguments in calls_in(tokens_of(text), {"write"}):
                if arguments[0] == [] or not arguments[0][0].startswith("LOG_"):
                    continue
                level = {"LOG_ERR": "error", "LOG_INFO": "information", "LOG_WARNING": "warning",
                         "LOG_DEBUG": "debug"}[arguments[0][0]]
                self.said.add((self.streamed(arguments[1], own), level))

    @staticmethod
    def streamed(argument: list, own: dict) -> str:
        parts, depth = [[]], 0
        for token in argument:
            depth += (token in "({") - (token in ")}")
            if token == "+" and depth == 0:
                parts.append([])
            else:
                parts[-1].append(token)
        literal = [next((token[1:-1] for token in part if token.startswith('"')), None) for part in parts]
        return "".join(text if text is not None else own.get(part[0], "%s")
                       for text, part in zip(literal, parts, strict=True))

    def read_reasons(self):
        link = CORE / "include" / "core" / "link_record.h"
        texts = array_of(ROOT / "src" / "net" / "door.cpp", "refusal_texts")
        texts |= array_of(ROOT / "src" / "net" / "http_refusals.cpp", "http_refusal_texts")
        texts |= array_of(link, "failure_texts")
        texts |= set(re.findall(r'\bdown\("([^"]+)"', link.read_text()))
        texts |= {text for file in SOURCES if file.parent.name == "firmware"
                  for name, text in constants_of(file.read_text()).items() if name in ("kept", "text", "str_not_ordered")}
        self.said |= {(text, "reason") for text in texts}


@pytest.fixture(scope="module")
def code() -> Code:
    return Code()


def rows() -> list:
    found = re.findall(r"^\| `(.*?)` \| (\w+) \| (.+?) \| (.+?) \|$", PAGE.read_text(), re.M)
    assert len(found) == PAGE.read_text().count("\n| `"), "a row that is none"
    return found


def test_the_page_has_what_the_code_says(code):
    assert not code.unknown, "texts that this test cannot follow"
    page = {(text, level) for text, level, _, _ in rows()}
    assert sorted(code.said - page) == []
    assert sorted(page - code.said) == []


def test_each_text_stands_there_once():
    count = collections.Counter((text, level) for text, level, _, _ in rows())
    assert not [row for row, times in count.items() if times > 1]


def test_the_reader_of_sources_finds_each_kind(code):
    """What the comparison relies on: one of each way in which the sources say something."""
    for text, level in (("Exiting", "information"), ("%s: out of memory!", "error"), ("%s: zsock_bind: %d, %s", "error"),
                        ("%s: sendto: %d, %s", "error"), ("Exemption debugging queue!", "error"),
                        ("CONS: DELETING %s\\n", "terminal"), ("Connected to socket", "debug"),
                        ("all connections are taken", "reason"), ("incorrect crc32", "reason")):
        assert (text, level) in code.said
    assert len(code.said) > 200
