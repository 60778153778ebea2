import os
import pathlib
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]


class Build:
    """A build tree that has been built, and what was asked of it."""

    def __init__(self, folder: pathlib.Path):
        self.folder = folder
        self.cache = cache_of(folder)
        self.sanitized = bool(self.cache.get("RTLS_SANITIZE"))


def cache_of(folder: pathlib.Path) -> dict:
    """What CMake keeps of a build tree's configuration, by name."""
    lines = (folder / "CMakeCache.txt").read_text().splitlines()
    return {line.split(":", 1)[0]: line.split("=", 1)[1] for line in lines
            if "=" in line and ":" in line.split("=", 1)[0] and line[0] not in "#/"}


def run(*command, **options) -> str:
    """What the command prints; the test fails when it fails."""
    done = subprocess.run([str(part) for part in command], text=True, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, check=False, **options)
    assert done.returncode == 0, f"{command}\n{done.stdout[-4000:]}"
    return done.stdout


def pytest_collection_modifyitems(items):
    """What builds a tree of its own runs in CI only, and there it starts first."""
    if not os.environ.get("BUILD_SLOW"):
        items[:] = [item for item in items if not item.get_closest_marker("slow")]
    items.sort(key=lambda item: item.get_closest_marker("slow") is None)


@pytest.fixture(scope="session")
def prefix(build, tmp_path_factory) -> pathlib.Path:
    """Where everything is installed once."""
    prefix = tmp_path_factory.mktemp("prefix")
    run("cmake", "--install", build.folder, "--prefix", prefix)
    return prefix


@pytest.fixture(scope="session")
def programs(build, prefix) -> list:
    """All programs that are installed, by the installation's own list."""
    files = [pathlib.Path(line) for line in (build.folder / "install_manifest.txt").read_text().splitlines()]
    found = sorted(file for file in files if file.parent in (prefix / "bin", prefix / "sbin"))
    assert len(found) > 2
    return found


@pytest.fixture(scope="session")
def build() -> Build:
    return Build(pathlib.Path(os.environ.get("RTLS_BUILD_DIR", ROOT / "build" / "release")))
