"""A system in a container that starts like a machine: with its own service manager, names, processes and network."""

import contextlib
import os
import signal
import subprocess
import time
from pathlib import Path
from typing import Iterator, Sequence

COMMAND_SECONDS = 180.0
_STATE_SECONDS = 5.0
_LOOK_SECONDS = 0.5
REBOOTS = 133
"""How the container manager ends when the system inside asked for a restart; 0 when it switched itself off."""


@contextlib.contextmanager
def own_groups(name: str) -> Iterator[list[Path]]:
    """Groups of processes for a container to start in, below those of this process. Service managers of two that run at once would else
    take each other's processes for their own. They are removed at the end, when the container is gone."""
    groups = []
    for line in Path("/proc/self/cgroup").read_text(encoding="ascii").splitlines():
        _, controllers, own = line.split(":", 2)
        if controllers in ("memory", "pids", "name=systemd", ""):
            tree = Path("/sys/fs/cgroup") / (controllers.removeprefix("name=") or "unified")
            group = Path(f"{tree if tree.is_dir() else tree.parent}{own.rstrip('/')}/{name}")
            group.mkdir()
            groups.append(group)
    try:
        yield groups
    finally:
        for group in groups:
            subprocess.run(["find", group, "-depth", "-type", "d", "-exec", "rmdir", "{}", ";"], stderr=subprocess.DEVNULL, check=False)


class Box:
    """One start of a system from a folder. Its end is seen in `ended`; who makes it has to see to that end."""

    def __init__(self, root: Path, console: Path, groups: Sequence[Path], binds: Sequence[str] = (), init: str = "",
                 name: str = "instrument", network: Path | None = None) -> None:
        """`binds` are options of the container manager; `groups` are what own_groups has made;
        `init` is a program of the system to start instead of the service manager; `name` is what the container manager knows it by;
        `network` is a network namespace, else it has one for itself."""
        networks = [f"--network-namespace-path={network}", "--capability=CAP_NET_ADMIN"] if network else ["--private-network"]
        with open(console, "ab") as output:
            self._nspawn = subprocess.Popen(
                ["sh", "-euc", 'for group; do shift; [ "$group" = -- ] && break; echo $$ > "$group/cgroup.procs"; done; exec "$@"', "sh", *groups, "--",
                 "setpriv", "--pdeathsig", "TERM", "systemd-nspawn", "--quiet", "--directory", root, "--register=no", "--keep-unit",
                 *networks, "--console=pipe", f"--machine={name}", "--kill-signal=SIGRTMIN+3", *binds,
                 *([init] if init else ["--boot"])],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output, start_new_session=True)
        self._leader = 0

    @property
    def ended(self) -> int | None:
        """The status that the container manager ended with; None while it runs."""
        return self._nspawn.poll()

    def state(self) -> str:
        """What the service manager inside says of itself, such as "running"; empty while there is none."""
        children = Path(f"/proc/{self._nspawn.pid}/task/{self._nspawn.pid}/children")
        try:
            self._leader = int(children.read_text(encoding="ascii").split()[0])
        except (OSError, IndexError):
            self._leader = 0
            return ""
        try:  # it may begin or end just now, and not answer
            return self.run("systemctl", "is-system-running", seconds=_STATE_SECONDS).stdout.strip()
        except subprocess.TimeoutExpired:
            return ""

    def run(self, *words: object, seconds: float = COMMAND_SECONDS) -> subprocess.CompletedProcess[str]:
        """Runs a command inside, as root, and waits for its end, which must come within `seconds`."""
        with subprocess.Popen([*self._enter(), "env", "-i", "PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin", "LANG=C.UTF-8",
                               "DEBIAN_FRONTEND=noninteractive", *(str(word) for word in words)],
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace") as process:
            end = time.monotonic() + seconds
            while True:
                try:
                    output, errors = process.communicate(timeout=_LOOK_SECONDS)
                    return subprocess.CompletedProcess(process.args, process.returncode, output, errors)
                except subprocess.TimeoutExpired:
                    if time.monotonic() > end:
                        process.kill()
                        raise
                    # A system that shuts down stops all of its processes, and who entered it for one stops as well, out of its reach.
                    process.send_signal(signal.SIGCONT)

    def put(self, source: Path, target: str) -> None:
        """Copies a file or folder to a place inside, also to one that is mounted there."""
        place = Path(target)
        renamed = "" if source.name == place.name else ' && mv -T "$1/$2" "$1/$3"'
        with subprocess.Popen(["tar", "-C", source.parent, "-c", source.name], stdout=subprocess.PIPE) as tar:
            subprocess.run([*self._enter(), "sh", "-euc", f'mkdir -p "$1" && tar -C "$1" -x --no-same-owner{renamed}', "sh", str(place.parent), source.name,
                            place.name], stdin=tar.stdout, check=True)

    def switch_off(self) -> None:
        """Asks the system to end, and ends it when it does not."""
        self._nspawn.terminate()
        try:
            self._nspawn.wait(30)
        except subprocess.TimeoutExpired:
            self.cut()

    def cut(self) -> None:
        """Ends all of its processes at once."""
        if self._leader and self.ended is None:
            try:
                os.kill(self._leader, signal.SIGKILL)
                self._nspawn.wait(10)
            except (ProcessLookupError, subprocess.TimeoutExpired):
                pass
        if self.ended is None:
            self._nspawn.kill()
        self._nspawn.wait()

    def _enter(self) -> list[str]:
        return ["nsenter", "--target", str(self._leader), "--all", "--wdns=/"]
