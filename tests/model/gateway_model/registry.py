"""The nodes, and the order in which the daemon's table walks them.

The order shows: of several nodes with one address, or one short MAC, the first one counts. It is the order of
the hash table of the library that the daemon is built on, under the daemon's hasher, so a table of that library
is asked for it here (through ctypes); what the nodes hold is all Python's."""
import ctypes

_pointer = ctypes.c_void_p
_hasher_type = ctypes.CFUNCTYPE(ctypes.c_size_t, _pointer)
_comparator_type = ctypes.CFUNCTYPE(ctypes.c_int, _pointer, _pointer)


def mac_hash(mac: bytes) -> int:
    value = 0
    for byte in mac:
        value = (value * 33 & 0xFFFFFFFFFFFFFFFF) ^ byte
    return value


class Order:
    """A zhashx whose keys are numbers given to MACs as they come. It grows on look-ups too, so every look-up
    of the daemon has to be made here."""

    def __init__(self):
        lib = ctypes.CDLL("libczmq.so.4")
        lib.zhashx_new.restype = _pointer
        for name in ("zhashx_first", "zhashx_next", "zhashx_lookup"):
            getattr(lib, name).restype = _pointer
            getattr(lib, name).argtypes = [_pointer] if name != "zhashx_lookup" else [_pointer, _pointer]
        lib.zhashx_insert.argtypes = [_pointer, _pointer, _pointer]
        lib.zhashx_delete.argtypes = [_pointer, _pointer]
        lib.zhashx_set_key_hasher.argtypes = [_pointer, _hasher_type]
        lib.zhashx_set_key_comparator.argtypes = [_pointer, _comparator_type]
        lib.zhashx_set_key_duplicator.argtypes = [_pointer, _pointer]
        lib.zhashx_set_key_destructor.argtypes = [_pointer, _pointer]
        self._lib = lib
        self._numbers, self._macs, self._hashes = {}, [b""], [0]
        self._hasher = _hasher_type(lambda key: self._hashes[key])
        self._comparator = _comparator_type(lambda a, b: 0 if a == b else 1)
        self._table = lib.zhashx_new()
        lib.zhashx_set_key_hasher(self._table, self._hasher)
        lib.zhashx_set_key_comparator(self._table, self._comparator)
        lib.zhashx_set_key_duplicator(self._table, None)
        lib.zhashx_set_key_destructor(self._table, None)

    def _number(self, mac: bytes) -> int:
        number = self._numbers.get(mac)
        if number is None:
            number = self._numbers[mac] = len(self._macs)
            self._macs.append(mac)
            self._hashes.append(mac_hash(mac))
        return number

    def look_up(self, mac: bytes):
        self._lib.zhashx_lookup(self._table, self._number(mac))

    def insert(self, mac: bytes):
        number = self._number(mac)
        self._lib.zhashx_insert(self._table, number, number)

    def delete(self, mac: bytes):
        self._lib.zhashx_delete(self._table, self._number(mac))

    def walk(self) -> list:
        macs, number = [], self._lib.zhashx_first(self._table)
        while number:
            macs.append(self._macs[number])
            number = self._lib.zhashx_next(self._table)
        return macs


class Moment:
    """When something happened: not before `lo`, not after `hi`, by the wall clock and by the monotonic one
    (`mono_lo`, `mono_hi`). `hi` is known once a fence has come back."""

    __slots__ = ("lo", "hi", "mono_lo", "mono_hi")

    def __init__(self, lo: float, mono_lo: float):
        self.lo, self.mono_lo = lo, mono_lo
        self.hi = self.mono_hi = None

    def end(self, hi: float, mono_hi: float):
        self.hi, self.mono_hi = hi, mono_hi


class Node:
    __slots__ = ("mac", "route", "ip", "parent", "lifetime", "lifetime_set", "activity", "sw_version", "type", "state",
                 "ranging_freq", "reporting_freq", "sublocation", "position", "forwarded", "sequence", "direct",
                 "last_command", "last_command_moment")

    def __init__(self, mac: bytes):
        self.mac = mac
        self.route = None            # the client; None until one is known
        self.ip = bytes(16)
        self.parent = bytes(8)
        self.lifetime = 0            # as it was set, at `lifetime_set`; the daemon's counts down from there
        self.lifetime_set = None
        self.activity = None         # a Moment
        self.sw_version = self.type = self.state = 0
        self.ranging_freq = self.reporting_freq = self.sublocation = 0
        self.position = bytes(12)    # as in the heartbeat: three little-endian words
        self.forwarded = False
        self.sequence = 0
        self.direct = False
        self.last_command = None     # type, then everything behind the sequence number, without the MAC
        self.last_command_moment = None


class Registry:
    def __init__(self):
        self.nodes = {}
        self.order = Order()
        self._by_ip = {}

    def __len__(self):
        return len(self.nodes)

    def find(self, mac: bytes):
        self.order.look_up(mac)
        return self.nodes.get(mac)

    def find_or_create(self, mac: bytes, sequence=None):
        """The node; None for a repeat of the last sequence number. A new node does not take the number."""
        node = self.find(mac)
        if node is None:
            node = self.nodes[mac] = Node(mac)
            self._by_ip.setdefault(node.ip, set()).add(mac)
            self.order.insert(mac)
        elif sequence is not None:
            if node.sequence == sequence:
                return None
            node.sequence = sequence
        return node

    def set_ip(self, node: Node, ip: bytes):
        if node.ip != ip:
            self._by_ip[node.ip].discard(node.mac)
            node.ip = ip
            self._by_ip.setdefault(ip, set()).add(node.mac)

    def find_by_ip(self, ip: bytes):
        """The first node with this address that was not learnt from a forwarded message; else the one whose MAC
        the address tells."""
        hits = [mac for mac in self._by_ip.get(ip, ()) if not self.nodes[mac].forwarded]
        if len(hits) > 1:
            hits = [mac for mac in self.order.walk() if mac in hits]
        return self.nodes[hits[0]] if hits else self.find(b"\xe4" + ip[9:])

    def find_by_short_mac(self, short: bytes):
        hits = [mac for mac in self.nodes if mac[6:] == short]
        if len(hits) > 1:
            hits = [mac for mac in self.order.walk() if mac in hits]
        return self.nodes[hits[0]] if hits else None

    def delete(self, node: Node):
        del self.nodes[node.mac]
        self._by_ip[node.ip].discard(node.mac)
        self.order.delete(node.mac)

    def in_order(self) -> list:
        return [self.nodes[mac] for mac in self.order.walk()]
