"""The way of an update from the stick to the slot, as a user goes it."""

import shutil

from simulation import gateway, paths, sticks
from simulation.identity import INSTRUMENT
from support import REJECTED, TOO_OLD, InstrumentCase, both_slots, outcomes, stick_package

ALL = [stick_package(version) for version in ("3.001", "3.045", "3.046", "3.047")]


class Journey(InstrumentCase):
    def test_stick_is_announced_chosen_and_installed_into_the_other_slot(self) -> None:
        self.assertEqual(("A", {"A": "3.044", "B": "3.043"}), both_slots())
        with gateway.Events() as events:
            sticks.attach(ALL)
            rejected, available = outcomes(events.next("updateavailable"))
            self.assertEqual({("arbor-3.001.pkg", "3.001", TOO_OLD), ("arbor-3.047.pkg", "3.047", REJECTED)}, rejected)
            self.assertEqual(["3.046", "3.045"], available)

            self.ordered(0, "install", "3.046", "--no-reboot", "--wait")
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
            self.assertIn(version, self.ordered(code, "scan", str(stick / stick_package(version).name)))
        self.assertEqual(["3.046", "3.045"], gateway.updates())
        self.ordered(0, "scan", str(stick))
