"""The two slots of a device's storage: what stands in each, which one runs, and which one starts next."""

import os
import subprocess
import uuid
from pathlib import Path

from . import paths

BOOTING = "ARBOR_BOOTING"  # set while a boot begins: nothing runs yet that would have to be stopped


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
    """What a boot does: it starts from the active slot, tells which one that was, has a name of its own, and counts; again
    when that wants it."""
    while True:
        paths.AGAIN.unlink(missing_ok=True)
        paths.RUNNING_SLOT.write_text(active() + "\n", encoding="ascii")
        _name_boot()
        boot_step("start")
        if not paths.AGAIN.exists():
            return


def _name_boot() -> None:
    paths.BOOT_ID.write_text(f"{uuid.uuid4()}\n", encoding="ascii")
    if paths.plain_mode():  # where nothing can be mounted the kernel's own name stays
        return
    if paths.BOOT_ID.read_text(encoding="ascii") != paths.KERNEL_BOOT_ID.read_text(encoding="ascii"):
        # An instrument that was furnished anew still shows the file of the one before, which has gone.
        subprocess.run(["umount", str(paths.KERNEL_BOOT_ID)], stderr=subprocess.DEVNULL, check=False)
        subprocess.run(["mount", "--bind", str(paths.BOOT_ID), str(paths.KERNEL_BOOT_ID)], check=True)


def boot_step(step: str) -> None:
    """The start or the end of a boot, as the service manager runs it."""
    subprocess.run([str(paths.program("arbor-boot")), step], env={**os.environ, BOOTING: "1"}, stdin=subprocess.DEVNULL,
                   check=False)


def described(slots: Path = paths.SLOTS) -> str:
    """One line for each slot, for people."""
    return "\n".join(f"    slot {name}: {version}" + ("   <- starts next" if name == active(slots) else "")
                     for name, version in versions(slots).items())
