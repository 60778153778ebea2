"""The demo as somebody sees it who runs it: at once with another one, ended by Ctrl-C, and when something is wrong."""
import os
import pty
import re
import resource
import select
import shutil
import subprocess
import time

import pytest
from conftest import ROOT

DEMO = ROOT / "demo"
PATIENCE = 120.0    # it may build


class OnTerminal:
    """A demo on a terminal of its own."""

    def __init__(self):
        self.seen = b""
        self.process, self.terminal = pty.fork()
        if self.process == 0:
            os.environ["TERM"] = "xterm"
            os.execv(DEMO, [str(DEMO)])

    def read(self, until: bytes = None, patience: float = PATIENCE):
        """Up to these words, or to the end."""
        end = time.monotonic() + patience
        while until is None or until not in self.seen:
            assert time.monotonic() < end, self.seen.decode(errors="replace")
            if not select.select([self.terminal], [], [], 0.1)[0]:
                continue
            try:
                chunk = os.read(self.terminal, 65536)
            except OSError:    # its end has closed the terminal
                chunk = b""
            if not chunk:
                assert until is None, self.seen.decode(errors="replace")
                return
            self.seen += chunk

    def interrupt(self):
        os.write(self.terminal, b"\x03")

    def wait(self) -> int:
        os.close(self.terminal)
        return os.waitstatus_to_exitcode(os.waitpid(self.process, 0)[1])


@pytest.fixture
def in_release_tree(build):
    if build.folder != ROOT / "build" / "release":
        pytest.skip("it builds in build/release")


def test_two_at_once_end_with_ctrl_c(in_release_tree):
    both = [OnTerminal(), OnTerminal()]
    for demo in both:
        demo.read(until=b"Ctrl-C ends both")
        demo.read(until=b"heartbeat")    # reports arrive
    for demo in both:
        begin = time.monotonic()
        demo.interrupt()
        demo.read()
        took = time.monotonic() - begin
        assert took < 4, f"{took:.1f} s until the prompt is back"
        assert demo.wait() == 0
        scratch = re.search(rb"(\S+)/images at http", demo.seen)[1]
        assert not os.path.exists(scratch)
        assert b"reports: sent" in demo.seen


def test_a_gateway_that_does_not_start_shows_its_own_words(in_release_tree):
    done = subprocess.run([DEMO], text=True, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=PATIENCE, check=False,
                          preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_NOFILE, (100, 100)))
    assert done.returncode == 1
    assert "the gateway does not start; its log:\n" in done.stderr
    assert "100 open files are allowed, at least 128 are needed" in done.stderr
    assert "\033" not in done.stdout + done.stderr, "there is no terminal"


def test_a_tree_that_was_made_elsewhere_is_named(tmp_path):
    shutil.copy(DEMO, tmp_path)
    (tmp_path / "build" / "release").mkdir(parents=True)
    (tmp_path / "build" / "release" / "CMakeCache.txt").write_text("CMAKE_HOME_DIRECTORY:INTERNAL=/elsewhere\n")
    done = subprocess.run([tmp_path / "demo"], text=True, stderr=subprocess.PIPE, stdin=subprocess.DEVNULL, check=False)
    assert done.returncode == 1
    assert done.stderr.endswith("build/release was made for /elsewhere; remove it and try again: rm -r build/release\n")
