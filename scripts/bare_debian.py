"""What scripts/package-test and scripts/first-install share: a bare Debian 12 below a folder, in name spaces of its own, and the
daemon in it, started as its unit would. Needs root."""
import contextlib
import ctypes
import os
import pathlib
import re
import shlex
import shutil
import socket
import stat
import subprocess
import sys
import tempfile
import time

ROOT = pathlib.Path(__file__).resolve().parents[1]
UNIT = "lib/systemd/system/rtls-gateway.service"
CONFIGURATION = "etc/rtls-gateway/rtls-gateway.conf"
CLONE_NEWNET = 0x40000000
WATCHDOG_S = 2
PATIENCE_S = 60


class failure(Exception):
    """Something does not hold."""


def expect(holds, what: str):
    if not holds:
        raise failure(what)
    print(f"  ok: {what}", flush=True)


def call(*command, **options) -> str:
    done = subprocess.run([str(part) for part in command], text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          check=False, **options)
    if done.returncode:
        raise failure(f"{shlex.join(map(str, command))}: status {done.returncode}\n{done.stdout[-6000:]}")
    return done.stdout


def step(text: str):
    print(f"== {text}", flush=True)


# ---- the bare system

class bare_system:
    """A Debian below a folder, and what runs in it."""

    def __init__(self, folder: pathlib.Path):
        self.folder = folder
        kept = {name: os.environ[name] for name in ("http_proxy", "https_proxy", "no_proxy", "CMAKE_EXTRA") if name in os.environ}
        self.environment = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "HOME": "/root", "LC_ALL": "C.UTF-8",
                            "DEBIAN_FRONTEND": "noninteractive", **kept}

    def run(self, *command, **options) -> str:
        return call("chroot", self.folder, *command, env=self.environment, stdin=subprocess.DEVNULL, **options)

    def path(self, name: str) -> pathlib.Path:
        return self.folder / name.lstrip("/")

    def has(self, name: str) -> bool:
        return self.path(name).exists()

    def install(self, *packages):
        self.run("apt-get", "install", "-y", "-qq", "--no-install-recommends", *packages)

    def take(self, folder: pathlib.Path):
        """Has the packages of this folder in /packages."""
        self.path("/packages").mkdir()
        for package in folder.glob("*.deb"):
            shutil.copy(package, self.path("/packages"))


def lay_over(lower: pathlib.Path, scratch: pathlib.Path) -> pathlib.Path:
    """A system in which everything can be changed without changing this one."""
    for name in ("upper", "work", "system"):
        (scratch / name).mkdir()
    call("mount", "-t", "overlay", "overlay", "-o",
         f"lowerdir={lower},upperdir={scratch / 'upper'},workdir={scratch / 'work'}", scratch / "system")
    return scratch / "system"


def make_devices(folder: pathlib.Path):
    call("mount", "-t", "tmpfs", "-o", "mode=755", "dev", folder)
    for name, major, minor in (("null", 1, 3), ("zero", 1, 5), ("full", 1, 7), ("random", 1, 8), ("urandom", 1, 9), ("tty", 5, 0)):
        os.mknod(folder / name, 0o666 | stat.S_IFCHR, os.makedev(major, minor))
        (folder / name).chmod(0o666)
    for number, name in enumerate(("stdin", "stdout", "stderr")):
        (folder / name).symlink_to(f"/proc/self/fd/{number}")
    (folder / "fd").symlink_to("/proc/self/fd")
    (folder / "shm").mkdir(mode=0o1777)
    (folder / "pts").mkdir()
    call("mount", "-t", "devpts", "-o", "newinstance,ptmxmode=0666", "pts", folder / "pts")
    (folder / "ptmx").symlink_to("pts/ptmx")


