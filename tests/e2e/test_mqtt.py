"""rtls-mqtt between a tap and real brokers: what arrives, what is lost and counted, who is let in, what may be ordered."""
import json
import signal
import subprocess

import pytest
import zmq
import zmq.auth

from harness import mqtt, wire
from harness import tap_publisher as taps
from harness.daemon import BUILD, environment, free_port
from harness.peers import DEADLINE, wait_until

PROGRAM = BUILD / "rtls-mqtt"
pytestmark = pytest.mark.skipif(not mqtt.BROKER or not PROGRAM.exists(), reason="without mosquitto, or built without libmosquitto")

NODE, OTHER, BRIDGE = wire.mac(0x1A2B), wire.mac(0x1A2C), wire.mac(0xB001)
SECONDS = 1_700_000_000
CLOCK = SECONDS * 10**9 + 251_500_000
ROOT = "rtls/north"
REBOOT = bytes.fromhex("0e0800" "0006" "0001" "0002" "0000")


def name(mac: bytes) -> str:
    return mac.hex().upper()


def state_of(mac: bytes) -> str:
    return f"{ROOT}/node/{name(mac)}/heartbeat"


class Connector:
    """rtls-mqtt at work, for the gateway "north"."""

    def __init__(self, folder, endpoint: str, port: int, *arguments):
        self.error_file = folder / "rtls-mqtt.txt"
        with open(self.error_file, "wb") as errors:
            self.process = subprocess.Popen(
                [PROGRAM, "--tap", endpoint, "--gateway", "north", "--broker", f"127.0.0.1:{port}", "--retry", "0.1",
                 "--retry-max", "0.2", *map(str, arguments)],
                env=environment(), text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=errors)

    @property
    def errors(self) -> str:
        return self.error_file.read_text()

    def wait_says(self, words: str, times: int = 1):
        wait_until(lambda: self.errors.count(words) >= times or self.process.poll() is not None, words)
        assert self.errors.count(words) >= times, self.errors

    def ended(self, status: int = 0, by=None) -> str:
        if by:
            self.process.send_signal(by)
        out, _ = self.process.communicate(timeout=DEADLINE)
        assert self.process.returncode == status, self.errors
        assert "\x1b" not in out + self.errors and "Sanitizer" not in self.errors
        return out

    def close(self):
        if self.process.poll() is None:
            self.ended(by=signal.SIGKILL, status=-signal.SIGKILL)


@pytest.fixture
def closing():
    """Things to close at the end, the last one first."""
    things = []
    yield lambda thing: things.append(thing) or thing
    for thing in reversed(things):
        thing.close()


@pytest.fixture
def broker(tmp_path, closing):
    return closing(mqtt.Broker(tmp_path))


@pytest.fixture
def connect(tmp_path, closing, tap):
    """Starts rtls-mqtt on the tap; it has subscribed when this returns."""
    def start(port: int, *arguments) -> Connector:
        connector = closing(Connector(tmp_path, tap.endpoint, port, *arguments))
        assert tap.wait_subscribed(2) == {"report/", "event"}
        return connector
    return start


def report(tap, node: bytes, seq: int) -> list:
    return tap.message("report/" + name(node), *taps.report(node, seq, SECONDS, 250, BRIDGE), connection=42, clock_ns=CLOCK)


def event(tap, **members) -> list:
    return tap.message("event", json.dumps(members).encode(), way=2, connection=42, clock_ns=CLOCK)


# --- What arrives

@pytest.mark.parametrize("qos", [0, 1])
def test_reports_and_events_arrive_with_their_values(tap, broker, connect, closing, qos):
    client = closing(mqtt.Client(broker.port, f"{ROOT}/#"))
    connect(broker.port, "--qos", qos)
    tap.publish(event(tap, event="node_new", node=name(NODE), connection=42))
    tap.publish(report(tap, NODE, 7))
    told = {}
    while len(told) < 4:
        message = client.receive()
        told[message.topic] = message.payload if message.topic.endswith("status") else message.json
    assert told[f"{ROOT}/status"] in (b"online", b"offline"), "offline when the broker answers before the tap"
    assert told[f"{ROOT}/losses"].items() >= {"tap": 0, "not_understood": 0, "queue": 0, "cut_off": 0}.items()
    head = {"clock": "2023-11-14T22:13:20.251500Z", "clock_ns": CLOCK, "number": 1, "connection": 42}
    assert told[f"{ROOT}/event/node_new"] == head | {"event": {"event": "node_new", "node": name(NODE), "connection": 42}}
    message = told[state_of(NODE)].pop("message")
    assert told[state_of(NODE)] == head and message.items() >= {
        "direction": "report", "kind": "heartbeat", "seqNo": 7, "long_addr": NODE.hex(), "pos_X": 1500, "pos_Y": -2500,
        "seconds": SECONDS, "milliseconds": 250}.items()


