"""The two slots that hold the instrument's system, and the switch between them.

    Slots/A/system.img, version, digest
    Slots/B/...
    Slots/active -> A or B        what the instrument starts from next time
    Slots/last.json               what became of the last install (record.py)
    Slots/running                 the slot that the system runs from, where the boot does not tell (boot.py)

A slot is complete when its version and digest stand beside the image; they are removed before the image is
touched and written when it is known to be good. The slot that `active` leads to is never written to, so the
instrument can start at any moment.

Where the boot loader starts partitions and not files, each slot has one (the setting slotDevices): the image is
written there instead, and the rest is the same.
"""

import contextlib
import os
import stat
from typing import Mapping

from arborinstaller.failure import Failure
from arborinstaller.files import remove_if_there, replacing, sync_directory

IMAGE = "system.img"
VERSION = "version"
DIGEST = "digest"
NAMES = ("A", "B")
_NEW_LINK = ".active.new"
_MODE = 0o711  # of the slots' directory


class Slots:
    """The slots of the storage whose packages lie in one directory; they stand beside that directory."""

    def __init__(self, packages_directory: str, devices: Mapping[str, str] | None = None) -> None:
        """Failure when `packages_directory` is no directory. `devices` has a partition for each slot, or nothing. Creates nothing."""
        packages = os.path.realpath(packages_directory)
        if not os.path.isdir(packages):
            raise Failure(f"the packages directory {packages_directory} does not exist")
        self.root = os.path.join(os.path.dirname(packages), "Slots")
        self._devices = devices or {}
        self.lock: int | None = None  # the descriptor of the root's lock, while an install has it

    def exist(self) -> bool:
        """Whether anything has been installed, or begun, on this storage."""
        return os.path.isdir(self.root)

    def create(self) -> None:
        """Creates the slots' directory when it is missing. Others may not open it: who may could hold its lock, too."""
        if not self.exist():
            os.mkdir(self.root, _MODE)
            sync_directory(os.path.dirname(self.root))
        elif stat.S_IMODE(os.stat(self.root).st_mode) & ~_MODE:
            with contextlib.suppress(OSError):  # some file systems know no modes
                os.chmod(self.root, _MODE)

    def image(self, slot: str) -> str:
        """The path of the image of `slot`."""
        return self._devices.get(slot) or os.path.join(self.root, slot, IMAGE)

    def open_for_writing(self, slot: str) -> int:
        """A descriptor for the image of a slot that was prepared. A partition is not opened while anybody has it mounted."""
        path = self.image(slot)
        if self._devices:
            return os.open(path, os.O_WRONLY | os.O_EXCL | os.O_CLOEXEC)
        return os.open(path, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_CLOEXEC, 0o644)

    def active(self) -> str | None:
        """The slot the instrument starts from next; None before the first install."""
        link = os.path.join(self.root, "active")
        try:
            target = os.path.basename(os.readlink(link).rstrip("/"))
        except FileNotFoundError:
            return None
        except OSError as error:
            raise Failure(f"{link} is not a link to a slot: {error.strerror}") from None
        if target not in NAMES:
            raise Failure(f"{link} leads to '{target}', not to slot A or B")
        return target

    def has(self, slot: str) -> bool:
        """Whether there is a folder for `slot`."""
        return os.path.isdir(os.path.join(self.root, slot))

    def complete(self, slot: str) -> bool:
        """Whether `slot` holds a version as a whole."""
        named = (os.path.join(self.root, slot, name) for name in (DIGEST, VERSION))
        return all(os.path.exists(path) for path in (self.image(slot), *named))

    def check_space(self, slot: str, size: int) -> None:
        """Failure when an image of `size` bytes does not fit once the old image of `slot` is gone."""
        if self._devices:
            self._check_devices(slot, size)
            return
        where = self.root if self.exist() else os.path.dirname(self.root)
        state = os.statvfs(where)
        old = self.image(slot)
        free = state.f_bavail * state.f_frsize + (os.stat(old).st_blocks * 512 if os.path.exists(old) else 0)
        if free < size:
            raise Failure(f"not enough space in {where}: the image takes {size} bytes, {free} are free")

    def _check_devices(self, slot: str, size: int) -> None:
        found = {name: os.stat(path) for name, path in self._devices.items()}
        for name, state in found.items():
            if not stat.S_ISBLK(state.st_mode):
                raise Failure(f"{self._devices[name]}, the partition of slot {name}, is not a block device")
        if found["A"].st_rdev == found["B"].st_rdev:
            raise Failure(f"{self._devices['A']} and {self._devices['B']} are one partition, so there would be no way back")
        with open(self._devices[slot], "rb", buffering=0) as device:
            space = device.seek(0, os.SEEK_END)
        if space < size:
            raise Failure(f"{self._devices[slot]} is too small: the image takes {size} bytes, it has {space}")

    def prepare(self, slot: str) -> None:
        """Empties `slot` for a new image. The link must not lead there."""
        if not self.has(slot):
            os.mkdir(os.path.join(self.root, slot), 0o755)
            sync_directory(self.root)
        self._empty(slot)

    def seal(self, slot: str, version: str, digest: str) -> None:
        """Declares the image of `slot` good: from here on the slot is complete."""
        folder = os.path.join(self.root, slot)
        with replacing(os.path.join(folder, VERSION), 0o644) as last:
            last.write(f"{version}\n".encode())
            with replacing(os.path.join(folder, DIGEST), 0o644, lasting=False) as file:  # the version's makes it last, too
                file.write(f"{digest}\n".encode())

    def activate(self, slot: str) -> None:
        """Makes `slot` the one the instrument starts from: one rename, before it the old, after it the new."""
        link = os.path.join(self.root, _NEW_LINK)
        remove_if_there(link)
        try:
            os.symlink(slot, link)
        except OSError as error:
            raise OSError(error.errno, error.strerror, link) from None  # it names the text of the link first
        os.replace(link, os.path.join(self.root, "active"))
        sync_directory(self.root)

    def discard_incomplete(self, slot: str) -> None:
        """Frees what a failed install left in `slot`; a complete slot is kept as the way back."""
        remove_if_there(os.path.join(self.root, _NEW_LINK))
        if self.has(slot) and not self.complete(slot) and slot != self.active():
            self._empty(slot)

    def _empty(self, slot: str) -> None:
        if slot == self.active():
            raise Failure(f"slot {slot} is in use")
        folder = os.path.join(self.root, slot)
        # The version goes first and durably: without it nobody takes a half-removed image for a whole one.
        for name in (VERSION, DIGEST):
            remove_if_there(os.path.join(folder, name))
        sync_directory(folder)
        image = () if self._devices else (IMAGE,)
        for name in (*image, f".{VERSION}.partial", f".{DIGEST}.partial"):
            remove_if_there(os.path.join(folder, name))
