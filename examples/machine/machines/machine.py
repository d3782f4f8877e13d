"""What a machine is to whoever tells a story about it, whether it is a container or emulated."""

import time
from dataclasses import dataclass
from pathlib import Path
from typing import Callable, Sequence


class MachineError(Exception):
    """The machine can't be made or does not do what it is told; the text says why."""


@dataclass(frozen=True)
class Start:
    """One start, as the boot loader tells it: of which slot, the how many of a version on trial (0: it is not)."""

    slot: str
    count: int


@dataclass(frozen=True)
class Answer:
    """How a command inside ended, and what it printed."""

    status: int
    text: str


class Machine:
    """A machine with power, a console and a USB port. One thread uses it."""

    patience = 60.0
    """Seconds for anything that has to come, a start among it."""
    pause = 0.05
    """Seconds between two looks at something that has to come."""
    idle_pause = 0.05
    """The same where nothing can be missed between two looks."""

    def __init__(self, name: str) -> None:
        self.name = name
        self.starts: list[Start] = []

    def power_on(self) -> None:
        """Starts it, and waits until it answers."""
        raise NotImplementedError

    def wait_started(self, number: int) -> None:
        """Waits until it answers after start `number` of its life, counted from 1, or a later one."""
        raise NotImplementedError

    def run(self, command: str) -> Answer:
        """Runs a shell command inside, as root. MachineError when the machine ends meanwhile."""
        raise NotImplementedError

    def plug(self, files: Sequence[Path]) -> None:
        """Puts a stick with files in. There is one port."""
        raise NotImplementedError

    def pull(self) -> None:
        """Pulls the stick, mounted or not."""
        raise NotImplementedError

    def digest(self, slot: str, size: int) -> str:
        """The SHA-256 of the first `size` bytes of what stands in a slot, in hexadecimal digits."""
        raise NotImplementedError

    def cut(self) -> None:
        """Cuts the power. Nothing is asked or told."""
        raise NotImplementedError

    def close(self) -> None:
        """Ends it, and removes what belongs to it."""
        raise NotImplementedError

    def __enter__(self) -> "Machine":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def wait(self, holds: Callable[[], bool], what: str, patience: float = 0.0) -> None:
        """Waits until `holds`; also over starts of the machine, in which commands fail."""
        deadline = time.monotonic() + (patience or self.patience)
        while True:
            try:
                if holds():
                    return
            except (MachineError, ValueError, KeyError):
                pass
            if time.monotonic() > deadline:
                raise MachineError(f"waited in vain until {what}\n{self.said()}")
            time.sleep(self.pause)

    def said(self) -> str:
        """The end of what it said on its console."""
        raise NotImplementedError
