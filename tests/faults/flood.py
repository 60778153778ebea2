"""flood.py PORT CONNECTIONS KIND read|deaf|shut: hostile bridges, until the input is closed. Each names itself first,
so that supervision has no reason to close it. "shut": deaf, and TCP holds next to nothing for it.

Says "connected" once all connections stand ("usual": and are greeted), then nothing. KIND: "small", pings as short as
they can be; "usual", pings of 100 bytes; "large", pings of 1 MiB; "open", one message of nearly 1 MiB that does not
end; "reports", those of the first one's node; "silent", nothing."""
import pathlib
import select
import socket
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))

from harness import wire  # noqa: E402

MIB = 1 << 20
KINDS = {
    "small": b"\xf5\x00\x00\x01\xf7" * 13107,
    "usual": (b"\xf5\x00\x00\x01" + b"\x11" * 95 + b"\xf7") * 650,
    "large": b"\xf5\x00\x00\x01" + b"\x11" * (MIB - 8) + b"\xf7",
    "open": b"\xf5" + b"\x11" * (MIB - 8),
    "silent": b"",
    "reports": wire.frame(wire.sensor(1, bytes(24), wire.ip(0x100000))) * 1000,
}


class Flood:
    def __init__(self, port: int, connections: int, kind: str, reads: bool, room: int):
        self.data = memoryview(KINDS[kind])
        self.goes_on = kind in ("small", "usual", "large", "reports")
        self.reads = select.EPOLLIN if reads else 0
        self.epoll = select.epoll()
        self.epoll.register(sys.stdin, select.EPOLLIN)
        self.at = {}
        self.socks = {}
        for number in range(connections):
            sock = socket.socket()
            if room:
                sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, room)
            sock.connect(("127.0.0.1", port))
            mac = wire.mac(0x2000 + number)
            sock.sendall(wire.frame(wire.heartbeat(mac, 1, bridge=mac, addr=wire.ip(0x100000 + number))))
            sock.setblocking(False)
            self.socks[sock.fileno()] = sock
            self.at[sock.fileno()] = 0
            self.epoll.register(sock, (select.EPOLLOUT if self.data else 0) | self.reads)
        if kind == "usual":
            for sock in self.socks.values():
                sock.setblocking(True)    # as bridges do; who is not greeted yet is not served in time behind a flood
                assert sock.recv(5)
                sock.setblocking(False)

    def serve(self, sock, events: int):
        if events & select.EPOLLIN and not sock.recv(MIB):
            raise OSError
        if events & select.EPOLLOUT:
            at = self.at[sock.fileno()] + sock.send(self.data[self.at[sock.fileno()]:])
            if at == len(self.data) and not self.goes_on:
                self.epoll.modify(sock, self.reads)
            self.at[sock.fileno()] = at % len(self.data)

    def run(self):
        while True:
            for fd, events in self.epoll.poll():
                if fd == sys.stdin.fileno():
                    return
                try:
                    self.serve(self.socks[fd], events)
                except BlockingIOError:
                    pass
                except OSError:
                    self.epoll.unregister(fd)
                    self.socks.pop(fd).close()


if __name__ == "__main__":
    flood = Flood(int(sys.argv[1]), int(sys.argv[2]), sys.argv[3], sys.argv[4] == "read",
                  4096 if sys.argv[4] == "shut" else 0)
    print("connected", flush=True)
    flood.run()
