"""What is shipped in monitoring/: alert rules by promtool, and the dashboard by a real Prometheus that scrapes a daemon."""
import re
import shutil
import subprocess

import pytest

from harness import wire
from harness.daemon import ROOT
from harness.http_client import with_http
from harness.peers import wait_until
from harness.prometheus import DASHBOARD, MONITORING, Prometheus, with_variables

FIGURE = re.compile(r"\b(?:rtls_gateway|process)_[a-z_]+")


def promtool(*arguments):
    assert shutil.which("promtool"), "scripts/install-deps test"
    return subprocess.run(["promtool", *map(str, arguments)], capture_output=True, text=True, timeout=120)


def test_the_rules_are_in_order():
    checked = promtool("check", "rules", MONITORING / "alerts.yml")
    assert checked.returncode == 0, checked.stdout + checked.stderr


def test_the_rules_fire_when_they_should():
    tested = promtool("test", "rules", MONITORING / "alerts_test.yml")
    assert tested.returncode == 0, tested.stdout + tested.stderr


def test_every_rule_is_tested_both_ways():
    alerts = set(re.findall(r"alert: (\w+)", (MONITORING / "alerts.yml").read_text()))
    fires, rests = (MONITORING / "alerts_test.yml").read_text().split("a gateway that works raises none")
    assert set(re.findall(r"alertname: (\w+)\s+exp_alerts:\s+- exp_labels: ", fires)) == alerts
    assert set(re.findall(r"alertname: (\w+),?\s+exp_alerts: \[\]", rests)) == alerts


def queries():
    for panel in DASHBOARD["panels"]:
        for target in panel.get("targets", ()):
            yield panel["title"], target["expr"]


def test_figures_of_dashboard_and_rules_exist():
    table = {name for source in (ROOT / "src" / "metrics").glob("*.cpp") for name in FIGURE.findall(source.read_text())}
    used = set(FIGURE.findall((MONITORING / "alerts.yml").read_text()))
    for _, query in queries():
        used |= set(FIGURE.findall(query))
    assert {re.sub(r"_bucket$", "", name) for name in used} <= table


ROW = re.compile(r"^\| `((?:rtls_gateway|process)_[a-z_]+)(?:\{([a-z,]+)\})?` \| (\w+) \|", re.M)
OF_PROMETHEUS = {"instance", "job"}


def test_labels_of_the_dashboard_exist():
    """docs/metrics.md is held against the table by a unit test. A label that no figure has selects nothing, or sums
    everything: the query is answered all the same."""
    labels_of = {}
    for name, labels, kind in ROW.findall((ROOT / "docs" / "metrics.md").read_text()):
        labels_of[name] = set(filter(None, labels.split(",")))
        if kind == "histogram":
            labels_of[name + "_bucket"] = labels_of[name] | {"le"}
    assert len(labels_of) > 50
    for panel in DASHBOARD["panels"]:
        for target in panel.get("targets", ()):
            query = target["expr"]
            known = set().union(*(labels_of[name] for name in FIGURE.findall(query))) | OF_PROMETHEUS
            for name, selected in re.findall(r"\b((?:rtls_gateway|process)_[a-z_]+)\{([^}]*)\}", query):
                assert set(re.findall(r"(\w+)\s*(?:=|!)", selected)) <= labels_of[name] | OF_PROMETHEUS, query
            grouped = ", ".join(re.findall(r"\b(?:by|without|on|ignoring)\s*\(([^)]*)\)", query))
            assert set(re.findall(r"\w+", grouped)) <= known, query
            assert set(re.findall(r"\{\{\s*(\w+)\s*\}\}", target.get("legendFormat", ""))) <= known, target


@pytest.fixture
def daemon(start_gateway, http_port):
    return start_gateway(change=with_http(http_port))


@pytest.fixture
def prometheus(daemon, http_port, tmp_path):
    prometheus = Prometheus(tmp_path, http_port)
    yield prometheus
    prometheus.close()


def test_every_query_of_the_dashboard_is_answered(daemon, prometheus):
    bridge = daemon.bridge(wire.mac(0x0101))
    bridge.introduce()
    missing = {with_variables(query): title for title, query in queries()}
    assert len(missing) > 40
    seq = 1

    def all_answered():
        nonlocal seq
        seq = seq % 250 + 1
        bridge.send_message(wire.heartbeat(bridge.mac, seq, bridge=bridge.mac, addr=wire.ip(1)))
        daemon.proxy.publish(wire.generic_req(bytes([seq]) * 4, bridge.mac, seq))
        for query in list(missing):
            if prometheus.query(query):
                del missing[query]
        return not missing

    try:
        wait_until(all_answered, "answers", deadline=90)
    except AssertionError:
        raise AssertionError(f"no answer to {missing}") from None
    # A scrape that a busy machine makes late has failed; the one after it has not.
    wait_until(lambda: [(target["health"], target["lastError"]) for target in prometheus.targets()] == [("up", "")], "a scrape")
    assert prometheus.query('rtls_gateway_build_info{job="rtls-gateway"}')
    # What Prometheus itself says of a scrape, with all that it does.
    assert float(prometheus.query("scrape_samples_scraped")[0]["value"][1]) > 100


def test_every_rule_is_evaluated(daemon, prometheus):
    """By itself, and with no error: a rule that cannot be evaluated never fires."""
    named = set(re.findall(r"alert: (\w+)", (MONITORING / "alerts.yml").read_text()))

    def all_healthy():
        rules = prometheus.rules()
        assert not [rule for rule in rules if rule["health"] == "err"], rules
        return {rule["name"] for rule in rules if rule["health"] == "ok"} == named
    wait_until(all_healthy, "the rules")
    for rule in prometheus.rules():
        prometheus.query(rule["query"])
