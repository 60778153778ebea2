"""Networks of our own: hosts that a router joins, and parts from each other without a word."""
import ctypes
import os
import pathlib
import subprocess

libc = ctypes.CDLL(None, use_errno=True)
CLONE_NEWNET = 0x40000000


class Namespaces:
    """Ours, a router and a server: "ours" 10.77.1.1 - 10.77.1.2 "router" 10.77.2.1 - 10.77.2.2 "server"."""

    def __init__(self):
        tag = f"rtls{os.getpid()}"
        self.names = {name: f"{tag}{name}" for name in ("ours", "router", "server")}
        for name in self.names.values():
            self._ip("netns", "add", name)
            self._ip("-n", name, "link", "set", "lo", "up")
        self._join("ours", "10.77.1.1", "router", "10.77.1.2")
        self._join("router", "10.77.2.1", "server", "10.77.2.2")
        self._ip("-n", self.names["ours"], "route", "add", "default", "via", "10.77.1.2")
        self._ip("-n", self.names["server"], "route", "add", "default", "via", "10.77.2.1")
        self.route(True)

    @staticmethod
    def _ip(*arguments):
        subprocess.run(["ip", *arguments], check=True)

    def _join(self, left, left_address, right, right_address):
        a, b = f"{left[0]}-{right}", f"{right[0]}-{left}"
        self._ip("link", "add", a, "netns", self.names[left], "type", "veth", "peer", "name", b, "netns",
                 self.names[right])
        for namespace, device, address in ((left, a, left_address), (right, b, right_address)):
            self._ip("-n", self.names[namespace], "addr", "add", address + "/24", "dev", device)
            self._ip("-n", self.names[namespace], "link", "set", device, "up")

    def route(self, on: bool):
        """A router that does not route says nothing: what it gets is gone."""
        subprocess.run(["ip", "netns", "exec", self.names["router"], "sysctl", "-qw", f"net.ipv4.ip_forward={int(on)}"],
                       check=True)

    def enter(self, name: str):
        return Inside(self.names[name])

    def close(self):
        for name in self.names.values():
            subprocess.run(["ip", "netns", "del", name], check=False)


class Inside:
    """This thread, for a while in another namespace. Sockets stay where they were made."""

    def __init__(self, name: str):
        self.name = name

    def __enter__(self):
        self.home = os.open("/proc/thread-self/ns/net", os.O_RDONLY)
        with open(pathlib.Path("/var/run/netns") / self.name) as there:
            assert libc.setns(there.fileno(), CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())

    def __exit__(self, *_):
        assert libc.setns(self.home, CLONE_NEWNET) == 0
        os.close(self.home)


def available() -> bool:
    name = f"rtls{os.getpid()}try"
    made = subprocess.run(["ip", "netns", "add", name], stderr=subprocess.DEVNULL).returncode == 0
    return made and subprocess.run(["ip", "netns", "del", name]).returncode == 0
