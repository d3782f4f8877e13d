"""The host while the installer runs on its accessory: whatever becomes of that one, the host tells it and goes on."""

import contextlib
import json
import shutil
import tempfile
from pathlib import Path
from typing import Iterator

from installs import HALFWAY, STOPS, ended, job, jobs, stepped_package
from pair import stock
from pair_support import BUILT, CART, PALM, SERIAL, VERSION, PairCase, build_package, until
from simulation import furnish, gateway, paths, slots

REQUEST = {"serialNumber": SERIAL, "deviceModel": PALM.device.model}
NOBODY = {"serialNumber": "PM-999999", "deviceModel": PALM.device.model}
PORT = 5600
OTHER_ADDRESS = "10.77.0.9"
FORGED = json.dumps({"message": "Installed", "percent": 100, "done": True})
# Says what a program of the accessory's gets when it reports from an address: "refused", or "closed" by the other side.
STRANGER = f"""
import socket, sys
try:
    connection = socket.create_connection((sys.argv[1], {PORT}), 30, (sys.argv[2], 0))
except ConnectionRefusedError:
    sys.exit(print("refused"))
try:
    connection.sendall(sys.argv[3].encode())
    while connection.recv(100):
        pass
except ConnectionError:
    pass
print("closed")
"""


class Remote(PairCase):
    @classmethod
    def setUpClass(cls) -> None:
        graph = json.loads(CART.path(paths.GRAPH).read_text())
        node = next(node for node in graph["nodes"] if node["class"] == "ZNodeArborInstall")
        # Its own package is a script that nobody signed.
        node["config"].update(AccessoryPatienceSeconds=10, TrustedSigners="")
        furnish.write_json(CART.path(paths.GRAPH), graph)
        CART.run("reboot").check_returncode()
        build_package()
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(stepped_package(VERSION, stock.ensure(), PALM.device.board, Path(folder) / "stepped"), BUILT)

    @contextlib.contextmanager
    def standing_still(self) -> Iterator[tuple[str, str]]:
        """While the accessory's installer stands half-way: the job's id, and the watching process over there."""
        PALM.path(STOPS).write_text(HALFWAY, encoding="ascii")
        try:
            status, answer = gateway.post("remoteinstall", REQUEST, CART.gateway)
            self.assertEqual((200, True), (status, answer["messages"][0]["bSuccess"]), answer)
            identity = answer["operationId"]
            until(lambda: "T" in _states(_watcher()), "the accessory's installer stands still")
            until(lambda: job(identity, CART.gateway)["percent"] == 40, "half is told")
            yield identity, _watcher()
        finally:
            PALM.path(STOPS).unlink(missing_ok=True)
            if watcher := _watcher():
                PALM.run("kill", "-KILL", watcher)

    def assert_failed(self, identity: str) -> None:
        told = ended(identity, CART.gateway)
        self.assertEqual(("Failed", SERIAL), (told["state"], told["device"]))
        self.assertIn("does not report any more", told["reason"])
        self.assertFalse(gateway.get("status", CART.gateway)["updateInProgress"])

    def assert_next_ones_work(self) -> None:
        """An install on the host itself, and one on the accessory."""
        package = CART.path(paths.UPDATES / "own.pkg")
        package.write_text("#!/bin/sh\ncase $1 in --version) echo 9.1;; esac\n")
        package.chmod(0o755)
        until(lambda: "9.1" in gateway.updates(CART.gateway), "the host's own package is offered")
        answer = gateway.post("updatesystem", {"version": "9.1", "reboot": False}, CART.gateway)[1]
        self.assertEqual("Succeeded", ended(answer["operationId"], CART.gateway)["state"])
        package.unlink()
        until(lambda: CART.run("ssh", f"root@{PALM.station.address}", "true").returncode == 0, "the accessory is reached")
        self.assert_remote_install_works()
        self.assertEqual("Succeeded", jobs("RemoteInstall", CART.gateway)[0]["state"])

    def assert_host_stops_at_once(self) -> None:
        begin = len(CART.log)
        CART.run("reboot").check_returncode()
        self.assertIn("Graph was stopped", CART.log[begin:])
        self.assertNotIn("Stopping although", CART.log[begin:])

    def test_accessory_whose_installer_dies_or_whose_cable_is_cut_is_told_as_failed(self) -> None:
        for trouble in (_kill, _cut):
            with self.subTest(trouble.__name__):
                try:
                    with self.standing_still() as (identity, watcher):
                        trouble(watcher)
                        self.assert_failed(identity)
                finally:
                    PALM.switch_link(True)
                self.assert_host_stops_at_once()
                self.assert_next_ones_work()

    def test_others_change_nothing_of_a_remote_install(self) -> None:
        PALM.run("ip", "address", "add", f"{OTHER_ADDRESS}/24", "dev", "link0").check_returncode()
        self.addCleanup(PALM.run, "ip", "address", "del", f"{OTHER_ADDRESS}/24", "dev", "link0")
        own = CART.station.address
        with self.standing_still() as (identity, watcher):
            for request, reason in ((NOBODY, "was not found"), (REQUEST, "another accessory is being installed")):
                refused = gateway.post("remoteinstall", request, CART.gateway)[1]
                self.assertFalse(refused["messages"][0]["bSuccess"])
                self.assertIn(reason, job(refused["operationId"], CART.gateway)["reason"])
            for device, there, here, gets in ((PALM, own, OTHER_ADDRESS, "closed"), (CART, own, own, "closed"),
                                              (CART, "127.0.0.1", "127.0.0.1", "refused")):
                said = device.run("python3", "-c", STRANGER, there, here, FORGED)
                self.assertEqual(gets, said.stdout.strip())
            until(lambda: "is refused" in CART.log, "that is told")
            told = job(identity, CART.gateway)
            self.assertEqual(("Running", 40), (told["state"], told["percent"]))
            self.assertTrue(gateway.get("status", CART.gateway)["updateInProgress"])
            before = PALM.path(paths.HOST_PID).read_text()
            PALM.path(STOPS).unlink()
            PALM.run("pkill", "-CONT", "-P", watcher).check_returncode()
            self.assertEqual("Succeeded", ended(identity, CART.gateway)["state"])
            until(lambda: PALM.path(paths.HOST_PID).read_text() != before, "the accessory restarts")
        self.assertEqual(VERSION, slots.versions(PALM.path(paths.SLOTS))[slots.active(PALM.path(paths.SLOTS))])


def _watcher() -> str:
    """The process that stands over the install on the accessory, as its record tells it; empty when there is none."""
    try:
        record = json.loads(PALM.path(paths.SLOTS / "last.json").read_text(encoding="utf-8"))
    except FileNotFoundError:
        return ""
    return str(record["processId"]) if record["outcome"] == "running" else ""


def _states(parent: str) -> str:
    return PALM.run("ps", "-o", "stat=", "--ppid", parent).stdout if parent else ""


def _kill(watcher: str) -> None:
    PALM.run("kill", "-KILL", watcher).check_returncode()


def _cut(_watcher: str) -> None:
    PALM.switch_link(False)
