"""One thread of the daemon that stands still, as after a page fault on a dead disk, while the others go on."""
import contextlib
import ctypes
import os
import pathlib

_libc = ctypes.CDLL(None, use_errno=True)
_libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
_libc.ptrace.restype = ctypes.c_long
DETACH, SEIZE, INTERRUPT = 17, 0x4206, 0x4207
WALL = 0x40000000


def thread_of(pid: int, name: str) -> int:
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        if (task / "comm").read_text().strip() == name:
            return int(task.name)
    raise LookupError(f"no thread {name} in {pid}")


def _ptrace(request: int, thread: int):
    if _libc.ptrace(request, thread, None, None) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


@contextlib.contextmanager
def frozen(pid: int, name: str):
    """Stops the thread as a debugger does; its libraries' own threads still accept, read and close."""
    thread = thread_of(pid, name)
    _ptrace(SEIZE, thread)
    try:
        _ptrace(INTERRUPT, thread)
        os.waitpid(thread, WALL)
        yield
    finally:
        _ptrace(DETACH, thread)
