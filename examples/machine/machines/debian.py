"""Debian systems, made from the distribution's packages and ours, and kept below build/debian.

A base is what a device has that never saw our packages; a tree is a base with them.
"""

import contextlib
import fcntl
import hashlib
import os
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path
from typing import Callable, Iterator

from .machine import MachineError

PROJECT = Path(__file__).resolve().parents[3]
CACHE = PROJECT / "build/debian"
SUITE = "bookworm"
NATIVE, ARM = "amd64", "arm64"
# What every Debian system with a service manager has, what the tests look with, and what writes a boot loader's environment.
ALWAYS = ("systemd", "systemd-sysv", "dbus", "udev", "procps", "mount", "libubootenv-tool")
# What a device has that is a machine, and no container.
ON_MACHINE = ("kmod", "iproute2", "iputils-ping", "openssh-server", "rsync", "avahi-daemon", "libnss-mdns")
_FOREIGN = PROJECT / "scripts/foreign.sh"


def packages(architecture: str = NATIVE) -> Path:
    """The folder with our packages for an architecture."""
    return PROJECT / ("build/packages" if architecture == NATIVE else f"build/packages-{architecture}")


def fields(package: Path, *names: str) -> list[str]:
    """Fields of a package file, in the order in which they are asked for."""
    return [subprocess.run(["dpkg-deb", "-f", package, name], check=True, capture_output=True, text=True).stdout.strip() for name in names]


def needed(architecture: str = NATIVE) -> list[str]:
    """The names of the packages that a base consists of: of alternatives that ours depend on, the first that is a package."""
    files = list(packages(architecture).glob("*.deb"))
    own = {fields(package, "Package")[0] for package in files}
    found = {*ALWAYS, *(ON_MACHINE if architecture != NATIVE else ())}
    for package in files:
        if "-dev" in package.name or "-dbgsym" in package.name:
            continue
        for clause in fields(package, "Depends")[0].split(","):
            name = re.split(r"[ (:|]", clause.strip())[0]
            found.add("dbus" if name == "default-dbus-system-bus" else name)
    return sorted(found - own - {"libc6", "libgcc-s1"})


def logged(*words: object) -> None:
    """Runs a command whose output goes into a file, for when it fails."""
    command = [str(word) for word in words]
    log = CACHE / "making.log"
    with open(log, "wb") as output:
        done = subprocess.run(command, env={**os.environ, "DEBIAN_FRONTEND": "noninteractive"}, stdin=subprocess.DEVNULL, stdout=output,
                              stderr=output, check=False)
    if done.returncode != 0:
        raise MachineError(f"{' '.join(command)} ended with {done.returncode}:\n{log.read_text(errors='replace')[-3000:]}")


def base(architecture: str = NATIVE) -> Path:
    """A system without our packages; made anew when they need something else."""
    names = needed(architecture)
    mark = "" if architecture == NATIVE else f"{architecture}-"
    return kept(f"base-{mark}", " ".join([SUITE, *names]), lambda folder: _make_base(architecture, names, folder))


def tree(architecture: str = NATIVE) -> Path:
    """A system with our packages; made anew when they have changed."""
    ours = [path for path in sorted(packages(architecture).glob("*.deb")) if fields(path, "Package")[0] in ("arbor-install", "arborctl")]
    below = base(architecture)
    mark = hashlib.sha256(below.name.encode())
    for path in ours:
        mark.update(path.read_bytes())
    return kept(f"tree-{architecture}-", mark.hexdigest(), lambda folder: _install(architecture, below, ours, folder))


def kept(name: str, made_from: str, make: Callable[[Path], None]) -> Path:
    """The folder `name`... that `make` has filled from just this, now or earlier. Those made from anything else are removed."""
    CACHE.mkdir(parents=True, exist_ok=True)
    folder = CACHE / f"{name}{hashlib.sha256(made_from.encode()).hexdigest()[:16]}"
    with open(CACHE / f"{name}lock", "w", encoding="ascii") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        if not folder.is_dir():
            _make_anew(name, folder, make)
    return folder


@contextlib.contextmanager
def workplace(name: str) -> Iterator[Path]:
    """A folder beside the systems for as long as it is needed. Those that killed processes left behind are removed."""
    CACHE.mkdir(parents=True, exist_ok=True)
    with contextlib.ExitStack() as place:
        # One process at a time: a folder that has no lock yet looks like one that was left behind.
        with open(CACHE / "workplaces", "w", encoding="ascii") as gate:
            fcntl.flock(gate, fcntl.LOCK_EX)
            for left in CACHE.glob(f"{name}-????????"):
                with contextlib.suppress(OSError), open(left / "lock", "w", encoding="ascii") as lock:
                    fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
                    shutil.rmtree(left)
            folder = Path(place.enter_context(tempfile.TemporaryDirectory(prefix=f"{name}-", dir=CACHE, ignore_cleanup_errors=True)))
            fcntl.flock(place.enter_context(open(folder / "lock", "w", encoding="ascii")), fcntl.LOCK_EX)
        yield folder


def _make_anew(name: str, folder: Path, make: Callable[[Path], None]) -> None:
    making = CACHE / f"making-{name}"
    for old in (making, *(path for path in CACHE.glob(f"{name}*") if re.fullmatch(f"{name}[0-9a-f]{{16}}", path.name))):
        shutil.rmtree(old, ignore_errors=True)
    begun = time.monotonic()
    make(making)
    making.rename(folder)
    print(f"debian: {folder.name} took {time.monotonic() - begun:.0f} s", flush=True)


def _make_base(architecture: str, names: list[str], folder: Path) -> None:
    print(f"debian: making a root with {', '.join(names)}", flush=True)
    if architecture == NATIVE:
        logged("debootstrap", "--variant=minbase", f"--include={','.join(ALWAYS)}", SUITE, folder)
        # Where packages come from is this machine's affair; who installs ours below needs none of it.
        logged("chroot", folder, "apt-get", "install", "-y", "--no-install-recommends", *names)
        logged("chroot", folder, "apt-get", "clean")
        return
    # Its programs are run by an emulator, so each that need not run is a gain: nothing is unpacked that such a device does without.
    # As an archive: devices can only be made outside of the namespaces.
    packed = folder.with_name(f"{folder.name}.tar")
    logged(_FOREIGN, "mmdebstrap", "--mode=root", f"--architectures={architecture}", "--variant=minbase", f"--include={','.join(names)}",
           '--aptopt=APT::Install-Recommends "false"', *(f"--dpkgopt=path-exclude=/usr/share/{place}/*" for place in ("doc", "man", "locale", "info")),
           "--keyring=/usr/share/keyrings/debian-archive-keyring.gpg", "--skip=check/qemu", SUITE, packed)
    folder.mkdir()
    logged("tar", "-C", folder, "--numeric-owner", "-xf", packed)
    packed.unlink()


def _install(architecture: str, below: Path, ours: list[Path], folder: Path) -> None:
    logged("cp", "-a", below, folder)
    place = folder / "var/tmp/packages"
    place.mkdir()
    for path in ours:
        shutil.copy(path, place)
    inside = ["chroot", folder, "dpkg", "--install", *(f"/var/tmp/packages/{path.name}" for path in ours)]
    logged(*([] if architecture == NATIVE else [_FOREIGN]), *inside)
    shutil.rmtree(place)
