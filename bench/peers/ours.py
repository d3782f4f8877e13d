"""Our side: a package of the payload, its installer, and a graph host with the graph that is delivered.

All of it on the simulated instrument, with its storage on the disk where the peer's slots are.
"""

import json
import os
import shutil
import socket
import subprocess
import time
from pathlib import Path

from measuring import BARE, until
from simulation import furnish, gateway, host, paths, slots
from simulation.identity import INSTRUMENT

VERSION, TIMED = "3.046", "3.047"
_TOOL = paths.PROJECT / "packages" / "arbor-pkg"
_KEYS = Path(os.environ["ARBOR_STICK_FILES"]).parent / "keys"
# An installer that only tells when it has told it.
_TIMED = """#!/usr/bin/python3
import json, os, socket, sys, time
if "--version" in sys.argv:
    print("{version}")
elif "--verify" not in sys.argv:
    relay = socket.socket(socket.AF_UNIX)
    relay.connect("{relay}")
    for number in range({count}):
        time.sleep(0.02)
        relay.sendall(json.dumps({{"header": "Installing", "message": f"Writing the image @{{time.monotonic()}}",
            "percent": number % 100, "error": False, "done": False, "spinner": False, "operation": "install"}}).encode())
    time.sleep(0.5)
    relay.sendall(json.dumps({{"header": "Installing", "message": "Failed: that was all", "percent": 0, "error": True,
        "done": False, "spinner": False, "operation": "install"}}).encode())
    sys.exit(1)
"""
RELAYED = 100


class Ours:
    """The instrument, furnished anew; what is on the disk lies in `folder`."""

    def __init__(self, folder: Path, payload: Path) -> None:
        folder.mkdir()
        self._stick = folder / "stick"
        self._stick.mkdir()
        self.package = self._stick / "arbor.pkg"
        _tool("build", "--version", VERSION, "--payload", payload, "-o", self.package)
        self._add_timed_installer()
        shutil.copytree(paths.STORAGE, folder / "storage", symlinks=True)
        for source, place in ((folder / "storage", paths.STORAGE), (self._stick, paths.STICKS / "usb1")):
            place.mkdir(exist_ok=True)
            subprocess.run(["mount", "--bind", source, place], check=True)
        self.package = paths.STICKS / "usb1" / self.package.name
        furnish.write_json(paths.CONFIG / "installer.json", {"runningSlotFile": str(paths.RUNNING_SLOT)})
        furnish.write_json(paths.GRAPH, _graph())

    def _add_timed_installer(self) -> None:
        file = self._stick / "timed.pkg"
        file.write_text(_TIMED.format(version=TIMED, relay=paths.ARCHIVE / "progress", count=RELAYED))
        file.chmod(0o755)
        _tool("sign", file, "--version", TIMED)

    def check(self, package: Path) -> bool:
        """Whether the package by itself is signed by somebody who is trusted, and whole."""
        return subprocess.run([package, "--verify", INSTRUMENT.board], env=BARE, stdout=subprocess.DEVNULL,
                              stderr=subprocess.DEVNULL, check=False).returncode == 0

    def install(self) -> None:
        """Runs the package's installer, and restarts into what it installed, as far as an installer can tell."""
        if subprocess.run([self.package, "--no-reboot"], env=BARE, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                          check=False).returncode != 0:
            raise SystemExit("peers: our installer could not install")

    def restart(self) -> None:
        """What a restart changes for installers."""
        paths.RUNNING_SLOT.write_text(slots.active() + "\n", encoding="ascii")

    @property
    def slot(self) -> Path:
        """The image that starts next."""
        return paths.SLOTS / slots.active() / "system.img"

    def start(self) -> float:
        """Starts the host; returns the seconds until it says that it is ready."""
        address = paths.RUNTIME / "ready"
        address.unlink(missing_ok=True)
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready:
            ready.bind(str(address))
            begin = time.monotonic()
            self._host = subprocess.Popen([paths.program("arbord"), "--graph", paths.GRAPH], env={**BARE, "NOTIFY_SOCKET": str(address)},
                                          stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while b"READY=1" not in ready.recv(4096):
                pass
            taken = time.monotonic() - begin
        paths.HOST_PID.write_text(str(self._host.pid), encoding="ascii")
        return taken

    def stop(self) -> None:
        """Ends it."""
        host.stop()
        self._host.wait()

    @property
    def roots(self) -> list[int]:
        """Its process while it waits for work."""
        return [self._host.pid]

    def wait_for_packages(self) -> None:
        """Returns when it offers what is on the stick."""
        until(lambda: {VERSION, TIMED} <= set(gateway.updates()), "the packages are offered")

    def order(self, version: str = VERSION) -> subprocess.Popen:
        """Orders the install, as a person does; the process ends with the install."""
        return subprocess.Popen([paths.program("arborctl"), "install", version, "--no-reboot", "--wait"], env=BARE,
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def order_and_wait(self) -> None:
        """Orders the install, and waits for it."""
        if self.order().wait() != 0:
            raise SystemExit("peers: arbord could not install")

    def progress(self, version: str = VERSION) -> list[tuple[float, dict]]:
        """Installs; returns each message of the progress, and when a client of the gateway had it."""
        found: list[tuple[float, dict]] = []
        with socket.socket(socket.AF_UNIX) as stream:
            stream.connect(str(paths.GATEWAY))
            stream.sendall(b"GET /v1/events HTTP/1.1\r\nHost: localhost\r\n\r\n")
            stream.settimeout(0.2)
            read = stream.recv(65536)
            order = self.order(version)
            while True:
                try:
                    read += stream.recv(65536)
                except TimeoutError:
                    if order.poll() is not None:
                        return found
                now = time.monotonic()
                *events, read = read.split(b"\n\n")
                found += [(now, json.loads(event[event.index(b"\ndata: ") + 7:])) for event in events
                          if b"event: progress\n" in event]


def latency(device: Ours) -> list[float]:
    """Seconds from an installer's write of a progress document until a client of the gateway has it."""
    found = device.progress(TIMED)
    return [now - float(message["message"].split("@")[1]) for now, message in found if "@" in message["message"]]


def _graph() -> dict:
    """The graph that is delivered, with this device's places, and without what needs a service manager."""
    graph = json.loads((paths.PROJECT / "host/system/graph.json").read_text(encoding="utf-8"))
    del graph["$schema"]
    graph["platform"] = {"eeprom": str(paths.EEPROM), "mounts": {paths.ARCHIVE_DEVICE: str(paths.STORAGE)}}
    graph["log"] = {"level": 2, "console": False, "journal": False, "file": str(paths.HOST_LOG)}
    for node in graph["nodes"]:
        if node["name"] == "ArborInstall":
            node["config"]["UnconfinedChecks"] = True
        if node["name"] == "Gateway":
            node["config"] = {"socketPath": str(paths.GATEWAY)}
    return graph


def _tool(*arguments: object) -> None:
    command = [str(_TOOL), *map(str, arguments), "--board", INSTRUMENT.board, "--key", str(_KEYS / "key.pem"),
               "--cert", str(_KEYS / "cert.pem")]
    subprocess.run(command, env=BARE, check=True, stdout=subprocess.DEVNULL)
