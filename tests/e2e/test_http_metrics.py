"""/metrics: both formats, and what promtool says to them."""
import re
import shutil
import subprocess

import pytest

from harness import wire
from harness.http_client import get
from harness.peers import wait_until

OPEN_METRICS = "application/openmetrics-text"
# What a Prometheus of today asks for.
PROMETHEUS_ACCEPT = ("application/openmetrics-text;version=1.0.0,application/openmetrics-text;version=0.0.1;q=0.75,"
                     "text/plain;version=0.0.4;q=0.5,*/*;q=0.1")
SAMPLE = re.compile(r'^([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(.*)\})? (\S+)$')
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"(?:,|$)')
# Figures of two scrapes may differ by what the scrapes themselves do.
RESTLESS = ("process_", "rtls_gateway_process", "rtls_gateway_loop", "rtls_gateway_timer")


@pytest.fixture
def daemon(http_gateway):
    bridge = http_gateway.bridge(wire.mac(0x0101))
    bridge.introduce()
    bridge.send_message(wire.heartbeat(wire.mac(0x0102), 1, bridge=bridge.mac, addr=wire.ip(7)))
    bridge.barrier()
    return http_gateway


def scrape(http_port, accept=None):
    answer = get(http_port, "/metrics", headers={"Accept": accept} if accept else {})
    assert answer.status == 200
    return answer.headers["Content-Type"], answer.body.decode()


def samples(text: str) -> dict:
    """Values by (name, labels)."""
    found = {}
    for line in text.splitlines():
        if line.startswith("#"):
            continue
        match = SAMPLE.match(line)
        assert match, line
        name, labels, value = match.groups()
        pairs = tuple(sorted(LABEL.findall(labels or "")))
        assert len(",".join(f'{n}="{v}"' for n, v in LABEL.findall(labels or ""))) == len(labels or ""), line
        assert (name, pairs) not in found, f"twice: {line}"
        found[name, pairs] = float(value)
    return found


@pytest.mark.parametrize("accept, is_open", [
    (None, False), ("*/*", False), ("text/plain", False), ("text/html", False), (PROMETHEUS_ACCEPT, True), (OPEN_METRICS, True),
    (OPEN_METRICS + "; version=1.0.0; charset=utf-8", True), (OPEN_METRICS + ";version=2.0.0", False),
    (OPEN_METRICS + ";q=0", False), (OPEN_METRICS + ";q=0.3,text/plain;q=0.5", False),
    ("text/plain;q=0.3 , " + OPEN_METRICS + " ; q=0.5", True), (";;;,,q=,=", False), (OPEN_METRICS + ";q=nonsense", False),
])
def test_the_format_is_the_one_that_is_asked_for(daemon, http_port, accept, is_open):
    kind, text = scrape(http_port, accept)
    assert kind == ("application/openmetrics-text; version=1.0.0; charset=utf-8" if is_open
                    else "text/plain; version=0.0.4; charset=utf-8")
    assert text.endswith("\n# EOF\n") == is_open


def test_promtool_finds_nothing_to_say(daemon, http_port):
    assert shutil.which("promtool"), "scripts/install-deps test"
    _, text = scrape(http_port)
    checked = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True, text=True, timeout=60)
    assert (checked.returncode, checked.stdout, checked.stderr) == (0, "", ""), checked.stdout + checked.stderr


def test_both_formats_say_the_same(daemon, http_port):
    def steady(text):
        return {key: value for key, value in samples(text).items()
                if not key[0].startswith(RESTLESS) and "seconds" not in key[0] and "log" not in key[0]}
    broker = "rtls_gateway_upstream_link_up", (("link", "debug_broker"),)    # no part of being ready
    wait_until(lambda: samples(scrape(http_port)[1])[broker] == 1, "the debug broker")
    plain, opened = steady(scrape(http_port)[1]), steady(scrape(http_port, OPEN_METRICS)[1])
    assert plain == opened and len(plain) > 100


def test_open_metrics_is_in_order(daemon, http_port):
    """The rules of the format that a Prometheus does not check: each family once, its type first, units, and the suffixes of
    its samples."""
    _, text = scrape(http_port, OPEN_METRICS)
    lines = text.splitlines()
    assert lines[-1] == "# EOF" and "" not in lines
    family, kind, seen = None, None, set()
    suffixes = {"counter": ("_total",), "gauge": ("",), "histogram": ("_bucket", "_sum", "_count")}
    for line in lines[:-1]:
        if line.startswith("# "):
            _, what, name, rest = line.split(" ", 3)
            if name != family:
                assert name not in seen, f"{name} comes twice"
                seen.add(name)
                family, kind = name, None
            if what == "TYPE":
                kind = rest
            if what == "UNIT":
                assert name.endswith("_" + rest)
        else:
            name = SAMPLE.match(line).group(1)
            assert name in {family + suffix for suffix in suffixes[kind]}, line


@pytest.mark.threads
def test_histograms_are_whole(daemon, http_port):
    found = samples(scrape(http_port, OPEN_METRICS)[1])
    groups = {}
    for (name, labels), value in found.items():
        if name.endswith("_bucket"):
            rest = tuple(pair for pair in labels if pair[0] != "le")
            groups.setdefault((name[:-7], rest), []).append((dict(labels)["le"], value))
    assert groups
    for (name, labels), buckets in groups.items():
        bounds = [float(bound) for bound, _ in buckets]
        assert bounds == sorted(bounds) and buckets[-1][0] == "+Inf"
        counts = [count for _, count in buckets]
        assert counts == sorted(counts) and counts[-1] == found[name + "_count", labels]
        assert (name + "_sum", labels) in found


@pytest.mark.threads
def test_figures_move_with_what_they_count(daemon, http_port):
    def value(name, **labels):
        return samples(scrape(http_port)[1]).get((name, tuple(sorted(labels.items()))), 0)
    assert value("rtls_gateway_bridges") == 1
    bridge = daemon.bridge(wire.mac(0x0201))
    bridge.introduce()
    bridge.barrier()
    wait_until(lambda: value("rtls_gateway_bridges") == 2, "the second bridge to be counted")
    assert value("rtls_gateway_bridges_accepted_total") == 2


@pytest.mark.parametrize("leave", [lambda operator: operator.send(b"quit\n"), lambda operator: operator.close()],
                         ids=["quit", "close"])
def test_operators_who_leave_are_no_longer_counted(daemon, http_port, leave):
    def operators():
        return samples(scrape(http_port)[1])["rtls_gateway_operators", ()]
    before = operators()
    operator = daemon.terminal()
    wait_until(lambda: operators() == before + 1, "the operator to be counted")
    leave(operator)
    wait_until(lambda: operators() == before, "him to be gone")
