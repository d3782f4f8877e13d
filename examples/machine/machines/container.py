"""The cheap machine: a Debian system in a container, in two slots, with a stand-in for the boot loader.

It has no kernel and no disk of its own: a power cut ends its processes, and what they gave the kernel is kept.
"""

import contextlib
import hashlib
import os
import shutil
import subprocess
import threading
import time
from pathlib import Path
from typing import Sequence

from . import debian
from .image import DATA, Factory
from .machine import Answer, Machine, MachineError, Start
from .nspawn import Box, own_groups

_TOLD = "/run/arbor-boot"
_STICK = "/media/stick"
_UP = ("running", "degraded")


class Container(Machine):
    """One instrument. Make it in a mount namespace of your own: what it mounts is gone with that."""

    def __init__(self, factory: Factory, network: Path | None = None) -> None:
        """`network` is a network namespace; without one it has none but its own."""
        super().__init__(factory.model.device.name)
        self._place = contextlib.ExitStack()
        self._work = self._place.enter_context(debian.workplace("container"))
        for name in ("slot", "system", "changes", "root", "told"):
            (self._work / name).mkdir()
        self._groups = self._place.enter_context(own_groups(self._work.name))
        self._data = self._work / "data"
        shutil.copytree(factory.data, self._data, symlinks=True)
        self._config = self._work / "fw_env.config"
        self._config.write_text(f"{self._data}/uboot.env 0x0 0x4000\n", encoding="ascii")
        self._network = network
        self._box: Box | None = None
        self._powered = False
        self._loader: threading.Thread | None = None

    def power_on(self) -> None:
        self._powered = True
        self._loader = threading.Thread(target=self._load)
        number = len(self.starts) + 1
        self._loader.start()
        self.wait_started(number)

    def wait_started(self, number: int) -> None:
        self.wait(lambda: len(self.starts) >= number and self._box is not None and self._box.state() in _UP, f"start {number}")

    def run(self, command: str) -> Answer:
        box = self._box
        if box is None or not box.state():
            raise MachineError("the machine does not run")
        try:
            done = box.run("sh", "-c", f"cd /; {command}")
        except subprocess.TimeoutExpired:
            raise MachineError(f"'{command}' does not end") from None
        return Answer(done.returncode, (done.stdout + done.stderr).strip())

    def plug(self, files: Sequence[Path]) -> None:
        assert self._box
        # Filled before it is seen.
        self._inside(f"mkdir -p /run/stick {_STICK} && mount -t tmpfs -o noexec,nosuid,nodev stick /run/stick")
        for file in files:
            self._box.put(file, f"/run/stick/{file.name}")
        self._inside(f"mount --bind /run/stick {_STICK} && umount /run/stick")

    def pull(self) -> None:
        if self.run(f"mountpoint -q {_STICK}").status == 0:
            self._inside(f"umount --lazy {_STICK}")

    def digest(self, slot: str, size: int) -> str:
        with open(self._data / "Slots" / slot / "system.img", "rb") as file:
            return hashlib.sha256(file.read(size)).hexdigest()

    def cut(self) -> None:
        self._powered = False
        if self._box:
            self._box.cut()
        self._join()

    def close(self) -> None:
        self._powered = False
        if self._box:
            self._box.switch_off()
        self._join()
        self._place.close()

    def said(self) -> str:
        console = self._work / "console"
        return console.read_text(errors="replace")[-3000:] if console.exists() else ""

    @property
    def data(self) -> Path:
        """Its data partition, as it is seen from outside."""
        return self._data

    def _inside(self, command: str) -> None:
        answer = self.run(command)
        if answer.status != 0:
            raise MachineError(f"{command} ended with {answer.status}: {answer.text}")

    def _join(self) -> None:
        if self._loader:
            self._loader.join()
            self._loader = None

    def _load(self) -> None:
        """The boot loader: starts the slot that is to start, for as long as there is power."""
        while self._powered:
            start = self._choose()
            try:
                self._mount(start.slot)
                (self._work / "told/slot").write_text(f"{start.slot}\n", encoding="ascii")
                self.starts.append(start)
                self._box = Box(self._work / "root", self._work / "console", self._groups,
                                [f"--bind={self._data}:{DATA}", f"--bind-ro={self._work / 'told'}:{_TOLD}"],
                                name=f"{self.name}-{os.getpid()}", network=self._network)
                while self._box.ended is None:
                    if not self._powered:  # the power went while it was being switched on
                        self._box.cut()
                    time.sleep(0.02)
                if self._box.ended == 0:  # switched off
                    self._powered = False
            except (MachineError, OSError) as error:  # a slot that does not start; a watchdog would come to the next start
                with open(self._work / "console", "a", encoding="utf-8") as console:
                    console.write(f"loader: {error}\n")
                time.sleep(0.2)
            finally:
                self._unmount()

    def _choose(self) -> Start:
        """What boot.cmd does on the other machine."""
        known = dict(line.split("=", 1) for line in self._environment("fw_printenv").splitlines())
        slot, count = known["slot"], 0
        if known["upgrade_available"] == "1":
            count = int(known["bootcount"]) + 1
            changes = {"bootcount": count}
            if count > int(known["bootlimit"]):
                slot, count = ("B" if slot == "A" else "A"), 0
                changes = {"slot": slot, "upgrade_available": 0, "bootcount": 0}
            self._environment("fw_setenv", "-s", "-", text="".join(f"{name}={value}\n" for name, value in changes.items()))
        return Start(slot, count)

    def _environment(self, program: str, *options: str, text: str = "") -> str:
        done = subprocess.run([program, "-c", self._config, *options], input=text, capture_output=True, text=True, check=False)
        if done.returncode != 0:
            raise MachineError(f"{program}: {done.stderr.strip()}")
        return done.stdout

    def _mount(self, slot: str) -> None:
        work = self._work
        layers = f"lowerdir={work / 'slot/layer'}:{work / 'system'},upperdir={work / 'changes/files'},workdir={work / 'changes/work'}"
        for command in (["mount", "-o", "loop,ro", "-t", "ext4", self._data / "Slots" / slot / "system.img", work / "slot"],
                        ["mount", "-o", "loop,ro", "-t", "squashfs", work / "slot/root.squashfs", work / "system"],
                        ["mount", "-t", "tmpfs", "changes", work / "changes"], ["mkdir", work / "changes/files", work / "changes/work"],
                        ["mount", "-t", "overlay", "instrument", "-o", layers, work / "root"]):
            done = subprocess.run(command, capture_output=True, text=True, check=False)
            if done.returncode != 0:
                raise MachineError(f"slot {slot}: {done.stderr.strip()}")

    def _unmount(self) -> None:
        for name in ("root", "changes", "system", "slot"):
            subprocess.run(["umount", "--quiet", "--lazy", self._work / name], check=False, stderr=subprocess.DEVNULL)
