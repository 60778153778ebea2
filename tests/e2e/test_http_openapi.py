"""docs/openapi.json against the answers: every page is in it, and every answer is as it says."""
import json
import struct
import zlib

import jsonschema
import pytest

from harness import wire
from harness.daemon import ROOT
from harness.http_client import get, with_http
from harness.peers import wait_until
from test_firmware import image, node_crc, web  # noqa: F401

API = json.loads((ROOT / "docs" / "openapi.json").read_text())
SOURCE = (ROOT / "src" / "http" / "http_server.cpp").read_text()


def check(path: str, answer):
    """The answer to a path of the description."""
    response = API["paths"][path]["get"]["responses"][str(answer.status)]
    kind = answer.headers["Content-Type"]
    assert kind in response["content"], f"{path} answers {kind}"
    if kind == "application/json":
        schema = {**response["content"][kind]["schema"], "components": API["components"]}
        jsonschema.validate(json.loads(answer.body), schema, cls=jsonschema.Draft202012Validator,
                            format_checker=jsonschema.FormatChecker())


def test_the_description_is_in_order():
    assert API["openapi"] == "3.1.0"
    for schema in API["components"]["schemas"].values():
        jsonschema.Draft202012Validator.check_schema(schema)


def test_every_page_is_described():
    import re
    served = set(re.findall(r'\{"(/[^"]*)"', SOURCE))
    described = {re.sub(r"\{.*\}$", "", path) for path in API["paths"]}
    assert served == described
    for path in API["paths"].values():     # whatever the page: no token, and too many requests, or memory too short for one
        assert {"401", "503"} <= set(path["get"]["responses"])


@pytest.fixture
def daemon(http_gateway, http_port):
    """With a bridge, nodes of every state and an operator."""
    daemon = http_gateway
    bridge, gone = daemon.bridge(wire.mac(0x0101)), daemon.bridge(wire.mac(0x0201))
    for one in (bridge, gone):
        one.introduce()
        for i in range(3):
            one.send_message(wire.heartbeat(wire.mac(0x1000 + 16 * one.mac[7] + i + 256 * one.mac[6]), 1, bridge=one.mac,
                                            addr=wire.ip(i), role=0x10 + i, parent=one.mac))
        one.barrier()
    gone.close()
    daemon.bridge()  # one that never names itself
    daemon.terminal().send(b"grep a\n")
    wait_until(lambda: [one for one in get(http_port, "/api/v1/operators").json["operators"] if one["filter"]], "the filter")
    return daemon


@pytest.mark.parametrize("path, target, status", [
    ("/livez", "/livez", 200), ("/livez", "/livez?verbose", 200), ("/readyz", "/readyz", 200), ("/readyz", "/readyz?verbose", 200),
    ("/version", "/version", 200), ("/metrics", "/metrics", 200), ("/api/v1/status", "/api/v1/status", 200),
    ("/api/v1/bridges", "/api/v1/bridges", 200), ("/api/v1/nodes", "/api/v1/nodes", 200),
    ("/api/v1/nodes", "/api/v1/nodes?limit=2", 200), ("/api/v1/nodes", "/api/v1/nodes?limit=0", 400),
    ("/api/v1/nodes/{mac}", "/api/v1/nodes/" + wire.mac(0x0101).hex(), 200),
    ("/api/v1/nodes/{mac}", "/api/v1/nodes/" + wire.mac(0x9999).hex(), 404), ("/api/v1/nodes/{mac}", "/api/v1/nodes/x", 400),
    ("/api/v1/operators", "/api/v1/operators", 200), ("/api/v1/firmware", "/api/v1/firmware", 200),
])
def test_answers_are_as_described(daemon, http_port, path, target, status):
    answer = get(http_port, target)
    assert answer.status == status
    check(path, answer)


def test_images_are_as_described(daemon, http_port, web):  # noqa: F811
    """In the store, by an operator, and announced to bridges, by a server."""
    data = image(0xCAFE0001, 1000, 128, board=(3, 4), pages=64)
    daemon.terminal().command(f"fw get {web.serve('/i.bin', data)}", "\n")
    url = web.serve("/obn-node.0102A0FF.bin", image(size=700))
    daemon.proxy.publish(struct.pack(">HIIH", wire.FW_IMAGE_AVAIL, 0x01020304, 0, len(url)) + url.encode())
    answer = wait_until(lambda: (now := get(http_port, "/api/v1/firmware")).json["announced"] and now, "the announced image")
    check("/api/v1/firmware", answer)
    assert answer.json == {
        "slots": 2,
        "images": [{"index": 0, "git_id": "CAFE0001", "crc32": f"{zlib.crc32(data):08X}", "size": 1000, "page_size": 128,
                    "pages": 8, "maximum_pages": 64, "board_version": 3, "board_revision": 4}],
        "announced": {"version": "0102A0FF", "crc32": f"{node_crc(image(size=700)):08X}", "size": 700}}


def test_the_other_format_is_described_too(daemon, http_port):
    check("/metrics", get(http_port, "/metrics", headers={"Accept": "application/openmetrics-text"}))


def test_refusals_are_as_described(start_gateway, http_port, tmp_path):
    (tmp_path / "token").write_text("t")
    start_gateway(change=with_http(http_port, token=tmp_path / "token"), upstream=("broker", "proxy", "proxy_input"))
    for path in API["paths"]:
        answer = get(http_port, path.replace("{mac}", "0011223344556677"))
        assert answer.status == 401
        check(path, answer)
    answer = get(http_port, "/readyz", headers={"Authorization": "Bearer t"})
    assert answer.status == 503
    check("/readyz", answer)
