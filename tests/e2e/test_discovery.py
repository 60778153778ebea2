"""UDP discovery: both request forms, answered from the address that was asked, and the refusals."""
import socket
import struct

import pytest

from harness.peers import DEADLINE


def ask(gateway, request: bytes, address="127.0.0.1", source="127.0.0.1", timeout=DEADLINE):
    """The answer, who sent it, and our own port; no answer: (b"", None, port)."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.bind((source, 0))
        sock.settimeout(timeout)
        sock.sendto(request, (address, gateway.ports["discovery"]))
        try:
            answer, peer = sock.recvfrom(100)
        except TimeoutError:
            answer, peer = b"", None
        return answer, peer, sock.getsockname()[1]


@pytest.mark.parametrize("request_bytes", [bytes(6), b"\x01\x02\x03\x04\x05\x06", b"\xff" * 6])
def test_six_bytes_of_anything_are_answered_with_the_askers_address(gateway, request_bytes):
    answer, _, port = ask(gateway, request_bytes, source="127.0.0.3")
    assert answer == socket.inet_aton("127.0.0.3") + struct.pack(">H", gateway.ports["win"])
    gateway.broker.wait_for(f"DISC: rcvd discovery: 127.0.0.3:{port}")


@pytest.mark.parametrize("address", ["127.0.0.1", "127.0.0.2"])
def test_nine_bytes_are_answered_with_the_address_that_was_asked(gateway, address):
    request = b"\x01" + bytes(range(0xA0, 0xA8))
    answer, _, _ = ask(gateway, request, address=address)
    assert answer == request + socket.inet_aton(address) + struct.pack(">H", gateway.ports["win"])


@pytest.mark.parametrize("request_bytes, text", [
    (b"\x01" * 10, "Invalid size of DSC_CMD_REQUEST_ADDRESS"),
    (b"\x01" * 8, "Invalid size of DSC_CMD_REQUEST_ADDRESS"),
    (b"\x01" * 40, "Invalid size of DSC_CMD_REQUEST_ADDRESS"),
    (b"\x02" * 9, "unknown discovery command: 2"),
    (b"\xff", "unknown discovery command: 255"),
])
def test_other_requests_are_named_and_not_answered(gateway, request_bytes, text):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.bind(("127.0.0.1", 0))
        sock.settimeout(DEADLINE)
        sock.sendto(request_bytes, ("127.0.0.1", gateway.ports["discovery"]))
        gateway.broker.wait_for("DISC: " + text)
        sock.sendto(bytes(6), ("127.0.0.1", gateway.ports["discovery"]))
        assert len(sock.recv(100)) == 6, "the first answer is that of the second request"


@pytest.mark.threads
def test_an_empty_datagram_changes_nothing(gateway):
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sock:
        sock.sendto(b"", ("127.0.0.1", gateway.ports["discovery"]))
    assert len(ask(gateway, bytes(6))[0]) == 6
