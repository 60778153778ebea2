"""Who keeps the daemon busy during a soak: the simulator, servers that send commands and images, operators, scrapes, and
bridges that look for the gateway. Each in a thread of its own; what goes wrong in one is kept, and ends the soak."""
import collections
import contextlib
import itertools
import json
import random
import re
import socket
import subprocess
import threading

from harness.daemon import BUILD
from harness.http_client import get
from harness.peers import Terminal

SIMULATOR = BUILD / "rtls-sim"
WORDS = {"help": "passive mode\n", "info": "\n\n", "pcl": "##\n", "pn": "##\n", "pnf": "##\n", "dbg": "ul_tdoa n\n",
         "foo": "\n"}    # and how their answers end


class Worker(threading.Thread):
    """Calls `turn` every `period` seconds, until it is told to stop; at the end `leave`."""
    failed = threading.Event()    # any of them

    def __init__(self, period: float):
        super().__init__(daemon=True)
        self.period = period
        self.over = threading.Event()
        self.failure = None

    def run(self):
        try:
            while not self.over.wait(self.period):
                self.turn()
        except Exception as error:   # noqa: BLE001: whatever it is, the soak has failed
            self.failure = f"{type(self).__name__}: {type(error).__name__}: {error}"
            Worker.failed.set()
        finally:
            self.leave()

    def turn(self):
        raise NotImplementedError

    def leave(self):
        pass

    def stop(self):
        self.over.set()
        self.join()


class Simulator:
    """rtls-sim: bridges, nodes, servers and the web server of images. `output` is all that it said."""

    def __init__(self, gateway, images, *, seconds, bridges, nodes, rate, churn):
        ports = gateway.ports
        command = [SIMULATOR, "all", "--check", "--quiet", "-c", gateway.config_file, "--duration", seconds, "--deadline", 60,
                   "--bridges", bridges, "--nodes", nodes, "--rate", rate, "--churn", churn,
                   "--images", images, "--http-port", ports["images"]]
        self.nodes = [f"{bridge:02X}{node:02X}" for bridge in range(1, bridges + 1) for node in range(1, nodes + 1)]
        self.output, self.news = [], threading.Condition()
        self.process = subprocess.Popen([str(word) for word in command], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)
        self.reader = threading.Thread(target=self._read, daemon=True)
        self.reader.start()

    def _read(self):
        for line in self.process.stdout:
            with self.news:
                self.output.append(line.rstrip("\n"))
                self.news.notify_all()

    def type(self, line: str):
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()

    def wait_for(self, pattern: str, seconds: float, since: int = 0):
        """The match of the first line from number `since` on that has it; None when none comes in time."""
        def found():
            return next((match for line in self.output[since:] if (match := re.search(pattern, line))), None)
        with self.news:
            return self.news.wait_for(found, seconds)

    def is_reporting(self) -> bool:
        return self.process.poll() is None and not any(line.startswith("reports: ") for line in self.output)

    def wait(self, seconds: float) -> int:
        with contextlib.suppress(BrokenPipeError):    # it may have gone with a command unread
            self.process.stdin.close()
        status = self.process.wait(seconds)
        self.reader.join()
        return status

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        self.reader.join()


class Commands(Worker):
    """Servers' commands for nodes through the proxy, with some that make no sense. Acknowledgements are not among them: the
    simulator takes one that it did not ask for for a fault."""
    KINDS = ("sensor {} 0063F5F6F7", "generic {} 00630102", "conf-sensor {} 00630102", "tdoa {} 0063", "data {} 0063",
             "conf {} x=1500 y=-200", "reboot {}", "raw 00", "sensor 7F7F 0063")

    def __init__(self, simulator: Simulator, period: float):
        super().__init__(period)
        self.simulator = simulator
        self.random = random.Random(1)
        self.kinds = itertools.cycle(self.KINDS)

    def turn(self):
        self.simulator.type(next(self.kinds).format(self.random.choice(self.simulator.nodes)))


