"""Sets the two devices up beside each other, and takes them away again."""

import os
import shutil
import subprocess
import sys
import time
from pathlib import Path

from simulation import places

from . import FOLDER, device, network, remote
from .devices import CART, PALM

NAMESPACES = [*places.NAMESPACE, "--uts", "--net"]
PROGRAMS = ("avahi-daemon", "avahi-resolve", "dbus-daemon", "i2cset", "ip", "nsenter", "rsync", "ssh", "sshd")
NAME_SECONDS = 60.0
END_SECONDS = 90.0


class BenchError(Exception):
    """The devices can't be set up; the text says why."""


def why_not() -> str:
    """Why this user can't have two devices on this machine, in a few words; empty when that works."""
    if not places.can_make_namespaces():
        return "no mount and process namespaces can be made here"
    probe = [*NAMESPACES, "ip", "link", "add", "name", "probe", "type", "veth", "peer", "name", "other"]
    done = subprocess.run(probe, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False)
    reason = f"no network namespaces with a cable between them can be made here ({done.stdout.strip()})"
    return "" if done.returncode == 0 else reason


def missing_programs() -> list[str]:
    """Those of the real services and tools that are not installed."""
    return [program for program in PROGRAMS if shutil.which(program) is None]


class Bench:
    """Both devices, running and in each other's reach. Use it as a context manager; `environment` leads commands to them."""

    def __init__(self, stock: Path) -> None:
        self._stock = stock
        self._processes: dict[str, subprocess.Popen] = {}
        self.environment = dict(os.environ)

    def __enter__(self) -> "Bench":
        try:
            self._start()
        except BaseException:
            self.__exit__()
            raise
        return self

    def __exit__(self, *_: object) -> None:
        for process in self._processes.values():
            process.stdin.close()  # type: ignore[union-attr]
        for process in self._processes.values():
            try:
                process.wait(END_SECONDS)
            except subprocess.TimeoutExpired:
                process.kill()
                process.wait()
            process.stdout.close()  # type: ignore[union-attr]

    def _start(self) -> None:
        for station in (CART, PALM):
            self._processes[station.device.name] = self._start_device(station.device.name)
        keys = self._expect(device.BORN)
        network.join(*(process.pid for process in self._processes.values()))
        for process, others_key in zip(self._processes.values(), reversed(keys)):
            process.stdin.write(others_key + "\n")  # type: ignore[union-attr]
            process.stdin.flush()  # type: ignore[union-attr]
        self._expect(device.READY)
        for name, process in self._processes.items():
            children = Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text(encoding="ascii")
            self.environment[remote.variable(name)] = children.split()[0]
        os.environ |= self.environment
        for asking, asked in ((CART, PALM), (PALM, CART)):
            self._wait_for_name(remote.Remote(asking.device.name), asked.mdns_name)

    def _start_device(self, name: str) -> subprocess.Popen:
        """Starts a device in namespaces of its own and out of the terminal's reach: only we end it."""
        step = [sys.executable, "-B", str(FOLDER / "two-instruments"), "device", name, str(self._stock)]
        return subprocess.Popen([*NAMESPACES, *step], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                                start_new_session=True)

    def _expect(self, word: str) -> list[str]:
        """Waits until each device has said `word`; returns what each said behind it. Their steps have limits of their own."""
        told = []
        for name, process in self._processes.items():
            while not (line := process.stdout.readline()).startswith(word):  # type: ignore[union-attr]
                if not line:
                    raise BenchError(f"the {name} ended before it was {word}")
                print(line, end="", flush=True)
            told.append(line[len(word):].strip())
        return told

    def _wait_for_name(self, asking: remote.Remote, name: str) -> None:
        deadline = time.monotonic() + NAME_SECONDS
        while name not in (said := asking.run("avahi-resolve", "-4", "-n", name)).stdout.split():
            if time.monotonic() > deadline:
                raise BenchError(f"the {asking.device.name} does not find {name}: {said.stdout}")
