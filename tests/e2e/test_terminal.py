"""The operator's terminal: every command's answers and refusals, the debug stream, and hostile input."""
import re
import socket
import struct
import time

import pytest

from harness import wire
from harness.peers import Stream, wait_until

HELP = """use:
  h | help                                 print this help
  q | quit                                 quit the session
  pcl                                      print client lists
  reboot MAC                               node reboot (MAC - short MAC-address)
  del MAC                                  delete the node (MAC - short MAC-address)
  pn                                       print connected nodes list (standard mode)
  pnf                                      print connected nodes list (full mode)
  info                                     about
  dbg [SECTION y|n]                        without arguments prints a debug state
                                           with arguments enables or disables debugging section SECTION
      SECTION=raw                          raw input and output data
      SECTION=parsing                      parsed the input and output data
      SECTION=terminal                     events of telnet-channel
      SECTION=win                          events of win-channel
      SECTION=discovery                    events of discovery-channel
      SECTION=develop                      information for the developer
                                           (an example: dbg parsing Y - enable "parsing" section)
  sub                                      subscribe on requested channel
  sub-                                     unsubscribe on requested channel
  grep PATTERN                             filter messages on subscribed channel
  grep-                                    clear filter
  fw | firmware (get;set;apply;list;info)  management firmware
    get URL                                get firmware
    apply MAC                              apply firmware (MAC - short MAC-address)
    list                                   print a list of firmware
    info INDEX                             information about the firmware
    del INDEX                              delete firmware
    set INDEX MAC [SOURSE]                 set firmware to node (MAC - short MAC-address)
      SOURSE=GW                            set firmware from gateway
      SOURSE=addr                          set firmware from node with MAC=addr (addr - short MAC-address)
      SOURSE=                              passive mode
"""
NODE, NODE_IP = wire.mac(0x1A2B), wire.ip(0x1A2B)
BRIDGE = wire.mac(0xB001)
SECTIONS = ("raw", "parsing", "terminal", "win", "discovery", "develop", "ul_tdoa")


@pytest.fixture
def terminal(gateway):
    return gateway.terminal()


def listing(**enabled) -> str:
    return "".join(f"\t{name} {'y' if enabled.get(name) else 'n'}\n" for name in SECTIONS)


@pytest.mark.parametrize("word", ["h", "help", "HELP", "!h", "h\r", "help  \t", "  help"])
def test_help(terminal, word):
    assert len(HELP) == 2288
    assert terminal.command(word, "passive mode\n") == HELP


def test_an_unknown_word_is_answered(terminal):
    assert terminal.command("foo", "\n") == 'Unknown command. Type "h" or "help" for help.\n'
    terminal.send(b" \t\r\n")
    assert terminal.command("foo", "\n").startswith("Unknown command."), "a blank line is not answered"


def test_info(terminal):
    assert terminal.command("info", "\n\n") == (
        "GW Version     : 8.6.3\nZMQ version    : 4.3.4\nCZMQ version   : 4.2.1\n\n")


def test_one_chunk_is_one_command(terminal):
    assert terminal.command("info\r\npn", "\n\n").startswith("GW Version")
    assert terminal.command("foo", "\n").startswith("Unknown"), "the rest of the chunk was not run"


def test_pcl_lists_operators_and_bridges(gateway, terminal):
    other = gateway.terminal()
    other.command("sub", "\n")
    other.command("grep ab+c", "\n")
    bridge = gateway.bridge()
    text = terminal.command("pcl", "##\n")
    head, *operators, tail = text.split("####### WIN clients:\n")[0].splitlines() + [text.split("WIN clients:\n")[1]]
    assert head == "####### Terminal clients"
    assert sorted(operators) == sorted([f"+ip:127.0.0.1:{terminal.port} sub:0 grep:--",
                                        f" ip:127.0.0.1:{other.port} sub:1 grep:ab+c"])
    assert tail == f" ip:127.0.0.1:{bridge.port}\n##\n"
    assert f"+ip:127.0.0.1:{other.port} sub:1" in other.command("pcl", "##\n")


