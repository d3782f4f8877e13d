"""Installs that stand still where a test wants them to, and what the device tells of its jobs."""

import os
import random
import shutil
import signal
import subprocess
import sys
from pathlib import Path

from common import wait_until
from simulation import gateway, paths
from simulation.identity import INSTRUMENT

STOPS = paths.RUNTIME / "stops"
IMAGE_BYTES = 4 << 20
# What the installer tells on its way with such an image, each with its percentage; behind the last one it has switched.
MOMENTS = ("0 Preparing slot B", "0 Writing the image", "20 Writing the image", "40 Writing the image",
           "60 Writing the image", "80 Flushing the image to the storage", "80 Checking the image",
           "84 Checking the image", "88 Checking the image", "92 Checking the image", "97 Completing slot B",
           "99 Switching to slot B", "switched")
HALFWAY = "40 Writing the image"
# Behind the real worker: it stops itself, as SIGSTOP does, right after it has told what the file names.
STEPS = f"""

import signal
_whole_run = run


def _stand_still(moment):
    try:
        with open({str(STOPS)!r}, encoding="ascii") as stops:
            named = stops.read().strip()
    except FileNotFoundError:
        return
    if named == moment:
        os.kill(os.getpid(), signal.SIGSTOP)


def run(package, slots, plan, report):
    def told(message, percent):
        report(message, percent)
        _stand_still(f"{{percent}} {{message}}")

    outcome = _whole_run(package, slots, plan, told)
    _stand_still("switched")
    return outcome
"""


def stepped_package(version: str, fixtures: Path, board: str = INSTRUMENT.board, folder: Path = paths.STATE / "stepped") -> Path:
    """A signed package of the real installer whose worker stands still where STOPS says; made in `folder`."""
    package = folder / f"arbor-{version}.pkg"
    tools = folder / "packages"
    if not tools.exists():
        shutil.copytree(paths.PROJECT / "packages", tools)
        with open(tools / "installer/arborinstaller/worker.py", "a", encoding="utf-8") as worker:
            worker.write(STEPS)
    image = folder / "system.img"
    image.write_bytes(random.Random(version).randbytes(IMAGE_BYTES))
    keys = fixtures / "keys"
    subprocess.run([sys.executable, "-B", tools / "arbor-pkg", "build", "--version", version, "--board", board,
                    "--payload", image, "--key", keys / "key.pem", "--cert", keys / "cert.pem", "-o", package,
                    "--silent-seconds", "1"], check=True, stdout=subprocess.DEVNULL)
    return package


def percent_of(moment: str) -> int:
    return 100 if moment == "switched" else int(moment.split()[0])


def job(identity: str, at: Path = paths.GATEWAY) -> dict:
    """One job as it stands."""
    return gateway.get(f"operations/{identity}", at)


def jobs(kind: str, at: Path = paths.GATEWAY) -> list[dict]:
    """All jobs of a kind, the newest first."""
    return gateway.get(f"operations?limit=1000&kind={kind}", at)["operations"]


def ended(identity: str, at: Path = paths.GATEWAY) -> dict:
    """A job once it has ended."""
    def over() -> bool:
        return job(identity, at)["state"] not in ("Queued", "Running")
    wait_until(over, f"the job {identity} ends")
    return job(identity, at)


class Install:
    """An install that the gateway was asked for, with its installer's processes in hand."""

    def __init__(self, version: str, until: str = "", **more) -> None:
        """Begins it; with `until` its worker stands still at that moment."""
        stand_still_at(until)
        status, self.answer = gateway.post("updatesystem", {"version": version, "reboot": False, **more})
        assert status == 200 and self.answer["bSuccess"], (status, self.answer)
        self.id = self.answer["operationId"]
        self.watcher = job(self.id)["processId"]
        self.worker = 0
        if until:
            self._await_standstill(until)

    def go_on(self, until: str = "") -> None:
        """Lets the worker go on, to the next moment or to its end."""
        stand_still_at(until)
        os.kill(self.worker, signal.SIGCONT)
        if until:
            self._await_standstill(until)

    def _await_standstill(self, moment: str) -> None:
        def stands() -> bool:
            children = _children(self.watcher)
            self.worker = children[0] if children else 0
            return self.worker != 0 and state_of(self.worker) == "T"
        wait_until(stands, f"the installer stands still at '{moment}'")


def stand_still_at(moment: str) -> None:
    """Where workers stand still from now on; nowhere when it is empty."""
    if moment:
        STOPS.write_text(moment, encoding="ascii")
    else:
        STOPS.unlink(missing_ok=True)


def is_alive(pid: int) -> bool:
    return state_of(pid) not in ("", "Z", "X")


def state_of(pid: int) -> str:
    """The kernel's letter for what a process does; empty when there is none."""
    try:
        return Path(f"/proc/{pid}/stat").read_text(errors="replace").rpartition(")")[2].split()[0]
    except OSError:
        return ""


def _children(pid: int) -> list[int]:
    try:
        return [int(child) for child in Path(f"/proc/{pid}/task/{pid}/children").read_text(encoding="ascii").split()]
    except OSError:
        return []
