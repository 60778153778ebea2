"""Faults and hostile peers, against the daemon and with the peers of the end-to-end tests."""
import json
import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parents[1] / "e2e"))

from figure_groups import FIGURE_GROUPS  # noqa: E402
from harness.fixtures import gateway, http_port, start_gateway  # noqa: E402, F401
from network import Namespaces  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--quick", action="store_true", help="without the cases that measure, or take minutes")


def pytest_collection_modifyitems(config, items):
    """The quick subset: `./test` has it with FAULTS_QUICK=1 and with all presets but release, and so has CI."""
    if config.getoption("--quick", False):
        left_out = [item for item in items if item.get_closest_marker("measured") or item.get_closest_marker("slow")]
        config.hook.pytest_deselected(items=left_out)
        items[:] = [item for item in items if item not in left_out]


@pytest.fixture
def namespaces():
    spaces = Namespaces()
    yield spaces
    spaces.close()


@pytest.fixture
def figure(request):
    """figure(what, before, now): one row of the table of tests/faults/run. `before` is what was measured before the
    fault was mended, in words; `now` is this run's. With `worst`, a number, the cases of a parametrized test share
    a row, which shows the worst of them. The row stands in the group that the module names by GROUP."""
    node = request.node
    group = getattr(request.module, "GROUPS", {}).get(node.originalname) or request.module.GROUP
    assert group in FIGURE_GROUPS

    def record(what: str, before: str, now: str, worst: float = None):
        name = node.name if worst is None else node.originalname
        case = name.removeprefix("test_").replace("_", " ")
        if path := os.environ.get("RTLS_FIGURES"):
            with open(path, "a") as figures:
                figures.write(json.dumps({"group": group, "case": case, "what": what, "before": before, "now": now,
                                          "worst": worst}) + "\n")
    return record
