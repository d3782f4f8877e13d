"""What the end-to-end tests share: a freshly furnished instrument with its graph host, and packages of many kinds."""

import json
import os
import socket
import subprocess
from pathlib import Path

from common import GENEROUS, LoggedCase, wait_until
from simulation import furnish, gateway, host, paths, slots, sticks

FIXTURES = Path(os.environ["ARBOR_STICK_FILES"]).parent
PROGRESS = paths.ARCHIVE / "progress"
REJECTED = "ERRCODE_SYSUPDATE_INVALID_PACKAGE_FILE"
TOO_OLD = "ERRCODE_SYSUPDATE_VERSION_NOT_ALLOWED"


class InstrumentCase(LoggedCase):
    """Every test begins on an instrument as it left the factory, with arbord running, and ends with arbord ending well."""

    TRUST = ""
    """The folder of trusted signers; empty for tests whose packages are scripts that nobody signed."""

    def setUp(self) -> None:
        furnish.furnish(FIXTURES)
        configure("ArborInstall", TrustedSigners=self.TRUST)
        self.addCleanup(self._end)
        self._start()

    def restart(self) -> None:
        """Ends arbord, and starts it again."""
        self.switch_off()
        self._start()

    def ordered(self, code: int, *arguments: str) -> str:
        """What the client says to an order; it has to end with that code."""
        done = arborctl(*arguments)
        self.assertEqual(code, done.returncode, done.stdout)
        return done.stdout

    def kill_host(self) -> None:
        self.process.kill()
        self.process.wait()

    def switch_off(self) -> None:
        """Ends arbord in order."""
        host.stop()
        self.assertEqual(0, self.process.wait(), host.said())

    def _start(self) -> None:
        """A stick that comes during the start-up scan would be looked at twice: waits until that is over."""
        def scans() -> int:
            log = paths.LOGS / "arbord.log"
            return log.read_text(errors="replace").count("Scan drives Action complete") if log.exists() else 0
        before = scans()
        self.process = host.start()
        wait_until(lambda: scans() > before, "the start-up scan is over")

    def _end(self) -> None:
        for name in filter(sticks.is_attached, paths.STICK_NAMES):
            sticks.detach(name)
        host.stop()
        self.assertEqual(0, self.process.wait(), "arbord did not end well:\n" + host.said())


def configure(node: str, **settings: object) -> None:
    """Sets settings of a node in the graph file; what arbord reads at its next start."""
    graph = json.loads(paths.GRAPH.read_text())
    next(entry for entry in graph["nodes"] if entry["name"] == node)["config"].update(settings)
    furnish.write_json(paths.GRAPH, graph)


def arborctl(*arguments: str) -> subprocess.CompletedProcess:
    """Runs the client as a person would, both outputs in one text."""
    return subprocess.run([str(paths.program("arborctl")), *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                          stdin=subprocess.DEVNULL, text=True, timeout=GENEROUS, check=False)


def stick_package(version: str) -> Path:
    return FIXTURES / "stick" / f"arbor-{version}.pkg"


def script_package(name: str, text: str, mode: int = 0o755) -> Path:
    """A package file that is a shell script of the test's own."""
    path = paths.STATE / "test-packages" / name
    path.parent.mkdir(exist_ok=True)
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(mode)
    return path


def outcomes(announcement: dict) -> tuple[set[tuple[str, str, str]], list[str]]:
    """An announcement's rejected files (name, version, code) and its available versions in order."""
    messages = announcement["messages"]
    rejected = {(Path(message["versionType"]).name, message["version"], message["ErrCode"])
                for message in messages if message["versionType"] != "System"}
    return rejected, [message["version"] for message in messages if message["versionType"] == "System"]


def both_slots() -> tuple[str, dict[str, str]]:
    """The active slot's name, and what stands in each."""
    return slots.active(), slots.versions()


def installed() -> str:
    return gateway.post("getinstalledversioninfo")[1]["version"]


def progress_client() -> socket.socket:
    """A connection to the relay, as an installer makes one."""
    client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    wait_until(lambda: client.connect_ex(str(PROGRESS)) == 0, "the relay accepts")
    return client
