#!/usr/bin/python3
"""Prints what a gateway's tap publishes, a line each: tap_client.py ENDPOINT [TOPIC...]
Tells what it missed of a class, which shows only if it takes all of it: "report/", not "report/0012AB0000000001".

    tap_client.py tcp://127.0.0.1:5559 report/ event
"""
import struct
import sys

import zmq

HEAD = struct.Struct("!BBHIQQ")  # version, direction, zero, connection, number, clock in ns
DIRECTIONS = ["up", "down", "-"]


def class_of(topic: str) -> str:
    """Of "link/in/0012AB0000000001" link/in: by classes the messages are numbered."""
    return "/".join(topic.split("/")[:2 if topic.startswith("link/") else 1])


def main(endpoint: str, *topics: str):
    socket = zmq.Context.instance().socket(zmq.SUB)
    for topic in topics or [""]:
        socket.subscribe(topic)
    socket.connect(endpoint)
    last = {}
    while True:
        topic, head, *payload = socket.recv_multipart()
        version, direction, _, connection, number, clock = HEAD.unpack(head)
        assert version == 1
        name = class_of(topic.decode())
        if missed := number - last.get(name, number - 1) - 1:
            print(f"{missed} of {name} missed", file=sys.stderr)
        last[name] = number
        print(f"{clock / 1e9:.6f} {DIRECTIONS[direction]} {connection:08X} {number} {topic.decode()}",
              *(frame.hex() for frame in payload), flush=True)


main(*sys.argv[1:])
