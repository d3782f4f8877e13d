"""USB sticks: attached with their files on them in one step, as the kernel shows a mounted stick, and pulled at once."""

import os
import shutil
import tempfile
from pathlib import Path

from . import paths, places


class StickError(Exception):
    """A stick can't be attached or detached; the text says why."""


def signed_packages() -> list[Path]:
    """What the stick of the fixtures carries."""
    return sorted(Path(os.environ["ARBOR_STICK_FILES"]).iterdir())


def attach(files: list[Path], name: str = paths.STICK_NAMES[0]) -> Path:
    """Attaches a stick that holds copies of `files`; returns where it is mounted."""
    target = _target(name)
    if is_attached(name):
        raise StickError(f"{target} is attached already")
    missing = [str(file) for file in files if not file.is_file()]
    if missing:
        raise StickError("no such file: " + ", ".join(missing))
    if paths.plain_mode():
        _attach_directory(files, target)
    else:
        _attach_mount(files, target, name)
    return target


def detach(name: str = paths.STICK_NAMES[0]) -> Path:
    """Pulls the stick; returns where it was."""
    target = _target(name)
    if not is_attached(name):
        raise StickError(f"{target} is not attached")
    if paths.plain_mode():
        gone = _staging(target)
        target.rename(gone)
        shutil.rmtree(gone)
    else:
        places.unmount(target)
    return target


def is_attached(name: str) -> bool:
    """Whether the stick is there now."""
    target = _target(name)
    if paths.plain_mode():
        return target.is_dir()
    return target in places.mount_points_below(paths.STICKS)


def _target(name: str) -> Path:
    if name not in paths.STICK_NAMES:
        raise StickError(f"no port '{name}'; there are " + ", ".join(paths.STICK_NAMES))
    return paths.STICKS / name


def _staging(target: Path) -> Path:
    return target.with_name("." + target.name)


def _copy(files: list[Path], folder: Path) -> None:
    for file in files:
        shutil.copy(file, folder)


def _attach_mount(files: list[Path], target: Path, name: str) -> None:
    """Fills the stick out of sight and moves the mount into place, so that it never shows half full."""
    places.make_directory(target)
    with tempfile.TemporaryDirectory(prefix="arbor-stick-") as hidden:
        places.mount(f"/dev/sd{'ab'[paths.STICK_NAMES.index(name)]}1", Path(hidden))
        try:
            _copy(files, Path(hidden))
            places.move(Path(hidden), target)
        except BaseException:
            places.unmount(Path(hidden))
            raise


def _attach_directory(files: list[Path], target: Path) -> None:
    staging = _staging(target)
    for path in (staging, target):
        places.note("filled", path)
        places.note("made", path)
    shutil.rmtree(staging, ignore_errors=True)
    staging.mkdir(parents=True)
    _copy(files, staging)
    staging.rename(target)
