"""A bare Debian system that boots with the real service manager, as a container that is thrown away.

What it is made from is kept below build/debian and made anew when the packages need something else. Each run works on a layer above
it, so that it begins as a system does that never saw the packages.
"""

import fcntl
import hashlib
import os
import re
import shutil
import subprocess
import tempfile
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parents[2]
CACHE = PROJECT / "build/debian"
PACKAGES = PROJECT / "build/packages"
SUITE = "bookworm"
# What every Debian system with a service manager has, and what the tests look with.
ALWAYS = ("systemd", "systemd-sysv", "dbus", "udev", "procps", "mount")
BOOT_SECONDS = 60.0
COMMAND_SECONDS = 180.0
# The service manager of the machine may bound what its units use.
INIT = """#!/bin/sh
for controller in memory pids; do
    mount -o remount,rw,bind "/sys/fs/cgroup/$controller" 2> /dev/null
done
exec /lib/systemd/systemd
"""


class MachineError(Exception):
    """The machine can't be made or does not do what it is told; the text says why."""


def fields(package: Path, *names: str) -> list[str]:
    """Fields of a package file, in the order in which they are asked for."""
    return [subprocess.run(["dpkg-deb", "-f", package, name], check=True, capture_output=True, text=True).stdout.strip() for name in names]


def needed() -> list[str]:
    """The names of the packages that ours depend on; of alternatives the first that is a package."""
    own = {fields(package, "Package")[0] for package in PACKAGES.glob("*.deb")}
    found = set(ALWAYS)
    for package in PACKAGES.glob("*.deb"):
        if "-dev" in package.name:
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


def base() -> Path:
    """The system that the machine boots from."""
    packages = needed()
    folder = CACHE / f"base-{hashlib.sha256(' '.join([SUITE, *packages]).encode()).hexdigest()[:16]}"
    if folder.is_dir():
        return folder
    making = CACHE / "making"
    for old in (making, *CACHE.glob("base-*")):
        shutil.rmtree(old, ignore_errors=True)
    print(f"debian: making a root with {', '.join(packages)}", flush=True)
    logged("debootstrap", "--variant=minbase", f"--include={','.join(ALWAYS)}", SUITE, making)
    # Where packages come from is this machine's affair; who installs ours below needs none of it.
    logged("chroot", making, "apt-get", "install", "-y", "--no-install-recommends", *packages)
    logged("chroot", making, "apt-get", "clean")
    making.rename(folder)
    return folder


