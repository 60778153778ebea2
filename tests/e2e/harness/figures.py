"""The daemon's figures, as /metrics has them."""
import re

from .http_client import get

SAMPLE = re.compile(r'^rtls_gateway_(\w+)(?:\{(.*)\})? (\S+)$')


class Figures:
    def __init__(self, port: int):
        self.samples = {}
        for line in get(port, "/metrics").body.decode().splitlines():
            if found := SAMPLE.match(line):
                self.samples[found[1], found[2] or ""] = float(found[3])

    def __getitem__(self, key) -> int:
        name, labels = key
        return int(self.samples[name, ",".join(f'{label}="{value}"' for label, value in labels.items())])

    def sum(self, name: str, **labels) -> int:
        wanted = [f'{label}="{value}"' for label, value in labels.items()]
        return int(sum(value for (other, text), value in self.samples.items()
                       if other == name and all(label in text for label in wanted)))
