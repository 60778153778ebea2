"""MQTT brokers as Debian has them, and a client that shares no code with anybody: version 3.1.1, from the bytes up."""
import json
import os
import pathlib
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import time

from .daemon import environment, free_port
from .peers import DEADLINE, wait_until

BROKER = shutil.which("mosquitto", path=os.environ.get("PATH", "") + ":/usr/sbin:/usr/local/sbin")

CONNACK, PUBLISH, PUBACK, SUBACK = 2, 3, 4, 9


def text(value: str) -> bytes:
    return struct.pack(">H", len(value.encode())) + value.encode()


def packet(first: int, body: bytes) -> bytes:
    size, length = len(body), bytearray()
    while True:
        size, digit = divmod(size, 128)
        length.append(digit | (0x80 if size else 0))
        if not size:
            return bytes([first]) + bytes(length) + body


class Message:
    def __init__(self, flags: int, body: bytes):
        size = struct.unpack_from(">H", body)[0]
        self.topic, self.is_retained = body[2:2 + size].decode(), bool(flags & 1)
        self.payload = body[2 + size + (2 if flags & 6 else 0):]

    @property
    def json(self):
        return json.loads(self.payload)


class Client:
    """Connected, and subscribed to all that is given; what comes is kept until it is asked for."""

    def __init__(self, port: int, *filters: str, login=None, tls=None):
        self.received = []
        self._buffer = b""
        self.sock = socket.create_connection(("127.0.0.1", port), DEADLINE)
        if tls:
            self.sock = tls.wrap_socket(self.sock, server_hostname="127.0.0.1")
        flags = 2 | (0xC0 if login else 0)
        self.sock.sendall(packet(0x10, text("MQTT") + bytes([4, flags, 0, 0]) + text("") + b"".join(map(text, login or []))))
        assert self._await(CONNACK)[1] == 0, "the broker refuses us"
        for name in filters:
            self.sock.sendall(packet(0x82, b"\0\1" + text(name) + b"\0"))
            assert self._await(SUBACK)[2] == 0

    def _more(self, deadline: float):
        self.sock.settimeout(max(deadline - time.monotonic(), 0.01))
        data = self.sock.recv(65536)
        assert data, "the broker has closed the connection"
        self._buffer += data

    def _packet(self, deadline: float) -> tuple:
        """The next one: its kind, flags and body."""
        while True:
            size, at = 0, 1
            while at < len(self._buffer) and at < 5:
                size |= (self._buffer[at] & 0x7F) << 7 * (at - 1)
                at += 1
                if not self._buffer[at - 1] & 0x80:
                    break
            if at > 1 and not self._buffer[at - 1] & 0x80 and len(self._buffer) >= at + size:
                first, body, self._buffer = self._buffer[0], self._buffer[at:at + size], self._buffer[at + size:]
                return first >> 4, first & 15, body
            self._more(deadline)

    def _await(self, kind: int) -> bytes:
        deadline = time.monotonic() + DEADLINE
        while (got := self._packet(deadline))[0] != kind:
            self._keep(got)
        return got[2]

    def _keep(self, got: tuple):
        if got[0] == PUBLISH:
            self.received.append(Message(got[1], got[2]))

    def receive(self) -> Message:
        deadline = time.monotonic() + DEADLINE
        while not self.received:
            self._keep(self._packet(deadline))
        return self.received.pop(0)

    def wait_for(self, topic: str, wanted=lambda message: True) -> Message:
        """The first of this topic that is wanted; those before it are dropped."""
        while (message := self.receive()).topic != topic or not wanted(message):
            pass
        return message

    def wait_for_one_of(self, *topics: str) -> Message:
        while (message := self.receive()).topic not in topics:
            pass
        return message

    def publish(self, topic: str, payload, is_retained: bool = False):
        """Returns when the broker has it."""
        payload = payload if isinstance(payload, bytes) else payload.encode()
        self.sock.sendall(packet(0x32 | is_retained, text(topic) + b"\0\1" + payload))
        self._await(PUBACK)

    def close(self):
        self.sock.close()


class Broker:
    """A mosquitto on a loopback port of its own. `lines`: more of its configuration, below its listener."""

    def __init__(self, folder: pathlib.Path, *lines: str, is_running: bool = True):
        self.port = free_port()
        self.config = folder / "mosquitto.conf"
        self.log = folder / "mosquitto.log"
        is_open = not any(line.startswith("password_file") for line in lines)
        self.config.write_text("\n".join([
            "user root", "persistence false", "max_queued_messages 0", f"log_dest file {self.log}", "log_type all", f"listener {self.port} 127.0.0.1",
            f"allow_anonymous {'true' if is_open else 'false'}", *lines, ""]))
        self.process = None
        if is_running:
            self.start()

    def start(self):
        self.process = subprocess.Popen([BROKER, "-c", self.config], env=environment(), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until(self.is_there, "the broker")

    def is_there(self) -> bool:
        assert self.process.poll() is None, f"the broker ended: {self.log.read_text() if self.log.exists() else ''}"
        with socket.socket() as probe:
            return probe.connect_ex(("127.0.0.1", self.port)) == 0

    def kill(self):
        self.process.kill()
        self.process.wait()

    def pause(self):
        self.process.send_signal(signal.SIGSTOP)

    def resume(self):
        self.process.send_signal(signal.SIGCONT)

    def close(self):
        if self.process and self.process.poll() is None:
            self.kill()


def certificate(folder: pathlib.Path, name: str, ca=None) -> tuple:
    """A certificate for 127.0.0.1 and its key, signed by itself or by another's (certificate, key)."""
    made, key = folder / f"{name}.pem", folder / f"{name}.key"
    signer = ["-CA", ca[0], "-CAkey", ca[1]] if ca else []
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-noenc", "-days", "2",
                    "-subj", f"/CN={name}", "-addext", "subjectAltName=IP:127.0.0.1", *signer, "-keyout", key, "-out", made],
                   check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    key.chmod(0o600)
    return made, key


def tls_of(ca: tuple, own=None) -> ssl.SSLContext:
    context = ssl.create_default_context(cafile=ca[0])
    if own:
        context.load_cert_chain(*own)
    return context
