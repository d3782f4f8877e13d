"""The peer: the distribution's rauc, with a bus of its own, a bundle of the payload and two slots that are files."""

import os
import subprocess
import time
from pathlib import Path

import dbus
from measuring import BARE

NAME = "de.pengutronix.rauc"
INSTALLER = f"{NAME}.Installer"
_BUS = """<busconfig>
  <type>system</type>
  <listen>unix:path={bus}</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow own="*"/>
    <allow send_destination="*"/>
    <allow send_type="signal"/>
    <allow receive_sender="*"/>
  </policy>
</busconfig>
"""
_SYSTEM = """[system]
compatible=bench
bootloader=noop
mountprefix={folder}/mounts
statusfile={folder}/status

[keyring]
path={folder}/cert.pem

[slot.rootfs.0]
device={folder}/A.img
type=raw
bootname=A

[slot.rootfs.1]
device={folder}/B.img
type=raw
bootname=B
"""
_MANIFEST = """[update]
compatible=bench
version=3.046

[bundle]
format=plain

[image.rootfs]
filename=system.img
"""


class Rauc:
    """Everything of it lies in `folder`."""

    def __init__(self, folder: Path, payload: Path) -> None:
        folder.mkdir()
        self._folder, self.bus = folder, folder / "bus"
        self._environment = {**BARE, "DBUS_SYSTEM_BUS_ADDRESS": f"unix:path={self.bus}"}
        self.bundle, self.slot = folder / "update.raucb", folder / "B.img"
        (folder / "mounts").mkdir()
        (folder / "bus.conf").write_text(_BUS.format(bus=self.bus))
        (folder / "system.conf").write_text(_SYSTEM.format(folder=folder))
        for slot in ("A.img", "B.img"):
            with open(folder / slot, "wb") as file:
                file.truncate(payload.stat().st_size)
        self._make_bundle(payload)
        self._processes: list[subprocess.Popen] = []

    def _make_bundle(self, payload: Path) -> None:
        key, certificate, content = (self._folder / name for name in ("key.pem", "cert.pem", "content"))
        _run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-keyout", key, "-out", certificate,
             "-subj", "/CN=bench", "-days", "36500")
        content.mkdir()
        os.link(payload, content / payload.name)
        (content / "manifest.raucm").write_text(_MANIFEST)
        _run("rauc", "--cert", certificate, "--key", key, "bundle", "--mksquashfs-args=-noI -noD -noF -noX", content, self.bundle)

    def check(self, bundle: Path) -> bool:
        """Whether the bundle by itself is signed by somebody who is trusted, and whole."""
        return subprocess.run(["rauc", "--keyring", self._folder / "cert.pem", "info", bundle], env=self._environment,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False).returncode == 0

    def start(self) -> float:
        """Starts bus and service; returns the seconds until the service can be asked."""
        begin = time.monotonic()
        self.bus.unlink(missing_ok=True)
        reader, writer = os.pipe()
        self._spawn("dbus-daemon", f"--config-file={self._folder}/bus.conf", "--nofork", "--nopidfile",
                    f"--print-address={writer}", pass_fds=(writer,))
        os.close(writer)
        with open(reader, "rb") as address:
            address.readline()  # it listens now
        bus = dbus.Connection(self.bus)
        bus.listen(f"type='signal',member='NameOwnerChanged',arg0='{NAME}'")
        self._spawn("rauc", f"--conf={self._folder}/system.conf", "--override-boot-slot=A", "service")
        while True:
            kind, head, _ = bus.receive()
            if kind == dbus.SIGNAL and b"NameOwnerChanged" in head:
                break
        taken = time.monotonic() - begin
        bus.close()
        return taken

    def stop(self) -> None:
        """Ends the service, and then its bus."""
        while self._processes:
            process = self._processes.pop()
            process.terminate()
            process.wait()

    @property
    def roots(self) -> list[int]:
        """Its processes while it waits for work."""
        return [process.pid for process in self._processes]

    def order(self) -> subprocess.Popen:
        """Orders the install, as a person does; the process ends with the install."""
        return subprocess.Popen(["rauc", "install", self.bundle], env=self._environment, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)

    def install(self) -> None:
        """Orders the install, and waits for it."""
        if self.order().wait() != 0:
            raise SystemExit("peers: rauc could not install")

    def connect(self) -> dbus.Connection:
        """A client that hears of progress."""
        bus = dbus.Connection(self.bus)
        bus.listen("type='signal',member='PropertiesChanged'")
        return bus

    def progress_times(self) -> list[float]:
        """Installs; returns when a client of the bus had each message of the progress."""
        bus, times = self.connect(), []
        order = self.order()
        while order.poll() is None or bus.has_message(0.2):
            if bus.has_message(0.01):
                kind, _, body = bus.receive()
                if kind == dbus.SIGNAL and b"Progress" in body:
                    times.append(time.monotonic())
        bus.close()
        return times

    def _spawn(self, *command: str, pass_fds: tuple[int, ...] = ()) -> None:
        self._processes.append(subprocess.Popen(command, env=self._environment, pass_fds=pass_fds, stdin=subprocess.DEVNULL,
                                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))


def latency(rauc: Rauc, count: int) -> list[float]:
    """Seconds from the write of a progress message, as the service sends them, until a client of the bus has it."""
    sender, receiver, taken = dbus.Connection(rauc.bus), rauc.connect(), []
    for number in range(count):
        time.sleep(0.02)
        begin = time.monotonic()
        sender.tell_progress(INSTALLER, number % 100, "Copying image to rootfs.1")
        while b"Progress" not in receiver.receive()[2]:
            pass
        taken.append(time.monotonic() - begin)
    sender.close()
    receiver.close()
    return taken


def _run(*command: object) -> None:
    done = subprocess.run([str(word) for word in command], env=BARE, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, check=False)
    if done.returncode != 0:
        raise SystemExit(f"peers: {command[0]} failed: {done.stdout}")
