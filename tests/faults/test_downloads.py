"""File servers that hang, or never come to an end, cost nobody but who asked for their image."""
import http.server
import struct
import threading
import time
import zlib

import pytest

from frozen import frozen
from harness import wire
from harness.peers import wait_until

GROUP = "Downloads"

BRIDGE = wire.mac(0xB001)


def connections_of(pid: int, port: int) -> list:
    """TCP connections with our own port `port`, as the system has them."""
    with open(f"/proc/{pid}/net/tcp") as table:
        rows = [line.split() for line in table.readlines()[1:]]
    return [row for row in rows if row[1].endswith(f":{port:04X}") and row[3] in ("01", "08")]


def image(git: int) -> bytes:
    return b"code@BoardVer\0\x03\x04@Firmware\0" + struct.pack(">IHH", git, 128, 64) + bytes(200)


class FileServer:
    """Answers by path: a hung one after release(), or not before the client leaves."""

    def __init__(self):
        self.asked = []
        self.at_once = self.most_at_once = 0
        self.released = threading.Event()
        self.answers = {}
        lock = threading.Lock()
        outer = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                with lock:
                    outer.asked.append(self.path)
                    outer.at_once += 1
                    outer.most_at_once = max(outer.at_once, outer.most_at_once)
                self.is_under_way = True
                try:
                    outer.answers[self.path](self)
                except OSError:
                    pass
                finally:
                    self.end()
                self.close_connection = True

            def end(self):
                """Before the client can know the answer to be whole: then it may ask for the next one at once."""
                with lock:
                    outer.at_once -= self.is_under_way
                    self.is_under_way = False

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            request_queue_size = 100
            daemon_threads = True

        self.server = Server(("127.0.0.1", 0), Handler)
        threading.Thread(target=self.server.serve_forever, args=(0.01,), daemon=True).start()

    def serve(self, path: str, data: bytes, hangs: bool = False) -> str:
        def answer(handler):
            if hangs:
                self.released.wait(60)
            whole = b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(data) + data
            handler.wfile.write(whole[:-1])
            handler.end()
            handler.wfile.write(whole[-1:])
        return self.serve_by(path, answer)

    def serve_by(self, path: str, answer) -> str:
        self.answers[path] = answer
        return f"http://127.0.0.1:{self.server.server_port}{path}"

    def close(self):
        self.released.set()
        self.server.shutdown()
        self.server.server_close()


@pytest.fixture
def web():
    server = FileServer()
    yield server
    server.close()


def upload_order(git: int, url: str) -> bytes:
    return struct.pack(">HIIH", wire.OTA_UPLOAD, git, zlib.crc32(image(git)), len(url)) + url.encode()


def announcement(url: str) -> bytes:
    return struct.pack(">HIIH", wire.FW_IMAGE_AVAIL, 1, 0, len(url)) + url.encode()


def test_hung_file_servers_hold_up_nobody(gateway, web, figure):
    for git in range(8):
        gateway.proxy.publish(upload_order(git, web.serve(f"/{git}", image(git), hangs=True)))
    wait_until(lambda: web.asked, "the first request")
    bridge, other = gateway.bridge(BRIDGE), gateway.terminal()
    bridge.introduce()
    waits = []
    for _ in range(100):
        begin = time.monotonic()
        bridge.barrier()
        assert other.command("fw info 0", "\n") == "Incorrect INDEX value!\n"
        waits.append(time.monotonic() - begin)
    gateway.handler.drain()
    for i in range(1000):
        bridge.send_message(wire.root_announce(BRIDGE, i % 255 + 1))
    bridge.barrier()
    lost = 1000
    while lost and gateway.handler.sock.poll(20_000):
        lost -= gateway.handler.receive()[1][:2] == b"\x01\x03"
    figure("reports lost beside 8 hung orders", "39 %", f"{lost / 10:.0f} %")
    assert lost == 0
    figure("the longest ping and command beside 8 hung orders", "20 s each", f"{max(waits) * 1000:.0f} ms")
    # Of those a busy machine delays a few; who waits for a server waits for good.
    assert sorted(waits)[90] < 0.5 and max(waits) < 5, f"somebody waited {max(waits):.1f} s"
    wait_until(lambda: len(web.asked) == 4, "four requests")
    assert web.most_at_once == 4
    web.released.set()
    gateway.broker.wait_for("PROXY: Firmware downloaded. Index: ", count=8)
    assert web.most_at_once == 4, "never more than four at once"
    assert len(web.asked) == 8


