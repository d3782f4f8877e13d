"""How an install ends: killed at any step, orphaned, cancelled; and what its record says then."""

import fcntl
import os
import signal
import tempfile
import time

from support import INSTALLED, LIMIT, NO_RESTART, UNIX, Instrument, PackageTest, Receiver, faulty, read, wait_until, write

from arborinstaller.record import Record, end_of

MEMBERS = {"operation", "version", "outcome", "reason", "slot", "bootId", "processId", "startedAt", "endedAt"}


def is_held(slots: str) -> bool:
    """Whether an installer, or what it has started, may still change the slots."""
    folder = os.open(slots, os.O_RDONLY | os.O_DIRECTORY)
    try:
        fcntl.flock(folder, fcntl.LOCK_SH | fcntl.LOCK_NB)
        return False
    except BlockingIOError:
        return True
    finally:
        os.close(folder)


class Recorded(PackageTest):
    def test_the_record_says_who_asked_what_was_done_and_how_it_ended(self) -> None:
        instrument = self.updated()
        instrument.environment["ARBOR_OPERATION"] = "a7-\u00e9\n" + "Z" * 90
        instrument.environment["ARBOR_REBOOT_COMMAND"] = f"cp {instrument.slots}/last.json {instrument.restarts}"
        before = time.time_ns() // 1_000_000
        self.assertEqual(0, instrument.install(self.package, "--skip-verify")[0])
        record = instrument.record()
        self.assertEqual(MEMBERS, record.keys())
        self.assertEqual({"operation": "a7-" + "Z" * 61, "version": "3.045", "outcome": "succeeded", "reason": "", "slot": "B",
                          "bootId": read("/proc/sys/kernel/random/boot_id").decode().strip()},
                         {name: record[name] for name in ("operation", "version", "outcome", "reason", "slot", "bootId")})
        self.assertLessEqual(before, record["startedAt"])
        self.assertLessEqual(record["startedAt"], record["endedAt"])
        self.assertEqual(read(instrument.slots, "last.json"), read(instrument.restarts))  # it was there before the restart

    def test_what_does_not_get_to_install_leaves_the_record_of_what_does(self) -> None:
        instrument = self.updated()
        first = instrument.start(*faulty("fsync:system.img:hold", self.package), *NO_RESTART)
        instrument.wait_until_held()
        record = instrument.record()
        self.assertEqual(("", "3.045", "running", "B", first.pid, 0), tuple(record[name] for name in (
            "operation", "version", "outcome", "slot", "processId", "endedAt")))
        write(self.path("rubbish.pkg"), "rubbish")
        for command in ([self.newer], [self.newer, "--dry-run"], faulty("", self.path("rubbish.pkg"))):
            self.assertEqual(1, instrument.install(*command, *NO_RESTART)[0])
        self.assertEqual(record, instrument.record())
        instrument.let_go()
        first.communicate(timeout=LIMIT)
        self.assertEqual("succeeded", instrument.record()["outcome"])

    def test_a_record_that_cannot_be_written_does_not_fail_the_install(self) -> None:
        instrument = self.updated()
        fault = "watcher.replace:last.json:EROFS"
        code, errors = instrument.install(*faulty(fault, self.package), *NO_RESTART)
        self.assertEqual((0, "3.045", "succeeded"), (code, instrument.startable_version(), instrument.record()["outcome"]))
        self.assertIn("Read-only file system", errors)
        # The record of the one before is not taken for that of one which fails.
        code, _ = instrument.install(*faulty(fault, self.newer), "--trust", instrument.packages, "--no-reboot")
        self.assertEqual((1, "3.046", "failed"), (code, instrument.record()["version"], instrument.record()["outcome"]))

    def test_the_boot_loaders_program_ends_with_an_install_that_is_killed(self) -> None:
        instrument = self.updated()
        program, told = os.path.join(instrument.root, "loader"), os.path.join(instrument.root, "told")
        write(program, f'#!/bin/sh\nif [ "$*" = "activate B" ]; then echo $$ > {told}.new; mv {told}.new {told}; exec sleep 300; fi\n')
        os.chmod(program, 0o755)
        instrument.set(bootCommand=program)
        install = instrument.start(*faulty("", self.package), *NO_RESTART)
        wait_until(lambda: os.path.exists(told), "the loader is being told")
        install.kill()
        command = f"/proc/{read(told).decode().strip()}/cmdline"
        wait_until(lambda: not is_held(instrument.slots), "the slots are nobody's")
        self.assertFalse(os.path.exists(command) and read(command), "nobody goes on to switch")
        self.assertEqual("A", instrument.active())
        # What such a program leaves running does not keep the slots.
        write(program, "#!/bin/sh\nsleep 300 < /dev/null > /dev/null 2>&1 &\n")
        self.assertEqual(0, instrument.install(self.package, *NO_RESTART)[0])
        self.assertFalse(is_held(instrument.slots))

    def test_a_reason_can_be_read_by_every_program(self) -> None:
        instrument = self.updated()
        gone = os.path.join(self.folder, "gone-\udcff" + "x" * 200)
        with Receiver(instrument) as receiver:
            instrument.install(self.package, "--trust", gone, *UNIX[1:], "--no-reboot")
        for text in (instrument.record()["reason"], receiver.documents[-1]["message"]):
            self.assertRegex(text.encode().decode(), r"gone-\?x+")


