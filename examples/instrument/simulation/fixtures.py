"""Keys, signed packages and the instrument's storage, built once with the real package tools and kept.

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

from . import paths

PACKAGES = paths.PROJECT / "packages"
PAYLOAD_BYTES = int(os.environ.get("INSTRUMENT_PAYLOAD_MIB", "4")) << 20


class FixtureError(Exception):
    """A package tool failed; the text carries its command and output."""


def ensure() -> Path:
    """Returns the folder with the fixtures; builds them first when they are missing. Safe to call from many processes."""
    home = paths.fixtures_folder()
    home.mkdir(parents=True, exist_ok=True)
    wanted = home / f"fixtures-{_fingerprint()}"
    with open(home / "lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not wanted.is_dir():
            _remove_others(home, wanted)
            _build(home, wanted)
    return wanted


def stick_files(fixtures: Path) -> list[Path]:
    """What lies on the stick that the instrument is shown."""
    return sorted((fixtures / "stick").iterdir())


def _fingerprint() -> str:
    digest = hashlib.sha256(str(PAYLOAD_BYTES).encode())
    sources = [path for path in PACKAGES.rglob("*") if path.is_file() and "__pycache__" not in path.parts]
    for path in sorted(sources) + [Path(__file__), Path(paths.__file__)]:
        digest.update(path.name.encode() + b"\0" + path.read_bytes())
    return digest.hexdigest()[:16]


def _remove_others(home: Path, wanted: Path) -> None:
    """Older generations are only in the way; one that a running instrument still reads from stays until the next time."""
    for path in sorted(home.glob("fixtures-*"), key=lambda entry: entry.stat().st_mtime)[:-1]:
        if path != wanted:
            shutil.rmtree(path, ignore_errors=True)


def _build(home: Path, wanted: Path) -> None:
    with tempfile.TemporaryDirectory(prefix="building-", dir=home) as temporary:
        work = Path(temporary) / "fixtures"
        work.mkdir()
        _tool("keygen", "--out", work / "keys", "--name", "Simulated Instrument Release")
        _make_trust(work)
        _make_storage(work)
        _make_stick(work)
        work.rename(wanted)


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


def _make_trust(work: Path) -> None:
    (work / "trust").mkdir()
    shutil.copy(work / "keys" / "cert.pem", work / "trust" / "release.pem")


def _make_storage(work: Path) -> None:
    """The archive, and the slots as the versions' own installers leave them: the installed one active, the older spare."""
    archive = work / "storage" / "Packages"
    for version in paths.ARCHIVED:
        folder = archive / version
        folder.parent.mkdir(parents=True, exist_ok=True)
        payload = _payload(work, version)
        _tool("archive", "--version", version, "--board", paths.BOARD, "--payload", payload, *_signing(work), folder)
        payload.unlink()
    for version in (*reversed(paths.ARCHIVED), paths.INSTALLED):
        _run(archive / version / "arbor_qm.pkg", "--skip-verify", f"--dir={archive}", "--no-reboot")


def _make_stick(work: Path) -> None:
    stick = work / "stick"
    stick.mkdir()
    for version in (*paths.ON_STICK, paths.DAMAGED):
        payload = _payload(work, version)
        _tool("build", "--version", version, "--board", paths.BOARD, "--payload", payload, *_signing(work),
              "-o", stick / f"arbor-{version}.pkg")
        payload.unlink()
    _damage(stick / f"arbor-{paths.DAMAGED}.pkg")


def _damage(package: Path) -> None:
    """Turns one bit in the middle of the payload: the file still tells its version but no longer verifies."""
    with open(package, "r+b") as file:
        file.seek(package.stat().st_size // 2)
        byte = file.read(1)[0]
        file.seek(-1, os.SEEK_CUR)
        file.write(bytes([byte ^ 1]))