def test_an_operator_waits_for_his_own_image_only_and_his_answers_keep_their_order(gateway, web, figure):
    slow = web.serve("/slow", image(1), hangs=True)
    quick = web.serve("/quick", image(2))
    waiting, other = gateway.terminal(), gateway.terminal()
    waiting.send(f"fw get {slow}\n".encode())
    wait_until(lambda: web.asked, "the request")
    for line in ("foo", f"fw get {quick}", "fw info 0", "info", "quit"):
        waiting.send(line.encode() + b"\n")
        begin = time.monotonic()
        assert other.command("foo", "\n").startswith("Unknown command")     # also keeps the lines apart
        assert time.monotonic() - begin < 5      # the server hangs for longer
    begin = time.monotonic()
    assert other.command(f"fw get {quick}", "\n") == "Firmware downloaded. Index: 0\n"
    figure("an image behind the hung one of an operator", "39.7 s", f"{time.monotonic() - begin:.2f} s")
    assert waiting.pull(0) == b""
    web.released.set()
    assert waiting.read_until("\n") == "Firmware downloaded. Index: 1\n"
    assert waiting.read_until("\n") == 'Unknown command. Type "h" or "help" for help.\n'
    assert waiting.read_until("\n") == "Firmware downloaded. Index: 0\n"
    assert waiting.read_until("\n") == "Incorrect INDEX value!\n"
    assert waiting.read_until("\n\n").startswith("GW Version")
    assert waiting.read_until("\n") == "bye bye.\n"
    waiting.wait_closed()


def test_an_operator_who_leaves_while_his_image_hangs_is_forgotten(gateway, web):
    leaving, staying = gateway.terminal(), gateway.terminal()
    leaving.send(f"fw get {web.serve('/slow', image(1), hangs=True)}\n".encode())
    wait_until(lambda: web.asked, "the request")
    port = leaving.port
    leaving.close()

    def gone():
        return f":{port} " not in staying.command("pcl", "##\n")

    wait_until(gone, "the record to go")
    web.released.set()
    wait_until(lambda: "Incorrect" not in staying.command("fw list", "\n"), "an answer")


def test_what_an_operator_sent_before_he_left_is_done(gateway, web):
    leaving, staying = gateway.terminal(), gateway.terminal()
    leaving.send(f"fw get {web.serve('/slow', image(1), hangs=True)}\n".encode())
    wait_until(lambda: web.asked, "the request")
    for line in ("dbg win y", "dbg discovery y"):
        leaving.send(line.encode() + b"\n")
        staying.command("foo", "\n")        # keeps the lines apart
    port = leaving.port
    leaving.close()
    wait_until(lambda: f":{port} " not in staying.command("pcl", "##\n"), "his leave")
    assert "win n\n" in staying.command("dbg", "ul_tdoa n\n")
    web.released.set()
    wait_until(lambda: "discovery y\n" in staying.command("dbg", "ul_tdoa n\n"), "what he sent last")
    assert "win y\n" in staying.command("dbg", "ul_tdoa n\n")


