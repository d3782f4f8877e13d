"""Installing: the slots, the progress, and what must hold when the install is disturbed."""

import os
import shutil
import signal
from unittest import mock

from support import LIMIT, PackageTest, Instrument, Receiver, faulty

from arborinstaller import progress, settings
from arborinstaller.failure import Failure

INSTALLED = "Installed, takes effect at the next restart"
UNIX = ("--skip-verify", "--sock=1", "--addr=progress")


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

    def test_progress_arrives_whole_over_either_socket(self) -> None:
        for kind in ("unix", "tcp"):
            instrument = self.instrument()
            with self.subTest(kind), Receiver(instrument if kind == "unix" else None) as receiver:
                options = UNIX if kind == "unix" else ("--skip-verify", "--socket=2", "--addr=localhost",
                                                       f"--port={receiver.address[1]}")
                code, errors = instrument.install(self.package, *options, "--no-reboot")
            self.assertEqual((0, b"", ""), (code, receiver.torn, errors))
            self.assertEqual([(100, True)], [(end["percent"], end["done"]) for end in receiver.ends()])
            percents = [document["percent"] for document in receiver.documents]
            self.assertEqual(sorted(percents), percents)
            self.assertEqual({"header": "Installing 3.045", "message": INSTALLED, "percent": 100, "error": False,
                              "done": True, "spinner": False, "operation": "install"}, receiver.documents[-1])

    def test_a_receiver_that_lags_gets_fewer_documents_but_whole_ones_and_the_last(self) -> None:
        receiver = Receiver(self.instrument())
        sink = progress.ProgressSink(progress.Address(path=receiver.address))
        with mock.patch.object(progress, "_INTERVAL", 0):
            for percent in range(20):
                sink.offer(progress.Document("Installing", "\u00e4" * 1000, percent))
            with receiver:
                sink.finish(progress.Document("Installing", "end", 100, done=True))
        self.assertEqual(b"", receiver.torn)
        self.assertEqual([0, 100], [document["percent"] for document in receiver.documents])

    def test_settings_come_from_the_file_and_the_environment_and_errors_name_the_key(self) -> None:
        for content, problem in (('{"rebootCommand": []}', "rebootCommand: expected a command"), ("[1]", "an object"),
                                 ('{"stallSeconds": "x"}', "stallSeconds"), ('{"reboot": 1}', "unknown key 'reboot'"),
                                 ("{", "not a JSON"), ('{"trust": "/t", "rebootCommand": ["a b"]}', "")):
            with self.subTest(content), open(self.path("settings.json"), "w+", encoding="utf-8") as file:
                print(content, file=file, flush=True)
                if problem:
                    self.assertRaisesRegex(Failure, f"settings.json.*{problem}", settings.load, file.name)
                else:
                    self.assertEqual(settings.Settings("/t", ("a b",)), settings.load(file.name))
                    with mock.patch.dict(os.environ, {"ARBOR_REBOOT_COMMAND": "x 'y z'", "ARBOR_TRUST": "/u"}):
                        self.assertEqual(settings.Settings("/u", ("x", "y z")), settings.load(file.name))

    def test_an_install_goes_on_when_nobody_listens(self) -> None:
        for options in (UNIX, ("--skip-verify", "--sock=2", "--addr=127.0.0.1", "--port=1")):
            code, errors = self.instrument().install(self.package, *options, "--no-reboot")
            self.assertEqual(0, code)
            self.assertRegex(errors, "(?s)cannot be reached.*100 % Installed")

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
        instrument.install(self.package, "--skip-verify", "--no-reboot")
        instrument.install(self.package, "--skip-verify", "--no-reboot")
        before = instrument.tree()
        damaged = shutil.copy(self.package, self.path("damaged.pkg"))
        with open(damaged, "r+b") as file:
            file.seek(-70, os.SEEK_END)
            file.write(b"!")
        for command, text in (([damaged, "--trust", self.keys], "signature does not fit"),
                              ([self.package, "--trust", instrument.packages], "no trusted certificate"),
                              ([damaged, "--skip-verify", "--dry-run"], "image in the package is damaged")):
            code, errors = instrument.install(*command)
            self.assertEqual((1, before), (code, instrument.tree()), errors)
            self.assertIn(text, errors)
        self.assertIn("image in the package is damaged", instrument.install(damaged, "--skip-verify")[1])
        self.assertEqual(("B", "3.045", False), (instrument.active(), instrument.startable_version(),
                                                 os.path.exists(instrument.restarts)))


