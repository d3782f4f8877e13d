"""What tests on one device and on two share: waiting, and keeping the logs of what failed."""

import os
import shutil
import time
import unittest
from pathlib import Path
from typing import Callable

from simulation import host, paths

KEPT_LOGS = Path(os.environ["ARBOR_TEST_LOGS"])
GENEROUS = 120.0


class LoggedCase(unittest.TestCase):
    """Keeps the logs of a test that failed."""

    def log_folders(self) -> dict[str, Path]:
        """The folders to keep, by the name they are kept under."""
        return {"logs": paths.LOGS, "config": paths.CONFIG}

    def run(self, result=None):
        before = len(result.errors) + len(result.failures)
        super().run(result)
        if len(result.errors) + len(result.failures) > before:
            kept = KEPT_LOGS / self.id()
            shutil.rmtree(kept, ignore_errors=True)
            for name, folder in self.log_folders().items():
                shutil.copytree(folder, kept / name)
            print(f"the logs of {self.id()} are in {kept}", flush=True)
        return result


def wait_until(holds: Callable[[], bool], what: str, said: Callable[[], str] = host.said) -> None:
    """Waits for a condition that has no event of its own; `said` tells what went on when it does not come."""
    deadline = time.monotonic() + GENEROUS
    while not holds():
        if time.monotonic() > deadline:
            raise AssertionError(f"waited {GENEROUS:.0f} s in vain until {what}\n{said()}")
        time.sleep(0.05)
