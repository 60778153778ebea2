#!/usr/bin/python3
"""A publish/subscribe proxy: hands the servers' commands to all gateways, and prints what the gateways tell.

    proxy.py [COMMANDS [MANAGEMENT [SERVERS]]]
        COMMANDS    where gateways get commands (their pub_sub_proxy/port): tcp://*:5555
        MANAGEMENT  where gateways put management lines (pub_sub_proxy/input_port): tcp://*:5556
        SERVERS     where servers put commands, as hexadecimal text: tcp://127.0.0.1:5554
"""
import signal
import sys

import zmq


def open_socket(context, kind, endpoint: str):
    socket = context.socket(kind)
    socket.bind(endpoint)
    return socket


def main():
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    endpoints = sys.argv[1:] + ["tcp://*:5555", "tcp://*:5556", "tcp://127.0.0.1:5554"][len(sys.argv) - 1:]
    context = zmq.Context.instance()
    commands = open_socket(context, zmq.XPUB, endpoints[0])
    commands.setsockopt(zmq.XPUB_VERBOSE, 1)  # says of each gateway that it has come, not of the first alone
    management = open_socket(context, zmq.PULL, endpoints[1])
    servers = open_socket(context, zmq.PULL, endpoints[2])
    poller = zmq.Poller()
    for socket in (commands, management, servers):
        poller.register(socket, zmq.POLLIN)
    while True:
        for socket, _ in poller.poll():
            message = socket.recv()
            if socket is servers:
                commands.send(message)
            elif socket is management:
                print(message.decode(errors="replace"), flush=True)
            elif message[:1] == b"\x01":
                print("a gateway is here", flush=True)


if __name__ == "__main__":
    try:
        main()
    except KeyboardInterrupt:
        pass
