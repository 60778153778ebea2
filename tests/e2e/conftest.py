import os
import pathlib
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from harness.fixtures import gateway, http_gateway, http_port, start_gateway, tap  # noqa: E402, F401


def pytest_collection_modifyitems(items):
    """What takes minutes starts first, so that the rest runs beside it; with E2E_QUICK set, it does not run."""
    if os.environ.get("E2E_QUICK"):
        items[:] = [item for item in items if not item.get_closest_marker("slow")]
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)