class Killed(PackageTest):
    """Kills at each change of the storage: of the worker, of its watcher, or of both as a power cut does."""

    def check(self, template: Instrument, instrument: Instrument, version: str, code: int) -> None:
        """What must hold after a kill at any moment of an install on a copy of `template`."""
        old = template.record()
        started = instrument.startable_version()
        installed = instrument.active() == "B" and started == version and instrument.slot("B") != template.slot("B")
        self.assertIn(started, ("3.044", template.startable_version(), version))
        self.assertEqual(template.slot("A"), instrument.slot("A"))
        record = instrument.record()
        if record == old:
            self.assertFalse(installed)
            return
        self.assertEqual(version, record["version"])
        self.assertEqual("succeeded" if installed else "failed", end_of(Record(**record), instrument.active()))
        if record["outcome"] == "running":
            self.assertEqual((-signal.SIGKILL, 0), (code, record["endedAt"]))  # nobody was left to write more
        elif code >= 0:
            self.assertEqual(installed, code == 0)

    def check_each_step(self, template: Instrument, fault: str, package: str, version: str) -> list[tuple]:
        """Installs with the fault at one step after the other; returns what each left."""
        left, errors = [], ""
        while "fault was not reached" not in errors:
            instrument = template.copy(tempfile.mkdtemp(dir=self.folder))
            step = len(left) + 1
            code, errors = instrument.install(*faulty(fault.replace("N", str(step)), package), *NO_RESTART)
            with self.subTest(fault=fault, step=step):
                self.check(template, instrument, version, code)
            left.append((instrument.active(), instrument.startable_version(), sorted(instrument.slot("B"))))
        self.assertEqual(("B", version), (instrument.active(), instrument.startable_version()))
        self.assertGreater(step, 8)
        return left

    def test_a_first_install(self) -> None:
        template = self.updated()
        os.makedirs(os.path.join(template.slots, "B"), exist_ok=True)
        for fault in ("any:N:kill", "any:N:power", "watcher.any:N:power"):
            self.check_each_step(template, fault, self.package, "3.045")

    def test_a_second_install_before_the_restart(self) -> None:
        template = self.updated(self.package)
        for fault in ("any:N:kill", "watcher.any:N:power"):
            self.check_each_step(template, fault, self.newer, "3.046")
        # Without its watcher the worker does not even do the step that it was about to do.
        self.assertEqual(self.check_each_step(template, "any:N:power", self.newer, "3.046"),
                         self.check_each_step(template, "any:N:orphan", self.newer, "3.046"))

    def test_the_same_version_once_more_before_the_restart(self) -> None:
        self.check_each_step(self.updated(self.package), "any:N:power", self.package, "3.045")

    def test_an_orphaned_worker_does_not_turn_the_link(self) -> None:
        instrument = self.updated()
        code, _ = instrument.install(*faulty("replace:/active:orphan", self.package), *NO_RESTART)
        self.assertEqual((-signal.SIGKILL, "A", "running"), (code, instrument.active(), instrument.record()["outcome"]))


