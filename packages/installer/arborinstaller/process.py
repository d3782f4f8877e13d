"""Processes that must not outlive whoever waits for them."""

import ctypes
import os
import signal

_PR_SET_PDEATHSIG = 1
_PR_SET_CHILD_SUBREAPER = 36


def end_with(parent: int) -> None:
    """Has the kernel kill this process when its parent, process `parent`, ends, however that comes."""
    _prctl(_PR_SET_PDEATHSIG, signal.SIGKILL)
    if os.getppid() != parent:
        os._exit(1)  # it was gone before the kernel knew


def adopt_orphans() -> None:
    """Has this process be the parent of what its children leave running, so that it can wait for that."""
    _prctl(_PR_SET_CHILD_SUBREAPER, 1)


def _prctl(option: int, value: int) -> None:
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(option, ctypes.c_ulong(value), *[ctypes.c_ulong(0)] * 3) != 0:
        raise OSError(ctypes.get_errno(), "a process can't be tied to what it starts, or what started it")
