#!/usr/bin/python3
"""A message handler: prints each report of one gateway or several as a line of JSON.

    message_handler.py [ENDPOINT]     where gateways connect to: tcp://*:5557
"""
import json
import signal
import struct
import sys

import zmq

ROLES = ["undefined", "fixed", "mobile", "configuration pending", "bridge", "TDOA mobile", "sensor"]


def node(body: bytes) -> dict:
    """A heartbeat, or a node's announcement, behind type and sequence number."""
    reporting, ranging, role, sublocation, mac, parent, firmware, x, y, z_offset, z, bridge = struct.unpack(
        ">BBBB8s8sIiihh8s", body)
    known = role & 0x0F < len(ROLES)
    return {"mac": mac.hex(), "parent": parent.hex(), "bridge": bridge.hex(), "firmware": f"{firmware:08x}",
            "role": ROLES[role & 0x0F] if known else role & 0x0F, "state": role & 0xF0, "sublocation": sublocation,
            "reports_every_s": reporting, "ranging": ranging, "x": x, "y": y, "z": z, "z_offset": z_offset}


def root(body: bytes) -> dict:
    mac, prefix = struct.unpack(">8sH", body)
    return {"mac": mac.hex(), "prefix": f"{prefix:04x}"}


def counted(body: bytes) -> tuple:
    """What begins with its length and ends with the sender's MAC."""
    length, = struct.unpack_from(">H", body)
    if len(body) != 2 + length + 8:
        raise ValueError("wrong length")
    return body[2:2 + length], body[2 + length:].hex()


def sensor(body: bytes) -> dict:
    data, mac = counted(body)
    return {"mac": mac, "data": data.hex()}


def generic(body: bytes) -> dict:
    data, mac = counted(body)
    code, = struct.unpack_from(">H", data)
    if code != 0x0030:
        return {"mac": mac, "code": code, "data": data[2:].hex()}
    entries = struct.iter_unpack(">2sIH", data[2:len(data) - (len(data) - 2) % 8])
    return {"mac": mac, "ranges": [{"to": to.hex(), "distance": distance, "quality": quality}
                                   for to, distance, quality in entries]}


KINDS = {0x0103: ("root", root), 0x0104: ("heartbeat", node), 0x010F: ("announcement", node),
         0x010E: ("generic", generic), 0x0116: ("sensor", sensor)}


def report_of(time: bytes, message: bytes) -> dict:
    """The two parts of a report, by name. What is not known, or not as it should be, stays hexadecimal."""
    try:
        seconds, milliseconds = struct.unpack(">IH", time)
        code, sequence = struct.unpack_from(">HB", message)
        kind, read = KINDS[code]
        return {"time": seconds + milliseconds / 1000, "kind": kind, "sequence": sequence, **read(message[3:])}
    except (struct.error, KeyError, ValueError):
        return {"kind": "other", "time_bytes": time.hex(), "bytes": message.hex()}


def main():
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    socket = zmq.Context.instance().socket(zmq.PULL)
    socket.bind(sys.argv[1] if len(sys.argv) > 1 else "tcp://*:5557")
    while True:
        parts = socket.recv_multipart()  # never waits between a message's parts
        if len(parts) == 2:
            print(json.dumps(report_of(*parts)), flush=True)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