def test_who_comes_later_gets_the_last_state_of_each_node(tap, broker, connect):
    connector = connect(broker.port)
    for seq in (1, 2, 3):
        tap.publish(report(tap, NODE, seq))
        tap.publish(report(tap, OTHER, seq + 10))
    tap.publish(event(tap, event="stopped"))
    early = mqtt.Client(broker.port, f"{ROOT}/#")
    seen = {}
    while seen.get(state_of(OTHER)) != 13 or seen.get(state_of(NODE)) != 3:
        message = early.receive()
        seen[message.topic] = message.json["message"]["seqNo"] if "/node/" in message.topic else None
    early.close()
    connector.ended(by=signal.SIGTERM)
    out = subprocess.run(["mosquitto_sub", "-p", str(broker.port), "-v", "-t", f"{ROOT}/#", "-C", "4", "-W", "20"], env=environment(),
                         text=True, stdout=subprocess.PIPE, check=True).stdout
    told = dict(line.split(" ", 1) for line in out.splitlines())
    assert told.keys() == {state_of(NODE), state_of(OTHER), f"{ROOT}/status", f"{ROOT}/losses"}
    assert json.loads(told[state_of(NODE)])["message"]["seqNo"] == 3 and told[f"{ROOT}/status"] == "offline"


def test_nobody_outside_chooses_a_topic(tap, broker, connect, closing):
    client = closing(mqtt.Client(broker.port, "#"))
    connect(broker.port)
    frames = taps.report(NODE, 1, SECONDS, 250, BRIDGE)
    for topic in ("report/+", "report/#", "report/../../status", "report/" + name(NODE) + "/x", "report/"):
        tap.publish(tap.message(topic, *frames, clock_ns=CLOCK))
    for what in ("a/b", "#", "+", "x" * 65, 7, None):
        tap.publish(event(tap, event=what))
    tap.publish([b"event", b"no head", b"{}"])
    tap.publish(report(tap, NODE, 9))
    client.wait_for(f"{ROOT}/losses", lambda message: message.json["not_understood"] == 6)
    late = closing(mqtt.Client(broker.port, "#"))
    topics = {late.receive().topic for _ in range(3)}
    assert topics == {f"{ROOT}/status", f"{ROOT}/losses", state_of(NODE)}


def test_an_encrypted_tap_is_read_with_the_certificates(tmp_path, broker, closing, start_gateway):
    for made in ("gateway", "watchers"):
        zmq.auth.create_certificates(tmp_path, made)
    endpoint = f"tcp://127.0.0.1:{free_port()}"
    curve = {"certificate": str(tmp_path / "gateway.key_secret"), "tap": str(tmp_path / "watchers.key")}
    start_gateway(change=lambda tree: {**tree, "tap": {"address": endpoint}, "curve": curve})
    client = closing(mqtt.Client(broker.port, f"{ROOT}/#"))
    closing(Connector(tmp_path, endpoint, broker.port, "--certificate", tmp_path / "watchers.key_secret",
                      "--gateway-certificate", tmp_path / "gateway.key"))
    client.wait_for(f"{ROOT}/event/started")


# --- Who is there

def test_the_state_is_that_of_the_tap(tap, broker, connect, closing):
    client = closing(mqtt.Client(broker.port, f"{ROOT}/status"))
    connector = connect(broker.port)
    client.wait_for(f"{ROOT}/status", lambda message: message.payload == b"online")
    tap.close()
    assert client.receive().payload == b"offline"
    connector.wait_says("the tap is gone")


def test_the_broker_tells_when_it_is_killed(broker, connect, closing):
    client = closing(mqtt.Client(broker.port, f"{ROOT}/status"))
    connector = connect(broker.port)
    client.wait_for(f"{ROOT}/status", lambda message: message.payload == b"online")
    connector.ended(by=signal.SIGKILL, status=-signal.SIGKILL)
    assert client.receive().payload == b"offline"
    late = closing(mqtt.Client(broker.port, f"{ROOT}/status"))
    message = late.receive()
    assert message.payload == b"offline" and message.is_retained


