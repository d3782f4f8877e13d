"""The instrument's clock jumps by years, ahead and back, while people work."""

import os
import random
import struct
import subprocess
import tempfile
import time
from contextlib import contextmanager
from pathlib import Path
from typing import Callable, Iterator

from device import arborctl, at_rest, calm, expect, expect_as_before, fresh, install, jobs, plug, restart
from kills import Check, Install, Upload
from simulation import paths, whole

YEARS = (-41, -10, -1, 1, 10, 60)  # 1985, where a clock without a battery begins, to 2086
YEAR = 365 * 24 * 3600  # seconds


@contextmanager
def wrong_clock() -> Iterator[Callable[[int], None]]:
    """What is started inside sees the clock that `set` of the yielded sets, in years from now."""
    with tempfile.TemporaryDirectory(prefix="arbor-clock-") as folder:
        library, ahead = Path(folder) / "clock.so", Path(folder) / "ahead"
        subprocess.run(["cc", "-shared", "-fPIC", "-O2", "-o", library, Path(__file__).with_name("clock.c")], check=True)
        ahead.write_bytes(struct.pack("=q", 0))

        def jump(years: int) -> None:
            with open(ahead, "r+b", buffering=0) as file:
                file.write(struct.pack("=q", years * YEAR))
        os.environ |= {"LD_PRELOAD": str(library), "ARBOR_CLOCK": str(ahead)}
        try:
            yield jump
        finally:
            del os.environ["LD_PRELOAD"], os.environ["ARBOR_CLOCK"]


def expect_told(kind: str, known: dict[str, dict], begun: float) -> int:
    """The jobs of that kind that are new have succeeded, took no longer than they can have, and are the first of the history.
    During how many the clock jumped."""
    new = [job for name, job in jobs(kind).items() if name not in known]
    expect(bool(new), f"no {kind} is told, though one was done")
    for job in new:
        expect(job["state"] == "Succeeded", f"nothing but the clock was changed, and {job['state']}: {job['reason']}")
        expect(0 < job["took"] <= (time.monotonic() - begun) * 1000, f"it took {time.monotonic() - begun} s, and is told as {job}")
    shown = arborctl("history", "-n", str(len(new)), "--kind", kind.lower())
    expect(all(job["id"][:8] in shown.told for job in new), f"they are not the first of the history: {shown.told}")
    return sum(abs(job["endedAt"] - job["startedAt"]) > 1000 * YEAR / 2 for job in new)


def jumps(chance: random.Random, times: int) -> str:
    """Whatever the clock says, work goes on as if it had not jumped, and how long it took is told as it was."""
    with wrong_clock() as jump:
        fresh()
        activities = {"Check": Check(), "Install": Install(), "Upload": Upload()}
        plug("3.045", "3.046")
        install("3.046")
        before = at_rest()
        within = 0
        for number in range(times):
            kind, activity = chance.choice(list(activities.items()))
            plug("3.045", "3.046")
            known, begun = jobs(kind), time.monotonic()
            activity.begin()
            time.sleep(chance.uniform(0, activity.longest / 2))
            jump(chance.choice(YEARS))
            activity.end()
            within += expect_told(kind, known, begun)
            for file in paths.UPDATES.iterdir():
                arborctl("forget", file.name)
            if number % 4 == 3:
                restart()
        calm()
        expect_as_before(before)
        jump(0)
        restart()
        whole.check()
        plug("3.045", "3.046")
        install(whole.other())
    return f"{times} jumps, {within} of them within a job"
