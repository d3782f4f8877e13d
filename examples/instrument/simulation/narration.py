"""How a demo is told: headings, commands as a person types them, log lines, and claims that are checked."""

import os
import subprocess
import sys
import time
from pathlib import Path
from typing import Callable

WAIT_SECONDS = 60.0
PAUSE_SECONDS = 1.5
COLOURS = sys.stdout.isatty() and "NO_COLOR" not in os.environ

_pause = 0.0


class DemoError(Exception):
    """A step did not end as it has to; the text says which."""


class LogReader:
    """Shows a host's log as it grows, from now on. Each line is shown once."""

    def __init__(self, log: Path) -> None:
        self._file = open(log, encoding="utf-8", errors="replace")
        self._file.seek(0, os.SEEK_END)

    def show_until(self, text: str, hidden: str = "") -> None:
        """Prints new lines up to the first that contains `text`, without those that contain `hidden`, if given."""
        deadline = time.monotonic() + WAIT_SECONDS
        line = ""
        while time.monotonic() < deadline:
            line += self._file.readline()
            if not line.endswith("\n"):
                time.sleep(0.02)
                continue
            if not hidden or hidden not in line:
                print("    " + _coloured(line.rstrip(), "2"), flush=True)
            if text in line:
                return
            line = ""
        raise DemoError(f"the log did not come to '{text}'")

    def skip(self) -> None:
        """Leaves out what was logged up to now."""
        self._file.seek(0, os.SEEK_END)

    def close(self) -> None:
        self._file.close()


def _coloured(text: str, code: str) -> str:
    return f"\033[{code}m{text}\033[0m" if COLOURS else text


def tell(text: str) -> None:
    """One heading of the story, with time to read it."""
    print("\n" + _coloured("* " + text, "1;36"), flush=True)
    time.sleep(_pause)


def command(*words: str) -> None:
    """Shows a command as a person would type it, and runs it."""
    print(_coloured("$ " + " ".join(words), "1"), flush=True)
    done = subprocess.run(words, check=False)
    if done.returncode != 0:
        raise DemoError(f"'{' '.join(words)}' ended with exit code {done.returncode}")


def check(holds: bool, claim: str) -> None:
    """Says that something holds, or ends the demo."""
    if not holds:
        raise DemoError(f"this does not hold: {claim}")
    print(_coloured("  ok: ", "32") + claim, flush=True)


def wait(holds: Callable[[], bool]) -> None:
    """Waits for what has to come; the check behind it says what that is."""
    deadline = time.monotonic() + WAIT_SECONDS
    while time.monotonic() < deadline:
        try:
            if holds():
                return
        except (OSError, TypeError, KeyError):  # it restarts just now
            pass
        time.sleep(0.02)


def main(story: Callable[[], None], usage: str) -> int:
    """Tells `story`, with pauses for a reader where there is one; returns the exit code."""
    global _pause
    if sys.argv[1:] not in ([], ["--batch"]):
        print(usage, file=sys.stderr)
        return 2
    if not sys.argv[1:] and sys.stdin.isatty() and sys.stdout.isatty():
        _pause = PAUSE_SECONDS
    try:
        story()
    except KeyboardInterrupt:
        return 130
    except (DemoError, OSError, subprocess.SubprocessError) as error:
        print(f"demo: FAILED: {error}", file=sys.stderr)
        return 1
    return 0
