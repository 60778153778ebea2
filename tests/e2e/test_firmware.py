"""Firmware: download with its checks, the store, pages served to nodes, pages intercepted on their way down."""
import http.server
import struct
import threading
import zlib

import pytest

from harness import wire
from harness.peers import wait_until

NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
BRIDGE = wire.mac(0xB001)
HEADER = "index     git id      crc32     size   page size   pages   brd version   brd revision   max pages\n"


def image(git: int = 0xCAFE0001, size: int = 1000, page_size: int = 128, board=(3, 4), pages: int = 64) -> bytes:
    body = (b"\x7fsome code" + b"@BoardVer\0" + bytes(board) +
            b"@Firmware\0" + struct.pack(">IHH", git, page_size, pages))
    return body + bytes((i * 7 + git) % 256 for i in range(size - len(body)))


def node_crc(data: bytes) -> int:
    """The nodes' own rule: the CRC-32 polynomial without any inversion."""
    value = 0
    for byte in data:
        value ^= byte
        for _ in range(8):
            value = value >> 1 ^ (0xEDB88320 if value & 1 else 0)
    return value


class ImageServer:
    """An HTTP server whose answers are given as raw bytes by path. `release` lets stalled ones go on."""

    def __init__(self):
        self.answers = {}
        self.asked = []
        self.release = threading.Event()
        outer = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                outer.asked.append((self.path, self.headers.get("User-Agent")))
                answer = outer.answers[self.path]
                if callable(answer):
                    answer(self)
                else:
                    self.wfile.write(answer)
                self.close_connection = True

            def log_message(self, *_):
                pass

        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.server.daemon_threads = True
        threading.Thread(target=self.server.serve_forever, args=(0.01,), daemon=True).start()

    def url(self, path: str) -> str:
        return f"http://127.0.0.1:{self.server.server_port}{path}"

    def serve(self, path: str, data: bytes, headers: str = None) -> str:
        if headers is None:
            headers = f"Content-Length: {len(data)}\r\n"
        self.answers[path] = b"HTTP/1.1 200 OK\r\n" + headers.encode() + b"\r\n" + data
        return self.url(path)

    def close(self):
        self.release.set()
        self.server.shutdown()
        self.server.server_close()


@pytest.fixture
def web():
    server = ImageServer()
    yield server
    server.close()


@pytest.fixture
def bridge(gateway):
    bridge = gateway.bridge(BRIDGE)
    bridge.send_message(wire.heartbeat(BRIDGE, 1, bridge=BRIDGE, addr=wire.ip(1), reporting=255),
                        wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP, reporting=255))
    assert len(gateway.reports(bridge)) == 2
    return bridge