class Disturbed(PackageTest):
    def updated(self) -> Instrument:
        """An instrument that runs 3.044."""
        instrument = self.instrument()
        code, errors = instrument.install(self.older, "--skip-verify", "--no-reboot")
        self.assertEqual(0, code, errors)
        return instrument

    def test_whatever_stops_the_worker_is_reported_and_the_old_version_stays(self) -> None:
        for fault, text in (("fsync:6:kill", "ended by SIGKILL"), ("write:5:ENOSPC", "No space left on device"),
                            ("fsync:5:EIO", "Input/output error"), ("pread:2:EIO", "cannot be read any more"),
                            ("pread:2:truncate", "ended at byte"), ("replace:1:crash", "a fault in the installer"),
                            ("fsync:4:hold", "no progress for 1 s"), ("", "File too large")):
            with self.subTest(fault):
                instrument = self.updated()
                instrument.environment["STALL"] = "1" if "hold" in fault else "900"
                copy = shutil.copy(self.package, self.path("copy.pkg"))
                with Receiver(instrument) as receiver:
                    command = faulty(fault, copy) if fault else ["prlimit", "--fsize=1048576", copy]
                    code, errors = instrument.install(*command, *UNIX)
                self.assertEqual((1, "A", "3.044"), (code, instrument.active(), instrument.startable_version()), errors)
                self.assertEqual([(True, False)], [(end["error"], end["done"]) for end in receiver.ends()])
                self.assertIn(text, receiver.documents[-1]["message"])
                self.assertEqual([], os.listdir(os.path.join(instrument.slots, "B")))
                self.assertFalse(os.path.exists(instrument.restarts))

    def test_a_kill_at_any_step_leaves_a_whole_version(self) -> None:
        """Kills the worker, or worker and watcher as a power cut does, before each change of the storage."""
        for action in ("kill", "power"):
            instrument = self.updated()
            versions, errors, step = [], "", 0
            while "fault was not reached" not in errors:
                step += 1
                before = instrument.active()
                code, errors = instrument.install(*faulty(f"any:{step}:{action}", self.package), "--skip-verify",
                                                  "--no-reboot")
                with self.subTest(action=action, step=step):
                    versions.append(instrument.startable_version())
                    self.assertTrue(action == "power" or (code == 0) == (instrument.active() != before), errors)
            self.assertGreater(step, 20)
            self.assertEqual({"3.044", "3.045"}, set(versions))
            self.assertFalse([path for path in instrument.tree() if path.endswith((".partial", ".new"))])

    def test_an_install_refuses_a_second_one_survives_a_hang_up_and_can_be_cancelled(self) -> None:
        for number, version, code, message in ((signal.SIGHUP, "3.045", 0, INSTALLED),
                                               (signal.SIGTERM, "3.044", 1, "Failed: it was cancelled")):
            with self.subTest(number), Receiver(instrument := self.updated()) as receiver:
                first = instrument.start(*faulty("fsync:4:hold", self.package), *UNIX, "--no-reboot")
                receiver.wait_for(lambda document: document["spinner"] and document["percent"] == 80)
                self.assertIn("another install is running", instrument.install(self.older, "--skip-verify")[1])
                first.send_signal(number)
                if number == signal.SIGHUP:
                    instrument.let_go()
                _, errors = first.communicate(timeout=LIMIT)
            self.assertEqual((code, version), (first.returncode, instrument.startable_version()), errors)
            self.assertEqual([message], [end["message"] for end in receiver.ends()])
