"""A bare Debian system that boots with the real service manager, as a container that is thrown away.

Each run works on a layer above the system that it is made from, so that it begins as a system does that never saw the packages.
"""

import contextlib
import fcntl
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

sys.path[:0] = [str(Path(__file__).resolve().parents[2] / "examples/machine")]
from machines import debian  # noqa: E402
from machines.debian import CACHE, fields  # noqa: E402,F401
from machines.machine import MachineError  # noqa: E402
from machines.nspawn import Box, own_groups  # noqa: E402

PACKAGES = debian.packages()
BOOT_SECONDS = 60.0
# The service manager of the machine may bound what its units use.
INIT = """#!/bin/sh
for controller in memory pids; do
    mount -o remount,rw,bind "/sys/fs/cgroup/$controller" 2> /dev/null
done
exec /lib/systemd/systemd
"""


class Machine:
    """The machine while it runs. Use it as a context manager."""

    def __init__(self) -> None:
        self._work = Path()
        self._box: Box | None = None
        self._place = contextlib.ExitStack()

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
        system = debian.base()
        self._work = Path(tempfile.mkdtemp(prefix="machine-", dir=CACHE))
        try:
            self._boot(system)
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        if self._box:
            self._box.switch_off()
        subprocess.run(["umount", "--quiet", self.root], check=False)
        self._place.close()
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
        groups = self._place.enter_context(own_groups(self._work.name))
        self._box = Box(self.root, self.console, groups, [f"--bind-ro={PACKAGES}:/packages"], "/machine-init")
        deadline = time.monotonic() + BOOT_SECONDS
        while self._box.state() not in ("running", "degraded"):
            if self._box.ended is not None or time.monotonic() > deadline:
                raise MachineError("the machine did not start; can namespaces be made here?\n" + self.console.read_text(errors="replace")[-3000:])
            time.sleep(0.1)

    @property
    def console(self) -> Path:
        """What it says on its console."""
        return self._work / "console"

    def run(self, *words: object, check: bool = True) -> subprocess.CompletedProcess[str]:
        """Runs a command inside, as root, and waits for its end."""
        assert self._box
        done = self._box.run(*words)
        if check and done.returncode != 0:
            raise MachineError(f"{' '.join(str(word) for word in words)} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
        return done

    def shell(self, script: str) -> str:
        """Runs a script inside, and gives what it prints."""
        return self.run("sh", "-euc", script).stdout

    def put(self, source: Path, target: str) -> None:
        """Copies a file or folder to a place inside, also to one that is mounted there."""
        assert self._box
        self._box.put(source, target)
