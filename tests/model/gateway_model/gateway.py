"""What the gateway does for each frame of a bridge and each command of the proxy: the state, and what must be
seen of it. The rig compares that with the daemon."""
from . import link
from .commands import Commands
from .messages import Messages
from .ota import PageStore
from .registry import Registry


class Client:
    """A bridge's connection."""

    def __init__(self, number: int, port: int):
        self.number = number
        self.port = port
        self.mac = bytes(8)
        self.decoder = link.Decoder()
        self.down = []               # Expected: raw frames
        self.next_version = None     # of the broadcasts; None until the first one


class Expected:
    """Something that the daemon has to bring forth, because of frame `index`, at `moment`. What is `optional`
    depends on the daemon's clock."""

    __slots__ = ("what", "index", "moment", "optional")

    def __init__(self, what, index, moment, optional=False):
        self.what, self.index, self.moment, self.optional = what, index, moment, optional


def next_version(version: int) -> int:
    """RPL's lollipop: a straight stick from 240 up to 255, then circles of 0 to 127."""
    return (version + 1) % 256 if version >= 128 else (version + 1) % 128


class Gateway(Messages, Commands):
    def __init__(self, firmware_files: int):
        self.registry = Registry()
        self.store = PageStore(firmware_files)
        self.clients = []
        self.reports = []            # Expected: (time frame or None, message)
        self.lines_up = []           # Expected: the text of a management line without its time
        self.prints = []             # Expected: (component, text)
        self.rpl_sure = False        # no broadcast timer runs: a request is answered at once
        self.rpl_version = 240
        self.rpl_broadcasts = 0
        self.rpl_requests = []       # Moments of accepted requests that no broadcast is known to have answered
        self.index = 0
        self.moment = None
        self.optional = False

    def connect(self, client: Client):
        self.clients.append(client)

    def disconnect(self, client: Client):
        self.clients.remove(client)

    # What comes in

    def receive(self, client: Client, data: bytes):
        """Bytes from a bridge, in any portions."""
        for message in client.decoder.feed(data):
            self.process_message(client, message)

    def delete_node(self, short: bytes) -> bool:
        node = self.registry.find_by_short_mac(short)
        if node:
            self.registry.delete(node)
        return node is not None

    # What goes out

    def send(self, client: Client, message: bytes):
        client.down.append(Expected(link.encode(message), self.index, self.moment, self.optional))

    def send_by_route(self, route, message: bytes):
        """To the client; to every one when there is none; to nobody when it has gone."""
        for client in self.clients:
            if route is None or client is route:
                self.send(client, message)

    def report(self, message: bytes, generated=None):
        self.reports.append(Expected((generated, message), self.index, self.moment))

    def line_up(self, text: str):
        self.lines_up.append(Expected(text, self.index, self.moment))

    def say(self, text: str, component: str = "parsing"):
        self.prints.append(Expected((component, text), self.index, self.moment, self.optional))

    def broadcast_version(self):
        """Answers a request for the RPL version, if no timer runs; otherwise it is answered later, by the clock."""
        if not self.rpl_sure:
            self.rpl_requests.append(self.moment)
            return
        self.rpl_sure = False
        message = bytes((0x02, 0x81, 1, 0, self.rpl_version))
        for client in self.clients:
            self.send(client, message)
        self.rpl_version = next_version(self.rpl_version)
        self.rpl_broadcasts += 1
