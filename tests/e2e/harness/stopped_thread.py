"""The daemon's threads: their names, and a means to stop one, as a debugger does, while the others run."""
import pathlib
import subprocess


def thread_names(daemon) -> dict:
    """By number. A thread that nobody names has the name of the one that made it."""
    return {int(task.name): (task / "comm").read_text().strip()
            for task in pathlib.Path(f"/proc/{daemon.process.pid}/task").iterdir()}


def thread_id(daemon, name: str) -> int:
    return next(number for number, is_called in thread_names(daemon).items() if is_called == name)


class StoppedThread:
    """One thread of the daemon, held by a debugger's means while the others run."""

    HOLD = r'''
import ctypes, os, sys
libc = ctypes.CDLL(None, use_errno=True)
libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
tid, WALL = int(sys.argv[1]), 0x40000000
SEIZE, INTERRUPT, DETACH = 0x4206, 0x4207, 17
if libc.ptrace(SEIZE, tid, None, None) or libc.ptrace(INTERRUPT, tid, None, None):
    sys.exit(os.strerror(ctypes.get_errno()))
os.waitpid(tid, WALL)
print("held", flush=True)
sys.stdin.read()
libc.ptrace(DETACH, tid, None, None)
'''

    def __init__(self, tid: int):
        self.tid = tid

    def __enter__(self):
        self.holder = subprocess.Popen(["/usr/bin/python3", "-c", self.HOLD, str(self.tid)], stdin=subprocess.PIPE,
                                       stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        assert self.holder.stdout.readline() == "held\n", self.holder.stderr.read()
        return self

    def __exit__(self, *_):
        self.holder.communicate("")
        assert self.holder.returncode == 0
