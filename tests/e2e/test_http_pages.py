"""The pages of the HTTP port: health, and what the gateway knows of bridges, nodes, operators and firmware."""
import time

import pytest

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import get, with_http
from harness.peers import wait_until
from harness.stopped_thread import StoppedThread, thread_id


@pytest.fixture
def daemon(http_gateway):
    return http_gateway


def api(http_port, path, status=200, **kw):
    answer = get(http_port, "/api/v1/" + path, **kw)
    assert answer.status == status, answer.body
    return answer.json


def check_of(answer, name):
    return next((check for check in answer.json["checks"] if check["name"] == name), None)


# --- health

def test_a_daemon_that_turns_lives(daemon, http_port):
    answer = get(http_port, "/livez?verbose")
    assert answer.status == 200
    assert answer.json["status"] == "ok"
    assert [check["name"] for check in answer.json["checks"]] == ["WIN server loop", "terminal server loop", "log thread"]
    assert all(check["ok"] for check in answer.json["checks"])
    assert get(http_port, "/livez").json == {"status": "ok", "checks": []}


@pytest.mark.parametrize("thread, name", [("rtls-win", "WIN server loop"), ("rtls-terminal", "terminal server loop")])
def test_a_loop_that_stands_is_told_and_forgiven(daemon, http_port, thread, name):
    with StoppedThread(thread_id(daemon, thread)):
        wait_until(lambda: get(http_port, "/livez").status == 503, "the loop to be missed")
        answer = get(http_port, "/livez")
        assert answer.json["status"] == "unavailable"
        assert [check["name"] for check in answer.json["checks"]] == [name]
        assert check_of(answer, name)["turned_ms_ago"] >= 3000
    wait_until(lambda: get(http_port, "/livez").status == 200, "the loop to turn again")


def test_pages_that_need_a_loop_that_stands_say_so(daemon, http_port):
    with StoppedThread(thread_id(daemon, "rtls-terminal")):
        assert api(http_port, "operators", 503)["error"] == "the terminal server does not answer"
        assert get(http_port, "/version").status == 200
    with StoppedThread(thread_id(daemon, "rtls-win")):
        assert api(http_port, "firmware", 503)["error"] == "the WIN server does not answer"
    wait_until(lambda: get(http_port, "/api/v1/firmware").status == 200, "the loop to turn again")


def test_it_is_not_ready_while_a_server_upstream_is_away(start_gateway, http_port):
    daemon = start_gateway(change=with_http(http_port), upstream=("broker", "proxy", "proxy_input"))
    wait_until(lambda: (check_of(get(http_port, "/readyz"), "message handler") or {}).get("last_reason"), "a reason")
    answer = get(http_port, "/readyz")
    assert answer.status == 503
    missing = check_of(answer, "message handler")
    assert missing["up"] is False and missing["since"] is None and missing["connections"] == 0
    assert missing["last_reason"] == "nobody answers"
    assert get(http_port, "/livez").status == 200
    daemon.start_handler()
    wait_until(lambda: get(http_port, "/readyz").status == 200, "the handler")
    verbose = get(http_port, "/readyz?verbose")
    assert [check["name"] for check in verbose.json["checks"]] == ["serving", "message handler", "proxy", "proxy input"]
    assert check_of(verbose, "message handler")["connections"] == 1


@pytest.mark.threads
def test_a_server_that_goes_is_missed(daemon, http_port):
    daemon.handler.close()
    wait_until(lambda: get(http_port, "/readyz").status == 503, "the handler to be missed")
    missing = check_of(get(http_port, "/readyz"), "message handler")
    assert missing["last_reason"] and missing["since"].endswith("Z")
    now = Figures(http_port)
    assert now["upstream_link_failures_total", {"link": "message_handler", "reason": "lost"}] == 1
    assert now.sum("upstream_link_failures_total") == 1
    assert time.time() - 60 < now["upstream_link_since_timestamp_seconds", {"link": "message_handler"}] <= time.time()


@pytest.mark.threads
def test_the_start_can_be_watched(start_gateway, http_port, tmp_path):
    """The door is open before the servers serve."""
    hold = tmp_path / "hold"
    hold.touch()
    win_port = free_port()
    daemon = start_gateway(change=with_http(http_port), wait_ready=False, ports={"win": win_port},
                           env={"RTLS_HELD_PORT": str(win_port), "RTLS_HELD_FILE": str(hold)})
    wait_until(lambda: answer_or_nothing(http_port), "the door")
    answer = get(http_port, "/readyz?verbose")
    assert answer.status == 503 and check_of(answer, "serving")["ok"] is False
    assert not daemon.pid_file.exists()
    hold.unlink()
    daemon.wait_ready()
    daemon.proxy.wait_subscribed()
    wait_until(lambda: get(http_port, "/readyz").status == 200, "the links")
    assert check_of(get(http_port, "/readyz?verbose"), "serving")["ok"] is True


def answer_or_nothing(http_port) -> bytes:
    try:
        return get(http_port, "/readyz").body
    except OSError:
        return b""


# --- what the gateway knows

