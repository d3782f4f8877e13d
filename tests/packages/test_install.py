"""Installing: the slots, the settings, and what must hold when the work fails."""

import os
import shutil
import subprocess
import unittest
from unittest import mock

from support import UNIX, PackageTest, Receiver, faulty, read

from arborinstaller import settings, worker
from arborinstaller.failure import Failure
from arborinstaller.layout import Package


class Installing(PackageTest):
    def test_versions_go_to_the_slots_in_turn_and_the_instrument_restarts(self) -> None:
        instrument = self.instrument()
        for slot, options in (("A", ["--no-reboot"]), ("B", ["--no-reboot"]), ("A", [])):
            code, errors = instrument.install(self.package, "--trust", self.keys, *options)
            self.assertEqual((0, slot, "3.045"), (code, instrument.active(), instrument.startable_version()), errors)
            self.assertEqual(not options, os.path.exists(instrument.restarts))
        instrument.environment["ARBOR_REBOOT_COMMAND"] = "false"
        code, errors = instrument.install(self.package, "--skip-verify")
        self.assertEqual((1, "B"), (code, instrument.active()))
        self.assertIn("restart command false failed", errors)

    def test_settings_come_from_the_file_and_the_environment_and_errors_name_the_key(self) -> None:
        for content, problem in (('{"rebootCommand": []}', "rebootCommand: expected a command"), ("[1]", "an object"),
                                 ('{"stallSeconds": "x"}', "stallSeconds"), ('{"reboot": 1}', "unknown key 'reboot'"),
                                 ("{", "not a JSON"), ('{"runningSlotFile": "slot"}', "runningSlotFile: expected an absolute path"),
                                 ('{"acceptDevelopment": 1}', "acceptDevelopment: expected true or false"),
                                 ('{"slotDevices": {"A": "/dev/a"}}', "slotDevices: expected an object with the partitions of A and B"),
                                 ('{"trust": "/t", "rebootCommand": ["a b"], "trustState": "/s", "acceptDevelopment": true}', "")):
            with self.subTest(content), open(self.path("settings.json"), "w+", encoding="utf-8") as file:
                print(content, file=file, flush=True)
                if problem:
                    self.assertRaisesRegex(Failure, f"settings.json.*{problem}", settings.load, file.name)
                else:
                    expected = settings.Settings("/t", ("a b",), trustState="/s", acceptDevelopment=True)
                    self.assertEqual(expected, settings.load(file.name))
                    with mock.patch.dict(os.environ, {"ARBOR_REBOOT_COMMAND": "x 'y z'", "ARBOR_TRUST": "/u",
                                                      "ARBOR_TRUST_STATE": "", "ARBOR_ACCEPT_DEVELOPMENT": "0"}):
                        self.assertEqual(settings.Settings("/u", ("x", "y z"), trustState=""), settings.load(file.name))

    def test_nobody_else_can_hold_the_lock_and_keep_installs_away(self) -> None:
        instrument = self.instrument()
        os.mkdir(instrument.slots, 0o755)  # as an earlier installer made it: who may open a folder may lock it
        os.chmod(instrument.slots, 0o755)
        instrument.must_install(self.package)
        self.assertEqual(0o711, os.stat(instrument.slots).st_mode & 0o7777)

    @unittest.skipIf(os.geteuid() != 0, "partitions are root's")
    def test_slots_that_are_partitions_are_written_when_nobody_uses_them(self) -> None:
        first, second, small = (self.partition(name, size) for name, size in (("a", 8), ("b", 8), ("c", 1)))
        instrument = self.instrument()

        def install(package: str, **devices: str) -> tuple[int, str]:
            instrument.set(slotDevices=devices)
            return instrument.install(*faulty("", package), "--skip-verify", "--no-reboot")

        for devices, problem in (({"A": self.package, "B": second}, "is not a block device"), ({"A": first, "B": first}, "are one partition"),
                                 ({"A": small, "B": second}, "is too small")):
            code, errors = install(self.package, **devices)
            self.assertEqual((1, None), (code, instrument.active()))
            self.assertIn(problem, errors)
        used = os.open(first, os.O_RDONLY | os.O_EXCL)  # as a mount does
        self.assertIn("Device or resource busy", install(self.package, A=first, B=second)[1])
        os.close(used)
        for package, device, slot in ((self.package, first, "A"), (self.newer, second, "B")):
            code, errors = install(package, A=first, B=second)
            self.assertEqual(0, code, errors)
            payload = read(self.payload)
            self.assertEqual((payload, slot), (read(device)[:len(payload)], instrument.active()))
            self.assertEqual({"version", "digest"}, set(os.listdir(os.path.join(instrument.slots, slot))))

    def partition(self, name: str, mebibytes: int) -> str:
        """A block device of its own."""
        file = self.path(f"{name}.disk")
        with open(file, "wb") as disk:
            disk.truncate(mebibytes << 20)
        made = subprocess.run(["losetup", "--find", "--show", file], check=False, capture_output=True, text=True)
        if made.returncode != 0:
            self.skipTest(f"no loop device is to be had here: {made.stderr.strip()}")
        device = made.stdout.strip()
        self.addCleanup(subprocess.run, ["losetup", "--detach", device], check=True)
        return device

    def test_a_dry_run_changes_nothing(self) -> None:
        instrument = self.instrument()
        for _ in range(2):  # without slots, and with them
            before = instrument.tree()
            code, errors = instrument.install(self.package, "--skip-verify", "--dry-run")
            self.assertEqual((0, before), (code, instrument.tree()), errors)
            self.assertFalse(os.path.exists(instrument.restarts))
            instrument.install(self.package, "--skip-verify", "--no-reboot")

    def test_a_refused_package_says_why_and_leaves_both_slots(self) -> None:
        instrument = self.instrument()
        for _ in range(2):
            instrument.must_install(self.package)
        before = {name: instrument.slot(name) for name in ("A", "B")}
        with Package(self.package) as package:
            end = package.payload_end
        damaged, forged = (shutil.copy(self.package, self.path(name)) for name in ("damaged.pkg", "forged.pkg"))
        for path, at in ((damaged, end - 1), (forged, 30)):
            with open(path, "r+b") as file:
                file.seek(at)
                file.write(b"!")
        for command, text in (([forged, "--trust", self.keys], "signature does not fit"),
                              ([self.package, "--trust", instrument.packages], "no trusted certificate"),
                              ([damaged, "--skip-verify", "--dry-run"], "image in the package is damaged")):
            code, errors = instrument.install(*command)
            self.assertEqual((1, "B", before), (code, instrument.active(), {name: instrument.slot(name) for name in before}))
            self.assertIn(text, errors)
        # With the payload it is found out when it is read back, and the slot was given up by then.
        self.assertIn("image in the package is damaged", instrument.install(damaged, "--trust", self.keys)[1])
        self.assertEqual(("B", "3.045", False), (instrument.active(), instrument.startable_version(),
                                                 os.path.exists(instrument.restarts)))

    def test_it_is_the_storage_that_is_to_blame_when_the_image_in_the_package_is_whole(self) -> None:
        slot = shutil.copy(self.payload, self.path("slot.img"))
        with Package(self.package) as package:
            worker._check_image(package, slot, lambda *_: None)
            with open(slot, "r+b") as file:
                file.seek(-1, os.SEEK_END)
                file.write(bytes([read(self.payload)[-1] ^ 1]))
            with self.assertRaisesRegex(Failure, "slot.img: it does not hold the image: the storage wrote it wrongly"):
                worker._check_image(package, slot, lambda *_: None)