def prepare(base, scratch: pathlib.Path) -> bare_system:
    step("a bare system")
    if base:
        folder = lay_over(base, scratch)
    else:
        folder = scratch / "system"
        call("debootstrap", "--variant=minbase", "--include=ca-certificates", "bookworm", folder)
    for kind, name in (("proc", "proc"), ("sysfs", "sys"), ("tmpfs", "run")):
        call("mount", "-t", kind, kind, folder / name)
    make_devices(folder / "dev")
    shutil.copy("/etc/resolv.conf", folder / "etc/resolv.conf")
    system = bare_system(folder)
    system.run("apt-get", "update", "-qq")
    system.install("systemd", "dbus")
    return system


def with_a_network_of_its_own():
    """The ports are ours alone from here on, whatever else runs on this host; and nothing is fetched any more."""
    if ctypes.CDLL(None, use_errno=True).unshare(CLONE_NEWNET) != 0:
        raise failure(f"no network of its own: {os.strerror(ctypes.get_errno())}")
    call("ip", "link", "set", "lo", "up")


def in_name_spaces(script: str, arguments: list) -> int:
    """Runs the script with these arguments and --inside FOLDER, for what it mounts and makes: in a name space that ends with
    its process, however that ends. What is deleted afterwards never had a mount in it."""
    if os.geteuid() != 0:
        sys.exit("it mounts, and changes its root: run it as root")
    scratch = pathlib.Path(tempfile.mkdtemp(prefix=f"rtls-{pathlib.Path(script).name}."))
    try:
        return subprocess.call(["unshare", "--mount", "--propagation", "private", "--pid", "--fork", "--kill-child",
                                sys.executable, script, *arguments, "--inside", scratch])
    finally:
        shutil.rmtree(scratch)


# ---- the daemon, as the unit has it

def of_unit(system: bare_system, key: str) -> str:
    return re.search(rf"^{key}=(.*)$", system.path(UNIT).read_text(), re.M)[1]


class service:
    """The daemon with its unit's command and user, a notify socket and a system log: both are played here."""

    def __init__(self, system: bare_system):
        self.system = system
        self.told = []
        self.notify = self.socket_at("/run/notify")
        self.log = self.socket_at("/dev/log")
        self.folder = system.path("/run") / of_unit(system, "RuntimeDirectory")
        self.folder.mkdir()
        shutil.chown(self.folder, *self.ids())
        self.as_user = ["setpriv", f"--reuid={self.ids()[0]}", f"--regid={self.ids()[1]}", "--clear-groups", "--no-new-privs"]
        self.process = None

    def ids(self) -> tuple:
        fields = self.system.run("getent", "passwd", of_unit(self.system, "User")).split(":")
        return int(fields[2]), int(fields[3])

    def socket_at(self, name: str) -> socket.socket:
        made = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        made.bind(str(self.system.path(name)))
        self.system.path(name).chmod(0o666)
        made.settimeout(1)
        return made

    def start(self):
        environment = {**self.system.environment, "NOTIFY_SOCKET": "/run/notify", "WATCHDOG_USEC": str(WATCHDOG_S * 1000000)}
        self.process = subprocess.Popen(["chroot", self.system.folder, *self.as_user, *of_unit(self.system, "ExecStart").split()],
                                        env=environment, stdin=subprocess.DEVNULL)

    def hears(self, word: str) -> bool:
        """Whether the daemon tells its supervisor this in time."""
        end = time.monotonic() + PATIENCE_S
        while time.monotonic() < end:
            with contextlib.suppress(TimeoutError):
                self.told += self.notify.recv(65536).decode().splitlines()
            if word in self.told:
                self.told.remove(word)
                return True
            if self.process.poll() is not None:
                return word in self.told
        return False

    def logged(self) -> str:
        self.log.setblocking(False)
        lines = []
        with contextlib.suppress(BlockingIOError):
            while True:
                lines.append(self.log.recv(65536).decode(errors="replace"))
        return "\n".join(lines)

    def end(self):
        if self.process and self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        if log := self.logged():
            print(log)
        shutil.rmtree(self.folder) # as systemd does: a shorter pid would not hide the last one's digits