def test_what_is_typed_ahead_has_a_bound_and_what_is_refused_is_said(gateway, web):
    typing, other = gateway.terminal(), gateway.terminal()
    typing.send(f"fw get {web.serve('/slow', image(1), hangs=True)}\n".encode())
    wait_until(lambda: web.asked, "the request")
    for _ in range(70):
        typing.send(b"x" * 1023 + b"\n")
        other.command("foo", "\n")         # keeps the lines apart
    web.released.set()
    answer = typing.read_until("Not done: 6\n")
    unknown = 'Unknown command. Type "h" or "help" for help.\n'
    assert answer == "Firmware downloaded. Index: 0\n" + 64 * unknown + "Too much was typed ahead! Not done: 6\n"
    assert typing.command("foo", "\n") == unknown


def test_no_image_is_fetched_for_an_operator_who_has_gone(gateway, web):
    leaving = gateway.terminal()
    leaving.command("foo", "\n")
    with frozen(gateway.process.pid, "rtls-terminal"):
        leaving.send(f"fw get {web.serve('/left', image(1))}\n".encode())
        leaving.close()
        # The daemon's own descriptor of the connection is gone when the system knows the other end no more.
        wait_until(lambda: not connections_of(gateway.process.pid, gateway.ports["terminal"]), "its end")
    staying = gateway.terminal()
    assert staying.command(f"fw get {web.serve('/stays', image(2))}", "\n") == "Firmware downloaded. Index: 0\n"
    assert web.asked == ["/stays"]


def test_of_several_announced_images_the_last_is_the_current_one(gateway, web):
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()
    first = web.serve("/obn-node.00000001.bin", image(1), hangs=True)
    second = web.serve("/obn-node.00000002.bin", image(2))
    gateway.proxy.publish(announcement(first))
    gateway.proxy.publish(announcement(second))
    wait_until(lambda: web.asked, "the first request")
    bridge.barrier()
    web.released.set()
    update = bytes.fromhex("180100")
    assert bridge.receive() == update and bridge.receive() == update

    def images():
        return [line.split()[4] for line in gateway.syslog() if "firmware image:" in line]

    wait_until(lambda: len(images()) == 2, "the lines of both images")
    assert images()[-1] == "obn-node.00000002.bin"


def test_a_stop_ends_all_transfers(start_gateway, web):
    gateway = start_gateway()
    for git in range(8):
        gateway.proxy.publish(upload_order(git, web.serve(f"/{git}", image(git), hangs=True)))
    wait_until(lambda: len(web.asked) == 4, "the requests")
    begin = time.monotonic()
    gateway.interrupt()
    assert gateway.wait_exit(60) == 0
    assert time.monotonic() - begin < 5      # when a stop is cut short
    assert len(web.asked) == 4


def without_end(handler, beginning: bytes, line: bytes):
    """`line` again and again, and notes how much the system took of it, its own buffers included."""
    handler.wfile.write(beginning)
    handler.server.written = 0
    while True:
        handler.wfile.write(line)
        handler.server.written += len(line)


def endless_trailers(handler):
    without_end(handler, b"HTTP/1.1 200 OK\r\nContent-Length: 0\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n",
                b"X-Trailer: " + b"x" * 1000 + b"\r\n")


def endless_headers(handler):
    without_end(handler, b"HTTP/1.1 200 OK\r\n", b"X-Header: " + b"x" * 1000 + b"\r\n")


def endless_redirects(handler):
    handler.wfile.write(b"HTTP/1.1 302 Found\r\nLocation: /again\r\nContent-Length: 0\r\n\r\n")


@pytest.mark.parametrize("answer", [endless_headers, endless_trailers, endless_redirects])
def test_what_has_no_end_is_given_up(gateway, web, figure, answer):
    web.answers["/again"] = answer
    begin = time.monotonic()
    terminal = gateway.terminal()
    assert terminal.command(f"fw get {web.serve_by('/x', answer)}", "\n") == "Failed to read firmware!\n"
    assert time.monotonic() - begin < 10     # half of what a transfer may take
    assert len(web.asked) <= 12
    if answer is endless_redirects:
        figure("redirects followed", "3,990 in 2.2 s", f"{len(web.asked) - 1}", worst=len(web.asked))
    else:
        figure("headers or trailers that a file server gets rid of, with what TCP holds", "937 MB",
               f"{web.server.written / 1e6:.1f} MB", worst=web.server.written)
        assert web.server.written < 20e6