def row(index: int, data: bytes, git: int, page_size: int = 128, board=(3, 4), pages: int = 64) -> str:
    return "%5u %10X %10X %8u %11u %7u %13u %14u %11u\n" % (
        index, git, zlib.crc32(data), len(data), page_size, -(-len(data) // page_size), *board, pages)


def listing(terminal) -> str:
    terminal.send(b"fw list\n")
    text = terminal.read_until(HEADER)
    terminal.send(b"foo\n")
    text += terminal.read_until("for help.\n")
    return text[len(HEADER):].replace('Unknown command. Type "h" or "help" for help.\n', "")


def page_request(git: int, crc: int, page_size: int, number: int, seq: int = 1) -> bytes:
    return wire.generic_server_req(seq, 16, struct.pack(">IIHH", git, crc, page_size, number), NODE_IP)


@pytest.mark.threads
def test_get_list_and_replace_in_turn(gateway, web):
    terminal = gateway.terminal()
    images = {git: image(git, 900 + git) for git in (1, 2, 3)}
    urls = {git: web.serve(f"/obn-node.0000000{git}.bin", data) for git, data in images.items()}
    for git, index in ((1, 0), (2, 1), (3, 0), (2, 1), (1, 1)):
        assert terminal.command(f"fw get {urls[git]}", "\n") == f"Firmware downloaded. Index: {index}\n"
    assert listing(terminal) == row(0, images[3], 3) + row(1, images[1], 1)
    assert web.asked[0][1] == ("Mozilla/5.0 (X11; Linux x86_64) AppleWebKit/537.31 (KHTML,like Gecko) "
                               "Chrome/26.0.1410.43 Safari/537.31")


@pytest.mark.parametrize("name, headers, change, text", [
    ("no length", "", None, "curl_easy_perform failed: "),
    ("chunked", "Transfer-Encoding: chunked\r\n", None, "curl_easy_perform failed: "),
    ("terabytes", "Content-Length: 9999999999999\r\n", None, "out of memory!"),
    ("too many digits", "Content-Length: 99999999999999999999999999\r\n", None, None),
    ("negative", "Content-Length: -5\r\n", None, "curl_easy_perform failed: "),
    ("longer announced", "Content-Length: 2000\r\n", None, "curl_easy_perform failed: "),
    ("a smaller length last", "X-Content-Length: 1000\r\nContent-Length: 1000\r\nX-Original-Content-Length: 2\r\n", None,
     "curl_easy_perform failed: "),
    ("no board tag", None, lambda d: d.replace(b"@BoardVer\0", b"@BoardVer "), 'tag "@BoardVer" not found in firmware!'),
    ("no firmware tag", None, lambda d: d.replace(b"@Firmware\0", b"@Firmware "), 'tag "@Firmware" not found in firmware!'),
    ("cut behind its tag", None, lambda d: d[:d.index(b"@Firmware\0") + 17], 'tag "@Firmware" not found in firmware!'),
])
def test_images_that_are_refused(gateway, web, name, headers, change, text):
    terminal = gateway.terminal()
    data = image()
    url = web.serve("/bad.bin", change(data) if change else data, headers)
    assert terminal.command(f"fw get {url}", "\n") == "Failed to read firmware!\n"
    if text:
        gateway.broker.wait_for(text)
    assert listing(terminal) == ""
    good = web.serve("/good.bin", data)
    assert terminal.command(f"fw get {good}", "\n") == "Firmware downloaded. Index: 0\n"


@pytest.mark.parametrize("url", ["gopher://127.0.0.1:1/x", "dict://127.0.0.1:1/x", "ftp://127.0.0.1:1/x",
                                 "http://127.0.0.1:1/nobody.bin", "nonsense"])
def test_urls_that_are_refused(gateway, url):
    assert gateway.terminal().command(f"fw get {url}", "\n") == "Failed to read firmware!\n"
    gateway.broker.wait_for("curl_easy_perform failed: ")


def test_redirects_are_followed_to_http_only(gateway, web, tmp_path):
    terminal = gateway.terminal()
    data = image()
    web.serve("/image.bin", data)
    web.answers["/moved"] = (b"HTTP/1.1 302 Found\r\nLocation: /image.bin\r\nContent-Length: 5\r\n\r\nhello")
    assert terminal.command(f"fw get {web.url('/moved')}", "\n") == "Firmware downloaded. Index: 0\n"
    (tmp_path / "image.bin").write_bytes(data)
    web.answers["/file"] = f"HTTP/1.1 302 Found\r\nLocation: file://{tmp_path}/image.bin\r\nContent-Length: 0\r\n\r\n".encode()
    assert terminal.command(f"fw get {web.url('/file')}", "\n") == "Failed to read firmware!\n"
    assert terminal.command(f"fw get file://{tmp_path}/image.bin", "\n") == "Firmware downloaded. Index: 0\n"


@pytest.mark.threads
def test_while_the_terminal_downloads_the_bridges_are_served(gateway, web, bridge):
    data = image()

    def stall(handler):
        handler.wfile.write(b"HTTP/1.1 200 OK\r\nContent-Length: %d\r\n\r\n" % len(data) + data[:10])
        handler.wfile.flush()
        web.release.wait(15)
        handler.wfile.write(data[10:])

    web.answers["/slow.bin"] = stall
    terminal = gateway.terminal()
    terminal.send(f"fw get {web.url('/slow.bin')}\n".encode())
    wait_until(lambda: web.asked, "the request")
    for _ in range(100):
        assert bridge.barrier() == []
    web.release.set()
    assert terminal.read_until("\n") == "Firmware downloaded. Index: 0\n"


@pytest.mark.threads
def test_an_operator_who_leaves_during_a_download_disturbs_nobody(gateway, web):
    def stall(handler):
        web.release.wait(15)

    web.answers["/slow.bin"] = stall
    leaving, staying = gateway.terminal(), gateway.terminal()
    leaving.send(f"fw get {web.url('/slow.bin')}\n".encode())
    wait_until(lambda: web.asked, "the request")
    leaving.close()
    web.release.set()
    for _ in range(3):
        assert staying.command("foo", "\n").startswith("Unknown")
        assert staying.command("fw info 0", "\n") == "Incorrect INDEX value!\n"


@pytest.mark.threads
def test_a_stop_does_not_wait_for_a_download(start_gateway, web):
    gateway = start_gateway()
    web.answers["/slow.bin"] = lambda handler: web.release.wait(25)
    gateway.terminal().send(f"fw get {web.url('/slow.bin')}\n".encode())
    wait_until(lambda: web.asked, "the request")
    gateway.interrupt()
    assert gateway.wait_exit(8) == 0


@pytest.mark.threads
def test_pages_are_served_to_nodes(gateway, web, bridge):
    data, git = image(size=1000), 0xCAFE0001
    crc = zlib.crc32(data)
    gateway.terminal().command(f"fw get {web.serve('/i.bin', data)}", "Index: 0\n")
    for number in range(8):
        bridge.send_message(page_request(git, crc, 128, number, seq=number))
        page = data[number * 128:(number + 1) * 128].ljust(128, b"\xff")
        assert bridge.receive() == (bytes.fromhex("0e08") + bytes([number]) + struct.pack(">H", 142) +
                                    struct.pack(">HIIHH", 16, git, crc, 128, number) + page + NODE_IP)
    assert gateway.reports(bridge) == [], "the servers are not bothered"


@pytest.mark.parametrize("git, page_size, number", [(0xCAFE0002, 128, 0), (0xCAFE0001, 128, 8), (0xCAFE0001, 100, 0),
                                                    (0xCAFE0001, 32, 65535), (0xCAFE0001, 65504, 65535)])
def test_pages_that_are_not_here_are_asked_upstream(gateway, web, bridge, git, page_size, number):
    data = image(size=1000)
    gateway.terminal().command(f"fw get {web.serve('/i.bin', data)}", "Index: 0\n")
    request = page_request(git, zlib.crc32(data), page_size, number)
    bridge.send_message(request)
    assert gateway.handler.receive()[1] == struct.pack(">HBH", wire.GENERIC_SERVER_REQ, 1, 14) + request[5:19] + NODE
    assert bridge.barrier() == []


@pytest.mark.parametrize("page_size, served", [(768, True), (800, False)])
def test_a_page_too_large_for_a_request_is_swallowed(gateway, web, bridge, page_size, served):
    data = image(size=1000)
    gateway.terminal().command(f"fw get {web.serve('/i.bin', data)}", "Index: 0\n")
    bridge.send_message(page_request(0xCAFE0001, zlib.crc32(data), page_size, 0))
    if served:
        assert bridge.receive()[19:19 + 768] == data[:768]
    else:
        gateway.broker.wait_for("ERROR(GENERIC): msg too long, rcvd: 827")
        assert bridge.barrier() == []
    assert gateway.reports(bridge) == []


@pytest.mark.threads
def test_pages_from_the_proxy_are_kept_and_served(gateway, bridge):
    git, crc = 0x11223344, 0x55667788
    pages = [bytes((i * 3 + n) % 256 for i in range(64)) for n in range(3)]
    for number, page in enumerate(pages):
        payload = b"\x00\x10" + struct.pack(">IIHH", git, crc, 64, number) + page
        assert len(payload) == 78
        gateway.proxy.publish(wire.generic_req(payload, NODE))
        assert bridge.receive()[5:83] == payload
    gateway.proxy.publish(wire.generic_req(b"\x00\x10" + struct.pack(">IIHH", git, crc, 64, 5) + bytes(63), NODE))
    bridge.receive()
    assert listing(gateway.terminal()) == "%5u %10X %10X %8u %11u %7u %13u %14u %11u\n" % (0, git, crc, 262144, 0, 0, 0, 0, 0)
    bridge.send_message(page_request(git, crc, 64, 1), page_request(git, crc, 32, 5))
    assert bridge.receive()[19:83] == pages[1]
    assert bridge.receive()[19:51] == pages[2][32:]
    bridge.send_message(page_request(git, crc, 64, 5), page_request(git, crc, 128, 1))
    assert bridge.barrier() == [], "a page of which a block is missing"
    assert len(gateway.reports(bridge)) == 2


def upload_order(data: bytes, url: str, git=None, crc=None) -> bytes:
    git = 0xCAFE0001 if git is None else git
    crc = zlib.crc32(data) if crc is None else crc
    return struct.pack(">HIIH", wire.OTA_UPLOAD, git, crc, len(url)) + url.encode()


@pytest.mark.threads
def test_an_upload_order_fills_the_store(gateway, web):
    data = image()
    url = web.serve("/i.bin", data)
    gateway.proxy.publish(upload_order(data, url))
    gateway.broker.wait_for(f"PROXY: MSG_OTA_UPLOAD_FW mgd: CAFE0001 crc: {zlib.crc32(data):08X} url: {url}")
    gateway.broker.wait_for("PROXY: Firmware downloaded. Index: 0\n")
    assert listing(gateway.terminal()) == row(0, data, 0xCAFE0001)


@pytest.mark.parametrize("git, crc, text", [(0, None, "ota_download_firmware incorrect git version!"),
                                            (None, 0, "ota_download_firmware incorrect crc32!")])
def test_an_upload_order_is_checked(gateway, web, git, crc, text):
    data = image()
    gateway.proxy.publish(upload_order(data, web.serve("/i.bin", data), git, crc))
    gateway.broker.wait_for(text)
    gateway.broker.wait_for("PROXY: Failed to read firmware!")
    assert listing(gateway.terminal()) == ""


@pytest.mark.parametrize("crc_of, adopted", [(lambda d: 0, True), (node_crc, True), (zlib.crc32, False)])
def test_an_announced_image_updates_every_bridge(gateway, web, bridge, crc_of, adopted):
    second = gateway.bridge(wire.mac(0xB002))
    data = image(size=700)
    url = web.serve("/obn-node.0102A0FF.bin", data)
    crc = crc_of(data)
    gateway.proxy.publish(struct.pack(">HIIH", wire.FW_IMAGE_AVAIL, 0x01020304, crc, len(url)) + url.encode())
    raw = struct.unpack("<I", struct.pack(">I", crc))[0]
    gateway.broker.wait_for(f"PROXY: MSG_FW_IMAGE_AVAIL_IND mgd: 04030201 crc: {raw:08X} url: {url}")
    gateway.broker.wait_for(f"firmware image: obn-node.0102A0FF.bin crc: {node_crc(data):04X} version: 102A0FF len: 700")
    if adopted:
        assert bridge.receive() == second.receive() == bytes.fromhex("180100")
        for peer in (bridge, second):
            gateway.broker.wait_for("UPDATE: send cmd: MSG_UPDATE_CMD to brige: 127.0.0.1")
    else:
        gateway.broker.wait_for(
            f"MSG_FW_IMAGE_AVAIL_IND bad crc32 sum: s:{raw:08X} d:{node_crc(data):08X}, firmware removed")
        assert bridge.barrier() == []


def test_an_announced_image_that_cannot_be_fetched(gateway, bridge):
    url = "http://127.0.0.1:1/x.bin"
    gateway.proxy.publish(struct.pack(">HIIH", wire.FW_IMAGE_AVAIL, 1, 0, len(url)) + url.encode())
    gateway.broker.wait_for(f"PROXY: MSG_FW_IMAGE_AVAIL_IND cannot get firmware from: {url}")
    assert bridge.barrier() == []


def test_apply_goes_to_the_node_that_the_word_itself_names(gateway):
    bridge = gateway.bridge(BRIDGE)
    node = wire.mac(0x000A)
    bridge.send_message(wire.heartbeat(node, 1, bridge=BRIDGE, addr=NODE_IP))
    bridge.barrier()
    assert gateway.terminal().command("fw apply 1A2B", "\n") == "Command sent successfully!\n"
    assert bridge.receive() == bytes.fromhex("0e0800" "0002" "0011") + NODE_IP
