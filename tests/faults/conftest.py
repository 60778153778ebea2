"""Faults and hostile peers, against the daemon and with the peers of the end-to-end tests."""
import pathlib
import sys

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))

from harness.fixtures import gateway, start_gateway  # noqa: E402, F401
