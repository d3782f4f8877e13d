"""A running device, seen from outside: its files and its commands."""

import os
import subprocess
from pathlib import Path

from simulation import gateway, paths

from . import network
from .devices import STATIONS


class RemoteError(Exception):
    """There is no such device here; the text says what is missing."""


class Remote:
    """One of the two devices of the pair that this process was started beside."""

    def __init__(self, name: str) -> None:
        if name not in STATIONS:
            raise RemoteError(f"no device '{name}'; there are " + ", ".join(STATIONS))
        if variable(name) not in os.environ:
            raise RemoteError("run this beside two instruments: two-instruments run -- ...")
        self.station = STATIONS[name]
        self.device = self.station.device
        self._process = int(os.environ[variable(name)])

    @property
    def first(self) -> int:
        """The process that the device's others come from."""
        return self._process

    def path(self, inside: Path) -> Path:
        """Where one of the device's files is to be found from here."""
        return Path(f"/proc/{self._process}/root{inside}")

    @property
    def gateway(self) -> Path:
        return self.path(paths.GATEWAY)

    @property
    def log(self) -> str:
        """All that its graph host has logged."""
        return self.path(paths.HOST_LOG).read_text(encoding="utf-8", errors="replace")

    def words(self, *command: str) -> list[str]:
        """A command line that runs `command` on the device."""
        return ["nsenter", "--target", str(self._process), "--root", "--mount", "--pid", "--uts", "--net", "--",
                *command]

    def run(self, *command: str) -> subprocess.CompletedProcess:
        """Runs a command on the device, both outputs in one text."""
        return subprocess.run(self.words(*command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, check=False)

    def peers(self) -> dict:
        """What the device knows about its link: its own key, and the others."""
        return gateway.post("peers", at=self.gateway)[1]

    def let_in(self, known: "Remote") -> subprocess.CompletedProcess:
        """Pairs as a person does, on one of the two: only the accessory calls, so only it needs an address."""
        where = ("--address", known.station.link_address) if known.station.listens else ()
        return self.run("arborctl", "pair", known.peers()["publicKey"], "--name", known.device.name, *where)

    def plug(self, *files: Path) -> None:
        """Plugs a USB stick with copies of `files` into the device."""
        done = self.run("env", "ARBOR_INSTRUMENT=private", str(paths.INSTRUMENT / "stick"), "attach", *map(str, files))
        if done.returncode != 0:
            raise RemoteError(done.stdout)

    def switch_link(self, on: bool) -> None:
        """Switches the device's end of the cable."""
        network.switch(self._process, on)


def variable(name: str) -> str:
    """The environment variable that names a device's first process."""
    return f"ARBOR_{name.upper()}_PROCESS"