def test_pn_and_pnf_show_connected_floating_and_expired_nodes(gateway, terminal):
    bridge = gateway.bridge(BRIDGE)
    leaving = gateway.bridge(wire.mac(0xB002))
    twin = wire.mac(0x1A2C)
    bridge.send_message(
        wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP, role=0x31, parent=wire.mac(0x0D0E), x=-5, y=6, z=7, zofs=-8),
        wire.heartbeat(twin, 1, bridge=BRIDGE, addr=NODE_IP),
        wire.envelope(wire.forwarded_heartbeat(wire.mac(0x2001), 1, role=2), wire.mac(0x2001), wire.ip(9),
                      flags=wire.DIRECT),
        wire.heartbeat(wire.mac(0x3001), 1, bridge=BRIDGE, addr=wire.ip(3), reporting=0))
    leaving.send_message(wire.heartbeat(wire.mac(0x4001), 1, bridge=leaving.mac, addr=wire.ip(4)))
    bridge.barrier(), leaving.barrier()
    leaving.close()
    wait_until(lambda: terminal.command("pcl", "##\n").count(" ip:") == 1, "the bridge to be gone")

    text = terminal.command("pn", "##\n")
    connected, rest = text.split("####### Floating nodes\n")
    floating, expired = rest.split("####### Expired nodes\n")
    lines = connected.splitlines()
    assert lines[0] == "####### Connected Nodes"
    assert lines[1] == f"Bridge MAC:02ab34cd560:0b001 ip4:127.0.0.1:{bridge.port}"
    rows = {line[:5]: line for line in lines[2:]}
    assert set(rows) == {"01a2b", "01a2c", "02001"}
    ttl = r"ttl:(29\d|300)"
    assert re.fullmatch(rf"01a2b fix 30 par:00d0e sw:01020304 rgf:  5 {ttl} sl:03    IP address is duplicated! dtx: no",
                        rows["01a2b"])
    assert rows["01a2c"].endswith("   IP address is duplicated! dtx: no")
    assert re.fullmatch(rf"02001 m2d 00 par:00000 sw:01020304 rgf:  5 {ttl} sl:03 FW dtx:yes", rows["02001"])
    assert re.fullmatch(rf"04001 brg 10 par:00000 sw:01020304 rgf:  5 {ttl} sl:03    dtx: no\n", floating)
    assert re.fullmatch(r"03001 brg 10 par:00000 sw:01020304 rgf:  5 ttl:  0 sl:03    \(00:00:\d\d\) dtx: no\n##\n", expired)

    before = time.strftime("%m-%d", time.gmtime(time.time() - 60))
    text = terminal.command("pnf", "##\n")
    assert re.search(
        rf"^02ab34cd560:01a2b fix 30 par:00d0e sw:01020304 rgf:   5 {ttl} sl:03 xyz:      -5,       6,       7:-80  "
        rf"ip:   fd00::11:2233:4400:1a2b IP address is duplicated! dtx: no$", text, re.M), text
    date = time.strftime("%m-%d", time.gmtime())
    assert re.search(rf"^02ab34cd560:03001 .* ip:   fd00::11:2233:4400:3 act:({before}|{date}) \d\d:\d\d:\d\d \(00:00:\d\d\) dtx: no$",
                     text, re.M), text


@pytest.mark.threads
def test_reboot_goes_down_to_the_bridge(gateway, terminal):
    bridge = gateway.bridge(BRIDGE)
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    bridge.barrier()
    assert terminal.command("reboot 1a2b", "\n") == "Command sent successfully!\n"
    assert bridge.receive() == bytes.fromhex("0e0800" "0006" "0001" "0002" "0000") + NODE_IP
    gateway.broker.wait_for("GENERIC: INFO(GENERIC): dst 1A2B")


def test_reboot_of_a_forwarded_node_is_wrapped(gateway, terminal):
    bridge = gateway.bridge(BRIDGE)
    bridge.send_message(wire.envelope(wire.forwarded_heartbeat(NODE, 1), NODE, NODE_IP, flags=wire.DIRECT))
    bridge.barrier()
    terminal.command("reboot 1A2B", "successfully!\n")
    request = bytes.fromhex("0e0800" "0006" "0001" "0002" "0000")
    assert bridge.receive() == bytes.fromhex("0028" "00" "000b") + request + NODE + NODE_IP


@pytest.mark.parametrize("command, answer", [
    ("reboot", "MAC are missing!\n"), ("del", "MAC are missing!\n"),
    ("reboot zz", "Incorrect MAC value!\n"), ("del zz", "Incorrect MAC value!\n"),
    ("reboot 1a2b", "Node 1A2B not in nodes list\n"), ("del 1a2b", "Node 1A2B not in nodes list\n"),
    ("reboot 12345", "Node 2345 not in nodes list\n"), ("reboot 0x", "Node 0000 not in nodes list\n"),
    ("del -1", "Node FFFF not in nodes list\n"), ("reboot 1fz", "Node 001F not in nodes list\n"),
    ("reboot 99999999999999999999", "Incorrect MAC value!\n"),
    ("fw", "Incorrect parameters!\n"), ("fw foo", "Incorrect parameters!\n"), ("firmware", "Incorrect parameters!\n"),
    ("fw get", "URL is missing!\n"), ("fw info", "INDEX are missing!\n"), ("fw del", "INDEX are missing!\n"),
    ("fw info 0", "Incorrect INDEX value!\n"), ("fw del 0", "Incorrect INDEX value!\n"),
    ("fw apply", "MAC are missing!\n"), ("fw apply 1a2b", "Node 000A not in nodes list\n"),
    ("fw set 0", "INDEX or MAC are missing!\n"), ("fw set 0 1a2b", "Incorrect INDEX value!\n"),
    ("fw set 0 1a2b GW", "Incorrect INDEX value!\n"),
    ("fw list", "index     git id      crc32     size   page size   pages   brd version   brd revision   max pages\n"),
    ("dbg raw", "Incorrect parameter value!\n"), ("dbg raw y x", "Incorrect parameter value!\n"),
    ("dbg raw x", "Incorrect parameter value!\n"), ("dbg foo y", "Incorrect parameter!\n"),
    ("sub", "subscribed * ok.\n"), ("sub-", "unsubscribed * ok.\n"),
    ("grep", "GREP: -- undefined --\n"), ("grep-", "GREP: -- undefined --\n"), ("grep abc def", "GREP: abc\n"),
])
def test_answers(terminal, command, answer):
    for _ in range(2):
        assert terminal.command(command, "\n") == answer
    assert terminal.command("foo", "\n").startswith("Unknown"), "exactly one answer each"