class Updates(Worker):
    """Images that servers order, that the gateway downloads, and that a node fetches and runs: one after the other."""

    def __init__(self, simulator: Simulator, images, http_port: int, period: float):
        super().__init__(period)
        self.simulator, self.images, self.http_port = simulator, images, http_port
        self.downloads = self.done = 0
        self.random = random.Random(2)

    def turn(self):
        number = self.downloads
        made = subprocess.run([SIMULATOR, "image", "make", self.images, "--seed", str(number),
                               "--git-id", f"0x{0x0102A000 + number:08X}"], capture_output=True, text=True, check=True).stdout
        image = dict(re.findall(r"^(file|size|crc-32|git id): +(\S+)", made, re.M))
        name = image["file"].rsplit("/", 1)[1]
        git_id, crc = image["git id"], image["crc-32"]
        url = f"http://127.0.0.1:{self.simulator_port()}/{name}"
        self.downloads += 1
        self.simulator.type(f"upload {git_id} {crc} {url}")
        if self.is_in_store(crc):
            self.update_a_node(git_id, crc, image["size"])

    def simulator_port(self) -> str:
        return self.simulator.wait_for(r"^serving .* at http://127.0.0.1:(\d+)/", 20)[1]

    def is_in_store(self, crc: str) -> bool:
        for _ in range(200):
            if crc.lower() in get(self.http_port, "/api/v1/firmware").body.decode().lower():
                return True
            if self.over.wait(0.1):
                return False
        raise AssertionError(f"the image {crc} did not come into the store")

    def update_a_node(self, git_id: str, crc: str, size: str):
        """Its bridge may be away just now: it is told again until it begins."""
        node = self.random.choice(self.simulator.nodes)
        since = len(self.simulator.output)
        while not self.simulator.wait_for(rf"^node {node} fetches firmware {git_id}", 3, since):
            if self.over.is_set() or not self.simulator.is_reporting():
                return
            self.simulator.type(f"ota-set {node} {git_id}:{crc}:{size} gw")
        ended = self.simulator.wait_for(rf"^node {node}: firmware (.*)", 60, since)
        if ended and self.simulator.is_reporting():
            self.simulator.type(f"ota-apply {node}")
            self.done += 1


class Operators(Worker):
    """One who listens to the debug stream, and others who come, type, and go."""

    def __init__(self, port: int, nodes: list, period: float):
        super().__init__(period)
        self.port, self.nodes = port, nodes
        self.random = random.Random(3)
        self.came = self.orders = self.lines = 0
        self.listener = self.arrive()
        self.listener.command("sub", "\n")
        self.listener.command("grep PANID|PING", "\n")

    def arrive(self) -> Terminal:
        self.came += 1
        return Terminal(self.port)

    def turn(self):
        while more := self.listener.pull(0):
            self.lines += more.count(b"\n")
        assert not self.listener.closed, "the listener was sent away"
        visitor = self.arrive()
        try:
            visitor.command(f"dbg win {'yn'[self.came % 2]}", "ul_tdoa n\n")
            for word in self.random.sample(sorted(WORDS), 3):
                visitor.command(word, WORDS[word])
            answer = visitor.command(f"reboot {self.random.choice(self.nodes)}", "\n")
            self.orders += answer == "Command sent successfully!\n"
            visitor.send(b"quit\n")
            visitor.wait_closed()
        finally:
            visitor.close()

    def leave(self):
        self.listener.close()


class Scrapes(Worker):
    """Prometheus, probes, and somebody who looks at everything."""
    PAGES = ("/metrics", "/livez", "/readyz?verbose", "/version", "/api/v1/status", "/api/v1/bridges",
             "/api/v1/nodes?limit=50", "/api/v1/operators", "/api/v1/firmware")

    def __init__(self, port: int, period: float):
        super().__init__(period)
        self.port = port
        self.pages = itertools.cycle(self.PAGES)
        self.answers = collections.Counter()

    def turn(self):
        path = next(self.pages)
        answer = get(self.port, path)
        assert answer.status == 200, f"{path}: {answer.status}: {answer.body.decode()}"
        if path != "/metrics":
            json.loads(answer.body)
        self.answers[path] += 1


class Discoveries(Worker):
    """Who looks for the gateway by UDP, and is answered."""

    def __init__(self, port: int, period: float):
        super().__init__(period)
        self.address = ("127.0.0.1", port)
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.sock.settimeout(20)
        self.answered = 0

    def turn(self):
        self.sock.sendto(bytes(6), self.address)
        assert self.sock.recv(1500)
        self.answered += 1

    def leave(self):
        self.sock.close()
