"""What a soak is judged by: counts that must be equal, log lines that must be explained, figures that must not grow.

Each function takes what was seen, and returns what is wrong with it, a line each: nothing when all is well."""
import re
import statistics

LONG_RUN = 1800     # seconds

# The lines of the simulator's summary that are held against the daemon's figures.
SUMMARY = {
    "connections": r"^bridges: connections (\d+) ",
    "messages up": r"^bridges: .* messages up (\d+) ",
    "messages down": r"^bridges: .* down (\d+)$",
    "received": r"^servers: received (\d+) ",
    "lines": r"^servers: .* of these lines (\d+) ",
    "published": r"^servers: .* commands published (\d+)$",
    "acks": r"^acks: wanted \d+  received (\d+) ",
    "page requests": r"^  ota page request +sent +(\d+)",
}


def read_summary(output: list) -> dict:
    """What the simulator says that it sent and got. A count that it does not mention is 0 (page requests), or missing."""
    counts = {"page requests": 0}
    for line in output:
        for name, pattern in SUMMARY.items():
            if found := re.search(pattern, line):
                counts[name] = int(found[1])
    return counts


def differences(simulator: dict, own: dict, figures) -> list:
    """`simulator`: read_summary's. `own`: what the soak itself did. `figures`: the daemon's, when all has settled."""
    missing = [f"the simulator does not say: {name}" for name in SUMMARY if name not in simulator]
    if missing:
        return missing
    commands = figures.sum("commands_total") - figures.sum("commands_total", type="of_operator")
    pairs = [
        ("bridges' connections", simulator["connections"], figures.sum("bridges_accepted_total")),
        ("messages from bridges", simulator["messages up"], figures["bridge_frames_total", {"direction": "in"}]),
        ("messages by type", simulator["messages up"], figures.sum("messages_total")),
        ("messages by outcome", simulator["messages up"], figures.sum("message_outcomes_total")),
        ("reports at the message handler", simulator["received"] - simulator["lines"],
         figures["reports_handed_over_total", {"queue": "message_handler"}]),
        ("lines at the proxy input", simulator["lines"],
         figures["reports_handed_over_total", {"queue": "proxy_input"}]),
        ("reports forwarded", simulator["received"], figures["message_outcomes_total", {"outcome": "report"}] +
         figures["message_outcomes_total", {"outcome": "line"}]),
        ("reports lost", 0, figures.sum("reports_lost_total")),
        ("acknowledgements", simulator["acks"], figures.sum("acknowledgements_total")),
        ("commands of servers", simulator["published"], commands),
        ("requests for pages", simulator["page requests"], figures.sum("page_requests_total")),
        ("frames lost", 0, figures.sum("bridge_frames_lost_total")),
        ("bytes outside of frames", 0, figures.sum("bridge_noise_bytes_total")),
        ("messages for bridges lost", 0, figures.sum("bridge_messages_lost_total")),
        ("log lines lost", 0, figures.sum("log_lines_lost_total")),
        ("operators", own["operators"], figures.sum("operators_accepted_total")),
        ("operators who are still there", 0, figures["operators", {}]),
        ("commands of operators", own["operators' orders"], figures.sum("commands_total", type="of_operator")),
        ("images", own["images"], figures["downloads_total", {"outcome": "complete"}]),
        ("downloads that went wrong", 0, figures.sum("downloads_total") -
         figures["downloads_total", {"outcome": "complete"}]),
        ("discovery requests", own["discoveries"], figures["discovery_requests_total", {"outcome": "answered"}]),
    ]
    wrong = [f"{name}: {ours:,} by our count, {theirs:,} by the daemon's" for name, ours, theirs in pairs if ours != theirs]
    # A bridge that goes takes along what was told to all bridges at that moment: once a connection at most.
    sent = figures["bridge_frames_total", {"direction": "out"}]
    if not 0 <= sent - simulator["messages down"] <= simulator["connections"]:
        wrong.append(f"messages to bridges: {simulator['messages down']:,} came, {sent:,} by the daemon's count")
    return wrong


def read_patterns(text: str) -> list:
    """One regular expression a line; lines that begin with # are for the reader."""
    return [re.compile(line) for line in text.splitlines() if line and not line.startswith("#")]


def unexplained(lines: list, patterns: list, most_shown: int = 20) -> list:
    """Lines of the log that no pattern matches as a whole."""
    odd = [line for line in lines if not any(pattern.fullmatch(line) for pattern in patterns)]
    shown = [f"unexplained log line: {line}" for line in odd[:most_shown]]
    return shown + ([f"... and {len(odd) - most_shown} more"] if len(odd) > most_shown else [])


def memory_room(seconds: float, connections: int) -> float:
    """How many KiB the daemon may grow by. In a long run what it needs once is there when the warm-up ends, and a little for
    each connection would show; a short one sees the allocator fill its arenas."""
    return 1024 + connections * 200 / 1024 if seconds >= LONG_RUN else 4 << 10


def growth(what: str, samples: list, room: float, least: int = 8) -> list:
    """`samples` were taken at even intervals, after the warm-up. What the last quarter has above the first one, by their
    medians, must not exceed `room`: what comes and goes is no growth, what stays is."""
    if len(samples) < least:
        return [f"{what}: {len(samples)} samples are too few to judge by"]
    quarter = len(samples) // 4
    first, last = statistics.median(samples[:quarter]), statistics.median(samples[-quarter:])
    if last - first > room:
        return [f"{what} grew from {first:,.0f} to {last:,.0f}, {room:,.0f} are allowed"]
    return []
