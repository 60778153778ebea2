"""A message is called the same by the daemon's tables, its figures and the decoder."""
import re

from conftest import ROOT

# Figures of what is no message of a known type.
WITHOUT_KIND = {"none", "undecodable", "other", "of_operator"}


def source(path: str) -> str:
    """Without comments."""
    return re.sub(r"//[^\n]*", "", (ROOT / path).read_text())


def body_of(text: str, head: str) -> str:
    """What stands in the braces behind the head, up to the semicolon."""
    return re.search(rf"{re.escape(head)}[^{{;]*\{{(.*?)\}};", text, re.S)[1]


def enumerators(name: str) -> list:
    return re.findall(r"\w+", body_of(source("src/link/win_counters.h"), f"enum class {name} :"))[:-1]  # without `kinds`


def figures(file: str, of: str) -> list:
    return re.findall(r'"(\w+)"', body_of(source(f"src/metrics/{file}.cpp"), f"names_of<{of}>"))


def dispatched(file: str, table: str, of: str) -> dict:
    """The kind of each type that has a row, as its figures call it."""
    return dict(re.findall(rf"\{{(MSG_\w+), {of}::(\w+)", body_of(source(file), f"{table}[]")))


def decoded(table: str) -> list:
    """Type, kind and parts of each row of the decoder's table."""
    rows = body_of(source("libs/decode/src/impl/layouts.cpp"), f"message_layout {table}[]")
    found = re.findall(r'\{"(\w+)",\s*(MSG_\w+),[^{}]*?(\w+)\}', rows)
    assert len(found) == rows.count("{")
    return [(message, kind, parts) for kind, message, parts in found]


def test_figures_are_called_as_what_they_count():
    assert figures("bridge_rows", "message_type") == enumerators("message_type")
    assert figures("command_rows", "command_type") == enumerators("command_type")


def test_the_decoder_calls_a_message_as_its_figures_do():
    rows = decoded("timed_rows")
    handled = {kind for _, kind, parts in rows if parts != "unhandled_parts"} | {"wrap_ts"}
    assert handled == set(figures("bridge_rows", "message_type")) - WITHOUT_KIND
    kinds = {message: kind for message, kind, _ in rows}
    messages = dispatched("src/uplink/messages.cpp", "link_messages", "message_type")
    assert len(messages) > 5
    assert {message: kinds.get(message) for message in messages} == messages
    for table in ("forwarded_rows", "report_rows"):
        assert all(kinds[message] == kind for message, kind, _ in decoded(table)), table


def test_the_decoder_calls_a_command_as_its_figures_do():
    kinds = {message: kind for message, kind, _ in decoded("command_rows")}
    assert set(kinds.values()) == set(figures("command_rows", "command_type")) - WITHOUT_KIND
    assert kinds == dispatched("src/downlink/win_server_pub_sub_proxy.cpp", "proxy_commands", "command_type")
