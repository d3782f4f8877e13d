"""Keys, signed packages and devices' storage, built once with the real package tools and kept.

The folder's name carries a digest of everything the fixtures are made from, so a changed package tool makes new ones.
"""

import fcntl
import hashlib
import os
import random
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Callable

from . import identity, paths
from .identity import INSTRUMENT, Device

PACKAGES = paths.PROJECT / "packages"
PAYLOAD_BYTES = int(os.environ.get("INSTRUMENT_PAYLOAD_MIB", "4")) << 20


class FixtureError(Exception):
    """A package tool failed; the text carries its command and output."""


def ensure(name: str = "fixtures", build: Callable[[Path], None] | None = None) -> Path:
    """Returns the folder with the fixtures; builds them first when they are missing. Safe to call from many processes.

    `build` fills an empty folder with another kind of fixtures, kept under `name`.
    """
    build = build or build_instrument
    home = paths.fixtures_folder()
    home.mkdir(parents=True, exist_ok=True)
    wanted = home / f"{name}-{_fingerprint(build)}"
    with open(home / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not wanted.is_dir():
            _remove_others(home, name)
            with tempfile.TemporaryDirectory(prefix="building-", dir=home) as temporary:
                work = Path(temporary) / name
                work.mkdir()
                build(work)
                work.rename(wanted)
    return wanted


def _fingerprint(build: Callable[[Path], None]) -> str:
    digest = hashlib.sha256(str(PAYLOAD_BYTES).encode())
    recipe = sys.modules[build.__module__]
    sources = [path for path in PACKAGES.rglob("*") if path.is_file() and "__pycache__" not in path.parts]
    for path in sorted(sources) + [Path(module.__file__ or "") for module in (sys.modules[__name__], identity, recipe)]:
        digest.update(path.name.encode() + b"\0" + path.read_bytes())
    return digest.hexdigest()[:16]


def _remove_others(home: Path, name: str) -> None:
    """Older generations are only in the way; one that a running device still reads from stays until the next time."""
    for path in sorted(home.glob(f"{name}-*"), key=lambda entry: entry.stat().st_mtime)[:-1]:
        shutil.rmtree(path, ignore_errors=True)


def build_instrument(work: Path) -> None:
    """The fixtures of the one simulated instrument."""
    make_keys(work)
    make_storage(work, INSTRUMENT)
    _make_stick(work)


def make_keys(work: Path) -> None:
    """The release key, and the folder of trusted certificates with its own in it."""
    _tool("keygen", "--out", work / "keys", "--name", "Simulated Instrument Release")
    (work / "trust").mkdir()
    shutil.copy(work / "keys" / "cert.pem", work / "trust" / "release.pem")


def _tool(*arguments: object) -> None:
    _run(sys.executable, "-B", PACKAGES / "arbor-pkg", *arguments)


def _run(*command: object, environment: dict[str, str] | None = None) -> None:
    words = [str(word) for word in command]
    done = subprocess.run(words, env={**os.environ, **(environment or {})}, stdin=subprocess.DEVNULL,
                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise FixtureError(f"{' '.join(words)} ended with {done.returncode}:\n{done.stdout}")


def _payload(work: Path, version: str) -> Path:
    """A system image that is the same on every machine and does not compress."""
    path = work / f"system-{version}.img"
    path.write_bytes(random.Random(version).randbytes(PAYLOAD_BYTES))
    return path


def _signing(work: Path) -> list[object]:
    return ["--key", work / "keys" / "key.pem", "--cert", work / "keys" / "cert.pem"]


def make_storage(work: Path, device: Device) -> None:
    """The archive, and the slots as the versions' own installers leave them: the installed one active, the older spare."""
    archive = work / device.name / "Packages"
    for version in device.archived:
        folder = archive / version
        folder.parent.mkdir(parents=True, exist_ok=True)
        payload = _payload(work, version)
        _tool("archive", "--version", version, "--board", device.board, "--payload", payload, *_signing(work), folder)
        payload.unlink()
    for version in (*reversed(device.archived), device.installed):
        _run(archive / version / "arbor_qm.pkg", "--skip-verify", f"--dir={archive}", "--no-reboot")
    for name in ("last.json", "running"):  # of this machine; the device has not installed anything yet
        (archive.parent / "Slots" / name).unlink()


def _make_stick(work: Path) -> None:
    stick = work / "stick"
    stick.mkdir()
    for version in (*identity.ON_STICK, identity.DAMAGED):
        payload = _payload(work, version)
        _tool("build", "--version", version, "--board", INSTRUMENT.board, "--payload", payload, *_signing(work),
              "-o", stick / f"arbor-{version}.pkg")
        payload.unlink()
    _damage(stick / f"arbor-{identity.DAMAGED}.pkg")


def _damage(package: Path) -> None:
    """Turns one bit in the middle of the payload: the file still tells its version but no longer verifies."""
    with open(package, "r+b") as file:
        file.seek(package.stat().st_size // 2)
        byte = file.read(1)[0]
        file.seek(-1, os.SEEK_CUR)
        file.write(bytes([byte ^ 1]))
