"""Makes the instrument's fixed places real for the time of one run, and takes them away again.

`PrivateMounts` needs a mount namespace of its own: the machine sees nothing of it but a few empty directories, which the
last instrument that ends removes. `RealDirectories` is for machines that allow no namespace: one instrument at a time, in
directories that everybody can see.
"""

import fcntl
import os
import shutil
import subprocess
import time
from pathlib import Path
from typing import IO

from . import paths

# Shared by all running instruments: its lock tells whether one runs, its lines which directories were made ("made PATH")
# and which hold an instrument's files ("filled PATH").
REGISTER = Path("/tmp/.arbor-instrument")
WAIT_SECONDS = 900
STORAGE_OPTIONS = "size=512m,mode=0755"
# Starts a command in namespaces of its own. Deaf to polite signals; when it is killed, the command is asked to end.
NAMESPACE = ["unshare", "--mount", "--pid", "--fork", "--kill-child=TERM", "--mount-proc"]


class PlaceError(Exception):
    """A place can't be used; the text names it and says what to do."""


class Register:
    """The register file, open and locked: shared by instruments that don't see each other, exclusive otherwise."""

    def __init__(self, exclusive: bool) -> None:
        self._file: IO[str] = open(REGISTER, "a+", encoding="utf-8")
        try:
            if os.fstat(self._file.fileno()).st_uid != os.geteuid():
                raise PlaceError(f"{REGISTER} belongs to somebody else; remove it")  # its lines say what is removed
            self._lock(fcntl.LOCK_EX if exclusive else fcntl.LOCK_SH)
        except BaseException:
            self._file.close()
            raise

    def close(self) -> None:
        """Removes the directories that were made, unless another instrument still runs."""
        try:
            fcntl.flock(self._file, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            self._file.close()
            return
        for made in reversed(self.entries("made")):
            _ignoring_errors(made.rmdir)
        self._file.truncate(0)
        self._file.close()

    def entries(self, kind: str) -> list[Path]:
        """The paths noted as `kind`, oldest first, each once."""
        lines = REGISTER.read_text(encoding="utf-8").splitlines()
        return list(dict.fromkeys(Path(line.split(" ", 1)[1]) for line in lines if line.startswith(kind + " ")))

    def _lock(self, mode: int) -> None:
        deadline = time.monotonic() + WAIT_SECONDS
        said = False
        while True:
            try:
                return fcntl.flock(self._file, mode | fcntl.LOCK_NB)
            except BlockingIOError:
                if time.monotonic() > deadline:
                    raise PlaceError("another simulated instrument has not ended; it holds " + str(REGISTER)) from None
            if not said:
                print("instrument: waiting for another simulated instrument to end", flush=True)
                said = True
            time.sleep(0.2)


def note(kind: str, path: Path) -> None:
    """Adds a line to the register; short appended lines never mix."""
    with open(REGISTER, "a", encoding="utf-8") as file:
        file.write(f"{kind} {path}\n")


def make_directory(path: Path) -> None:
    """Makes a directory and what is missing above it, noting each so that it goes away again."""
    if not path.parent.is_dir():
        make_directory(path.parent)
    try:
        path.mkdir(mode=0o755)
    except FileExistsError:
        if not path.is_dir():
            raise PlaceError(f"{path} is no directory; the instrument needs it") from None
    else:
        note("made", path)


def mount_points_below(*roots: Path) -> list[Path]:
    """What this namespace has mounted under `roots`, innermost first."""
    found = []
    for line in Path("/proc/self/mountinfo").read_text(encoding="utf-8").splitlines():
        point = Path(line.split()[4].encode().decode("unicode_escape"))
        if any(root in point.parents for root in roots):
            found.append(point)
    return found[::-1]


def mount(source: str, target: Path, options: str = "mode=0755") -> None:
    """Mounts a memory file system whose source shows as `source` in the mount table."""
    subprocess.run(["mount", "-t", "tmpfs", "-o", options, source, str(target)], check=True)


def move(mounted: Path, target: Path) -> None:
    """Shows a mount at another place instead."""
    subprocess.run(["mount", "--move", str(mounted), str(target)], check=True)


def unmount(target: Path) -> None:
    """Takes a mount away at once, as pulling a stick does: open files stay readable, the name is gone."""
    subprocess.run(["umount", "--lazy", str(target)], check=True)


class PrivateMounts:
    """The places as mounts that only this instrument's namespace has. Use it as a context manager."""

    def __init__(self, places: tuple[Path, ...] = paths.PLACES) -> None:
        self._places = places

    def __enter__(self) -> "PrivateMounts":
        self._register = Register(exclusive=False)
        # The machine's own sticks are none of the instrument's business.
        for point in mount_points_below(paths.STICKS, Path("/run/media")):
            unmount(point)
        for place in self._places:
            make_directory(place)
        for place in self._places:
            place.mkdir(exist_ok=True)  # a mount may hide what was made for one below it
            storage = place == paths.STORAGE
            mount(paths.ARCHIVE_DEVICE if storage else "instrument", place, STORAGE_OPTIONS if storage else "mode=0755")
        return self

    def __exit__(self, *_: object) -> None:
        for point in mount_points_below(paths.STICKS) + [place for place in reversed(self._places) if place != paths.STORAGE]:
            unmount(point)
        self._register.close()


class RealDirectories:
    """The places as directories of the machine itself. Use it as a context manager."""

    def __enter__(self) -> "RealDirectories":
        self._register = Register(exclusive=True)
        try:
            self._clear()  # what an instrument that was killed has left
            for place in paths.PLACES:
                claim(place)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        self._clear()
        self._register.close()

    def _clear(self) -> None:
        for filled in self._register.entries("filled"):
            empty(filled)


def claim(path: Path) -> None:
    """Makes a directory ours, or refuses one that holds somebody else's files."""
    make_directory(path)
    if any(path.iterdir()):
        raise PlaceError(f"{path} exists and holds files that are not the simulated instrument's; move them away first")
    note("filled", path)


def empty(path: Path) -> None:
    """Removes everything in a directory."""
    if not path.is_dir():
        return
    for entry in path.iterdir():
        if entry.is_dir() and not entry.is_symlink():
            shutil.rmtree(entry, ignore_errors=True)
        else:
            _ignoring_errors(entry.unlink)


def _ignoring_errors(action) -> None:
    try:
        action()
    except OSError:
        pass


def can_make_namespaces() -> bool:
    """Whether this process may have mounts and processes of its own. INSTRUMENT_FORCE_PLAIN=1 says no."""
    if os.environ.get("INSTRUMENT_FORCE_PLAIN") == "1":
        return False
    probe = [*NAMESPACE, "sh", "-c", "mount -t tmpfs probe /tmp"]
    try:
        return subprocess.run(probe, stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0
    except FileNotFoundError:
        return False