class Machine:
    """The machine while it runs. Use it as a context manager."""

    def __init__(self) -> None:
        self._work = Path()
        self._nspawn: subprocess.Popen[bytes] | None = None
        self._leader = 0
        self._groups: list[Path] = []

    @property
    def root(self) -> Path:
        """Its files, as they are seen from outside: without what is mounted inside."""
        return self._work / "root"

    def __enter__(self) -> "Machine":
        if os.geteuid() != 0:
            raise MachineError("this test needs root")
        CACHE.mkdir(parents=True, exist_ok=True)
        self._lock = open(CACHE / "lock", "w", encoding="ascii")
        fcntl.flock(self._lock, fcntl.LOCK_EX)  # one at a time
        for left in CACHE.glob("machine-*"):  # by one that was killed
            subprocess.run(["umount", "--quiet", left / "root"], check=False)
            shutil.rmtree(left, ignore_errors=True)
        system = base()
        self._work = Path(tempfile.mkdtemp(prefix="machine-", dir=CACHE))
        try:
            self._boot(system)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        if self._nspawn:
            self._nspawn.terminate()  # asks it to switch off
            try:
                self._nspawn.wait(30)
            except subprocess.TimeoutExpired:
                self._nspawn.kill()
                self._nspawn.wait()
        subprocess.run(["umount", "--quiet", self.root], check=False)
        for group in self._groups:
            subprocess.run(["find", group, "-depth", "-type", "d", "-exec", "rmdir", "{}", ";"], stderr=subprocess.DEVNULL, check=False)
        shutil.rmtree(self._work, ignore_errors=True)
        self._lock.close()

    def _boot(self, system: Path) -> None:
        for name in ("upper", "work", "root"):
            (self._work / name).mkdir()
        mounted = subprocess.run(["mount", "-t", "overlay", "overlay", "-o",
                                  f"lowerdir={system},upperdir={self._work / 'upper'},workdir={self._work / 'work'}", self.root],
                                 capture_output=True, text=True, check=False)
        if mounted.returncode != 0:
            raise MachineError(f"no layer over {system} can be mounted: {mounted.stderr.strip()}")
        init = self.root / "machine-init"
        init.write_text(INIT, encoding="ascii")
        init.chmod(0o755)
        groups = self._make_groups()
        with open(self.console, "wb") as console:
            self._nspawn = subprocess.Popen(
                # Into the groups, which it makes the machine's own.
                ["sh", "-euc", 'for group; do shift; [ "$group" = -- ] && break; echo $$ > "$group/cgroup.procs"; done; exec "$@"', "sh",
                 *groups, "--", "setpriv", "--pdeathsig", "TERM", "systemd-nspawn", "--quiet", "--directory", self.root, "--register=no", "--keep-unit", "--private-network",
                 "--console=pipe", f"--bind-ro={PACKAGES}:/packages", "--machine=instrument", "--kill-signal=SIGRTMIN+3",
                 "/machine-init"],
                stdin=subprocess.DEVNULL, stdout=console, stderr=console, start_new_session=True)
        deadline = time.monotonic() + BOOT_SECONDS
        while self._state() not in ("running", "degraded"):
            if self._nspawn.poll() is not None or time.monotonic() > deadline:
                raise MachineError("the machine did not start; can namespaces be made here?\n" + self.console.read_text(errors="replace")[-3000:])
            time.sleep(0.1)

    def _make_groups(self) -> list[Path]:
        """Groups of processes of its own, where the kernel's controllers have a tree each (version 1) and the container manager
        leaves them to nobody. With one tree for all of them it sees to that itself."""
        for line in Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines():
            _, controllers, own = line.split(":", 2)
            if controllers in ("memory", "pids"):
                group = Path(f"/sys/fs/cgroup/{controllers}{own.rstrip('/')}/{self._work.name}")
                group.mkdir()
                self._groups.append(group)
        return self._groups

    @property
    def console(self) -> Path:
        """What it says on its console."""
        return self._work / "console"

    def _state(self) -> str:
        assert self._nspawn
        children = Path(f"/proc/{self._nspawn.pid}/task/{self._nspawn.pid}/children")
        try:
            self._leader = int(children.read_text(encoding="ascii").split()[0])
        except (OSError, IndexError):
            return ""
        return self.run("systemctl", "is-system-running", check=False).stdout.strip()

    def run(self, *words: object, check: bool = True) -> subprocess.CompletedProcess[str]:
        """Runs a command inside, as root, and waits for its end."""
        command = [str(word) for word in words]
        done = subprocess.run(["nsenter", "--target", str(self._leader), "--all", "--wdns=/", "env", "-i",
                               "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
                               "DEBIAN_FRONTEND=noninteractive", *command],
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=COMMAND_SECONDS, check=False)
        if check and done.returncode != 0:
            raise MachineError(f"{' '.join(command)} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
        return done

    def shell(self, script: str) -> str:
        """Runs a script inside, and gives what it prints."""
        return self.run("sh", "-euc", script).stdout

    def put(self, source: Path, target: str) -> None:
        """Copies a file or folder to a place inside, also to one that is mounted there."""
        tar = subprocess.run(["tar", "-C", source.parent, "-c", source.name], check=True, capture_output=True)
        place = Path(target)
        subprocess.run(["nsenter", "--target", str(self._leader), "--all", "--wdns=/", "sh", "-euc",
                        'mkdir -p "$1" && tar -C "$1" -x --no-same-owner && mv -T "$1/$2" "$1/$3"' if source.name != place.name else
                        'mkdir -p "$1" && tar -C "$1" -x --no-same-owner', "sh", str(place.parent), source.name, place.name],
                       input=tar.stdout, check=True)
