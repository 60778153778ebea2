"""The HTTP port: who is served, and what strangers can do to it."""
import socket
import threading

import pytest

from harness.http_client import Raw, get, with_http
from harness.peers import wait_until
from harness.stopped_thread import thread_names

HEAD_LIMIT = 8192
CONNECTIONS = 64


@pytest.fixture
def daemon(start_gateway, http_port):
    return start_gateway(change=with_http(http_port))


def errors_of(daemon) -> list:
    return [line.split(": ", 1)[1] for line in daemon.syslog() if line.startswith("3 ")]


# --- the configuration

def test_without_the_section_there_is_nothing(gateway):
    assert "rtls-http" not in thread_names(gateway).values()
    assert not [line for line in gateway.syslog() if "http" in line]


def test_it_serves_on_three_threads_of_its_own(daemon, http_port):
    assert get(http_port, "/version").status == 200
    # Each names itself when it begins.
    wait_until(lambda: list(thread_names(daemon).values()).count("rtls-http") == 3, "the names")


def test_it_is_bound_to_this_host_alone(daemon, http_port):
    with open(f"/proc/{daemon.process.pid}/net/tcp") as table:
        listening = [line.split()[1] for line in table if line.split()[3] == "0A"]
    assert f"0100007F:{http_port:04X}" in listening


@pytest.mark.parametrize("section, key", [
    ({}, "port"), ({"port": 0}, "port"), ({"port": 65536}, "port"), ({"port": "80a"}, "port"),
    ({"port": 8080, "address": "localhost"}, "address"),
    ({"port": 8080, "token": "/nowhere"}, "token"), ({"port": 8080, "token": "/dev/null"}, "token"),
    ({"port": 8080, "token": "/"}, "token"), ({"port": 8080, "token": "/etc/passwd"}, "token"),
])
def test_a_section_that_cannot_be_read_keeps_the_daemon_from_starting(start_gateway, section, key):
    daemon = start_gateway(change=lambda config: {**config, "http": section}, upstream=(), wait_ready=False)
    daemon.expected_status = 1
    assert daemon.wait_exit() == 1
    assert any(f'The parameter "http/{key}" is no ' in line for line in errors_of(daemon))


def test_a_port_in_use_ends_the_daemon(start_gateway, http_port):
    with socket.socket() as holder:
        holder.bind(("127.0.0.1", http_port))
        holder.listen()
        daemon = start_gateway(change=with_http(http_port), wait_ready=False)
        daemon.wait_exit()
    assert any(line.startswith(f"http: port {http_port} of 127.0.0.1 cannot be opened") for line in errors_of(daemon))
    assert not daemon.pid_file.exists()


def test_a_daemon_that_follows_another_gets_the_port(daemon, http_port):
    with Raw(http_port) as client:
        client.send(b"GET /version HTTP/1.1\r\nConnection: close\r\n\r\n")
        client.read_to_the_end()
        daemon.restart()
    assert get(http_port, "/version").status == 200


# --- requests

@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "OPTIONS", "PATCH", "TRACE", "BREW", "get"])
def test_nothing_but_get_and_head_is_served(daemon, http_port, method):
    answer = get(http_port, "/livez", method=method, body=b"x" * 100_000)
    assert answer.status == 405
    assert answer.headers["Allow"] == "GET, HEAD"
    assert answer.json["status"] == 405


def test_head_is_get_without_the_body(daemon, http_port):
    whole, head = get(http_port, "/version"), get(http_port, "/version", method="HEAD")
    assert head.status == 200 and head.body == b""
    assert head.headers["Content-Length"] == str(len(whole.body))


@pytest.mark.parametrize("path", ["/", "/nowhere", "/livez/", "/api/v1", "/api/v1/nodes/", "/version%00", "/%2e%2e/etc/passwd",
                                  "/../../etc/passwd", "/" + "a" * 8000, "/%", "/%zz", "/%u0041"])
def test_what_is_not_there_is_said_in_json(daemon, http_port, path):
    answer = get(http_port, path)
    assert answer.status == 404
    assert answer.json["error"] == "there is no such page"


@pytest.mark.parametrize("request_bytes", [
    b"\r\n\r\n", b"GET\r\n\r\n", b"GET /\r\n\r\n", b"GET / HTTP/2.0\r\n\r\n", b"GET / HTTP/1.1 \r\n\r\n",
    b"GET http://elsewhere/ HTTP/1.1\r\n\r\n", b"GET  / HTTP/1.1\r\n\r\n", b"GET /\0 HTTP/1.1\r\n\r\n",
    b"GET / HTTP/1.1\r\nno header\r\n\r\n", b"GET / HTTP/1.1\r\nName : value\r\n\r\n", b"GET / HTTP/1.1\r\n: value\r\n\r\n",
    b"GET / HTTP/1.1\r\nName: a\0b\r\n\r\n", b"GET / HTTP/1.1\r\n" + b"A: b\r\n" * 65 + b"\r\n",
    b"\x16\x03\x01\x02\x00\x01\x00\r\n\r\n",
])
def test_what_is_no_request_is_refused(daemon, http_port, request_bytes):
    with Raw(http_port) as client:
        client.send(request_bytes)
        assert client.read_to_the_end().startswith(b"HTTP/1.1 400 Bad Request\r\n")


