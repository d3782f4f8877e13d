"""Which slot the system runs from, and so which one an install may write to: the other.

The link `active` tells what starts next, which is something else after an install without a restart. So the boot is
asked: the kernel's command line (arbor.slot=A or B), then a file that the boot writes. Where neither tells,
the first install of a boot keeps what the link said before it is turned:

    Slots/running      {"bootId": "...", "slot": "A"}; the slot is empty when the system runs from neither
"""

import contextlib
import json
import os
from typing import NamedTuple

from arborinstaller.failure import Failure, describe
from arborinstaller.files import replacing
from arborinstaller.process import end_with
from arborinstaller.settings import Settings
from arborinstaller.slots import NAMES, Slots

_BOOT_ID = "/proc/sys/kernel/random/boot_id"
_WORD = "arbor.slot="
_REMEMBERED = "running"
_PATIENCE = 60.0  # seconds for the boot loader's program
_MAX_TEXT = 65536  # bytes looked at in a file that somebody else writes


class Choice(NamedTuple):
    """Where an install goes: to `slot`, while the system runs from `running` (empty: from neither)."""

    slot: str
    running: str
    told_by_link: bool  # which is about to change: remember() it first


def boot_id() -> str:
    """The kernel's name for this boot; no other boot has the same."""
    return _text(_BOOT_ID)


def choose(slots: Slots, settings: Settings) -> Choice:
    """The slot to install into; Failure when what the boot says can't be right."""
    running = _told_by_boot(slots, settings)
    told_by_link = False
    if running is None:
        running = _remembered(slots)
    if running is None:
        running, told_by_link = slots.active() or "", True
    away_from = running or slots.active()
    return Choice("B" if away_from == "A" else "A", running, told_by_link)


def remember(slots: Slots, choice: Choice) -> None:
    """Keeps what `choice` took from the link, for the installs that follow in this boot. Call it before the link turns."""
    if choice.told_by_link:
        with replacing(os.path.join(slots.root, _REMEMBERED), 0o644) as file:
            file.write(json.dumps({"bootId": boot_id(), "slot": choice.running}).encode() + b"\n")


def ask(settings: Settings) -> None:
    """Failure while the slot that does not run is the way back of a version that has not proved itself."""
    if settings.bootCommand:
        _run(settings.bootCommand, "may-install")


def switch(slots: Slots, slot: str, settings: Settings) -> None:
    """Makes `slot` start next: tells the boot loader, where there is one that does not look at the link, and turns the link.

    The link is last: what it says is so. Failure when the loader was not told; all is as before then.
    """
    before = slots.active()
    if settings.bootCommand:
        try:
            _run(settings.bootCommand, "activate", slot, lock=slots.lock)
        except Failure:
            if before is not None:
                with contextlib.suppress(Failure):
                    _run(settings.bootCommand, "activate", before, lock=slots.lock)
                slots.activate(before)
            raise
    slots.activate(slot)


def settle(slots: Slots, settings: Settings) -> None:
    """Lets the loader start what the link leads to: an install that was ended may have told it only."""
    active = slots.active()
    if settings.bootCommand and active is not None:
        _run(settings.bootCommand, "activate", active, lock=slots.lock)


def _run(*command: str, lock: int | None = None) -> None:
    """Runs a program of the boot loader. It ends with this process: an install that was ended must not switch a moment later.

    It shares the `lock`: as long as one holds that, nobody says how the install ended.
    """
    import subprocess  # most instruments have no such program, and the module takes long to load
    caller = os.getpid()
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                              timeout=_PATIENCE, check=False, preexec_fn=lambda: end_with(caller), pass_fds=() if lock is None else (lock,))
    except (OSError, subprocess.TimeoutExpired) as error:
        raise Failure(f"{' '.join(command)}: {describe(error)}") from None
    if done.returncode != 0:
        raise Failure((done.stderr.strip() or f"{' '.join(command)} ended with {done.returncode}")[:500])


def _told_by_boot(slots: Slots, settings: Settings) -> str | None:
    values = [word.removeprefix(_WORD) for word in _text(settings.kernelCommandLine).split() if word.startswith(_WORD)]
    if values:
        return _checked(slots, f"the kernel command line ({settings.kernelCommandLine})", values[-1])
    try:
        return _checked(slots, settings.runningSlotFile, _text(settings.runningSlotFile))
    except FileNotFoundError:
        return None


def _remembered(slots: Slots) -> str | None:
    path = os.path.join(slots.root, _REMEMBERED)
    try:
        found = json.loads(_text(path))
        boot, slot = found["bootId"], found["slot"]
    except FileNotFoundError:
        return None
    except (ValueError, KeyError, TypeError):
        raise Failure(f"{path} is damaged, so it is not known which slot the system runs from; "
                      "restart the instrument and remove the file") from None
    if boot != boot_id():
        return None
    return "" if slot == "" else _checked(slots, path, slot)


def _checked(slots: Slots, source: str, slot: object) -> str:
    if slot not in NAMES:
        raise Failure(f"{source} names '{str(slot)[:40]}' as the slot that the system runs from, not A or B")
    if not slots.has(slot):
        raise Failure(f"{source} names slot {slot} as the one that the system runs from, but {slots.root} has no such slot")
    return slot


def _text(path: str) -> str:
    """What the file says, without the blanks around it."""
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read(_MAX_TEXT).strip("\0 \t\r\n")