@pytest.mark.parametrize("ends", [signal.SIGINT, signal.SIGTERM])
def test_a_proper_end_leaves_nothing_behind(tap, broker, connect, closing, ends):
    client = closing(mqtt.Client(broker.port, f"{ROOT}/#"))
    connector = connect(broker.port, "--json")
    for seq in range(300):
        tap.publish(report(tap, wire.mac(seq), 1))
    client.wait_for(state_of(wire.mac(299)))
    told = json.loads(connector.ended(by=ends))
    assert told.items() >= {"left": 0, "tap": 0, "not_understood": 0, "queue": 0, "cut_off": 0}.items()
    assert told["handed_over"] >= 300
    client.wait_for(f"{ROOT}/status", lambda message: message.payload == b"offline")


# --- Brokers that are away, or slow

def test_a_broker_that_is_killed_and_started_again_gets_what_came_meanwhile(tap, broker, connect, closing):
    connector = connect(broker.port)
    client = mqtt.Client(broker.port, f"{ROOT}/#")
    tap.publish(report(tap, NODE, 1))
    client.wait_for(state_of(NODE))
    client.close()
    broker.kill()
    connector.wait_says("no connection with the broker")
    for seq in range(20):
        tap.publish(report(tap, wire.mac(seq), 2))
    broker.start()
    client = closing(mqtt.Client(broker.port, f"{ROOT}/#"))
    wanted = {state_of(wire.mac(seq)) for seq in range(20)} | {f"{ROOT}/status"}
    while wanted:
        wanted.discard(client.receive().topic)
    connector.wait_says("connected to the broker", times=2)
    connector.ended(by=signal.SIGTERM)


def test_a_broker_that_comes_late_gets_the_latest_and_the_losses(tap, tmp_path, connect, closing):
    broker = closing(mqtt.Broker(tmp_path, is_running=False))
    connector = connect(broker.port, "--queue", 10)
    connector.wait_says("no connection with the broker at 127.0.0.1")
    for seq in range(100):
        tap.publish(report(tap, wire.mac(seq), 1))
    tap.lose("report", 5)
    tap.publish(report(tap, wire.mac(100), 1))
    connector.wait_says("5 messages are missing")
    connector.wait_says("the oldest are given up")
    broker.start()
    client = closing(mqtt.Client(broker.port, f"{ROOT}/#"))
    client.wait_for(f"{ROOT}/losses", lambda message: message.json.items() >= {"tap": 5, "queue": 91}.items())
    late = closing(mqtt.Client(broker.port, f"{ROOT}/node/#"))
    assert {late.receive().topic for _ in range(10)} == {state_of(wire.mac(seq)) for seq in range(91, 101)}
    out = connector.ended(by=signal.SIGTERM, status=4)
    assert out == "" and "96 lost, 0 left" in connector.errors


@pytest.mark.parametrize("qos", [0, 1])
def test_a_broker_that_stands_still_costs_a_bound_and_every_loss_is_counted(tap, broker, connect, closing, qos):
    """With QoS 0 the connection takes what fits into TCP's buffers."""
    connector = connect(broker.port, "--queue", 50, "--qos", qos, "--keep-alive", 60)
    client = closing(mqtt.Client(broker.port, f"{ROOT}/event/#", f"{ROOT}/losses"))
    tap.publish(event(tap, event="first"))
    client.wait_for(f"{ROOT}/event/first")
    broker.pause()
    count = 0
    while "the oldest are given up" not in connector.errors:
        assert count < 100_000
        for _ in range(50):
            tap.publish(event(tap, event="filler", text="x" * 4000))
        count += 50
    broker.resume()
    received = lost = 0
    while received + lost < count:
        message = client.receive()
        if message.topic == f"{ROOT}/losses":
            lost = message.json["queue"] + message.json["tap"]
        else:
            received += 1
    assert received + lost == count and lost > 0
    connector.wait_says("nothing waits any more")


def test_who_does_not_answer_is_not_waited_for_longer_than_told(tmp_path, tap, closing, connect):
    nobody = free_port()
    connector = connect(nobody, "--timeout", 1)
    connector.ended(status=3)
    assert f"no connection with the broker at 127.0.0.1:{nobody}: Connection refused" in connector.errors
    broker = closing(mqtt.Broker(tmp_path))
    connector = closing(Connector(tmp_path, f"tcp://127.0.0.1:{nobody}", broker.port, "--timeout", 0.3))
    connector.ended(status=3)
    assert f"nobody answers at tcp://127.0.0.1:{nobody}" in connector.errors


