"""Who talks to the daemon: bridges, operators, and the servers upstream. Every wait has a deadline."""
import re
import select
import socket
import time

import zmq

from . import wire

DEADLINE = 20.0  # seconds; only a failing test waits that long


def wait_until(condition, what: str, deadline: float = DEADLINE):
    """Calls `condition` until it is true and returns its value."""
    end = time.monotonic() + deadline
    while True:
        value = condition()
        if value:
            return value
        assert time.monotonic() < end, f"timed out waiting for {what}"
        select.select([], [], [], 0.01)


def bind(sock, endpoint: str):
    """Binds, as soon as the one before has let go of the port: ZeroMQ closes behind our back."""
    def bound():
        try:
            sock.bind(endpoint)
            return True
        except zmq.ZMQError as error:
            if error.errno != zmq.EADDRINUSE:
                raise
            return False
    wait_until(bound, f"{endpoint} to be free")


class Stream:
    """A TCP connection with a buffer of what has arrived."""

    def __init__(self, port: int, host: str = "127.0.0.1", rcvbuf=None):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if rcvbuf:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.sock.settimeout(DEADLINE)
        self.sock.connect((host, port))
        self.sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.closed = False

    @property
    def port(self) -> int:
        return self.sock.getsockname()[1]

    def send(self, data: bytes):
        self.sock.sendall(data)

    def pull(self, timeout: float) -> bytes:
        """What arrives next, b"" when nothing does in time or the peer has closed."""
        if self.closed or not select.select([self.sock], [], [], max(timeout, 0))[0]:
            return b""
        try:
            data = self.sock.recv(65536)
        except ConnectionResetError:
            data = b""
        if not data:
            self.closed = True
        return data

    def wait_closed(self, deadline: float = DEADLINE):
        end = time.monotonic() + deadline
        while not self.closed:
            assert time.monotonic() < end, "the gateway did not close the connection"
            self.pull(0.2)

    def close(self):
        self.sock.close()
        self.closed = True


class Bridge(Stream):
    """A bridge on the WIN port. `sync` is what the gateway said first."""

    def __init__(self, port: int, mac_addr: bytes = bytes(8), **kw):
        super().__init__(port, **kw)
        self.mac = mac_addr
        self.deframer = wire.Deframer()
        self.messages = []
        wait_until(lambda: self._read(0.2) or len(self.deframer.noise) >= 5, "sync")

    @property
    def sync(self) -> bytes:
        return bytes(self.deframer.noise)

    def _read(self, timeout: float):
        data = self.pull(timeout)
        self.messages.extend(self.deframer.feed(data))

    def send_message(self, *messages: bytes):
        self.send(b"".join(wire.frame(m) for m in messages))

    def receive(self, deadline: float = DEADLINE) -> bytes:
        """The next message from the gateway."""
        end = time.monotonic() + deadline
        while not self.messages:
            assert time.monotonic() < end, "nothing came from the gateway"
            assert not self.closed, "the gateway closed the connection"
            self._read(end - time.monotonic())
        return self.messages.pop(0)

    def barrier(self):
        """Sends a ping that no test uses and returns the messages that came before its echo: everything
        that the gateway had to say about what was sent before."""
        mark = wire.ping(0xEE, b"barrier")
        self.send_message(mark)
        before = []
        while (message := self.receive()) != mark:
            before.append(message)
        return before

    def introduce(self, seq: int = 1):
        """Makes the gateway know this bridge's own node, so that it is not closed after six seconds."""
        self.send_message(wire.heartbeat(self.mac, seq, bridge=self.mac, addr=wire.ip(0xB0000 + self.mac[7])))


class Inbox:
    """A ZeroMQ socket that collects what arrives, as lists of frames."""

    def __init__(self, context, kind, endpoint: str):
        self.sock = context.socket(kind)
        self.sock.setsockopt(zmq.LINGER, 0)
        self.sock.setsockopt(zmq.RCVHWM, 0)
        bind(self.sock, endpoint)

    def receive(self, deadline: float = DEADLINE):
        assert self.sock.poll(int(deadline * 1000)), "nothing arrived"
        return self.sock.recv_multipart()

    def drain(self):
        """Everything that has arrived already."""
        out = []
        while self.sock.poll(0):
            out.append(self.sock.recv_multipart())
        return out

    def nothing_arrives(self, within: float = 0.3) -> bool:
        return not self.sock.poll(int(within * 1000))

    def close(self):
        self.sock.close()


class Proxy:
    """The proxy's publishing side. Knows when the gateway has subscribed."""

    def __init__(self, context, endpoint: str):
        self.sock = context.socket(zmq.XPUB)
        self.sock.setsockopt(zmq.LINGER, 0)
        self.sock.setsockopt(zmq.XPUB_VERBOSE, 1)
        self.sock.setsockopt(zmq.SNDHWM, 0)  # what is published faster than the gateway reads waits here
        bind(self.sock, endpoint)

    def wait_subscribed(self, deadline: float = DEADLINE):
        end = time.monotonic() + deadline
        while True:
            assert self.sock.poll(max(0, int((end - time.monotonic()) * 1000))), "the gateway did not subscribe"
            if self.sock.recv() == b"\x01":  # the end of an earlier subscription may come first
                return

    def publish(self, message):
        """`message`: bytes are published as hex text, a str as it stands."""
        self.sock.send_string(message if isinstance(message, str) else message.hex().upper())

    def close(self):
        self.sock.close()


class Broker(Inbox):
    """The debug broker. `lines` keeps everything that came."""

    def __init__(self, context, endpoint: str):
        super().__init__(context, zmq.PULL, endpoint)
        self.lines = []

    def collect(self):
        for parts in self.drain():
            self.lines.append(parts[0].decode("utf-8", "replace"))
        return self.lines

    def wait_for(self, text: str, deadline: float = DEADLINE, count: int = 1):
        """The first line that contains `text`, once `count` lines do."""
        def found():
            hits = [line for line in self.collect() if text in line]
            return hits if len(hits) >= count else None
        return wait_until(found, f"broker line {text!r}", deadline)[0]

    def texts(self, component: str):
        """The message texts of one component so far, without prefix and date."""
        start = re.compile(rf"^&rtls-gateway:{re.escape(component)} *\d{{4}}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{{3}} ", re.S)
        return [start.sub("", line) for line in self.collect() if start.match(line)]


class Terminal(Stream):
    """An operator on the terminal port."""

    def __init__(self, port: int):
        super().__init__(port)
        self.text = ""

    def _more(self, timeout: float):
        self.text += self.pull(timeout).decode("utf-8", "replace")

    def read_until(self, end_text: str, deadline: float = DEADLINE) -> str:
        """Takes everything up to and including `end_text`."""
        end = time.monotonic() + deadline
        while end_text not in self.text:
            assert time.monotonic() < end, f"no {end_text!r} in {self.text!r}"
            assert not self.closed, f"closed before {end_text!r}; got {self.text!r}"
            self._more(min(0.5, end - time.monotonic()))
        at = self.text.index(end_text) + len(end_text)
        taken, self.text = self.text[:at], self.text[at:]
        return taken

    def command(self, line: str, end_text: str) -> str:
        """Types one line and returns the answer up to `end_text`."""
        self.send(line.encode() + b"\n")
        return self.read_until(end_text)
