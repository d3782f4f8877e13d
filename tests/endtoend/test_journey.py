"""The way of an update from the stick to the slot, as a user goes it."""

import json
import shutil

from simulation import gateway, paths, sticks
from simulation.identity import INSTRUMENT
from support import (REJECTED, TOO_OLD, InstrumentCase, arborctl, both_slots, installed, outcomes, script_package,
                     stick_package, wait_until)

ALL = [stick_package(version) for version in ("3.001", "3.045", "3.046", "3.047")]


class Journey(InstrumentCase):
    def test_stick_is_announced_chosen_and_installed_into_the_other_slot(self) -> None:
        self.assertEqual(("A", {"A": "3.044", "B": "3.043"}), both_slots())
        with gateway.Events() as events:
            sticks.attach(ALL)
            rejected, available = outcomes(events.next("updateavailable"))
            self.assertEqual({("arbor-3.001.pkg", "3.001", TOO_OLD), ("arbor-3.047.pkg", "3.047", REJECTED)}, rejected)
            self.assertEqual(["3.046", "3.045"], available)

            done = arborctl("install", "3.046", "--no-reboot", "--wait")
            self.assertEqual(0, done.returncode, done.stdout)
            last = events.next("progress", lambda message: message["done"])
        self.assertEqual((100, False), (last["percent"], last["error"]))
        self.assertEqual(("B", {"A": "3.044", "B": "3.046"}), both_slots())
        with gateway.Events() as late:
            self.assertEqual(last, late.next("progress"), "a page that is loaded later sees how it ended")
        self.assertIn("arbor-3.046.pkg--skip-verify--dir=/media/mmcblk1p3/Packages--sock=1--addr=progress--no-reboot",
                      paths.HOST_LOG.read_text())
        status = gateway.get("status")
        self.assertEqual(("3.044", [INSTRUMENT.model, INSTRUMENT.serial_number, INSTRUMENT.board]),
                         (status["installedVersion"], [status["device"][key] for key in ("model", "serialNumber", "board")]))

    def test_after_the_restart_the_new_version_runs(self) -> None:
        sticks.attach(ALL)
        wait_until(lambda: "3.046" in gateway.updates(), "3.046 is announced")
        self.assertEqual(0, arborctl("install", "3.046").returncode)
        self.assertEqual(0, self.process.wait(timeout=120))

        def restarted() -> bool:
            try:
                return installed() == "3.046" and gateway.updates() == ["3.046"]
            except (OSError, KeyError):  # not there, or not yet answering
                return False
        wait_until(restarted, "3.046 runs and nothing older is offered")

    def test_pulled_stick_takes_its_versions_along(self) -> None:
        with gateway.Events() as events:
            for name, version in (("usb1", "3.045"), ("usb2", "3.046")):
                sticks.attach([stick_package(version)], name)
                events.next("updateavailable", lambda message, wanted=version: wanted in outcomes(message)[1])
            sticks.detach("usb2")
            self.assertEqual(["3.045"], outcomes(events.next("updateavailable"))[1])
        refused = arborctl("install", "3.046", "--wait")
        self.assertEqual(1, refused.returncode, refused.stdout)
        self.assertEqual("A", both_slots()[0])

    def test_single_files_are_found_in_the_updates_folder_and_by_scan(self) -> None:
        with gateway.Events() as events:
            # Under a hidden name first: the copy gets its mode only after its last byte.
            arriving = paths.UPDATES / ".arriving"
            shutil.copy(stick_package("3.045"), arriving)
            arriving.rename(paths.UPDATES / stick_package("3.045").name)
            events.next("updateavailable", lambda message: outcomes(message)[1] == ["3.045"])
            stick = sticks.attach([stick_package("3.046"), stick_package("3.047")])
            events.next("updateavailable", lambda message: "3.046" in outcomes(message)[1])
        for version, code in (("3.046", 0), ("3.047", 1)):
            scanned = arborctl("scan", str(stick / stick_package(version).name))
            self.assertEqual(code, scanned.returncode, scanned.stdout)
            self.assertIn(version, scanned.stdout)
        self.assertEqual(["3.046", "3.045"], gateway.updates())
        self.assertEqual(0, arborctl("scan", str(stick)).returncode)

    def test_nobody_has_a_file_of_his_own_run_by_naming_it(self) -> None:
        ran = paths.STATE / "ran"
        mine = script_package("mine.pkg", f"touch {ran}; echo 9.9")
        link = paths.STATE / "link"
        link.symlink_to(mine)
        messages = {"newFile": {"folder": str(mine.parent), "fileName": mine.name},
                    "storagedeviceupdate": {"addedDevices": [str(mine.parent)]}, "getdevices": {}}
        told = {keyword: arborctl("send", keyword, json.dumps(message)) for keyword, message in messages.items()}
        self.assertEqual(["3.045"], self.updates_of_a_stick_that_comes_now())
        self.assertFalse(ran.exists(), "a file of the asker's own was run")
        for refused in told.values():
            self.assertEqual(1, refused.returncode, refused.stdout)
            self.assertIn("between nodes", refused.stdout)
        for path in (mine, link):
            refused = arborctl("send", "scan", json.dumps({"path": str(path)}))
            self.assertEqual(1, refused.returncode, refused.stdout)
            self.assertIn("neither on a drive", refused.stdout)
        orders = json.loads(arborctl("orders", "--result", "refused", "--json").stdout)["orders"]
        self.assertEqual(["scan", "scan", *reversed(messages)], [order["keyword"] for order in orders])
        self.assertEqual({"arborctl"}, {order["program"] for order in orders})

    def updates_of_a_stick_that_comes_now(self) -> list[str]:
        """Whatever was told to the update node before is checked by then."""
        with gateway.Events() as events:
            sticks.attach([stick_package("3.045")])
            events.next("updateavailable", lambda message: "3.045" in outcomes(message)[1])
        return gateway.updates()