# --- Who is let in

@pytest.fixture
def guarded(tmp_path, closing):
    passwords = tmp_path / "passwords"
    subprocess.run(["mosquitto_passwd", "-b", "-c", passwords, "ann", "open sesame"], check=True, stdout=subprocess.DEVNULL,
                   stderr=subprocess.DEVNULL)
    return closing(mqtt.Broker(tmp_path, f"password_file {passwords}"))


def login_file(folder, password: str):
    file = folder / "login"
    file.write_text(f"ann\n{password}\n")
    file.chmod(0o600)
    return file


def test_the_password_of_the_file_lets_us_in(tmp_path, tap, guarded, connect, closing):
    client = closing(mqtt.Client(guarded.port, f"{ROOT}/#", login=("ann", "open sesame")))
    connect(guarded.port, "--login", login_file(tmp_path, "open sesame"))
    tap.publish(report(tap, NODE, 1))
    client.wait_for(state_of(NODE))


def test_a_wrong_password_is_told_once_and_tried_again(tmp_path, guarded, connect):
    connector = connect(guarded.port, "--login", login_file(tmp_path, "Correct-horse"))
    wait_until(lambda: guarded.log.read_text().count("not authorised") >= 3, "three attempts")
    connector.ended(by=signal.SIGTERM)
    assert connector.errors.count("not authorised; trying again") == 1 and "Correct-horse" not in connector.errors


def refused(*arguments) -> str:
    done = subprocess.run([PROGRAM, "--tap", "tcp://127.0.0.1:1", *map(str, arguments)], env=environment(), text=True, check=False,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, timeout=DEADLINE)
    assert done.returncode == 2 and done.stderr.startswith("rtls-mqtt: "), (done.stdout, done.stderr)
    return done.stderr


def test_secrets_that_everybody_can_read_are_refused(tmp_path):
    file = login_file(tmp_path, "open sesame")
    file.chmod(0o644)
    assert f"chmod o-rw {file}" in refused("--login", file)
    certificate, key = mqtt.certificate(tmp_path, "own")
    key.chmod(0o644)
    assert f"chmod o-rw {key}" in refused("--client-certificate", certificate, "--client-key", key)


def test_what_cannot_be_used_is_refused(tmp_path):
    nowhere = tmp_path / "nowhere"
    for arguments, says in [(["--ca", nowhere], "cannot be read"), (["--gateway", "a/b"], "no name for topics"), (["--qos", 2], "--qos"),
                            (["--broker", ":"], "--broker"), (["--login", nowhere], "cannot read"), (["--nothing"], "--nothing")]:
        assert says in refused(*arguments)


@pytest.fixture(scope="module")
def certificates(tmp_path_factory) -> dict:
    folder = tmp_path_factory.mktemp("certificates")
    ca = mqtt.certificate(folder, "ca")
    return {"ca": ca, "broker": mqtt.certificate(folder, "broker", ca), "own": mqtt.certificate(folder, "own", ca),
            "strangers": mqtt.certificate(folder, "strangers")}


@pytest.fixture
def encrypted(tmp_path, closing, certificates):
    (ca, _), (own, key) = certificates["ca"], certificates["broker"]
    return closing(mqtt.Broker(tmp_path, f"cafile {ca}", f"certfile {own}", f"keyfile {key}", "require_certificate true"))


def test_with_certificates_the_connection_is_encrypted(tap, encrypted, certificates, connect, closing):
    client = closing(mqtt.Client(encrypted.port, f"{ROOT}/#", tls=mqtt.tls_of(certificates["ca"], certificates["own"])))
    own, key = certificates["own"]
    connector = connect(encrypted.port, "--ca", certificates["ca"][0], "--client-certificate", own, "--client-key", key)
    for seq in range(300):
        tap.publish(report(tap, wire.mac(seq), 1))
    client.wait_for(state_of(wire.mac(299)))
    connector.ended(by=signal.SIGTERM)


def test_a_broker_that_nobody_vouches_for_is_refused(encrypted, certificates, connect):
    own, key = certificates["own"]
    connector = connect(encrypted.port, "--ca", certificates["strangers"][0], "--client-certificate", own, "--client-key", key)
    connector.wait_says("certificate verify failed")
    connector.ended(by=signal.SIGTERM)
    assert "connected to the broker" not in connector.errors


