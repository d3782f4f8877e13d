"""The emulated machine: a board with an AArch64 processor, U-Boot, a disk with two slots, an SD card with the data, a watchdog and a USB port.

Nothing of it is a pretence of ours: the emulator's devices are driven by Debian's kernel, and the boot loader is Debian's U-Boot.
"""

import contextlib
import json
import re
import socket
import subprocess
import threading
import time
from pathlib import Path
from typing import Any, BinaryIO, Sequence

from . import debian
from .image import MACHINE, Factory
from .machine import Answer, Machine, MachineError, Start

_LOADER = Path("/usr/lib/u-boot/qemu_arm64/u-boot.bin")
_PROMPT = re.compile(rb"<(\d+)># ")
_STARTED = re.compile(rb"loader: slot=([AB]) start=(\d+) trial=[01]\r")
_LOADER_PROMPT = b"\n=> "
_MIB = 1 << 20
_CARD_MIB = 1024  # a power of two, as cards are
_COMMAND_SECONDS = 300.0


class Emulated(Machine):
    """One instrument. Its disks are made anew from what the factory has."""

    patience = 900.0  # an emulated second is a long one while others use the processor, too
    pause = 1.0       # and a look takes time from what is looked at
    idle_pause = 9.0

    def __init__(self, factory: Factory, cable: Sequence[Path] = ()) -> None:
        """`cable` has its own end and the other's, two sockets that the emulators make."""
        super().__init__(factory.model.device.name)
        self._place = contextlib.ExitStack()
        self._work = self._place.enter_context(debian.workplace("emulated"))
        self._emulator: subprocess.Popen[bytes] | None = None
        self._console: _Console | None = None
        self._monitor: _Monitor | None = None
        self._network = _network(*cable) if cable else []
        self._sticks = 0
        self._stick = ""
        _make_disk(factory, self._work)
        _make_card(factory, self._work)

    def power_on(self) -> None:
        work = self._work
        number = len(self.starts) + 1
        for name in ("console", "monitor"):
            (work / name).unlink(missing_ok=True)
        self._stick = ""
        with open(work / "emulator.log", "wb") as log:
            self._emulator = self._start(log)
        self._console = _Console(self._connect("console"), work / "console.log", self.starts)
        try:
            self._monitor = _Monitor(self._connect("monitor"))
        except MachineError as error:
            raise MachineError(f"{error}: {(work / 'emulator.log').read_text(errors='replace')}") from None
        self._monitor.ask("cont")
        self.wait_started(number)

    def _start(self, log: BinaryIO) -> subprocess.Popen[bytes]:
        work = self._work
        return subprocess.Popen(
            ["setpriv", "--pdeathsig", "KILL", "qemu-system-aarch64", "-M", "virt", "-cpu", "cortex-a53", "-smp", "2", "-m", "768",
             "-accel", "tcg,thread=multi", "-bios", str(_LOADER), "-nodefaults", "-display", "none",
             "-drive", f"if=none,id=disk,file={work}/disk.img,format=raw,cache=writeback", "-device", "virtio-blk-pci,drive=disk",
             "-drive", f"if=none,id=card,file={work}/card.img,format=raw,cache=writeback",
             # The board's own memory comes first, so that the card is the second, /dev/mmcblk1.
             "-drive", f"if=none,id=none,file={work}/none.img,format=raw", "-device", "sdhci-pci", "-device", "sd-card,drive=none",
             "-device", "sdhci-pci", "-device", "sd-card,drive=card",
             *self._network, "-device", "virtio-rng-pci", "-device", "qemu-xhci,id=usb", "-device", "i6300esb", "-action", "watchdog=reset",
             "-chardev", f"socket,id=console,path={work}/console,server=on,wait=off", "-serial", "chardev:console",
             "-qmp", f"unix:{work}/monitor,server=on,wait=off", "-S"],
            stdin=subprocess.DEVNULL, stderr=log)

    def wait_started(self, number: int) -> None:
        assert self._console
        self._console.wait_prompt(number, self.patience)

    def run(self, command: str) -> Answer:
        assert self._console
        return self._console.run(command)

    def plug(self, files: Sequence[Path]) -> None:
        """As people make them: FAT, without partitions."""
        assert self._monitor
        image = self._work / "stick.img"
        image.unlink(missing_ok=True)
        with open(image, "wb") as file:
            file.truncate((sum(path.stat().st_size for path in files) // _MIB * 11 // 10 + 40) * _MIB)
        debian.logged("mkfs.vfat", "-F", "32", "-n", "STICK", image)
        debian.logged("mcopy", "-i", image, *files, "::")
        self._sticks += 1
        self._stick = f"stick{self._sticks}"
        self._monitor.ask("blockdev-add", {"driver": "raw", "node-name": self._stick, "read-only": True, "file": {"driver": "file", "filename": str(image)}})
        self._monitor.ask("device_add", {"driver": "usb-storage", "id": f"{self._stick}-device", "drive": self._stick, "bus": "usb.0", "removable": True})

    def pull(self) -> None:
        assert self._monitor
        if self._stick:
            self._monitor.ask("device_del", {"id": f"{self._stick}-device"})
            self._monitor.wait_event("DEVICE_DELETED")
            monitor, stick = self._monitor, self._stick
            self.wait(lambda: monitor.ask("blockdev-del", {"node-name": stick}) is not None, "the emulator lets the stick go")
            self._stick = ""

    def digest(self, slot: str, size: int) -> str:
        return self.run(f"head -c {size} /dev/disk/by-partlabel/root{slot} | sha256sum").text.split()[0]

    def cut(self) -> None:
        if self._emulator:
            self._emulator.kill()
            self._emulator.wait()
            self._emulator = None
        for end in (self._console, self._monitor):
            if end:
                end.close()
        self._console = self._monitor = None

    def close(self) -> None:
        self.cut()
        self._place.close()

    def said(self) -> str:
        log = self._work / "console.log"
        return log.read_text(errors="replace")[-3000:] if log.exists() else ""

    def _connect(self, name: str) -> socket.socket:
        assert self._emulator
        deadline = time.monotonic() + 60
        while True:
            end = socket.socket(socket.AF_UNIX)
            try:
                end.connect(str(self._work / name))
                return end
            except OSError:
                end.close()
            if self._emulator.poll() is not None or time.monotonic() > deadline:
                raise MachineError(f"the emulator does not start: {(self._work / 'emulator.log').read_text(errors='replace')}")
            time.sleep(0.05)


class _Console:
    """The serial line. It is read all the time: a machine whose console nobody reads stands still."""

    def __init__(self, line: socket.socket, log: Path, starts: list[Start]) -> None:
        self._line = line
        self._changed = threading.Condition()
        self._text = b""  # since the last start, or the last command
        self._seen = 0    # of this text, what was searched for starts
        self._starts = starts
        self._prompt_of = 0  # the start whose prompt was seen last
        self._open = True
        self._log = open(log, "ab", buffering=0)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()

    def close(self) -> None:
        self._line.shutdown(socket.SHUT_RDWR) if self._open else None
        self._reader.join()
        self._line.close()
        self._log.close()

    def wait_prompt(self, number: int, patience: float) -> None:
        with self._changed:
            if not self._changed.wait_for(lambda: self._prompt_of >= number or not self._open, patience) or self._prompt_of < number:
                raise MachineError(f"start {number} did not come to a prompt; the end of the console: {self._text[-2000:].decode(errors='replace')}")

    def run(self, command: str) -> Answer:
        with self._changed:
            start = len(self._starts)
            if self._prompt_of < start:
                raise MachineError("the machine is starting")
            self._text, self._seen = b"", 0
            self._line.sendall(f"{command}\n".encode())
            found: list[re.Match[bytes]] = []

            def ended() -> bool:
                match = _PROMPT.search(self._text)
                found[:] = [match] if match else []
                return bool(match) or not self._open or len(self._starts) > start

            self._changed.wait_for(ended, _COMMAND_SECONDS)
            if not found or len(self._starts) > start:
                raise MachineError(f"'{command}' did not come to an end: {self._text[-500:].decode(errors='replace')}")
            return Answer(int(found[0][1]), self._text[:found[0].start()].replace(b"\r", b"").decode(errors="replace").strip())

    def _read(self) -> None:
        while True:
            try:
                data = self._line.recv(65536)
            except OSError:
                data = b""
            if data:
                self._log.write(data)
            with self._changed:
                self._text += data
                self._open = bool(data)
                self._look()
                self._changed.notify_all()
            if not data:
                return

    def _look(self) -> None:
        for match in _STARTED.finditer(self._text, self._seen):
            self._starts.append(Start(match[1].decode(), int(match[2])))
            self._seen = match.end()
        if self._text.endswith(_LOADER_PROMPT):
            self._line.sendall(b"boot\n")  # what was typed for the system came while the loader counted down, and stopped it
        prompt = _PROMPT.search(self._text, self._seen)
        if prompt and self._prompt_of < len(self._starts):
            self._prompt_of = len(self._starts)


class _Monitor:
    """The emulator's own control line."""

    def __init__(self, line: socket.socket) -> None:
        self._line = line
        self._line.settimeout(60)
        self._file: BinaryIO = line.makefile("rwb")
        self._events: list[str] = []
        self._file.readline()  # its greeting
        self.ask("qmp_capabilities")

    def close(self) -> None:
        self._file.close()
        self._line.close()

    def ask(self, command: str, arguments: dict[str, Any] | None = None) -> Any:
        self._file.write(json.dumps({"execute": command, "arguments": arguments or {}}).encode() + b"\n")
        self._file.flush()
        while True:
            told = self._next()
            if "error" in told:
                raise MachineError(f"{command}: {told['error']['desc']}")
            if "return" in told:
                return told["return"]

    def wait_event(self, name: str) -> None:
        while name not in self._events:
            self._next()
        self._events.remove(name)

    def _next(self) -> dict[str, Any]:
        try:
            line = self._file.readline()
        except OSError as error:
            raise MachineError(f"the emulator does not answer: {error}") from None
        if not line:
            raise MachineError("the emulator has ended")
        told = json.loads(line)
        if "event" in told:
            self._events.append(told["event"])
        return told


def _network(own: Path, other: Path) -> list[str]:
    end = f"local.type=unix,local.path={own},remote.type=unix,remote.path={other}"
    number = 1 if own < other else 2
    return ["-netdev", f"dgram,id=cable,{end}", "-device", f"virtio-net-pci,netdev=cable,romfile=,mac=52:54:00:00:00:0{number}"]


def _partition(image: Path, size: int, label: str, parts: list[tuple[str, int, Path | None]]) -> None:
    """Makes a disk of `size` MiB with partitions: name, size in MiB, what stands in it."""
    with open(image, "wb") as file:
        file.truncate(size * _MIB)
    named = (lambda name: f", name={name}") if label == "gpt" else (lambda name: "")
    table = f"label: {label}\n" + "".join(f"start={sum(part[1] for part in parts[:number]) + 1}MiB, size={part[1]}MiB{named(part[0])}\n"
                                          for number, part in enumerate(parts))
    subprocess.run(["sfdisk", "--quiet", image], input=table.encode(), check=True)
    offset = 1
    for _, length, content in parts:
        if content:
            debian.logged("dd", f"if={content}", f"of={image}", "bs=1M", f"seek={offset}", "conv=notrunc,sparse")
        offset += length


def _make_disk(factory: Factory, work: Path) -> None:
    first = factory.image(factory.model.installed)
    script, loader = work / "boot.scr", work / "loader.img"
    debian.logged("mkimage", "-A", "arm64", "-T", "script", "-C", "none", "-d", MACHINE / "boot.cmd", script)
    with open(loader, "wb") as file:
        file.truncate(16 * _MIB)
    debian.logged("mkfs.vfat", "-n", "BOOT", loader)
    debian.logged("mcopy", "-i", loader, script, "::boot.scr")
    slot = first.stat().st_size // _MIB + 32
    _partition(work / "disk.img", 16 + 1 + 2 * slot + 2, "gpt", [
        ("boot", 16, loader), ("env", 1, factory.folder / "environment.bin"), ("rootA", slot, first), ("rootB", slot, first)])
    loader.unlink()


def _make_card(factory: Factory, work: Path) -> None:
    data = work / "data.img"
    size = _CARD_MIB - 2 * 8 - 2
    with open(data, "wb") as file:
        file.truncate(size * _MIB)
    debian.logged("mkfs.ext4", "-q", "-F", "-L", "data", "-E", "root_owner=0:0", "-d", factory.data, data)
    _partition(work / "card.img", _CARD_MIB, "dos", [("", 8, None), ("", 8, None), ("", size, data)])
    data.unlink()
    with open(work / "none.img", "wb") as file:
        file.truncate(4 * _MIB)
