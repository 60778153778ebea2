"""counting_server.py ENDPOINT FILE [small]: a server upstream that counts. With "small", it and TCP hold little on
the way to it. FILE holds two 64-bit numbers in host order: how many
messages came so far, in all its lives, and how many microseconds it is to take for each. Runs until it is killed, or who has started it ends."""
import ctypes
import mmap
import signal
import socket
import struct
import sys
import time

import zmq


PR_SET_PDEATHSIG = 1
SMALL_HWM = 100
SMALL_BUFFER = 4096
SMALL_SEGMENT = 536     # the sender's system makes its own buffer by that


def small_listener(endpoint: str) -> socket.socket:
    host, port = endpoint.removeprefix("tcp://").rsplit(":", 1)
    listener = socket.socket()
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
    listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, SMALL_BUFFER)
    listener.setsockopt(socket.IPPROTO_TCP, socket.TCP_MAXSEG, SMALL_SEGMENT)
    listener.bind((host, int(port)))
    listener.listen()
    listener.setblocking(False)
    return listener


def main():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    endpoint, path = sys.argv[1:3]
    with open(path, "r+b") as file:
        shared = mmap.mmap(file.fileno(), 16)
    count = struct.unpack_from("=Q", shared, 0)[0]
    context = zmq.Context()
    sock = context.socket(zmq.PULL)
    if sys.argv[3:]:
        sock.setsockopt(zmq.RCVHWM, SMALL_HWM)
        sock.setsockopt(zmq.USE_FD, small_listener(endpoint).detach())
    sock.bind(endpoint)
    while True:
        while sock.recv(copy=True) is not None and sock.getsockopt(zmq.RCVMORE):
            pass
        count += 1
        struct.pack_into("=Q", shared, 0, count)
        if pause := struct.unpack_from("=Q", shared, 8)[0]:
            time.sleep(pause / 1e6)


if __name__ == "__main__":
    main()
