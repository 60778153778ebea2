"""The runs of the daemon of which tests/replay has recordings: what a gateway is to know before, and what is said to it.

A recording is played with its pauses, and what several bridges say may then come in another order where it was said within
a moment. So each node is heard by one bridge, but for what comes out the same in either order.
"""
import pathlib
import random
import struct
import subprocess
import zlib

from . import wire
from .daemon import BUILD, ROOT, Daemon

FOLDER = ROOT / "tests" / "replay"
BRIDGE, OTHER = wire.mac(0xB001), wire.mac(0xB002)
NODES = [wire.mac(0x1A00 + i) for i in range(4)]
SPECIAL = bytes([wire.START, wire.ESC, wire.END])


def address(node: bytes) -> bytes:
    return wire.ip(node[-1])


def heartbeat(node: bytes, seq: int, bridge: bytes = BRIDGE, flags: int = 0) -> bytes:
    return wire.heartbeat(node, seq, bridge=bridge, addr=address(node), parent=bridge, flags=flags)


def introduced(gateway: Daemon, mac: bytes):
    bridge = gateway.bridge(mac)
    bridge.introduce()
    bridge.barrier()
    return bridge


class Malformed:
    """Frames that are none of the link's, between good ones; a frame that the end of its connection cuts; garbage."""

    @staticmethod
    def prepare(gateway: Daemon):
        pass

    @staticmethod
    def streams() -> list:
        whole = heartbeat(NODES[1], 1)
        sensor = wire.sensor(2, b"abc", address(NODES[1]))
        envelope = wire.envelope(whole[:39], NODES[1], address(NODES[1]))
        return [b"\x00\xff" + bytes([wire.ESC, wire.END]),  # outside of frames
                bytes([wire.START, wire.END]), wire.frame(whole)[:30],  # nothing inside; another begins within
                *(wire.frame(whole[:size]) for size in (1, 2, 3, 38, 62)), wire.frame(whole + b"\0"),
                wire.frame(sensor[:-16]), wire.frame(sensor[:3] + struct.pack("<H", 500) + sensor[5:]),
                wire.frame(envelope[:-1]), wire.frame(wire.envelope(envelope, NODES[1], address(NODES[1]))),
                wire.frame(wire.wrap_ts(b"", 1_700_000_000, 0)), wire.frame(wire.wrap_ts(whole[:20], 1_700_000_000, 0)),
                wire.frame(struct.pack("<HB", 0x0303, 1) + bytes(20))]

    @staticmethod
    def garbage() -> list:
        rng = random.Random(20261122)
        codes = [wire.PANID_REQ, wire.ANNOUNCE_ROOT, wire.HEARTBEAT, wire.GENERIC_SERVER_REQ, wire.SENSOR_NEW, wire.WRAP_TS,
                 wire.NWK_DATA_IND, wire.TRF2SRV]
        return [struct.pack("<HB", rng.choice(codes) | rng.choice([0, wire.ACK, wire.DIRECT]), rng.randrange(256)) +
                rng.randbytes(rng.choice([0, 1, 2, 8, 11, 27, 60, 61, 150])) for _ in range(60)]

    @classmethod
    def talk(cls, gateway: Daemon):
        bridge = introduced(gateway, BRIDGE)
        for number, stream in enumerate(cls.streams(), 1):
            bridge.send(stream)
            bridge.send_message(heartbeat(NODES[0], 2 * number), wire.sensor(2 * number + 1, SPECIAL + b"x", address(NODES[0])))
            bridge.barrier()
        bridge.send(wire.frame(heartbeat(NODES[0], 99))[:-1])
        bridge.close()
        bridge = introduced(gateway, OTHER)
        bridge.send_message(*cls.garbage())
        bridge.barrier()
        bridge.close()


