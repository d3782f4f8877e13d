"""What became of the last install on a storage, kept beside its slots for whoever could not listen.

Slots/last.json is replaced as a whole, three times in an install: when it has the storage's lock, when its slot is about
to be written, and at its end. A record that still says "running" after its process has gone tells the end all the
same, together with the link `active`: see end_of().
"""

import json
import os
import time
from typing import NamedTuple

from arborinstaller.boot import boot_id
from arborinstaller.files import replacing

RECORD = "last.json"
RUNNING, SUCCEEDED, FAILED, CANCELLED = "running", "succeeded", "failed", "cancelled"
_MAX_OPERATION = 64  # characters
_MAX_REASON = 500


class Outcome(NamedTuple):
    """How an install ended, in a word for programs; `reason` is a sentence, empty when it succeeded."""

    word: str
    reason: str = ""


class Record(NamedTuple):
    """The record's members, named as in the file."""

    operation: str
    version: str
    outcome: str
    reason: str
    slot: str  # empty until the slot is written to
    bootId: str
    processId: int
    startedAt: int  # milliseconds since 1970, as the clock was
    endedAt: int

    @staticmethod
    def begin(version: str) -> "Record":
        """The record of an install of `version` that this process begins now."""
        text = "".join(char for char in os.environ.get("ARBOR_OPERATION", "")
                       if char == "-" or char.isascii() and char.isalnum())
        return Record(text[:_MAX_OPERATION], version, RUNNING, "", "", boot_id(), os.getpid(), _now(), 0)

    def writing_to(self, slot: str) -> "Record":
        """The same install, from where it writes to `slot`. The link `active` must not lead there then."""
        return self._replace(slot=slot)

    def ended(self, outcome: Outcome) -> "Record":
        """The same install at its end."""
        return self._replace(outcome=outcome.word, reason=outcome.reason[:_MAX_REASON], endedAt=_now())

    def save(self, root: str) -> None:
        """Makes this the record of the slots in `root`, durably. The caller holds the storage's lock."""
        with replacing(os.path.join(root, RECORD), 0o644) as file:
            file.write(json.dumps(self._asdict()).encode() + b"\n")

    @staticmethod
    def load(root: str) -> "Record | None":
        """The record of the slots in `root`; None when there is none that can be read."""
        try:
            with open(os.path.join(root, RECORD), encoding="utf-8") as file:
                return Record(**json.load(file))
        except (OSError, ValueError, TypeError):
            return None


def end_of(record: Record, active: str | None) -> str:
    """The outcome of an install whose processes have gone; `active` is the slot that starts next.

    The link leads elsewhere from before the record names its slot until the last step of an install turns it, so an
    install that was killed has succeeded exactly when the link leads to the slot that it has named.
    """
    if record.outcome != RUNNING:
        return record.outcome
    return SUCCEEDED if record.slot and record.slot == active else FAILED


def _now() -> int:
    return time.time_ns() // 1_000_000
