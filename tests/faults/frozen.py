"""One thread of the daemon that stands still, as after a page fault on a dead disk, while the others go on."""
import contextlib
import ctypes
import os
import pathlib
import time

_libc = ctypes.CDLL(None, use_errno=True)
_libc.ptrace.argtypes = [ctypes.c_long, ctypes.c_long, ctypes.c_void_p, ctypes.c_void_p]
_libc.ptrace.restype = ctypes.c_long
CONTINUE, DETACH, SEIZE, INTERRUPT = 7, 17, 0x4206, 0x4207
WALL = 0x40000000
WAITS = {7, 219, 232, 271, 281}     # poll, restart_syscall, epoll_wait, ppoll, epoll_pwait on x86-64
DEADLINE = 20.0


def thread_of(pid: int, name: str) -> int:
    for task in pathlib.Path(f"/proc/{pid}/task").iterdir():
        if (task / "comm").read_text().strip() == name:
            return int(task.name)
    raise LookupError(f"no thread {name} in {pid}")


def _ptrace(request: int, thread: int):
    if _libc.ptrace(request, thread, None, None) != 0:
        error = ctypes.get_errno()
        raise OSError(error, os.strerror(error))


def _stop_where_it_waits(pid: int, thread: int):
    """Stops the thread in its loop's wait; elsewhere it may hold a lock, of the allocator too, that the others need."""
    end = time.monotonic() + DEADLINE
    while True:
        _ptrace(INTERRUPT, thread)
        os.waitpid(thread, WALL)
        call = pathlib.Path(f"/proc/{pid}/task/{thread}/syscall").read_text().split()[0]
        if call.isdigit() and int(call) in WAITS:
            return
        assert time.monotonic() < end, f"the thread is never at rest, but in call {call}"
        _ptrace(CONTINUE, thread)
        time.sleep(0.001)    # nothing tells of a thread that begins to wait


@contextlib.contextmanager
def frozen(pid: int, name: str):
    """Stops the thread as a debugger does; its libraries' own threads still accept, read and close."""
    thread = thread_of(pid, name)
    _ptrace(SEIZE, thread)
    try:
        _stop_where_it_waits(pid, thread)
        yield
    finally:
        _ptrace(DETACH, thread)
