"""counting_server.py ENDPOINT FILE: a server upstream that counts. FILE holds two 64-bit numbers in host order: how many
messages came so far, in all its lives, and how many microseconds it is to take for each. Runs until it is killed, or who has started it ends."""
import ctypes
import mmap
import signal
import struct
import sys
import time

import zmq


PR_SET_PDEATHSIG = 1


def main():
    ctypes.CDLL(None).prctl(PR_SET_PDEATHSIG, signal.SIGKILL)
    endpoint, path = sys.argv[1:]
    with open(path, "r+b") as file:
        shared = mmap.mmap(file.fileno(), 16)
    count = struct.unpack_from("=Q", shared, 0)[0]
    context = zmq.Context()
    sock = context.socket(zmq.PULL)
    sock.bind(endpoint)
    while True:
        while sock.recv(copy=True) is not None and sock.getsockopt(zmq.RCVMORE):
            pass
        count += 1
        struct.pack_into("=Q", shared, 0, count)
        if pause := struct.unpack_from("=Q", shared, 8)[0]:
            time.sleep(pause / 1e6)


main()
