"""Every message is accounted for: what bridges sent, what became of it, and what the servers got, to the message; at
full speed, with servers stopped, slow, killed and restarted, and strangers and malformed traffic in between.

    RTLS_ACCOUNT_MESSAGES=10000000 python3 -m pytest -s tests/faults/test_accounts.py     the long form
"""
import mmap
import os
import pathlib
import selectors
import signal
import socket
import struct
import subprocess
import sys
import threading

import pytest

from harness import wire
from harness.daemon import free_port
from harness.figures import Figures
from harness.http_client import with_http
from harness.peers import wait_until

GROUP = "Accounts"
HERE = pathlib.Path(__file__).resolve().parent
MESSAGES = int(os.environ.get("RTLS_ACCOUNT_MESSAGES", "60000"))
BRIDGES = 4
PATIENCE = 120 + MESSAGES / 5000     # seconds for a phase
QUEUES = {"report": "message_handler", "line": "proxy_input"}


class Server:
    """A counting server in a process of its own, which can be stopped, slowed, killed and started again."""

    def __init__(self, endpoint: str, folder):
        self.endpoint, self.path = endpoint, folder / f"{endpoint.rsplit(':', 1)[1]}.count"
        self.path.write_bytes(bytes(16))
        self.file = open(self.path, "r+b")
        self.shared = mmap.mmap(self.file.fileno(), 16)
        self.start()

    def start(self):
        self.process = subprocess.Popen([sys.executable, HERE / "counting_server.py", self.endpoint, self.path])

    def kill(self):
        self.process.kill()
        self.process.wait()

    def signal(self, number):
        self.process.send_signal(number)

    def take_each(self, microseconds: int):
        struct.pack_into("=Q", self.shared, 8, microseconds)

    @property
    def received(self) -> int:
        return struct.unpack_from("=Q", self.shared, 0)[0]

    def close(self):
        self.kill()
        self.shared.close()
        self.file.close()


class Chunk:
    """What one bridge sends at once, and what is to become of it."""

    def __init__(self, number: int):
        own, addr = wire.mac(0xB000 + number), wire.ip(0xB0000 + number)
        behind, asking = wire.mac(0xC000 + number), wire.mac(0xD000 + number)
        behind_addr = wire.ip(0xC0000 + number)
        self.outcomes = dict.fromkeys(("report", "line", "answered", "duplicate", "wrong_size", "unknown_type", "too_short",
                                       "unknown_node"), 0)
        self.restarted = self.empty = self.noise = 0
        self.data = bytearray()

        def message(outcome: str, content: bytes, times: int = 1):
            self.outcomes[outcome] += times
            self.data.extend(wire.frame(content) * times)

        for seq in (1, 2):
            message("answered", wire.panid_req(asking, seq))
        for seq, outcome in ((1, "report"), (2, "report"), (2, "duplicate")):
            message(outcome, wire.heartbeat(own, seq, bridge=own, addr=addr))
            message(outcome, wire.envelope(wire.sensor(seq, b"behind", b""), behind, behind_addr))
        report = wire.sensor(1, bytes(range(24)), addr)
        for _ in range(10):
            message("report", report, 15)
            message("line", wire.generic_server_req(1, 40, bytes(26), addr), 2)
            message("report", wire.generic_server_req(1, 48, bytes(16), addr))
            self.data.extend(b"noise")
            self.noise += 5
            self.data.extend(b"\xf5\x16\x01")    # and the next START comes
            self.restarted += 1
            message("report", wire.wrap_ts(report, 1_700_000_000, 0))
        self.data.extend(b"\xf5\xf7")
        self.empty += 1
        message("wrong_size", wire.heartbeat(own, 3, bridge=own, addr=addr) + b"x", 3)
        message("wrong_size", report[:-1], 2)
        message("unknown_type", wire.payload_message(0x0205, 1, b"x"), 3)
        message("too_short", b"\x01\x02", 2)
        message("unknown_node", wire.sensor(1, b"who", wire.ip(0xEEEEEE)), 2)
        message("answered", wire.ping(1, b"ping"))
        self.messages = sum(self.outcomes.values())