@pytest.mark.threads
def test_bridges_and_their_nodes(daemon, http_port):
    bridge_mac, node_mac = wire.mac(0x0101), wire.mac(0x0102)
    bridge = daemon.bridge(bridge_mac)
    bridge.introduce()
    bridge.send_message(wire.heartbeat(node_mac, 1, bridge=bridge_mac, addr=wire.ip(7), parent=bridge_mac, role=0x21, sw=0x0A0B0C0D))
    bridge.barrier()

    bridges = api(http_port, "bridges")["bridges"]
    assert len(bridges) == 1
    assert bridges[0]["mac"].replace(":", "") == bridge_mac.hex()
    assert bridges[0]["address"] == "127.0.0.1" and bridges[0]["port"] == bridge.port
    assert bridges[0]["nodes"] == 2

    node = api(http_port, "nodes/" + node_mac.hex())
    assert node["mac"].replace(":", "") == node_mac.hex()
    assert node["bridge"] == bridges[0]["mac"] and node["parent"] == bridges[0]["mac"]
    assert (node["role"], node["state"], node["status"]) == ("fixed", 0x20, "connected")
    assert (node["x"], node["y"], node["z"], node["z_offset"]) == (1000, -2000, 300, -40)
    assert node["software"] == "0a0b0c0d" and node["address"].startswith("fd00::")
    assert 0 < node["lifetime_s"] <= 65535 and node["last_activity"].endswith("Z")
    assert api(http_port, "nodes/" + node["mac"]) == {**node, "lifetime_s": api(http_port, "nodes/" + node["mac"])["lifetime_s"]}
    assert api(http_port, "nodes/0011223344556677", 404)["error"] == "there is no such node"
    assert api(http_port, "nodes/0011", 400)["error"] == "a MAC has 16 hex digits"

    bridge.close()
    wait_until(lambda: not api(http_port, "bridges")["bridges"], "the bridge to be gone")
    assert api(http_port, "nodes/" + node_mac.hex())["status"] == "floating"
    assert api(http_port, "status")["nodes"] == {"total": 2, "connected": 0, "floating": 2, "expired": 0}


@pytest.fixture
def many_nodes(daemon):
    """Two bridges with 150 and 50 nodes; the MACs' ends count through."""
    bridges = []
    for number, (first, count) in enumerate([(0x2000, 150), (0x3000, 50)]):
        bridge = daemon.bridge(wire.mac(0x1000 + number))
        bridge.introduce()
        for i in range(count):
            bridge.send_message(wire.heartbeat(wire.mac(first + i), 1, bridge=bridge.mac, addr=wire.ip(first + i)))
        bridge.barrier()
        bridges.append(bridge)
    return bridges


@pytest.mark.threads
def test_nodes_come_in_pages_in_the_order_of_their_macs(many_nodes, http_port):
    macs, after = [], ""
    for size in (100, 100, 2):
        found = api(http_port, "nodes?limit=100" + after)
        assert found["matching"] == 202 and len(found["nodes"]) == size
        macs += [node["mac"].replace(":", "") for node in found["nodes"]]
        after = f"&after={found['next']}"
    assert found["next"] is None
    assert macs == sorted(macs) and len(set(macs)) == 202


@pytest.mark.parametrize("query, matching", [
    ("", 202), ("?state=connected", 202), ("?state=expired", 0), ("?state=floating", 0),
    ("?bridge=" + wire.mac(0x1000).hex(), 151), ("?bridge=" + wire.mac(0x1001).hex(), 51),
    ("?bridge=" + wire.mac(0x2000).hex(), 0), ("?text=560020", 150), ("?text=CD560030", 50), ("?text=bridge", 202),
    ("?text=BILE", 0), ("?bridge=" + wire.mac(0x1000).hex() + "&text=200A", 1), ("?text=%00", 0), ("?text=%FF", 0),
    ("?text=3344:0030", 0), ("?text=fd00::", 202),
])
def test_nodes_are_filtered(many_nodes, http_port, query, matching):
    found = api(http_port, "nodes" + query)
    assert found["matching"] == matching
    assert len(found["nodes"]) == min(matching, 100)


@pytest.mark.parametrize("query, fault", [
    ("limit=0", '"limit" must be'), ("limit=1001", '"limit" must be'), ("limit=-1", '"limit" must be'),
    ("limit=9999999999999999999999", '"limit" must be'), ("limit=1x", '"limit" must be'), ("state=dead", '"state" must be'),
    ("bridge=12", '"bridge" must be'), ("after=zz", '"after" must be'), ("page=1", 'there is no parameter "page"'),
    ("%FF=1", "there is no parameter"),
])
def test_parameters_that_cannot_be_read_are_refused(daemon, http_port, query, fault):
    assert fault in api(http_port, "nodes?" + query, 400)["error"]


@pytest.mark.threads
def test_operators(daemon, http_port):
    operator = daemon.terminal()
    operator.send(b"grep caf\xc3\xa9\xff\n")
    wait_until(lambda: api(http_port, "operators")["operators"][0:1] and api(http_port, "operators")["operators"][0]["filter"], "the filter")
    shown = api(http_port, "operators")["operators"]
    assert len(shown) == 1
    assert shown[0]["address"] == "127.0.0.1" and shown[0]["port"] == operator.port
    assert shown[0]["filter"].startswith("caf\u00e9\ufffd")
    assert shown[0]["waits_for_image"] is False


@pytest.mark.threads
def test_firmware(daemon, http_port, tmp_path):
    assert api(http_port, "firmware") == {"slots": 2, "images": [], "announced": None}


def test_the_status(daemon, http_port):
    def all_up():
        """With the debug broker, which is no part of being ready, and not listed before it came or failed."""
        links = api(http_port, "status")["links"]
        return len(links) == 4 and all(link["up"] for link in links)
    wait_until(all_up, "the links")
    status = api(http_port, "status")
    assert status["serving"] is True and status["version"] == get(http_port, "/version").json["version"]
    assert [link["name"] for link in status["links"]] == ["message handler", "proxy", "proxy input", "debug broker"]
    assert status["bridges"] == 0 and status["uptime_s"] >= 0
    assert status["log"]["queued"] > 0 and status["log"]["lost"] == 0
