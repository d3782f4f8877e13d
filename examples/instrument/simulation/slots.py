"""The two slots of a device's storage: what stands in each, which one runs, and which one starts next."""

import os
import subprocess
import uuid
from pathlib import Path

from . import paths


def versions(slots: Path = paths.SLOTS) -> dict[str, str]:
    """What stands in each slot, as far as anything does."""
    files = {name: slots / name / "version" for name in ("A", "B")}
    return {name: file.read_text(encoding="utf-8").strip() if file.exists() else "empty" for name, file in files.items()}


def active(slots: Path = paths.SLOTS) -> str:
    """The name of the slot that starts next."""
    return os.readlink(slots / "active").rstrip("/").rpartition("/")[2]


def running(file: Path = paths.RUNNING_SLOT) -> str:
    """The name of the slot that the device runs from."""
    return file.read_text(encoding="ascii").strip()


def boot() -> None:
    """What a boot does: it starts from the active slot, tells which one that was, and has a name of its own."""
    paths.RUNNING_SLOT.write_text(active() + "\n", encoding="ascii")
    if not paths.plain_mode():  # where nothing can be mounted the kernel's own name stays
        paths.BOOT_ID.write_text(f"{uuid.uuid4()}\n", encoding="ascii")
        if paths.BOOT_ID.read_text(encoding="ascii") != paths.KERNEL_BOOT_ID.read_text(encoding="ascii"):
            # An instrument that was furnished anew still shows the file of the one before, which has gone.
            subprocess.run(["umount", str(paths.KERNEL_BOOT_ID)], stderr=subprocess.DEVNULL, check=False)
            subprocess.run(["mount", "--bind", str(paths.BOOT_ID), str(paths.KERNEL_BOOT_ID)], check=True)


def described(slots: Path = paths.SLOTS) -> str:
    """One line for each slot, for people."""
    return "\n".join(f"    slot {name}: {version}" + ("   <- starts next" if name == active(slots) else "")
                     for name, version in versions(slots).items())
