"""Faults and hostile peers, against the daemon and with the peers of the end-to-end tests."""
import json
import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))

from harness.fixtures import gateway, start_gateway  # noqa: E402, F401


@pytest.fixture
def figure(request):
    """figure(what, before, now): one row of the table of tests/faults/run. `before` is what was measured before the
    fault was mended, in words; `now` is this run's."""
    case = request.node.name.removeprefix("test_").replace("_", " ")

    def record(what: str, before: str, now: str):
        if path := os.environ.get("RTLS_FIGURES"):
            with open(path, "a") as figures:
                figures.write(json.dumps({"case": case, "what": what, "before": before, "now": now}) + "\n")
    return record
