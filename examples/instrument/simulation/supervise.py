"""Runs one command and owns everything that it starts: nothing outlives the instrument."""

import ctypes
import os
import signal
import subprocess
import time
from pathlib import Path

PR_SET_PDEATHSIG = 1
PR_SET_CHILD_SUBREAPER = 36
TERMINATE_SECONDS = 45.0
KILL_SECONDS = 10.0

_libc = ctypes.CDLL(None, use_errno=True)


def run(command: list[str], environment: dict[str, str], end_with: int = signal.SIGTERM) -> int:
    """Runs `command`, ends what it left behind, and returns its exit code (128 + signal when a signal ended it).

    Processes that lose their parent come to this one, whatever session they moved to. A request to end reaches the
    command as the signal `end_with`; the terminal's own interrupt reaches it without help.
    """
    _libc.prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    try:
        child = subprocess.Popen(command, env=environment, preexec_fn=_end_with_parent)
    except OSError as error:
        print(f"instrument: {command[0]} could not be started: {error.strerror}", flush=True)
        return 127
    handlers = {number: signal.signal(number, lambda *_: _send(child.pid, end_with)) for number in
                (signal.SIGTERM, signal.SIGHUP)}
    handlers[signal.SIGINT] = signal.signal(signal.SIGINT, lambda *_: None)
    try:
        return _wait_for(child.pid)
    finally:
        _end_children()
        for number, handler in handlers.items():
            signal.signal(number, handler)


def _end_with_parent() -> None:
    _libc.prctl(PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


def _wait_for(pid: int) -> int:
    """Reaps whatever ends until `pid` does."""
    while True:
        ended, status = os.wait()
        if ended == pid:
            code = os.waitstatus_to_exitcode(status)
            return code if code >= 0 else 128 - code


def _end_children() -> None:
    for number, seconds in ((signal.SIGTERM, TERMINATE_SECONDS), (signal.SIGKILL, KILL_SECONDS)):
        deadline = time.monotonic() + seconds
        asked: set[int] = set()
        while time.monotonic() < deadline:
            children = _children()
            if not children:
                return
            for pid in children - asked:
                _send(pid, number)
            asked |= children
            _reap()
            time.sleep(0.02)


def _children() -> set[int]:
    """This process's children; those of a child that ended are among them from then on."""
    found = set()
    for status in Path("/proc").glob("[0-9]*/stat"):
        try:
            fields = status.read_text(encoding="utf-8", errors="replace").rpartition(")")[2].split()
        except OSError:
            continue
        if int(fields[1]) == os.getpid():
            found.add(int(status.parent.name))
    return found


def _reap() -> None:
    try:
        while os.waitpid(-1, os.WNOHANG)[0]:
            pass
    except ChildProcessError:
        pass


def _send(pid: int, number: int) -> None:
    try:
        os.kill(pid, number)
    except ProcessLookupError:
        pass