class Bridges:
    """Those who flood, each with its chunk; somebody reads what they are answered."""

    def __init__(self, gateway):
        self.chunks = [Chunk(number) for number in range(BRIDGES)]
        self.socks = [socket.create_connection(("127.0.0.1", gateway.ports["win"])) for _ in self.chunks]
        self.sent = 0     # chunks of each
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        selector = selectors.DefaultSelector()
        for sock in self.socks:
            selector.register(sock, selectors.EVENT_READ)
        while selector.get_map():
            for key, _ in selector.select():
                try:
                    gone = not key.fileobj.recv(1 << 16)
                except OSError:
                    gone = True
                if gone:
                    selector.unregister(key.fileobj)

    def flood(self, chunks: int):
        """Each bridge sends so many, as fast as the gateway reads."""
        def send(sock, data):
            for _ in range(chunks):
                sock.sendall(data)
        threads = [threading.Thread(target=send, args=(sock, chunk.data)) for sock, chunk in zip(self.socks, self.chunks)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        self.sent += chunks

    def expected(self, what: str) -> int:
        return self.sent * sum(chunk.outcomes[what] for chunk in self.chunks)

    def close(self):
        for sock in self.socks:
            sock.shutdown(socket.SHUT_RDWR)
        self.reader.join()
        for sock in self.socks:
            sock.close()


class Amount:
    """What strangers have sent."""

    def __init__(self):
        self.connections = self.noise = self.unfinished = 0


class Strangers:
    """Who sends no frame, or never ends it. Every other one goes without a word: of what it had sent, the system drops what
    the gateway has not read."""
    NOISE = (b"\x00" * 5000, b"GET / HTTP/1.1\r\n\r\n")
    UNFINISHED = b"\xf5" + b"\x11" * 3000

    def __init__(self, port: int):
        self.port = port
        self.read, self.reset = Amount(), Amount()

    def come(self, connections: int):
        for number in range(connections):
            amount = self.reset if number % 2 else self.read
            data = (*self.NOISE, self.UNFINISHED)[number % 3]
            amount.connections += 1
            amount.noise += len(data) if data in self.NOISE else 0
            amount.unfinished += data == self.UNFINISHED
            with socket.create_connection(("127.0.0.1", self.port), 20) as sock:
                sock.sendall(data)
                if amount is self.reset:
                    sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
                    continue
                sock.shutdown(socket.SHUT_WR)
                while sock.recv(4096):    # up to the gateway's end of it, which follows when it has read ours
                    pass


class Books:
    def __init__(self, gateway, port: int, folder):
        self.port = port
        self.servers = {"message_handler": Server(gateway._endpoint("handler"), folder),
                        "proxy_input": Server(gateway._endpoint("proxy_input"), folder)}
        self.under_way_with_the_killed = dict.fromkeys(self.servers, 0)
        wait_until(lambda: all(self.figures()["upstream_link_up", {"link": name}] for name in self.servers), "the links")
        self.bridges = Bridges(gateway)
        self.commands = 0
        self.strangers = Strangers(gateway.ports["win"])

    def figures(self) -> Figures:
        return Figures(self.port)

    def settled(self) -> Figures:
        """When all that was sent has been decoded, the strangers are gone, and nothing waits."""
        wanted = self.bridges.sent * sum(chunk.messages for chunk in self.bridges.chunks)

        def done():
            now = self.figures()
            is_settled = (now["bridge_frames_total", {"direction": "in"}] == wanted and not now.sum("reports_waiting") and
                          now["bridges", {}] == BRIDGES and
                          now.sum("bridges_closed_total") >= self.strangers.read.connections and
                          now.sum("report_hand_over_seconds_count") == now.sum("reports_handed_over_total"))
            return is_settled and now
        return wait_until(done, f"{wanted} messages to be decoded", PATIENCE)

    def balance(self, is_exact: bool = True) -> Figures:
        """Holds the accounts against what the bridges know to have sent, and the servers to have got."""
        now = self.settled()
        frames = now["bridge_frames_total", {"direction": "in"}]
        assert now.sum("messages_total") == frames
        assert now.sum("message_outcomes_total") == frames
        for outcome in self.bridges.chunks[0].outcomes:
            assert now["message_outcomes_total", {"outcome": outcome}] == self.bridges.expected(outcome), outcome
        for outcome, queue in QUEUES.items():
            handed_over = now["reports_handed_over_total", {"queue": queue}]
            dropped = now["reports_lost_total", {"queue": queue, "cause": "dropped"}]     # behind the hand-over
            lost = now.sum("reports_lost_total", queue=queue) - dropped
            assert self.bridges.expected(outcome) == handed_over + lost, queue
            server = self.servers[queue]
            if is_exact:
                arrived = handed_over - dropped - self.under_way_with_the_killed[queue]
                wait_until(lambda: server.received >= arrived, f"{arrived} at the {queue}, {server.received} came", PATIENCE)
                assert server.received == arrived
            print(f"{queue}: {self.bridges.expected(outcome):,} forwarded, {handed_over:,} handed over, "
                  f"{now['reports_waited_total', {'queue': queue}]:,} after a wait, {lost:,} lost, {dropped:,} dropped, "
                  f"{server.received:,} received")
        self.check_link(now)
        return now

    def check_link(self, now: Figures):
        chunks, sent = self.bridges.chunks, self.bridges.sent
        assert now["bridge_frames_lost_total", {"reason": "restarted"}] == sent * sum(c.restarted for c in chunks)
        assert now["bridge_frames_lost_total", {"reason": "empty"}] == sent * sum(c.empty for c in chunks)
        noise, unfinished = sent * sum(c.noise for c in chunks), now["bridge_frames_lost_total", {"reason": "unfinished"}]
        sure, most = self.strangers.read, self.strangers.reset
        assert sure.noise <= now["bridge_noise_bytes_total", {}] - noise <= sure.noise + most.noise
        assert sure.unfinished <= unfinished <= sure.unfinished + most.unfinished
        assert now.sum("bridges_closed_total") <= sure.connections + most.connections
        assert now["bridges_accepted_total", {}] == now["bridges", {}] + now.sum("bridges_closed_total")
        assert (now["bridge_messages_cached_total", {}] == now["bridge_messages_flushed_total", {}] +
                now["bridge_messages_lost_total", {"cause": "given_up"}] +
                now["bridge_messages_lost_total", {"cause": "bridge_closed"}] + now["bridges_waiting_messages", {}])

    def write_off(self):
        """What was under way to servers that were killed: no more of it comes, once what is behind it came."""
        self.settled()
        for queue, server in self.servers.items():
            seen = [-1, 0]

            def stands():
                seen[:] = [server.received, seen[1] + 1 if seen[0] == server.received else 0]
                return seen[1] > 100
            wait_until(stands, f"the {queue} to have got all", PATIENCE)
            handed_over = self.figures()["reports_handed_over_total", {"queue": queue}]
            dropped = self.figures()["reports_lost_total", {"queue": queue, "cause": "dropped"}]
            gone = handed_over - dropped - server.received
            assert gone >= self.under_way_with_the_killed[queue]
            print(f"{queue}: {gone:,} were under way to a server that was killed")
            self.under_way_with_the_killed[queue] = gone

    def close(self):
        self.bridges.close()
        for server in self.servers.values():
            server.close()


@pytest.fixture
def books(start_gateway, tmp_path):
    port = free_port()
    gateway = start_gateway(upstream=("broker", "proxy"), change=with_http(port))
    books = Books(gateway, port, tmp_path)
    yield gateway, books
    books.close()


def disturbed(books, gateway, phase: int):
    """Strangers and malformed commands in between."""
    stop = threading.Event()

    def disturb():
        while not stop.is_set():
            books.strangers.come(6)
            for text in ("zz", "08", "0810FF", "00" * 40, "08FF01" + "00" * 8):
                gateway.proxy.publish(text)
                books.commands += 1
    thread = threading.Thread(target=disturb)
    thread.start()
    books.bridges.flood(phase)
    stop.set()
    thread.join()
    wait_until(lambda: books.figures().sum("commands_total") == books.commands, "the commands", PATIENCE)
    assert books.figures()["commands_total", {"type": "undecodable", "outcome": "malformed"}] == books.commands // 5 * 3
    books.balance()


def with_servers_that_stand_still(books, phase: int):
    for server in books.servers.values():
        server.signal(signal.SIGSTOP)
    books.bridges.flood(phase)
    books.settled()
    for server in books.servers.values():
        server.signal(signal.SIGCONT)
    books.balance()


def with_slow_servers(books, phase: int):
    for server in books.servers.values():
        server.take_each(1000)
    books.bridges.flood(phase)
    books.settled()
    for server in books.servers.values():
        server.take_each(0)
    books.balance()


def without_servers(books, phase: int):
    """Killed when nothing is under way, and started again."""
    for server in books.servers.values():
        server.kill()
    wait_until(lambda: not any(books.figures()["upstream_link_up", {"link": name}] for name in books.servers), "the loss")
    books.bridges.flood(phase)
    books.settled()
    for server in books.servers.values():
        server.start()
    assert books.balance().sum("reports_lost_total") > 0    # more than the queues hold


def with_servers_killed_at_full_speed(books, phase: int):
    """Again and again."""
    flood = threading.Thread(target=books.bridges.flood, args=(phase,))
    flood.start()
    for _ in range(3):
        for server in books.servers.values():
            at = server.received
            wait_until(lambda: server.received > at + 500 or not flood.is_alive(), "the server to be served", PATIENCE)
            server.kill()
            server.start()
    flood.join()
    books.balance(is_exact=False)
    books.write_off()


def test_every_message_is_accounted_for(books):
    gateway, books = books
    phase = max(1, MESSAGES // (6 * sum(chunk.messages for chunk in books.bridges.chunks)))
    books.bridges.flood(phase)      # as fast as it goes
    books.balance()
    disturbed(books, gateway, phase)
    with_servers_that_stand_still(books, phase)
    with_slow_servers(books, phase)
    without_servers(books, phase)
    with_servers_killed_at_full_speed(books, phase)
    books.bridges.flood(1)          # and from here on to the message again
    books.balance()