def test_a_head_that_is_too_long_is_refused(daemon, http_port):
    with Raw(http_port) as client:
        client.send(b"GET / HTTP/1.1\r\nA: " + b"a" * HEAD_LIMIT)
        assert client.read_to_the_end().startswith(b"HTTP/1.1 431 ")


def test_ranges_encodings_and_expectations_change_nothing(daemon, http_port):
    plain = get(http_port, "/version")
    answer = get(http_port, "/version", headers={
        "Range": "bytes=" + ",".join(["0-"] * 1000), "Accept-Encoding": "gzip, br", "Expect": "100-continue"})
    assert answer.status == 200 and answer.body == plain.body
    assert "Content-Encoding" not in answer.headers and "Content-Range" not in answer.headers


@pytest.mark.threads
def test_requests_in_a_row_are_answered_in_their_order(daemon, http_port):
    with Raw(http_port) as client:
        client.send(b"GET /version HTTP/1.1\r\n\r\nGET /nowhere HTTP/1.1\r\n\r\nGET /version HTTP/1.1\r\n\r\n")
        answers = client.read_answers(3)
    assert [part[:3] for part in answers.split(b"HTTP/1.1 ")[1:]] == [b"200", b"404", b"200"]


def test_a_request_may_come_in_any_pieces(daemon, http_port):
    with Raw(http_port) as client:
        for byte in b"GET /version HTTP/1.1\r\nConnection: close\r\n\r\n":
            client.send(bytes([byte]))
        assert client.read_to_the_end().startswith(b"HTTP/1.1 200 OK\r\n")


def test_http_1_0_gets_one_answer(daemon, http_port):
    with Raw(http_port) as client:
        client.send(b"GET /version HTTP/1.0\r\n\r\n")
        assert client.read_to_the_end().startswith(b"HTTP/1.1 200 OK\r\n")


# --- the token

def test_a_token_is_asked_of_everybody(start_gateway, http_port, tmp_path):
    file = tmp_path / "token"
    file.write_text("s3cret-Token\n")
    start_gateway(change=with_http(http_port, token=file))
    for given in ({}, {"Authorization": "Bearer s3cret-token"}, {"Authorization": "Bearer s3cret-Token2"},
                  {"Authorization": "Bearer s3cret-Toke"}, {"Authorization": "Bearer "}, {"Authorization": "Basic s3cret-Token"}):
        answer = get(http_port, "/livez", headers=given)
        assert answer.status == 401 and answer.headers["WWW-Authenticate"] == "Bearer"
        assert answer.json["status"] == 401
    assert get(http_port, "/livez", headers={"Authorization": "Bearer s3cret-Token"}).status == 200


# --- clients who stand still

def test_a_slow_head_is_given_up(daemon, http_port):
    with Raw(http_port) as client:
        client.send(b"GET /version HTTP/1.1\r\nA: ")
        assert client.read_to_the_end() == b""  # after five seconds


def test_a_crowd_of_idle_connections_keeps_nobody_out(daemon, http_port):
    crowd = [Raw(http_port) for _ in range(1000)]
    try:
        for who in crowd[::2]:
            who.send(b"GET /ver")
        assert get(http_port, "/version").status == 200
        assert descriptors_on(daemon, http_port) <= CONNECTIONS + 1
    finally:
        for who in crowd:
            who.close()


def descriptors_on(daemon, port: int) -> int:
    """How many connections of this port the daemon holds."""
    with open(f"/proc/{daemon.process.pid}/net/tcp") as table:
        lines = [line.split() for line in table][1:]
    inodes = {line[9] for line in lines if line[1].endswith(f":{port:04X}")}
    import os
    links = []
    for fd in os.listdir(f"/proc/{daemon.process.pid}/fd"):
        try:
            links.append(os.readlink(f"/proc/{daemon.process.pid}/fd/{fd}"))
        except OSError:
            pass
    return sum(1 for link in links if link.startswith("socket:[") and link[8:-1] in inodes and link[8:-1] != "0")


def test_clients_who_do_not_read_hold_up_nobody(daemon, http_port):
    stalled = [Raw(http_port, rcvbuf=1024) for _ in range(20)]
    try:
        for who in stalled:
            who.send(b"GET /api/v1/status HTTP/1.1\r\n\r\n" * 200)
        assert get(http_port, "/version").status == 200
    finally:
        for who in stalled:
            who.close()


@pytest.mark.threads
def test_stalled_clients_do_not_hold_up_the_stop(daemon, http_port):
    stalled = [Raw(http_port, rcvbuf=1024) for _ in range(20)]
    for who in stalled[:10]:
        who.send(b"GET /api/v1/status HTTP/1.1\r\n\r\n" * 200)
    for who in stalled[10:]:
        who.send(b"GET /livez HTTP")
    assert get(http_port, "/version").status == 200
    daemon.interrupt()
    assert daemon.wait_exit(deadline=4.9) == 0      # a stop is cut short after five seconds
    for who in stalled:
        who.close()


@pytest.mark.threads
def test_many_clients_at_once_are_all_served(daemon, http_port):
    statuses = []

    def ask():
        for _ in range(50):
            statuses.append(get(http_port, "/api/v1/status").status)

    threads = [threading.Thread(target=ask) for _ in range(16)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert statuses == [200] * 800
    wait_until(lambda: descriptors_on(daemon, http_port) == 1, "all connections to be closed")
