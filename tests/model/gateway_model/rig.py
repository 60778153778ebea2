"""The daemon and everybody around it: feeds daemon and model the same bytes, and compares what comes of it.

Frames go out in bursts, each over one bridge (or from the proxy), and a fence behind each burst comes back once the
daemon has dealt with all of it; so the order is the same on both sides, and nothing waits for a clock."""
import re
import select
import struct
import time

import zmq

from . import listing
from .gateway import Client, Expected, Gateway, next_version
from .generator import Generator, PREFIX
from .link import decode, encode, frames
from .listing import Difference
from .registry import Moment

DEADLINE = 30.0
MARKER_MAC, ROOT_MARKER_MAC = bytes.fromhex("fa00000000000001"), bytes.fromhex("fa00000000000002")
MARKER_IP = PREFIX + bytes.fromhex("fafafafafafafafa")
COMPONENTS = (b"parsing", b"develop", b"main")
VERSION = b"\xf5\x02\x81"           # how a broadcast of the RPL version begins
TIMER = 1.0         # seconds between two broadcasts of the RPL version


def stamp(seconds: float) -> str:
    """As the daemon's log writes it, to the millisecond."""
    whole = int(seconds)
    return time.strftime("%Y-%m-%d %H:%M:%S", time.gmtime(whole)) + f".{int((seconds - whole) * 1000):03}"


class Peer:
    """One bridge's side of its connection."""

    def __init__(self, stream, client: Client):
        self.stream = stream
        self.client = client
        self.received = bytearray()
        self.later = b""                # the second half of a frame whose first half is sent
        self.broadcasts = 0
        self.next_version = 240
        self.may_have_missed_one = False    # a broadcast from before the connection, not seen elsewhere yet

    def read_until(self, mark: bytes, start: int):
        """Reads on until `mark` stands in what came from `start` on."""
        end = time.monotonic() + DEADLINE
        while self.received.find(mark, start) < 0:
            if not select.select([self.stream.sock], [], [], max(0, end - time.monotonic()))[0]:
                raise Difference(f"bridge {self.client.number}: nothing came any more, expected {mark.hex(' ')}")
            data = self.stream.sock.recv(65536)
            if not data:
                raise Difference(f"bridge {self.client.number}: the gateway closed the connection")
            self.received += data


