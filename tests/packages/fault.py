"""Runs a package with a fault: fault.py [PROCESS.]CALL:WHEN:ACTION PACKAGE OPTIONS...

The installer's own modules run as they are, with the settings file that SETTINGS names. Before a call of os.CALL in
PROCESS (worker or watcher; the worker when left out) ACTION happens. CALL "any" is any call that changes the storage;
WHEN is a number (the how manyth call) or a part of the path that it is about. An installer that ends without
the fault says that it was not reached. An empty fault is none.
"""

import errno
import functools
import os
import signal
import stat
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packages", "installer"))
sys.dont_write_bytecode = True
from arborinstaller import main, settings, worker  # noqa: E402

CHANGING = ("write", "fsync", "fdatasync", "unlink", "symlink", "replace", "fchmod", "mkdir")
call, when, action = sys.argv[1].split(":") if sys.argv[1] else ("none", "none", "none")
process, _, call = call.rpartition(".")
WATCHER = os.getpid()
install = worker.run
count = 0
reached = False


def act() -> None:
    if action in ("power", "orphan") and os.getpid() != WATCHER:
        os.kill(WATCHER, signal.SIGKILL)
    if action == "orphan":  # only the watcher goes; whoever is left goes on with the step
        while os.getppid() == WATCHER:
            time.sleep(0.001)
    elif action in ("power", "kill"):  # "power": the whole machine goes, and nobody is left to tidy up
        os.kill(os.getpid(), signal.SIGKILL)
    elif action == "truncate":
        os.truncate(sys.argv[2], 1 << 20)
    elif action == "hold":
        open(os.environ["RELEASE"] + ".held", "wb").close()
        while not os.path.exists(os.environ["RELEASE"]):
            time.sleep(0.02)
    elif action == "crash":
        raise RuntimeError("a fault in the installer")
    else:
        raise OSError(getattr(errno, action), os.strerror(getattr(errno, action)))


def subject(name: str, arguments: tuple) -> str:
    """The path that a call is about; empty for a pipe or a terminal."""
    target = arguments[-1] if name in ("symlink", "replace") else arguments[0]
    if isinstance(target, str):
        return target
    ordinary = stat.S_IFMT(os.fstat(target).st_mode) in (stat.S_IFREG, stat.S_IFDIR)
    return os.readlink(f"/proc/self/fd/{target}") if ordinary else ""


def armed(name: str):
    original = getattr(os, name)

    def replacement(*arguments, **named):
        global count, reached
        mine = (os.getpid() == WATCHER) == (process == "watcher")
        path = subject(name, arguments) if mine and not reached else ""
        if path:
            count += 1
            if count == int(when) if when.isdecimal() else when in path:
                reached = True
                act()
        return original(*arguments, **named)
    return replacement


def run(*arguments) -> str | None:
    outcome = install(*arguments)
    return outcome if process or reached or not sys.argv[1] else "the fault was not reached"


for name in CHANGING if call == "any" else (call,):
    if call != "none":
        setattr(os, name, armed(name))
worker.run = run
settings.load = functools.partial(settings.load, os.environ["SETTINGS"])
code = main.main(sys.argv[2], sys.argv[3:])
if process and not reached:
    print("the fault was not reached", file=sys.stderr)
sys.exit(code)
