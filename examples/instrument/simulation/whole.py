"""What has to hold of an instrument whatever happened to it: it answers, and what it starts from is whole."""

import hashlib
import subprocess
import time
from pathlib import Path
from typing import Any, Callable

from . import fixtures, gateway, host, paths, slots

LIMIT = 60.0  # seconds for anything that has to come
STAGES = {"confirmed", "installed", "trial", "reverting"}
VERSIONS = ("3.045", "3.046")  # what is installed, in turn


class Broken(Exception):
    """The instrument is not as it has to be; the text says how."""


def package(version: str) -> Path:
    """A signed package of the fixtures."""
    return fixtures.ensure() / "stick" / f"arbor-{version}.pkg"


def until(holds: Callable[[], Any], what: str) -> Any:
    """What `holds` returns once that is true; an instrument that does not answer yet is asked again."""
    deadline = time.monotonic() + LIMIT
    while time.monotonic() < deadline:
        try:
            found = holds()
        except (OSError, TypeError, KeyError, ValueError):
            found = None
        if found:
            return found
        time.sleep(0.02)
    raise Broken(f"waited in vain until {what}\n{host.said(12)}")


def standing() -> dict:
    """Where the version that runs stands."""
    return gateway.post("slots")[1]


def other() -> str:
    """The version that does not run."""
    return "3.045" if slots.versions()[slots.running()] == "3.046" else "3.046"


def check_slot(slot: str) -> None:
    """The image in the slot is the one that was written."""
    folder = paths.SLOTS / slot
    image = hashlib.sha256((folder / "system.img").read_bytes()).hexdigest()
    if (folder / "digest").read_text().strip() != image:
        raise Broken(f"slot {slot}, which runs or starts next, is not whole")


def check() -> None:
    """The slot that runs is whole, the state of trials is a legal one, and the journal answers."""
    check_slot(slots.running())
    shown = subprocess.run([paths.program("arbor-boot"), "show"], capture_output=True, text=True, check=False)
    if shown.returncode != 0:
        raise Broken("the state of trials can't be read: " + shown.stderr)
    stands = until(standing, "the trial is told")
    if stands["state"] not in STAGES or stands["problem"]:
        raise Broken(f"state {stands['state']}: {stands['problem']}")
    until(lambda: "operations" in gateway.get("operations?limit=5"), "the journal answers")