def test_files_of_the_kernel_are_no_images(gateway, figure):
    terminal, took = gateway.terminal(), []
    for path in ("/proc/kmsg", "/proc/self/status", "/dev/zero", "/etc"):
        begin = time.monotonic()
        assert terminal.command(f"fw get file://{path}", "\n") == "Failed to read firmware!\n"
        took.append(time.monotonic() - begin)
    figure("until an order of `file:///proc/kmsg` has failed", "for good", f"{max(took):.2f} s")
    assert max(took) < 10


def test_the_reason_of_a_failure_goes_to_the_debug_stream(gateway):
    terminal = gateway.terminal()
    terminal.command("sub", "\n")
    terminal.command("dbg develop y", "ul_tdoa n\n")
    for order in (upload_order(1, "http://127.0.0.1:1/x"), announcement("http://127.0.0.1:1/x")):
        gateway.proxy.publish(order)
        assert "http://127.0.0.1:1/x: Couldn't connect to server" in terminal.read_until("server\n")
    terminal.send(b"fw get http://127.0.0.1:1/x\n")
    assert "http://127.0.0.1:1/x: Couldn't connect to server" in terminal.read_until("server\n")


def listening(gateway):
    """An operator who sees the reasons."""
    terminal = gateway.terminal()
    terminal.command("sub", "\n")
    terminal.command("dbg develop y", "ul_tdoa n\n")
    return terminal


def test_the_reason_goes_there_when_the_transfer_was_fine_too(start_gateway, web):
    def change(config):
        config["firmware_keep_ordered"] = "yes"
        return config
    gateway = start_gateway(change=change)
    terminal, other = listening(gateway), gateway.terminal()
    whole = image(1)
    cases = [("/crc", whole, 1, 1, "incorrect crc32"),
             ("/version", whole, 2, None, "incorrect git version"),
             ("/board", whole.replace(b"@Board", b"@board"), 1, None, 'tag "@BoardVer" not found'),
             ("/name", whole.replace(b"@Firm", b"@firm"), 1, None, 'tag "@Firmware" not found')]
    for path, data, git, crc, reason in cases:
        url = web.serve(path, data)
        crc = crc or zlib.crc32(data)
        gateway.proxy.publish(struct.pack(">HIIH", wire.OTA_UPLOAD, git, crc, len(url)) + url.encode())
        terminal.read_until(f"{url}: {reason}\n")
    for git in (1, 2):      # both slots are the servers' now
        gateway.proxy.publish(upload_order(git, web.serve(f"/{git}", image(git))))
    gateway.broker.wait_for("PROXY: Firmware downloaded. Index: ", count=2)
    other.send(f"fw get {web.serve('/3', image(3))}\n".encode())
    terminal.read_until("/3: the images that the servers ordered are kept\n")
    assert other.read_until("\n") == "Failed to read firmware!\n"


def test_the_reason_goes_there_when_too_many_wait(gateway, web):
    terminal = listening(gateway)
    hung = web.serve("/hung", b"", hangs=True)
    asking = [gateway.terminal() for _ in range(103)]    # two are fetched, a hundred wait
    for operator in asking[:2]:
        operator.send(f"fw get {hung}\n".encode())
    wait_until(lambda: len(web.asked) == 2, "the first two to be fetched")
    for operator in asking[2:]:
        operator.send(f"fw get {hung}\n".encode())
    terminal.read_until("/hung: too many downloads wait, or there is no memory for one more\n")
    answers = wait_until(lambda: [text for operator in asking if (text := operator.pull(0))], "the refusal")
    assert answers == [b"Failed to read firmware!\n"]
