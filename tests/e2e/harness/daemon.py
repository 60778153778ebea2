"""Starts the real daemon on free loopback ports, and plays the servers it needs."""
import os
import pathlib
import resource
import signal
import subprocess

import zmq

from . import wire
from .peers import Broker, Bridge, Inbox, Proxy, Terminal, wait_until
from .ports import free_port

ROOT = pathlib.Path(__file__).resolve().parents[3]
BUILD = pathlib.Path(os.environ.get("RTLS_BUILD_DIR", ROOT / "build" / "release"))
BINARY = BUILD / "rtls-gateway"
SHIM = BUILD / "syslog_shim.so"

# The peers of one test live in this process, a descriptor each. The daemon is started with a soft limit that
# is too low for many bridges, and raises it by itself.
_, _hard = resource.getrlimit(resource.RLIMIT_NOFILE)
resource.setrlimit(resource.RLIMIT_NOFILE, (_hard, _hard))
WITH_FEW_FILES = ["prlimit", "--nofile=512:"]

def zpl(tree: dict, indent: int = 0) -> str:
    out = []
    for name, value in tree.items():
        if isinstance(value, dict):
            out.append(" " * indent + name)
            out.append(zpl(value, indent + 4))
        else:
            out.append(" " * indent + f'{name} = "{value}"')
    return "\n".join(out)


def environment(extra=None) -> dict:
    env = {k: v for k, v in os.environ.items() if not k.lower().endswith("_proxy")}
    sanitizer = "verify_asan_link_order=0:abort_on_error=0:exitcode=99:detect_leaks=1"
    env["ASAN_OPTIONS"] = sanitizer
    env["UBSAN_OPTIONS"] = "print_stacktrace=1:halt_on_error=1:exitcode=98"
    env["TSAN_OPTIONS"] = ("halt_on_error=0:exitcode=97:ignore_noninstrumented_modules=1:"
                           f"suppressions={ROOT / 'cmake' / 'tsan.supp'}")
    env.update(extra or {})
    return env


class Daemon:
    """One daemon and its surroundings. The upstream peers exist before it starts unless told otherwise."""

    def __init__(self, folder: pathlib.Path, *, upstream=("broker", "handler", "proxy", "proxy_input"), debug=(),
                 ports=None, change=None, wait_ready: bool = True, env=None, wrap=()):
        """`change`: gets the default configuration as a tree, and returns the one to start with. `wrap`: the
        command that becomes the daemon."""
        self.wrap = wrap
        self.folder = folder
        self.context = zmq.Context()
        self.ports = {name: free_port() for name in
                      ("terminal", "win", "discovery", "proxy", "proxy_input", "handler", "broker")}
        self.ports.update(ports or {})
        self.pid_file = folder / "rtls-gateway.pid"
        self.syslog_file = folder / "syslog.txt"
        self.config_file = folder / "rtls-gateway.conf"
        config = self.default_config(debug)
        self.config_file.write_text(zpl(change(config) if change else config) + "\n")
        self.handler = self.proxy = self.proxy_input = self.broker = None
        for name in upstream:
            getattr(self, "start_" + name)()
        self.env = environment({"LD_PRELOAD": str(SHIM), "RTLS_SYSLOG_FILE": str(self.syslog_file), **(env or {})})
        self.output = open(folder / "output.txt", "wb")
        self.process = None
        self.expected_status = 0
        self._marks = 0
        self._bridges = []
        self.start(wait_ready)

    def default_config(self, debug=()) -> dict:
        p = self.ports
        return {
            "pidfile": self.pid_file,
            "firmware_files": 2,
            "debug_broker_address": f"tcp://127.0.0.1:{p['broker']}",
            "debug": {name: ("1" if name in debug else "0") for name in
                      ("raw", "parsing", "terminal", "win", "discovery", "develop", "ul_tdoa")},
            "ports": {"terminal": p["terminal"], "win": p["win"], "discovery": p["discovery"], "win_backlog": 1024},
            "pub_sub_proxy": {"address": "127.0.0.1", "port": p["proxy"], "input_port": p["proxy_input"]},
            "message_handler": {"address": "127.0.0.1", "port": p["handler"]},
        }

    def _endpoint(self, name: str) -> str:
        return f"tcp://127.0.0.1:{self.ports[name]}"

    def start_broker(self):
        self.broker = Broker(self.context, self._endpoint("broker"))

    def start_handler(self):
        self.handler = Inbox(self.context, zmq.PULL, self._endpoint("handler"))

    def start_proxy_input(self):
        self.proxy_input = Inbox(self.context, zmq.PULL, self._endpoint("proxy_input"))

    def start_proxy(self):
        self.proxy = Proxy(self.context, self._endpoint("proxy"))

    def start(self, wait_ready: bool = True, arguments=None):
        command = [*self.wrap, *WITH_FEW_FILES, str(BINARY)] + (["-c", str(self.config_file)] if arguments is None else arguments)
        self.process = subprocess.Popen(command, env=self.env, stdin=subprocess.DEVNULL, stdout=self.output,
                                        stderr=subprocess.STDOUT, cwd=self.folder)
        if wait_ready:
            self.wait_ready()
            if self.proxy:
                self.proxy.wait_subscribed()

    def wait_ready(self):
        def ready():
            assert self.process.poll() is None, f"the daemon ended: {self.text_of_output()}"
            return self.pid_file.exists() and self.pid_file.read_text().startswith(str(self.process.pid))
        wait_until(ready, "the pid file")

    def bridge(self, mac_addr: bytes = bytes(8), **kw) -> Bridge:
        bridge = Bridge(self.ports["win"], mac_addr, **kw)
        self._bridges.append(bridge)
        return bridge

    def terminal(self) -> Terminal:
        terminal = Terminal(self.ports["terminal"])
        self._bridges.append(terminal)
        return terminal

    def reports(self, bridge: Bridge) -> list:
        """What has reached the message handler of all that was sent before: up to a root announcement that
        no test uses, sent now. The way up keeps the order."""
        self._marks += 1
        node, seq = wire.mac(0xFFFE), self._marks % 255 + 1
        bridge.send_message(wire.root_announce(node, seq))
        messages = []
        while (message := self.handler.receive()[1])[:11] != b"\x01\x03" + bytes([seq]) + node:
            messages.append(message)
        return messages

    def syslog(self) -> list:
        """Lines "<priority> <ident>: <text>" of the daemon's system log so far."""
        return self.syslog_file.read_text().splitlines() if self.syslog_file.exists() else []

    def text_of_output(self) -> str:
        if not self.output.closed:
            self.output.flush()
        return (self.folder / "output.txt").read_text(errors="replace")

    def interrupt(self, sig=signal.SIGTERM):
        self.process.send_signal(sig)

    def wait_exit(self, deadline: float = 30) -> int:
        return self.process.wait(deadline)

    def restart(self):
        """Stops the daemon, and starts it again with the same configuration."""
        self.stop()
        self.pid_file.unlink()
        self.start()

    def stop(self) -> int:
        """Ends the daemon as an operator does, and checks that it left in good order."""
        if self.process.poll() is None:
            self.interrupt()
        status = self.wait_exit()
        output = self.text_of_output()
        assert "Sanitizer" not in output and "runtime error" not in output, output
        assert "dangling" not in output, output
        return status

    def close(self):
        for peer in self._bridges:
            peer.close()
        try:
            status = self.stop()
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
            self.output.close()
            self.context.destroy(linger=0)
        assert status == self.expected_status, f"exit status {status}: {self.text_of_output()}"
