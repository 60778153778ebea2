"""tshark with the dissectors of the sources, and nothing else that this machine or this user has added to it."""
import functools
import os
import pathlib
import subprocess

PLUGINS = pathlib.Path(__file__).resolve().parents[3] / "tools/wireshark"
PERSONAL = ".local/lib/wireshark/plugins"  # where Wireshark looks for what a user has put there


def environment(folder: pathlib.Path) -> dict:
    """A home with the dissectors. What is installed for all users, which may be these dissectors once more, is looked for in
    an empty folder."""
    plugins, installed = folder / "home" / PERSONAL, folder / "installed"
    installed.mkdir(exist_ok=True)
    if not plugins.exists():
        plugins.mkdir(parents=True)
        (plugins / "rtls").symlink_to(PLUGINS)
    return {"PATH": "/usr/bin:/bin", "LC_ALL": "C.UTF-8", "TZ": "UTC", "HOME": str(folder / "home"),
            "WIRESHARK_PLUGIN_DIR": str(installed)}


@functools.lru_cache
def as_nobody() -> tuple:
    """In front of a command: root's tshark lets no environment tell it where plugins are. In a namespace of its own root is
    nobody, and reads what it could read before. Where there are no namespaces, nothing stands in front."""
    command = ("unshare", "--user")
    if os.getuid() != 0 or subprocess.run([*command, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        return ()
    return command


def run_tshark(folder: pathlib.Path, *arguments) -> str:
    """What it prints. `folder`: for its home."""
    done = subprocess.run([*as_nobody(), "tshark", *arguments], env=environment(folder), text=True, check=False, stdout=subprocess.PIPE,
                          stderr=subprocess.PIPE)
    told = [line for line in done.stderr.splitlines() if not line.startswith("Running as user")]
    assert done.returncode == 0 and not told, told[:20]
    assert "Lua Error" not in done.stdout
    return done.stdout