class Asked(PackageTest):
    """Signals to the watcher."""

    def test_an_install_refuses_a_second_one_survives_a_hang_up_and_can_be_cancelled(self) -> None:
        for signals, version, code, message, word in (
                ([signal.SIGHUP], "3.045", 0, INSTALLED, "succeeded"),
                ([signal.SIGTERM], "3.044", 1, "Failed: it was cancelled", "cancelled"),
                ([signal.SIGTERM] * 2, "3.044", 1, "Failed: it was cancelled", "cancelled"),
                ([signal.SIGINT], "3.044", 1, "Failed: it was cancelled", "cancelled")):
            with self.subTest(signals), Receiver(instrument := self.updated()) as receiver:
                first = instrument.start(*faulty("fsync:system.img:hold", self.package), *UNIX, "--no-reboot")
                receiver.wait_for(lambda document: document["spinner"] and document["percent"] == 80)
                self.assertIn("another install is running", instrument.install(self.older, "--skip-verify")[1])
                for number in signals:
                    first.send_signal(number)
                if code == 0:
                    instrument.let_go()
                _, errors = first.communicate(timeout=LIMIT)
            self.assertEqual((code, version, word), (first.returncode, instrument.startable_version(),
                                                     instrument.record()["outcome"]), errors)
            self.assertEqual([message], [end["message"] for end in receiver.ends()])
            self.assertEqual("" if code == 0 else "it was cancelled", instrument.record()["reason"])

    def test_a_request_to_cancel_comes_too_late_once_the_link_has_turned(self) -> None:
        # The last step makes the turned link durable: the third sync of the slots' folder itself by then.
        with Receiver(instrument := self.updated()) as receiver:
            fault = self.last_step_of(instrument)
            first = instrument.start(*faulty(fault, self.package), *UNIX, "--no-reboot")
            instrument.wait_until_held()
            self.assertEqual("B", instrument.active())
            first.send_signal(signal.SIGTERM)
            first.communicate(timeout=LIMIT)
        self.assertEqual((0, "succeeded"), (first.returncode, instrument.record()["outcome"]))
        self.assertEqual([INSTALLED], [end["message"] for end in receiver.ends()])

    def last_step_of(self, instrument: Instrument) -> str:
        """The fault that holds an install of the package after its link has turned."""
        step = 1
        while True:
            tried = instrument.copy(tempfile.mkdtemp(dir=self.folder))
            errors = tried.install(*faulty(f"fsync:{step}:power", self.package), *NO_RESTART)[1]
            if tried.active() == "B":
                return f"fsync:{step}:hold"
            self.assertNotIn("not reached", errors)
            step += 1

    def test_a_signal_while_the_instrument_restarts_changes_nothing(self) -> None:
        instrument = self.updated()
        write(restart := self.path("restart"), 'touch "$RELEASE.held"; while ! [ -e "$RELEASE" ]; do sleep 0.02; done; '
                                               f'touch {instrument.restarts}')
        instrument.environment["ARBOR_REBOOT_COMMAND"] = f"sh {restart}"
        first = instrument.start(self.package, "--skip-verify")
        instrument.wait_until_held()
        self.assertEqual("succeeded", instrument.record()["outcome"])
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGTERM):
            first.send_signal(number)
        instrument.let_go()
        first.communicate(timeout=LIMIT)
        self.assertEqual((0, True, "B", "succeeded"), (first.returncode, os.path.exists(instrument.restarts),
                                                       instrument.active(), instrument.record()["outcome"]))
