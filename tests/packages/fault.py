"""Runs a package with a fault in its worker: fault.py CALL:NUMBER:ACTION PACKAGE OPTIONS...

The installer's own modules run as they are; before the NUMBERth call of os.CALL in the worker ("any": of any call
that changes the storage) ACTION happens. With fewer calls it ends by saying that the fault was not reached.
"""

import errno
import os
import signal
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "packages", "installer"))
sys.dont_write_bytecode = True
from arborinstaller import main, settings, worker  # noqa: E402

CHANGING = ("write", "fsync", "fdatasync", "unlink", "symlink", "replace", "fchmod", "mkdir")
call, number, action = sys.argv[1].split(":")
remaining = int(number)
install = worker.run


def act() -> None:
    if action == "power":  # the whole machine goes: nobody is left to tidy up
        os.kill(os.getppid(), signal.SIGKILL)
    if action in ("power", "kill"):
        os.kill(os.getpid(), signal.SIGKILL)
    elif action == "truncate":
        os.truncate(sys.argv[2], 1 << 20)
    elif action == "hold":
        while not os.path.exists(os.environ["RELEASE"]):
            time.sleep(0.02)
    elif action == "crash":
        raise RuntimeError("a fault in the installer")
    else:
        raise OSError(getattr(errno, action), os.strerror(getattr(errno, action)))


def armed(name: str):
    original = getattr(os, name)

    def replacement(*arguments, **named):
        global remaining
        remaining -= 1
        if remaining == 0:
            act()
        return original(*arguments, **named)
    return replacement


def run(*arguments) -> str | None:
    for name in CHANGING if call == "any" else (call,):
        setattr(os, name, armed(name))
    outcome = install(*arguments)
    return "the fault was not reached" if remaining > 0 else outcome


worker.run = run
settings.load = lambda: settings.Settings(stallSeconds=float(os.environ.get("STALL", "900")))
sys.exit(main.main(sys.argv[2], sys.argv[3:]))
