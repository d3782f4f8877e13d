"""Processes that must not outlive whoever waits for them."""

import ctypes
import os
import signal

_PR_SET_PDEATHSIG = 1


def end_with(parent: int) -> None:
    """Has the kernel kill this process when its parent, process `parent`, ends, however that comes."""
    libc = ctypes.CDLL(None, use_errno=True)
    if libc.prctl(_PR_SET_PDEATHSIG, ctypes.c_ulong(signal.SIGKILL), *[ctypes.c_ulong(0)] * 3) != 0:
        raise OSError(ctypes.get_errno(), "a process can't be tied to the one that started it")
    if os.getppid() != parent:
        os._exit(1)  # it was gone before the kernel knew
