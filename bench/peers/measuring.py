"""Measuring: rounds in which both sides take turns, processes' memory and wake-ups, and the table."""

import os
import statistics
import time
from pathlib import Path
from typing import Callable, Iterable

MEBI = 1 << 20
# What a device has; this machine's own Python and certificates are none of its business.
BARE = {"PATH": "/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG": "C.UTF-8"}
LIMIT = 60.0  # seconds for anything that has to come
_SAMPLE_SECONDS = 0.002


def until(holds: Callable[[], bool], what: str) -> None:
    """Returns once `holds` does."""
    deadline = time.monotonic() + LIMIT
    while not holds():
        if time.monotonic() > deadline:
            raise SystemExit(f"peers: it did not come to this: {what}")
        time.sleep(0.005)


def seconds(work: Callable[[], None]) -> float:
    """How long `work` takes."""
    begin = time.monotonic()
    work()
    return time.monotonic() - begin


def in_turn(rounds: int, *measures: Callable[[], float]) -> list[float]:
    """The median of each, when all take turns: what else the machine does hits them alike. The first round does not count."""
    values = [[measure() for measure in measures] for _ in range(rounds + 1)][1:]
    return [statistics.median(column) for column in zip(*values)]


def family(roots: Iterable[int]) -> list[int]:
    """The processes `roots`, and all that they have started."""
    found = list(roots)
    for pid in found:
        for children in Path(f"/proc/{pid}/task").glob("*/children"):
            try:
                found += map(int, children.read_text(encoding="ascii").split())
            except OSError:
                pass  # a thread that has ended
    return found


class Memory:
    """Memory of some processes together, in bytes: `whole` with each one's share of what several use, files that are mapped
    included; `own` without files."""

    def __init__(self, pids: Iterable[int]) -> None:
        self.whole = self.own = 0
        for pid in pids:
            try:
                rows = Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii").splitlines()[1:]
            except OSError:
                continue  # it has ended
            sizes = {name: int(size.split()[0]) * 1024 for name, size in (row.split(":") for row in rows)}
            self.whole += sizes["Pss"]
            self.own += sizes["Pss_Anon"] + sizes["Pss_Shmem"]


class Peak:
    """The most memory that processes had at one moment."""

    def __init__(self) -> None:
        self.whole = self.own = 0

    def watch(self, roots: list[int], over: Callable[[], bool]) -> None:
        """Looks again and again until it is `over`."""
        while not over():
            now = Memory(family(roots))
            self.whole, self.own = max(self.whole, now.whole), max(self.own, now.own)
            time.sleep(_SAMPLE_SECONDS)


def wake_ups(roots: list[int], span: float) -> float:
    """How often a second the processes' threads woke up within `span` seconds."""
    before = _sleeps(roots)
    time.sleep(span)
    return (_sleeps(roots) - before) / span


def _sleeps(roots: list[int]) -> int:
    states = [state.read_text(encoding="utf-8", errors="replace")
              for pid in family(roots) for state in Path(f"/proc/{pid}/task").glob("*/status")]
    return sum(int(line.split()[1]) for state in states for line in state.splitlines()
               if line.startswith("voluntary_ctxt_switches"))


def longest_gap(times: list[float]) -> float:
    """The longest time between one and the next."""
    return max(after - before for before, after in zip(times, times[1:]))


class Table:
    """The rows, beside their goals."""

    def __init__(self) -> None:
        self._lines = [["work", "measured", "peer", "ratio", "goal", ""]]

    def add(self, work: str, ours: float, peer: float, show: Callable[[float], str], most: float | None = 1.0,
            more_is_better: bool = False) -> None:
        """A row that is met when ours is at most `most` times the peer's, or at least where more is better; None: no goal."""
        ratio = ours / peer if peer else (1.0 if ours == peer else float("inf"))
        goal, verdict = "-", ""
        if most is not None:
            sign, met = (">=", ratio >= most) if more_is_better else ("<=", ratio <= most)
            goal, verdict = f"{sign} {most:.1f} x", "met" if met else "missed"
        self._lines.append([work, show(ours), show(peer), f"{ratio:.2f} x", goal, verdict])

    def show(self) -> None:
        """Prints it."""
        widths = [max(map(len, column)) for column in zip(*self._lines)]
        for number, line in enumerate(self._lines):
            print("| " + " | ".join(cell.ljust(width) for cell, width in zip(line, widths)) + " |")
            if number == 0:
                print("|" + "|".join("-" * (width + 2) for width in widths) + "|", flush=True)


def milliseconds(value: float) -> str:
    return f"{value * 1e3:.0f} ms"


def microseconds(value: float) -> str:
    return f"{value * 1e6:.0f} us"


def megabytes(value: float) -> str:
    return f"{value / 1e6:.1f} MB"


def a_second(value: float) -> str:
    return f"{value:.1f}/s"


def pieces(value: float) -> str:
    return f"{value:.0f}"


def damaged_copy(path: Path) -> Path:
    """A copy beside the file with one bit of its middle turned."""
    copy = path.with_suffix(".damaged")
    data = bytearray(path.read_bytes())
    data[len(data) // 2] ^= 1
    copy.write_bytes(data)
    copy.chmod(os.stat(path).st_mode)
    return copy