@pytest.mark.threads
def test_del_forgets_a_node(gateway, terminal):
    bridge = gateway.bridge(BRIDGE)
    bridge.send_message(wire.heartbeat(NODE, 1, bridge=BRIDGE, addr=NODE_IP))
    bridge.barrier()
    assert terminal.command("del 1a2b", "\n") == "Command completed successfully!\n"
    assert "01a2b" not in terminal.command("pn", "##\n")
    assert bridge.barrier() == []


@pytest.mark.threads
def test_sections_are_switched_for_everybody(gateway, terminal):
    assert terminal.command("dbg", "ul_tdoa n\n") == listing()
    assert terminal.command("dbg win yes", "ul_tdoa n\n") == listing(win=True)
    assert terminal.command("DBG UL_TDOA Y", "ul_tdoa y\n") == listing(win=True, ul_tdoa=True)
    assert gateway.terminal().command("dbg win no", "ul_tdoa y\n") == listing(ul_tdoa=True)


@pytest.mark.threads
def test_a_subscriber_sees_the_enabled_sections_through_its_filter(gateway):
    everything, filtered, nothing = gateway.terminal(), gateway.terminal(), gateway.terminal()
    for operator in (everything, filtered):
        operator.command("sub", "\n")
    filtered.command("grep PANID_[A-Z]+.*b0:02", "\n")
    nothing.command("grep .", "\n")
    nothing.command("dbg parsing y", "ul_tdoa n\n")
    bridge = gateway.bridge()
    bridge.send_message(wire.panid_req(wire.mac(0xB001), 1), wire.panid_req(wire.mac(0xB002), 1))
    line = everything.read_until("b0:02\n").splitlines()[-1]
    assert re.fullmatch(r"\x1b\[36m\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\x1b\[0m \x1b\[35mSLIP:\x1b\[0m "
                        r"MSG_PANID_REQ 01 MAC : 02:ab:34:cd:56:00:b0:02", line)
    text = filtered.read_until("b0:02\n")
    assert "b0:01" not in text
    assert nothing.command("foo", "\n").startswith("Unknown"), "the unsubscribed got no line"


def test_a_failed_grep_leaves_no_filter_but_its_old_name(gateway, terminal):
    terminal.command("sub", "\n")
    assert terminal.command("grep abc", "\n") == "GREP: abc\n"
    answer = terminal.command("grep (", "GREP: abc\n")
    assert answer.startswith("GREP: cannot set regexp:  ") and answer.count("\n") == 2
    terminal.command("dbg win y", "ul_tdoa n\n")
    gateway.bridge()
    terminal.read_until("new win client")
    terminal.command("dbg win n", "ul_tdoa n\n")
    assert terminal.command("grep-", "undefined --\n") == "GREP: -- undefined --\n"


@pytest.mark.parametrize("pattern", ["((((a{1,100}){1,100}){1,100}){1,100})", "a{256}", ".*[0-7].{450}!", r"(a*)\1*b"])
def test_patterns_made_to_be_slow_are_refused(terminal, pattern):
    begin = time.monotonic()
    assert terminal.command("grep " + pattern, "undefined --\n").startswith("GREP: cannot set regexp:  ")
    assert time.monotonic() - begin < 5


def test_quit_says_goodbye_and_closes(gateway, terminal):
    other = gateway.terminal()
    port = other.port
    other.send(b"quit\n")
    assert other.read_until("bye bye.\n") == "bye bye.\n"
    other.wait_closed()
    gateway.broker.wait_for("disconnected")
    assert f":{port} " not in terminal.command("pcl", "##\n")


