#!/usr/bin/python3
"""Sends a command to a node, through proxy.py and whichever gateway knows the node.

    send_command.py configure MAC X Y Z [--role 1] [--reports-every 60] [--ranging 5] [--sublocation 0]
    send_command.py request MAC HEX        a generic request: its code, two bytes, and its body
    send_command.py sensor MAC HEX         a request to a sensor
    send_command.py acknowledge MAC SEQUENCE
    send_command.py image URL VERSION CRC32    has the gateways fetch an image
    --print shows the command and sends nothing; --servers is the proxy's port for servers: tcp://127.0.0.1:5554
"""
import argparse
import struct

import zmq


def counted(code: int, data: bytes, mac: bytes) -> bytes:
    """The gateway takes 800 bytes of these, MAC included."""
    message = struct.pack(">HBH", code, 0, len(data)) + data + mac
    if len(message) > 800:
        raise SystemExit("too long: 800 bytes at most")
    return message


def configure(options) -> bytes:
    # The state bit 0x80 would have the gateway turn the order of the position's bytes.
    return struct.pack(">HBBBBiihh", 0x0804, options.reports_every, options.ranging, options.role & 0x7F,
                       options.sublocation, options.x, options.y, options.z, 0) + options.mac


def image(options) -> bytes:
    url = options.url.encode()
    return struct.pack(">HIIH", 0x0012, options.version, options.crc32, len(url)) + url


def command_line():
    def mac(text):
        digits = bytes.fromhex(text.replace(":", ""))
        if len(digits) != 8:
            raise ValueError
        return digits

    def number(text):
        return int(text, 0)

    def hexadecimal(text):
        return int(text, 16)

    parser = argparse.ArgumentParser()
    parser.add_argument("--servers", default="tcp://127.0.0.1:5554")
    parser.add_argument("--print", action="store_true")
    commands = parser.add_subparsers(required=True)

    def command(name, make, **arguments):
        of_command = commands.add_parser(name)
        of_command.set_defaults(make=make)
        for argument, kind in arguments.items():
            of_command.add_argument(argument, type=kind)
        return of_command

    settings = command("configure", configure, mac=mac, x=int, y=int, z=int)
    for name, default in (("--role", 1), ("--reports-every", 60), ("--ranging", 5), ("--sublocation", 0)):
        settings.add_argument(name, type=number, default=default)
    command("request", lambda o: counted(0x080E, o.data, o.mac), mac=mac, data=bytes.fromhex)
    command("sensor", lambda o: counted(0x0815, o.data, o.mac), mac=mac, data=bytes.fromhex)
    command("acknowledge", lambda o: struct.pack(">HB", 0x0810, o.sequence) + o.mac, mac=mac, sequence=number)
    command("image", image, url=str, version=hexadecimal, crc32=hexadecimal)
    return parser.parse_args()


def main():
    options = command_line()
    text = options.make(options).hex()
    if options.print:
        print(text)
        return
    socket = zmq.Context.instance().socket(zmq.PUSH)
    socket.setsockopt(zmq.LINGER, 5000)  # for a proxy that is slow; one that is away gets nothing
    socket.connect(options.servers)
    socket.send_string(text)


if __name__ == "__main__":
    main()
