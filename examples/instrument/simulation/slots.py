"""The two slots of a device's storage: what stands in each, and which one starts next."""

import os
from pathlib import Path

from . import paths


def versions(slots: Path = paths.SLOTS) -> dict[str, str]:
    """What stands in each slot, as far as anything does."""
    files = {name: slots / name / "version" for name in ("A", "B")}
    return {name: file.read_text(encoding="utf-8").strip() if file.exists() else "empty" for name, file in files.items()}


def active(slots: Path = paths.SLOTS) -> str:
    """The name of the slot that starts next."""
    return os.readlink(slots / "active").rstrip("/").rpartition("/")[2]


def described(slots: Path = paths.SLOTS) -> str:
    """One line for each slot, for people."""
    return "\n".join(f"    slot {name}: {version}" + ("   <- starts next" if name == active(slots) else "")
                     for name, version in versions(slots).items())