def test_nobody_at_the_port_is_seen_at_once_with_tls_too(certificates, connect):
    """The library alone would ask again and again, without a pause, until the connection has been silent for too long."""
    connector = connect(free_port(), "--ca", certificates["ca"][0])
    connector.wait_says("no connection with the broker")
    connector.ended(by=signal.SIGTERM)
    assert "Connection refused; trying again" in connector.errors or "the connection cannot be made; trying again" in connector.errors


def test_a_broker_refuses_whoever_shows_no_certificate(encrypted, certificates, connect):
    connector = connect(encrypted.port, "--ca", certificates["ca"][0])
    connector.wait_says("no connection with the broker")
    connector.ended(by=signal.SIGTERM)
    assert "connected to the broker" not in connector.errors


# --- Commands

@pytest.fixture
def site(start_gateway, broker, tmp_path, closing):
    """A gateway with a node below a bridge, a client of the broker, and what starts rtls-mqtt between them."""
    endpoint = f"tcp://127.0.0.1:{free_port()}"
    gateway = start_gateway(change=lambda tree: {**tree, "tap": {"address": endpoint}})
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=wire.ip(7), reporting=255))
    bridge.barrier()
    client = closing(mqtt.Client(broker.port, f"{ROOT}/#"))

    def start(*arguments):
        connector = closing(Connector(tmp_path, endpoint, broker.port, *arguments))
        client.wait_for(f"{ROOT}/status", lambda message: message.payload == b"online")
        return connector
    return gateway, bridge, client, start


def test_commands_go_to_the_terminal_when_they_are_allowed(site, broker):
    gateway, bridge, client, start = site
    start("--allow-commands", "--terminal", f"127.0.0.1:{gateway.ports['terminal']}")
    wait_until(lambda: f"{ROOT}/command/+" in broker.log.read_text(), "the subscription")

    def ordered(command: str, given, answered: str = "") -> dict:
        client.publish(f"{ROOT}/command/{command}", given)
        return client.wait_for(f"{ROOT}/answer/{answered or command}").json

    mac = f"{NODE.hex()[:11]}:{NODE.hex()[11:]}"
    assert ordered("reboot", "1A2B") == {"command": "reboot", "given": "1A2B", "done": True, "node": mac}
    assert bridge.receive()[:len(REBOOT)] == REBOOT
    assert ordered("reboot", "9999") == {"command": "reboot", "given": "9999", "done": False, "status": 1, "why": "no node has the MAC 9999"}
    assert ordered("reboot", "1A2B\ndel 1A2B")["status"] == 2
    assert ordered("reboot", b"\xff\x00")["status"] == 2
    assert ordered("explode", "1A2B", "unknown")["why"] == "there is no such command"
    assert "always for node 000A" in ordered("firmware-apply", "1A2B")["why"]
    assert "did not get" in ordered("firmware-get", f"http://127.0.0.1:{free_port()}/none.bin")["why"]
    client.publish(f"{ROOT}/command/delete", NODE.hex())
    told = {message.topic: message.json for message in
            (client.wait_for_one_of(f"{ROOT}/answer/delete", f"{ROOT}/event/node_deleted") for _ in range(2))}
    assert told[f"{ROOT}/answer/delete"]["done"] is True and told[f"{ROOT}/event/node_deleted"]["event"]["node"] == name(NODE)
    assert bridge.barrier() == []


def test_a_retained_command_is_not_carried_out(site, broker):
    gateway, bridge, client, start = site
    client.publish(f"{ROOT}/command/reboot", "1A2B", is_retained=True)
    start("--allow-commands", "--terminal", f"127.0.0.1:{gateway.ports['terminal']}")
    answer = client.wait_for(f"{ROOT}/answer/reboot").json
    assert answer["done"] is False and "retained" in answer["why"]
    assert bridge.barrier() == []


def test_without_being_allowed_commands_are_not_even_asked_for(site, broker):
    gateway, bridge, client, start = site
    connector = start()
    client.publish(f"{ROOT}/command/reboot", "1A2B")
    connector.ended(by=signal.SIGTERM)
    assert bridge.barrier() == []
    assert "rtls-mqtt-north" in broker.log.read_text() and f"{ROOT}/command/+" not in broker.log.read_text()


# --- Shells

def test_shells_can_load_the_completion():
    for shell in [["bash", "-c"], ["zsh", "-f", "-c"]]:
        ask = f'compdef() {{ echo "$@"; }}; complete() {{ echo "$@"; }}; source <("$0" --completion {shell[0]})'
        told = subprocess.run([*shell, ask, PROGRAM], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=True).stdout
        assert told.split()[-1] == "rtls-mqtt" and "rror" not in told
