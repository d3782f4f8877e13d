"""The slot that the system runs from: who tells it, and that no install writes to it."""

import json
import os
import shutil

from support import NO_RESTART, PackageTest, faulty, read, write


class RunningSlot(PackageTest):
    def test_a_second_install_before_the_restart_goes_to_the_same_slot(self) -> None:
        instrument = self.updated()
        before = instrument.slot("A")
        for package, version in ((self.package, "3.045"), (self.newer, "3.046"), (self.newer, "3.046")):
            instrument.must_install(package)
            self.assertEqual(("B", version, before), (instrument.active(), instrument.startable_version(), instrument.slot("A")))
        instrument.restart()
        before = instrument.slot("B")
        instrument.must_install(self.older)
        self.assertEqual(("A", "3.044", before), (instrument.active(), instrument.startable_version(), instrument.slot("B")))

    def test_the_first_install_of_a_boot_remembers_what_ran_even_if_it_is_killed(self) -> None:
        instrument = self.updated()
        self.assertNotEqual(0, instrument.install(*faulty("symlink:1:power", self.package), *NO_RESTART)[0])
        instrument.must_install(self.newer)
        boot = read("/proc/sys/kernel/random/boot_id").decode().strip()
        self.assertEqual({"bootId": boot, "slot": "A"}, json.loads(read(instrument.slots, "running")))
        self.assertEqual("B", instrument.active())

    def test_the_boot_knows_better_than_the_link_and_the_command_line_better_than_the_file(self) -> None:
        for line, file, slot in (("quiet arbor.slot=B ro", None, "A"), ("x.arbor.slot=B", "B\n", "A"), ("", "A", "B"),
                                 ("arbor.slot=A", "B", "B"), ("arbor.slot=A arbor.slot=B", None, "A")):
            with self.subTest(line=line, file=file):
                instrument = self.updated(self.package)  # left alone, the next one would go to B
                running = "AB".replace(slot, "")
                before = instrument.slot(running)
                write(instrument.command_line, line)
                if file:
                    write(instrument.boot_file, file)
                for _ in range(2):
                    code, errors = instrument.install(*faulty("", self.newer), *NO_RESTART)
                    self.assertEqual((0, slot, "3.046", before), (code, instrument.active(), instrument.startable_version(),
                                                                  instrument.slot(running)), errors)

    def test_a_boot_that_cannot_be_right_refuses_the_install(self) -> None:
        instrument = self.updated()
        shutil.rmtree(os.path.join(instrument.slots, "B"), ignore_errors=True)
        remembered = os.path.join(instrument.slots, "running")
        before = instrument.slot("A")
        for path, text, complaint in (
                (instrument.command_line, "arbor.slot=C", r"the kernel command line .* names 'C' as the slot"),
                (instrument.command_line, "arbor.slot=", r"names ''"),
                (instrument.command_line, "arbor.slot=B", r"names slot B .* has no such slot"),
                (instrument.boot_file, "AB", r"boot names 'AB'"), (instrument.boot_file, "", r"boot names ''"),
                (remembered, "{", r"Slots/running is damaged"), (remembered, "[1]", r"Slots/running is damaged")):
            with self.subTest(path=path, text=text):
                kept = read(path).decode() if os.path.exists(path) else None
                write(path, text)
                code, errors = instrument.install(*faulty("", self.package), *NO_RESTART)
                self.assertRegex(errors, f"Failed: .*{complaint}")
                record = instrument.record()
                self.assertEqual((1, "A", before, "failed", ""), (code, instrument.active(), instrument.slot("A"),
                                                                  record["outcome"], record["slot"]))
                self.assertRegex(record["reason"], complaint)
                os.unlink(path) if kept is None else write(path, kept)
        self.assertEqual(0, instrument.install(*faulty("", self.package), *NO_RESTART)[0])

    def test_the_way_back_must_be_whole_before_what_starts_next_is_given_up(self) -> None:
        instrument = self.updated(self.package)
        os.unlink(os.path.join(instrument.slots, "A", "digest"))
        before = instrument.slot("B")
        code, errors = instrument.install(self.newer, *NO_RESTART)
        self.assertEqual((1, "B", before), (code, instrument.active(), instrument.slot("B")))
        self.assertIn("slot A, which the system runs from, is not complete", errors)

    def test_a_second_install_that_fails_leaves_what_runs(self) -> None:
        for fault in ("fsync:system.img:EIO", "pread:1:EIO"):
            instrument = self.updated(self.package)
            code, errors = instrument.install(*faulty(fault, self.newer), *NO_RESTART)
            self.assertEqual((1, "A", "3.044", {}), (code, instrument.active(), instrument.startable_version(),
                                                     instrument.slot("B")), errors)
        instrument = self.updated(self.package)  # what is found out before anything is written costs nothing
        self.assertEqual(1, instrument.install(self.newer, "--trust", instrument.packages, "--no-reboot")[0])
        self.assertEqual(("B", "3.045"), (instrument.active(), instrument.startable_version()))

    def test_on_a_storage_that_nothing_runs_from_what_starts_next_is_kept(self) -> None:
        instrument = self.instrument()
        for package, slot in ((self.older, "A"), (self.package, "B"), (self.newer, "A")):
            instrument.must_install(package)
            self.assertEqual(slot, instrument.active())
        self.assertEqual("", json.loads(read(instrument.slots, "running"))["slot"])