class Disturbed(PackageTest):
    def test_whatever_stops_the_worker_is_reported_and_the_old_version_stays(self) -> None:
        for fault, text in (("fsync:.digest:kill", "ended by SIGKILL"), ("write:3:ENOSPC", "system.img: No space left on device"),
                            ("fsync:system.img:EIO", "system.img: Input/output error"), ("pread:2:EIO", "cannot be read any more"),
                            ("pread:2:truncate", "ended at byte"), ("replace:/digest:crash", "a fault in the installer"),
                            ("fsync:system.img:hold", "no progress for 1 s"), ("", "system.img: File too large")):
            with self.subTest(fault):
                instrument = self.updated()
                instrument.set(stallSeconds=1 if "hold" in fault else 900)
                copy = shutil.copy(self.package, self.path("copy.pkg"))
                with Receiver(instrument) as receiver:
                    command = faulty(fault, copy) if fault else ["prlimit", "--fsize=1048576", copy]
                    code, errors = instrument.install(*command, *UNIX)
                self.assertEqual((1, "A", "3.044"), (code, instrument.active(), instrument.startable_version()), errors)
                self.assertEqual([(True, False)], [(end["error"], end["done"]) for end in receiver.ends()])
                self.assertIn(text, receiver.documents[-1]["message"])
                self.assertEqual({}, instrument.slot("B"))
                self.assertFalse(os.path.exists(instrument.restarts))
                record = instrument.record()
                self.assertEqual(("failed", "B"), (record["outcome"], record["slot"]))
                self.assertIn(text, record["reason"])