@pytest.mark.threads
def test_quit_while_lines_are_streaming(gateway):
    witness = gateway.terminal()
    witness.command("dbg parsing y", "ul_tdoa n\n")
    bridge = gateway.bridge(BRIDGE)
    bridge.introduce()      # so that it stays, however long this takes
    for _ in range(20):
        operator = gateway.terminal()
        operator.command("sub", "\n")
        for seq in range(50):
            bridge.send_message(wire.ping(seq))
        operator.send(b"q\n")
        operator.read_until("bye bye.\n")
        operator.wait_closed()
    assert witness.command("pcl", "##\n").count("ip:127.0.0.1") == 2


@pytest.mark.threads
def test_operators_come_and_go_by_name(gateway, terminal):
    gateway.broker.wait_for("CONS: new terminal client [")
    assert any(f"IP 127.0.0.1:{terminal.port}" in line for line in gateway.broker.lines)
    terminal.command("foo", "\n")
    gateway.broker.wait_for('CONS: rcvd "foo"')
    terminal.close()
    gateway.broker.wait_for("CONS: DELETING 00")


def test_a_chunk_that_begins_with_zero_reads_as_a_disconnection(gateway, terminal):
    terminal.command("foo", "\n")
    terminal.send(b"\0pn\n")
    gateway.broker.wait_for("CONS: DELETING 00")
    terminal.send(b"info\n")
    gateway.broker.wait_for("CONS: new terminal client [", count=2)
    assert terminal.command("foo", "\n").startswith("Unknown"), "the chunk that made the new record is not run"


def test_text_is_never_a_format(gateway, terminal):
    terminal.command("100%s%n", "\n")
    gateway.broker.wait_for('CONS: rcvd "100%s%n"')


@pytest.mark.parametrize("chunk", [b"x" * 200_000, bytes(range(1, 256)) * 100, b"pn\n" * 5000, b"\xff\xfb\x01\xff" * 64],
                         ids=["no end of line", "binary", "thousands of commands", "telnet negotiation"])
def test_hostile_input_disturbs_nobody(gateway, terminal, chunk):
    hostile = Stream(gateway.ports["terminal"])
    hostile.send(chunk)
    assert terminal.command("foo", "\n").startswith("Unknown")
    bridge = gateway.bridge()
    assert bridge.barrier() == []
    hostile.close()
    assert gateway.process.poll() is None


def test_hundreds_of_idle_operators(gateway, terminal):
    idle = [socket.create_connection(("127.0.0.1", gateway.ports["terminal"])) for _ in range(300)]
    wait_until(lambda: terminal.command("pcl", "##\n").count("ip:127.0.0.1") == 301, "all to be listed")
    for sock in idle:
        sock.close()
    wait_until(lambda: terminal.command("pcl", "##\n").count("ip:127.0.0.1") == 1, "all to be forgotten")


def test_a_subscriber_that_never_reads_stalls_no_bridge(gateway):
    deaf = Stream(gateway.ports["terminal"], rcvbuf=4096)
    deaf.send(b"sub\n")
    operator = gateway.terminal()
    operator.command("dbg raw y", "ul_tdoa n\n")
    bridge = gateway.bridge(BRIDGE)
    payload = bytes(900)
    waits = []
    for seq in range(6000):
        if seq % 500 == 0:
            bridge.introduce(seq // 500 + 1)  # a bridge that nobody speaks through is let go
        begin = time.monotonic()
        bridge.send_message(wire.ping(seq % 200, payload))
        assert bridge.receive() == wire.ping(seq % 200, payload)
        waits.append(time.monotonic() - begin)
    # A busy machine delays a few; beside an operator who is waited for, it is many, or one for good.
    assert sorted(waits)[-10] < 1 and max(waits) < 10, "a bridge waited for an operator"
    operator.command("dbg raw n", "ul_tdoa n\n")


@pytest.mark.threads
def test_listing_many_nodes_does_not_hold_up_reports(gateway):
    bridge, loader = gateway.bridge(BRIDGE), gateway.bridge(wire.mac(0xB002))
    count = 10_000
    bridge.introduce()      # so that both stay, however long this takes
    loader.introduce()
    for i in range(count):
        loader.send(wire.frame(wire.heartbeat(b"\x02\xab" + struct.pack(">HI", 0x77, i), 1, bridge=loader.mac, addr=wire.ip(i))))
    loader.barrier()
    operator = gateway.terminal()
    begin = time.monotonic()
    operator.send(b"pnf\n")
    waits = []
    text = ""
    while "##\n" not in text[-10:]:
        sent = time.monotonic()
        bridge.send_message(wire.ping(1))
        bridge.receive()
        waits.append(time.monotonic() - sent)
        text += operator.pull(0.01).decode()
        assert time.monotonic() - begin < 60
    assert len(text.splitlines()) >= count + 5
    assert max(waits) < 3, "a bridge waited for a listing"      # which takes far longer to be read