class Rig:
    def __init__(self, daemon, random, bridges: int):
        self.daemon, self.r = daemon, random
        self.gateway = Gateway(firmware_files=2)
        self.generator = Generator(random, bridges)
        self.count = self.fences = self.done = 0
        self.sent = {}                  # index: what caused it
        self.repeats_dropped = self.repeats_seen = 0
        self.last_broadcast = None
        self.rpl_maybe = False
        self.compared_at = time.monotonic()
        self.terminal = daemon.terminal()
        self.peers = []
        self._stamps = {}               # Moment: its bounds as the log writes them
        daemon.broker.wait_for("Connected to socket")
        daemon.broker.drain()
        for number in range(bridges):
            self.peers.append(self._connect(number))
        self._fenced(self.peers[0], self._heartbeat(MARKER_MAC, self.peers[0], MARKER_IP, 255))

    # Bridges

    def _connect(self, number: int) -> Peer:
        stream = self.daemon.bridge()
        if stream.sync != b"sync\n":
            raise Difference(f"on connecting came {stream.sync!r}")
        client = Client(number, stream.port)
        self.gateway.connect(client)
        peer = Peer(stream, client)
        peer.next_version = self.gateway.rpl_version
        peer.broadcasts = self.gateway.rpl_broadcasts
        peer.may_have_missed_one = True
        self._fenced(peer, self._keep_alive(peer))
        return peer

    def reconnect(self, peer: Peer):
        """Ends the connection and makes a new one. Everything has been compared."""
        port = peer.client.port
        peer.stream.close()
        end = time.monotonic() + DEADLINE
        while f":{port}\n" in self.terminal.command("pcl", "\n##\n"):
            if time.monotonic() > end:
                raise Difference(f"the closed connection of port {port} is still listed")
        self.gateway.disconnect(peer.client)
        self.peers[self.peers.index(peer)] = self._connect(peer.client.number)

    def _heartbeat(self, mac: bytes, peer: Peer, address: bytes, frequency: int) -> bytes:
        self.fences += 1
        own = self.generator.bridge_macs[peer.client.number]
        head = b"\x04\x01" + bytes((self.fences % 255 + 1, frequency, 7, 4, 0))
        return head + mac + own + bytes(16) + own + address

    def _keep_alive(self, peer: Peer) -> bytes:
        """Makes the bridge's own node report through it, so that the gateway does not close the connection."""
        own = self.generator.bridge_macs[peer.client.number]
        return self._heartbeat(own, peer, PREFIX + own, 100)

    def _fence(self) -> bytes:
        self.fences += 1
        return b"\0\0" + struct.pack(">B5sI", self.fences % 256, b"fence", self.fences)

    def _now(self) -> Moment:
        return Moment(time.time(), time.monotonic())

    def _fenced(self, peer: Peer, *messages: bytes):
        self._send(peer, [encode(message) for message in messages])

    def _send(self, peer: Peer, pieces: list, behind: bytes = b""):
        """Sends `pieces`, a fence and `behind`, and waits for the fence. `behind` must not complete a frame."""
        fence = encode(self._fence())
        moment, start = self._now(), len(peer.received)
        self._send_cut(peer, b"".join(pieces) + fence + behind)
        gateway = self.gateway
        gateway.moment = moment
        for piece in pieces + [fence + behind]:
            self._note(f"bridge {peer.client.number}", piece)
            gateway.receive(peer.client, piece)
        peer.read_until(fence, start)
        moment.end(time.time(), time.monotonic())

    def _note(self, source: str, data: bytes):
        self.count += 1
        self.gateway.index = self.count
        self.sent[self.count] = (source, data)

    def _send_cut(self, peer: Peer, data: bytes):
        at = 0
        for cut in sorted(self.r.randrange(len(data)) for _ in range(self.r.choice((0, 0, 1, 2, 5)))):
            peer.stream.sock.sendall(data[at:cut])
            at = cut
        peer.stream.sock.sendall(data[at:])

    # Bursts

    def bridge_burst(self) -> int:
        r, peer = self.r, self.r.choice(self.peers)
        number = peer.client.number
        pieces = [self.generator.bridge_frame(number) for _ in range(r.randrange(1, 40))]
        count = len(pieces)
        if peer.later:
            pieces.insert(0, peer.later)
            peer.later = b""
        if r.random() < 0.95:
            pieces.append(encode(self._keep_alive(peer)))
        behind = b""
        if r.random() < 0.2:
            frame = encode(self.generator.bridge_message(number))
            cut = r.randrange(1, len(frame))
            behind, peer.later = frame[:cut], frame[cut:]
        self._send(peer, pieces, behind)
        return count

    def proxy_burst(self) -> int:
        texts = [self.generator.command() for _ in range(self.r.randrange(1, 16))]
        self.fences += 1
        mark = b"\x08\x0e\0\0\x04" + struct.pack(">I", self.fences) + MARKER_MAC
        peer, start, moment = self.peers[0], len(self.peers[0].received), self._now()
        for text in texts + [mark.hex().encode()]:
            self.daemon.proxy.sock.send(text)
        self.gateway.moment = moment
        for text in texts + [mark.hex().encode()]:
            self._note("proxy", text)
            self.gateway.process_command(text)
        peer.read_until(peer.client.down[-1].what, start)
        moment.end(time.time(), time.monotonic())
        return len(texts)

    # What only the clock decides. Everything sent before has been compared.

    def check_repeats(self):
        """Nearly all commands that followed an equal one within the interval must have been dropped."""
        possible = self.repeats_seen + self.repeats_dropped
        if possible >= 50 and self.repeats_seen > possible / 2:
            raise Difference(f"{self.repeats_seen} of {possible} repeated commands were not dropped")

    def check_timer(self):
        """Two broadcasts of the RPL version, the second one asked for at once, are one period apart. After one more
        period without a request the next one is answered on the spot."""
        first = self._ask_for_version()
        second = self._ask_for_version()
        if second.mono_hi - first.mono_lo < TIMER - 0.001 or second.mono_lo - first.mono_hi > TIMER + 1:
            raise Difference(f"two broadcasts of the RPL version, {second.mono_lo - first.mono_hi:.3f} to "
                             f"{second.mono_hi - first.mono_lo:.3f} s apart, expected {TIMER}")
        while not self.gateway.rpl_sure:
            select.select([self.peers[0].stream.sock], [], [], 0.02)
            self.compare()
        self._ask_for_version()
        self.compare()

    def _ask_for_version(self) -> Moment:
        """Asks, and waits for the broadcast; fences tell between which moments it came."""
        peer, before = self.peers[0], self.peers[0].received.count(VERSION)
        own = self.generator.bridge_macs[0]
        self.fences += 1
        messages = [b"\x01\x01" + bytes((self.fences % 255 + 1,)) + own]
        end = time.monotonic() + DEADLINE
        moment = None
        while True:
            # Not later than the fence before, behind which it came, nor than the waiting below.
            earliest, moment = moment, self._now()
            if not messages:
                select.select([peer.stream.sock], [], [], 0.005)
            self._fenced(peer, *messages)
            moment.end(time.time(), time.monotonic())
            if peer.received.count(VERSION) > before:
                if earliest:
                    moment.lo, moment.mono_lo = earliest.lo, earliest.mono_lo
                return moment
            if time.monotonic() > end:
                raise Difference("a request for the RPL version was not answered")
            messages = []

    def delete_some_node(self):
        r = self.r
        mac = r.choice(self.generator.macs)
        short = mac[6:] if r.random() < 0.9 else r.randbytes(2)
        if short in (MARKER_MAC[6:], ROOT_MARKER_MAC[6:]):
            return      # a generated MAC ends like one of these; the markers' nodes stay
        answer = self.terminal.command(f"del {short.hex()}", "\n")
        known = self.gateway.delete_node(short)
        expected = "Command completed successfully!\n" if known else f"Node {short.hex().upper()} not in nodes list\n"
        if answer != expected:
            raise Difference(f"del {short.hex()}\nexpected {expected!r}\ngot      {answer!r}")

    # Comparison

    def compare(self):
        """Everything that was sent since the last comparison."""
        fence_at = time.monotonic()
        for peer in self.peers[1:]:
            self._fenced(peer, self._keep_alive(peer))
        self.fences += 1
        number = self.fences & 0x7FFF
        body = struct.pack(">H6sH12siBB", 40, b"marker", number, b"marker" * 2, self.fences, 1, 2)
        mark = b"\x0e\x01\0\x1c\0" + body + MARKER_IP
        marker_number = self.fences
        root = b"\x03\x01" + bytes((self.fences % 255 + 1,)) + ROOT_MARKER_MAC + struct.pack("<HB", number, 1)
        self._fenced(self.peers[0], self._keep_alive(self.peers[0]), root, mark)
        self._compare_reports()
        self._compare_lines_up()
        self._compare_prints(f"PeSeqNo:{number} ", f"RangeMm:{marker_number} ")
        for peer in self.peers:
            self._compare_bridge(peer)
        self._settle_broadcasts(fence_at)
        self.sent.clear()

    def compare_listing(self):
        moment = self._now()
        text = self.terminal.command("pnf", "\n##\n")
        moment.end(time.time(), time.monotonic())
        listing.check(text, self.gateway, moment)

    def _fail(self, what: str, expected, got):
        index = expected.index if expected else None
        lines = [what]
        if expected:
            source, data = self.sent.get(index, ("?", b""))
            lines.append(f"frame {index} ({source}): {data.hex(' ') if source != 'proxy' else data.decode('latin-1')}")
        lines += [f"expected {self._show(expected.what if expected else None)}", f"got      {self._show(got)}"]
        raise Difference("\n".join(lines))

    @staticmethod
    def _show(value) -> str:
        if isinstance(value, bytes):
            return value.hex(" ")
        if isinstance(value, (tuple, list)):
            return " | ".join(Rig._show(part) for part in value)
        return repr(value) if value is not None else "nothing"

    def _in_step(self, what: str, expected: list, got: list, same):
        """Goes through both lists; `same(expected, got)` tells whether two belong together. What one index may
        optionally bring forth comes whole or not at all. Keeps every way to read that open: `places` are the
        numbers of items of `got` that may have been used up."""
        places, at = {0}, 0
        while at < len(expected):
            end = at + 1
            if expected[at].optional:
                while end < len(expected) and expected[end].index == expected[at].index:
                    end += 1
            reached = set(places) if expected[at].optional else set()
            for place in places:
                if len(got) - place >= end - at and all(map(same, expected[at:end], got[place:place + end - at])):
                    reached.add(place + end - at)
            if not reached:
                place = max(places)
                self._fail(what, expected[at], got[place] if place < len(got) else None)
            places, at = reached, end
        if len(got) not in places:
            self._fail(what, None, got[max(places)])
        optional = sum(item.optional for item in expected)
        self.repeats_seen += len(got) - len(expected) + optional
        self.repeats_dropped += len(expected) - len(got)

    def _receive_until(self, sock, last) -> list:
        got = []
        while True:
            if not sock.poll(int(DEADLINE * 1000)):
                raise Difference(f"nothing came upstream any more; {len(got)} came, not the marker")
            got.append(sock.recv_multipart())
            if last(got[-1]):
                return got

    def _compare_reports(self):
        expected, self.gateway.reports = self.gateway.reports, []
        last = expected[-1].what[1]
        got = self._receive_until(self.daemon.handler.sock, lambda parts: parts[-1] == last)
        self._in_step("to the message handler", expected, got, self._same_report)

    @staticmethod
    def _same_report(expected: Expected, parts: list) -> bool:
        generated, message = expected.what
        if len(parts) != 2 or parts[1] != message or len(parts[0]) != 6:
            return False
        if generated is not None:
            return parts[0] == generated
        seconds, milliseconds = struct.unpack(">IH", parts[0])
        moment = expected.moment
        return milliseconds < 1000 and int(moment.lo * 1000) <= seconds * 1000 + milliseconds <= moment.hi * 1000

    def _compare_lines_up(self):
        expected, self.gateway.lines_up = self.gateway.lines_up, []
        last = expected[-1].what.encode() + b"}"
        got = self._receive_until(self.daemon.proxy_input.sock, lambda parts: parts[0].endswith(last))
        self._in_step("to the proxy's input", expected, got, self._same_line)

    @staticmethod
    def _same_line(expected: Expected, parts: list) -> bool:
        match = re.fullmatch(r'@win_management \{"ts":([ \d]{10}),"ms":([ \d]{3}),(.*)\}', parts[0].decode(), re.S)
        if len(parts) != 1 or not match or match.group(3) != expected.what:
            return False
        seconds, milliseconds = int(match.group(1)), int(match.group(2))
        if match.group(1) != f"{seconds:10}" or match.group(2) != f"{milliseconds:3}":
            return False
        moment = expected.moment
        return int(moment.lo * 1000) <= seconds * 1000 + milliseconds <= moment.hi * 1000

    def _compare_prints(self, *marks: str):
        """The debug records of parsing and of errors, up to the one that holds all `marks`."""
        expected = self.gateway.prints
        last = max(at for at, item in enumerate(expected) if all(mark in item.what[1] for mark in marks))
        self.gateway.prints = expected[last + 1:]
        sock, wanted, got = self.daemon.broker.sock, [mark.encode() for mark in marks], []
        while True:
            if not sock.poll(int(DEADLINE * 1000)):
                raise Difference(f"no debug records come any more; {len(got)} came, not the marker")
            component, record = sock.recv()[14:].split(b" ", 1)
            if component in COMPONENTS:
                record = record.lstrip(b" ")
                got.append((component.decode(), record[:23].decode(), record[24:].decode("latin-1")))
                if all(mark in record for mark in wanted):
                    break
        self._stamps.clear()
        self._in_step("in the debug stream", expected[:last + 1], got, self._same_print)

    def _same_print(self, expected: Expected, got) -> bool:
        component, date, text = got
        if (component, text) != expected.what:
            return False
        moment = expected.moment
        bounds = self._stamps.get(moment)
        if bounds is None:
            bounds = self._stamps[moment] = (stamp(moment.lo), stamp(moment.hi))
        return bounds[0] <= date <= bounds[1]

    # What goes down, and the broadcasts of the RPL version in it, which come when the daemon's timer says so

    def _compare_bridge(self, peer: Peer):
        try:
            got, rest = frames(bytes(peer.received))
        except ValueError as error:
            raise Difference(f"bridge {peer.client.number}: {error}") from error
        peer.received = bytearray(rest)
        expected, peer.client.down = peer.client.down, []
        answers = [item.what for item in expected if item.what.startswith(VERSION)]
        kept = []
        for frame in got:
            if frame.startswith(VERSION):
                self._check_version(peer, frame)
                if answers and frame == answers[0]:
                    answers.pop(0)
                else:
                    self._check_unexpected_broadcast(peer)
                    continue
            kept.append(frame)
        self._in_step(f"down bridge {peer.client.number}", expected, kept, lambda item, frame: item.what == frame)

    def _check_version(self, peer: Peer, frame: bytes):
        if peer.may_have_missed_one and frame[-2] == next_version(peer.next_version):
            peer.next_version = frame[-2]
            peer.broadcasts += 1
        peer.may_have_missed_one = False
        expected = bytes((0x02, 0x81, 1, 0, peer.next_version))
        if decode(frame) != expected:
            raise Difference(f"bridge {peer.client.number}: broadcast\nexpected {expected.hex(' ')}\n"
                             f"got      {decode(frame).hex(' ')}")
        peer.next_version = next_version(peer.next_version)
        peer.broadcasts += 1

    def _check_unexpected_broadcast(self, peer: Peer):
        """One that the timer sent."""
        gateway = self.gateway
        if peer.broadcasts <= gateway.rpl_broadcasts:
            return                          # seen on another bridge before
        if not gateway.rpl_requests and not self.rpl_maybe:
            raise Difference(f"bridge {peer.client.number}: a broadcast that nobody asked for")
        gateway.rpl_broadcasts, gateway.rpl_version = peer.broadcasts, peer.next_version
        # Requests before this comparison's frames are answered by it; of those among them nobody knows.
        self.rpl_maybe = any(moment.mono_hi > self.compared_at for moment in gateway.rpl_requests)
        gateway.rpl_requests = []
        self.last_broadcast = time.monotonic()

    def _settle_broadcasts(self, fence_at: float):
        gateway = self.gateway
        counts = {peer.broadcasts for peer in self.peers if not peer.may_have_missed_one}
        if counts and max(counts) - min(counts) > 1:
            raise Difference(f"broadcasts by bridge: {[peer.broadcasts for peer in self.peers]}")
        if gateway.rpl_requests and fence_at - gateway.rpl_requests[0].mono_hi > TIMER + 2:
            raise Difference("a request for the RPL version was not answered")
        if self.last_broadcast is None and gateway.rpl_broadcasts:
            self.last_broadcast = time.monotonic()
        timer_is_off = self.last_broadcast is not None and fence_at > self.last_broadcast + TIMER + 0.2
        if timer_is_off and not gateway.rpl_requests:
            gateway.rpl_sure, self.rpl_maybe = True, False
        self.compared_at = time.monotonic()
