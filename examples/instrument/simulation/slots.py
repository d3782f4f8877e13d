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
    """What a boot does: it starts from the active slot, tells which one that was, and counts; again when that wants it."""
    while True:
        paths.AGAIN.unlink(missing_ok=True)
        paths.RUNNING_SLOT.write_text(active() + "\n", encoding="ascii")
        paths.BOOT_ID.write_text(str(uuid.uuid4()) + "\n", encoding="ascii")
        boot_step("start")
        if not paths.AGAIN.exists():
            return


def boot_step(step: str) -> None:
    """The start or the end of a boot, as the service manager runs it."""
    subprocess.run([str(paths.program("arbor-boot")), step], env={**os.environ, BOOTING: "1"}, stdin=subprocess.DEVNULL,
                   check=False)


def described(slots: Path = paths.SLOTS) -> str:
    """One line for each slot, for people."""
    return "\n".join(f"    slot {name}: {version}" + ("   <- starts next" if name == active(slots) else "")
                     for name, version in versions(slots).items())
