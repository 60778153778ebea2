"""Every message is accounted for: what bridges sent, what became of it, and what the servers got, to the message; at
full speed, with servers stopped, slow, killed and restarted, and strangers and malformed traffic in between.

    RTLS_ACCOUNT_MESSAGES=10000000 python3 -m pytest -s tests/faults/test_accounts.py     the long form
"""
import concurrent.futures
import contextlib
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
# The long form takes the system's own buffers, which hold more than the short one's messages.
IS_LONG = MESSAGES >= 1_000_000
SMALLEST = {"message_handler": 30, "proxy_input": 90}      # bytes of a message on its way
# What a server takes with it that is killed, at most, beside what TCP held: its library's queue, and a batch of 8 KiB on
# either side.
QUEUE_HOLDS = 1000 if IS_LONG else 100
BATCHES = 2 * 8192


@contextlib.contextmanager
def stopped(process: subprocess.Popen):
    """It stands inside: nothing more comes from it."""
    process.send_signal(signal.SIGSTOP)
    os.waitid(os.P_PID, process.pid, os.WSTOPPED)
    try:
        yield
    finally:
        process.send_signal(signal.SIGCONT)


def bytes_in_tcp(port: int) -> int:
    """What the connections with this port hold, on both sides."""
    held = 0
    for line in pathlib.Path("/proc/net/tcp").read_text().splitlines()[1:]:
        _, local, remote, state, queues, *_ = line.split()
        if state == "01" and port in (int(end.split(":")[1], 16) for end in (local, remote)):
            held += sum(int(queue, 16) for queue in queues.split(":"))
    return held


class Server:
    """A counting server in a process of its own, which can be stopped, slowed, killed and started again."""

    def __init__(self, endpoint: str, folder):
        self.endpoint, self.path = endpoint, folder / f"{endpoint.rsplit(':', 1)[1]}.count"
        self.path.write_bytes(bytes(16))
        self.file = open(self.path, "r+b")
        self.shared = mmap.mmap(self.file.fileno(), 16)
        self.held = 0     # bytes, by TCP, when it was killed
        self.start()

    def start(self):
        small = () if IS_LONG else ("small",)
        self.process = subprocess.Popen([sys.executable, HERE / "counting_server.py", self.endpoint, self.path, *small])

    def kill(self):
        self.process.kill()
        self.process.wait()

    def kill_while_served_by(self, gateway: subprocess.Popen):
        """Both stand while we look at what TCP holds, so that it is all that TCP takes with it."""
        with stopped(gateway):
            with stopped(self.process):
                self.held += bytes_in_tcp(int(self.endpoint.rsplit(":", 1)[1]))
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
        self.gateway, self.port = gateway, port
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
            # A frame is counted before what becomes of it is.
            is_settled = (now["bridge_frames_total", {"direction": "in"}] == wanted and not now.sum("reports_waiting") and
                          now.sum("message_outcomes_total") >= wanted and
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

    @contextlib.contextmanager
    def disturbed(self):
        """Strangers and malformed commands meanwhile, at least once each."""
        stop = threading.Event()

        def disturb():
            while True:
                self.strangers.come(6)
                for text in ("zz", "08", "0810FF", "00" * 40, "08FF01" + "00" * 8):
                    self.gateway.proxy.publish(text)
                    self.commands += 1
                if stop.is_set():
                    return
        before = self.commands, self.strangers.read.connections, self.strangers.reset.connections
        thread = threading.Thread(target=disturb)
        thread.start()
        try:
            yield
        finally:
            stop.set()
            thread.join()
        assert all(now > then for now, then in zip(
            (self.commands, self.strangers.read.connections, self.strangers.reset.connections), before))
        wait_until(lambda: self.figures().sum("commands_total") == self.commands, "the commands", PATIENCE)
        assert self.figures()["commands_total", {"type": "undecodable", "outcome": "malformed"}] == self.commands // 5 * 3

    def flood(self, chunks: int):
        with self.disturbed():
            self.bridges.flood(chunks)

    def flood_until_lost(self):
        """Until more has come than queues and TCP hold: TCP takes what the system grants it."""
        before = self.settled().sum("reports_lost_total", queue="message_handler")
        for _ in range(100):
            self.bridges.flood(20)
            if self.settled().sum("reports_lost_total", queue="message_handler") > before:
                return
        raise AssertionError("nothing was lost")

    def write_off(self, kills: int):
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
            bound = kills * (QUEUE_HOLDS + BATCHES // SMALLEST[queue]) + server.held // SMALLEST[queue]
            print(f"{queue}: {gone:,} were under way to a server that was killed, of {bound:,} that could be")
            assert 0 <= gone - self.under_way_with_the_killed[queue] <= bound
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
    yield books
    books.close()


def with_servers_that_stand_still(books, phase: int):
    for server in books.servers.values():
        server.signal(signal.SIGSTOP)
    books.flood(phase)
    books.flood_until_lost()
    for server in books.servers.values():
        server.signal(signal.SIGCONT)
    books.balance()


def with_slow_servers(books, phase: int):
    for server in books.servers.values():
        server.take_each(1000)
    books.flood(phase)
    books.flood_until_lost()
    for server in books.servers.values():
        server.take_each(0)
    books.balance()


def without_servers(books, phase: int):
    """Killed when nothing is under way, and started again."""
    for server in books.servers.values():
        server.kill()
    wait_until(lambda: not any(books.figures()["upstream_link_up", {"link": name}] for name in books.servers), "the loss")
    books.flood(phase)
    books.flood_until_lost()
    for server in books.servers.values():
        server.start()
    books.balance()


def kill_at_full_speed(books, chunks: int) -> int:
    """Kills the servers again and again while the bridges flood; how often each."""
    kills, over = 3, threading.Event()
    for server in books.servers.values():
        server.held = 0
    def flood():
        with books.disturbed():
            books.bridges.flood(chunks)
            while not over.is_set():    # a fast machine is done before the last kill
                books.bridges.flood(5)
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        flooding = pool.submit(flood)
        try:
            for _ in range(kills):
                for server in books.servers.values():
                    at = server.received
                    wait_until(lambda: server.received > at + 500, "the server to be served", PATIENCE)
                    server.kill_while_served_by(books.gateway.process)
                    server.start()
        finally:
            over.set()
        flooding.result()
    started = {server: server.received for server in books.servers.values()}
    books.bridges.flood(1)      # which takes a server some time to begin with: until then it gets nothing
    wait_until(lambda: all(server.received > count for server, count in started.items()), "the servers to be back", PATIENCE)
    return kills


def with_servers_killed_at_full_speed(books, phase: int):
    kills = kill_at_full_speed(books, phase if IS_LONG else 3 * phase)
    books.balance(is_exact=False)
    books.write_off(kills)


def test_every_message_is_accounted_for(books):
    phase = max(1, MESSAGES // (6 * sum(chunk.messages for chunk in books.bridges.chunks)))
    books.bridges.flood(phase)    # as fast as it goes
    books.balance()
    books.flood(phase)            # the same with strangers and malformed commands, from now on
    books.balance()
    with_servers_that_stand_still(books, phase)
    with_slow_servers(books, phase)
    without_servers(books, phase)
    with_servers_killed_at_full_speed(books, phase)
    books.bridges.flood(1)        # and from here on to the message again
    books.balance()