class Duplicates:
    """Messages that come again: from the node and by another one, at two bridges; acknowledgements, and commands down."""

    @staticmethod
    def prepare(gateway: Daemon):
        pass

    @staticmethod
    def talk(gateway: Daemon):
        first, second = introduced(gateway, BRIDGE), introduced(gateway, OTHER)
        for seq in (1, 1, 2, 3, 3, 3, 250, 250, 0, 0):
            for node in NODES[:2]:
                forwarded = wire.envelope(wire.forwarded_heartbeat(node, seq), node, address(node))
                first.send_message(heartbeat(node, seq, flags=wire.ACK), forwarded)
            first.barrier()
        for number, node in enumerate(NODES[:2]):
            gateway.proxy.publish(wire.generic_req(SPECIAL + b"abc", node, seq=number))
            first.receive()
        second.send_message(heartbeat(NODES[2], 1, OTHER), heartbeat(NODES[2], 1, OTHER))
        second.barrier()
        gateway.proxy.publish(struct.pack(">HB", wire.REST_ACK, 1) + NODES[2])
        second.receive()
        gateway.proxy.publish("no hex at all")
        heard = wire.sensor(7, b"heard twice", address(NODES[0]))
        first.send_message(heard, wire.envelope(heard[:-16], NODES[0], address(NODES[0])))  # a replay keeps a bridge's order only
        first.barrier()
        first.close()
        second.close()


class Pages:
    """A node that fetches an image page by page, asks for two of them again, and for what is not here, which the servers get."""

    GIT, PAGE_SIZE = 0xCAFE0001, 128
    IMAGE = b"\x7fsome code@BoardVer\0\3\4@Firmware\0" + struct.pack(">IHH", GIT, PAGE_SIZE, 64) + (SPECIAL + b"code") * 80

    @classmethod
    def prepare(cls, gateway: Daemon):
        file = gateway.folder / "image.bin"
        file.write_bytes(cls.IMAGE)
        assert gateway.terminal().command(f"fw get file://{file}", "\n") == "Firmware downloaded. Index: 0\n"

    @classmethod
    def request(cls, seq: int, number: int, git: int = GIT) -> bytes:
        body = struct.pack(">IIHH", git, zlib.crc32(cls.IMAGE), cls.PAGE_SIZE, number)
        return wire.generic_server_req(seq, 16, body, address(NODES[0]))

    @classmethod
    def talk(cls, gateway: Daemon):
        bridge = introduced(gateway, BRIDGE)
        bridge.send_message(heartbeat(NODES[0], 1))
        for seq, number in enumerate((0, 1, 1, 2, 3, 4, 0), 2):
            bridge.send_message(cls.request(seq, number))
            bridge.receive()
        bridge.send_message(cls.request(20, 5), cls.request(21, 0, git=1))
        bridge.barrier()

    @staticmethod
    def is_complete(messages: list) -> bool:
        """The bridge stays: played on a busy machine its end would come before the pages, which then go nowhere."""
        return sum(topic.startswith(b"link/out/") and b"barrier" in payload[0] for topic, _, *payload in messages) == 2


class Simulator:
    """A second of the simulator's network, with one bridge, and its servers."""

    @staticmethod
    def prepare(gateway: Daemon):
        pass

    @staticmethod
    def talk(gateway: Daemon):
        ports = [f"--{name.replace('_', '-')}-port={gateway.ports[name]}" for name in ("win", "proxy", "proxy_input", "handler")]
        subprocess.run([BUILD / "rtls-sim", "all", "--quiet", "--check", "--no-broker", "--bridges=1", "--nodes=5", "--duration=1",
                        "--rate=60", "--acks=30", *ports], check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL)


RUNS = {"malformed": Malformed, "duplicates": Duplicates, "pages": Pages, "simulator": Simulator}


def without_broker(config: dict) -> dict:
    """It would be gone when the gateway stops, which waits for it then."""
    return {name: value for name, value in config.items() if name != "debug_broker_address"}


def options_of(name: str) -> dict:
    """How a run is recorded, beside what it says. The simulator plays the servers itself."""
    if name == "simulator":
        return {"upstream": (), "change": without_broker}
    return {"is_complete": Pages.is_complete} if name == "pages" else {}


def file_of(name: str) -> pathlib.Path:
    return FOLDER / f"{name}.pcapng"
