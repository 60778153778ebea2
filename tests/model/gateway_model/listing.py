"""The `pnf` listing: what it has to say, and whether it says so. What the daemon's clock decides (lifetimes counted
down, dates, ages) is compared within what the clock may have shown."""
import math
import re
import socket
import struct
import time

TYPES = {0: "und", 1: "fix", 2: "m2d", 3: "c p", 4: "brg", 5: "t2d", 6: "sen"}
TICK_SLACK = 2      # ticks of one second that a busy machine may be late
_ttl = re.compile(r" ttl: *(\d+) ")
_act = re.compile(r" act:(\d\d-\d\d \d\d:\d\d:\d\d) \((\d\d+):(\d\d):(\d\d)\)")


class Difference(Exception):
    """The daemon did something else than the model."""


def colon_mac(mac: bytes) -> str:
    text = mac.hex()
    return text[:11] + ":" + text[11:]


def parse(text: str):
    """Groups of node lines by the port of the bridge, or "floating" or "expired"; and the bridges' MACs by port."""
    lines = text.split("\n")
    if lines[0] != "####### Connected Nodes" or lines[-2:] != ["##", ""]:
        raise Difference(f"not a listing: {lines[0]!r} ... {lines[-2:]!r}")
    groups, bridges, group = {}, {}, None
    for line in lines[1:-2]:
        if line in ("####### Floating nodes", "####### Expired nodes"):
            group = groups[line.split()[1].lower()] = []
        elif line.startswith("Bridge "):
            match = re.fullmatch(r"Bridge MAC:(\S+) ip4:127\.0\.0\.1:(\d+)", line)
            if not match or groups.get("floating") is not None:
                raise Difference(f"not a bridge's line: {line!r}")
            group = groups[int(match.group(2))] = []
            bridges[int(match.group(2))] = match.group(1)
        elif group is None:
            raise Difference(f"a node without a bridge: {line!r}")
        else:
            group.append(line)
    return groups, bridges


def lifetime_range(node, moment):
    """Within what the node's lifetime must be, counted down from where it was set."""
    if not node.lifetime:
        return 0, 0
    most = math.ceil(moment.mono_hi - node.lifetime_set.mono_lo) + 1
    least = math.floor(moment.mono_lo - node.lifetime_set.mono_hi) - TICK_SLACK
    return max(0, node.lifetime - most), node.lifetime - max(0, least)


def node_line(node, duplicated: bool) -> str:
    """The line without lifetime and date, for which stand "ttl:" and "act:"."""
    x, y, z, offset = struct.unpack("<iihh", node.position)
    parent = node.parent.hex()[11:]
    return (f"{colon_mac(node.mac)} {TYPES.get(node.type, 'unk')} {node.state:02x} par:{parent} "
            f"sw:{node.sw_version:08x} rgf:{node.ranging_freq:4} ttl: sl:{node.sublocation:02x} "
            f"xyz:{x:8},{y:8},{z:8}:{offset * 10:<4} ip:{'FW' if node.forwarded else '  '} "
            f"{socket.inet_ntop(socket.AF_INET6, node.ip)}act:{' IP address is duplicated!' if duplicated else ''}"
            f" dtx:{'yes' if node.direct else ' no'}")


def group_of(node, clients):
    return node.route.port if node.route in clients else "floating"


def check(text: str, gateway, moment):
    """Raises Difference when `text`, asked for at `moment`, does not list the registry of `gateway`."""
    groups, bridges = parse(text)
    wanted = {client.port: colon_mac(client.mac) for client in gateway.clients}
    if bridges != wanted:
        raise Difference(f"bridges\nexpected {wanted}\ngot      {bridges}")
    got, place = {}, {}
    for name, lines in groups.items():
        for line in lines:
            if line[:17] in got:
                raise Difference(f"listed twice: {line!r}")
            got[line[:17]], place[line[:17]] = line, name
    nodes = gateway.registry.in_order()
    for node in nodes:
        key = colon_mac(node.mac)
        if key not in got:
            raise Difference(f"not listed: {node_line(node, False)!r}")
        _check_node(node, got[key], place[key], place, gateway, moment)
    if len(got) != len(nodes):
        extra = set(got) - {colon_mac(node.mac) for node in nodes}
        raise Difference("listed, but unknown: " + "\n".join(got[key] for key in extra))
    _check_order(groups, nodes)


def _check_node(node, line: str, found_under, place, gateway, moment):
    low, high = lifetime_range(node, moment)
    expected_under = [group_of(node, gateway.clients)] if high else []
    if not low:
        expected_under.append("expired")
    if found_under not in expected_under:
        raise Difference(f"under {found_under}, expected under {expected_under}: {line!r}")
    match = _ttl.search(line)
    lifetime = int(match.group(1)) if match else -1
    if not low <= lifetime <= high or (lifetime == 0) != (found_under == "expired"):
        raise Difference(f"lifetime {lifetime}, expected {low} to {high} (set to {node.lifetime}): {line!r}")
    masked = line.replace(match.group(0), " ttl: ") if len(str(lifetime)) > 3 or \
        match.group(0) == f" ttl:{lifetime:3} " else line
    if found_under == "expired":
        masked = _check_activity(node, masked, moment)
        duplicated = False
    else:
        masked = masked.replace(" IP address", "act: IP address", 1) if " IP address" in masked else \
            masked.replace(" dtx:", "act: dtx:", 1)
        duplicated = isinstance(found_under, int) and _duplicated(node, found_under, place, gateway)
    expected = node_line(node, duplicated)
    if masked != expected:
        raise Difference(f"under {found_under}\nexpected {expected!r}\ngot      {masked!r}\nas       {line!r}")


def _duplicated(node, port, place, gateway) -> bool:
    if node.forwarded:
        return False
    return any(other.mac != node.mac and other.ip == node.ip and not other.forwarded
               and place.get(colon_mac(other.mac)) == port for other in gateway.registry.nodes.values())


def _check_activity(node, line: str, moment) -> str:
    """The line with the date and the age masked."""
    match = _act.search(line)
    if not match:
        raise Difference(f"without date and age: {line!r}")
    if node.activity is None:      # never heard: made by a message that failed afterwards
        possible = {time.strftime("%m-%d %H:%M:%S", time.gmtime(0))}
        youngest, oldest = int(moment.lo), int(moment.hi)
    else:
        possible = {time.strftime("%m-%d %H:%M:%S", time.gmtime(second))
                    for second in range(int(node.activity.lo), int(node.activity.hi) + 1)}
        youngest, oldest = math.floor(moment.lo - node.activity.hi), math.floor(moment.hi - node.activity.lo + 0.001)
    age = int(match.group(2)) * 3600 + int(match.group(3)) * 60 + int(match.group(4))
    if match.group(1) not in possible or not max(0, youngest) <= age <= oldest:
        raise Difference(f"activity {match.group(0)!r}, expected one of {possible}, age {youngest} to {oldest}: "
                         f"{line!r}")
    return line.replace(match.group(0), "act:")


def _check_order(groups, nodes):
    rank = {colon_mac(node.mac): at for at, node in enumerate(nodes)}
    for name, lines in groups.items():
        ranks = [rank[line[:17]] for line in lines]
        if ranks != sorted(ranks):
            macs = [line[:17] for line in lines]
            raise Difference(f"order under {name}\nexpected {sorted(macs, key=rank.get)}\ngot      {macs}")
