"""What the end-to-end tests share: a freshly furnished instrument with its graph host, and packages of many kinds."""

import os
import shutil
import subprocess
import time
import unittest
from pathlib import Path

from simulation import furnish, gateway, host, paths, sticks

FIXTURES = Path(os.environ["ARBOR_STICK_FILES"]).parent
KEPT_LOGS = Path(os.environ["ARBOR_TEST_LOGS"])
GENEROUS = 120.0
REJECTED = "ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE"
TOO_OLD = "ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED"


class InstrumentCase(unittest.TestCase):
    """Every test begins on an instrument as it left the factory, with arbord running, and ends with arbord ending well."""

    def setUp(self) -> None:
        furnish.furnish(FIXTURES)
        self.process = host.start()
        self.addCleanup(self._end)
        # A stick that comes during the start-up scan would be announced twice.
        wait_until(lambda: "Scan drives Action complete" in (paths.LOGS / "arbord.log").read_text(errors="replace"),
                   "the start-up scan is over")

    def run(self, result=None):
        before = len(result.errors) + len(result.failures)
        super().run(result)
        if len(result.errors) + len(result.failures) > before:
            kept = KEPT_LOGS / self.id()
            shutil.rmtree(kept, ignore_errors=True)
            shutil.copytree(paths.LOGS, kept)
            shutil.copy(paths.GRAPH, kept)
            print(f"the logs of {self.id()} are in {kept}", flush=True)
        return result

    def _end(self) -> None:
        for name in filter(sticks.is_attached, paths.STICK_NAMES):
            sticks.detach(name)
        host.stop()
        self.assertEqual(0, self.process.wait(), "arbord did not end well:\n" + host.said())


def arborctl(*arguments: str) -> subprocess.CompletedProcess:
    """Runs the client as a person would, both outputs in one text."""
    return subprocess.run([str(paths.program("arborctl")), *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          stdin=subprocess.DEVNULL, text=True, timeout=GENEROUS, check=False)


def wait_until(holds, what: str) -> None:
    """Waits for a condition that has no event of its own."""
    deadline = time.monotonic() + GENEROUS
    while not holds():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {GENEROUS:.0f} s in vain until {what}\n{host.said()}")
        time.sleep(0.05)


def stick_package(version: str) -> Path:
    return FIXTURES / "stick" / f"arbor-{version}.pkg"


def script_package(name: str, text: str, mode: int = 0o755) -> Path:
    """A package file that is a shell script of the test's own."""
    path = paths.STATE / "test-packages" / name
    path.parent.mkdir(exist_ok=True)
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(mode)
    return path


def outcomes(announcement: dict) -> tuple[set[tuple[str, str, str]], list[str]]:
    """An announcement's rejected files (name, version, code) and its available versions in order."""
    messages = announcement["messages"]
    rejected = {(Path(message["versionType"]).name, message["version"], message["ErrCode"])
                for message in messages if message["versionType"] != "System"}
    return rejected, [message["version"] for message in messages if message["versionType"] == "System"]


def slots() -> tuple[str, dict[str, str]]:
    """The active slot's name, and what stands in each."""
    return os.readlink(paths.SLOTS / "active"), {
        name: (paths.SLOTS / name / "version").read_text().strip() for name in ("A", "B")}


def installed() -> str:
    return gateway.post("getinstalledversioninfo")[1]["version"]
