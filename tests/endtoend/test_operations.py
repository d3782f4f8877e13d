"""Installs in every trouble: what is told of each is what became of it."""

import contextlib
import hashlib
import os
import signal
import sqlite3
from pathlib import Path

from installs import HALFWAY, MOMENTS, Install, ended, is_alive, job, jobs, percent_of, stand_still_at, stepped_package
from simulation import gateway, host, paths, slots, sticks
from support import FIXTURES, PROGRESS, InstrumentCase, both_slots, wait_until

FIRST, SECOND = "3.046", "3.048"


class OperationsCase(InstrumentCase):
    """A stick with two versions is in."""

    def setUp(self) -> None:
        super().setUp()
        self.addCleanup(stand_still_at, "")
        sticks.attach([stepped_package(version, FIXTURES) for version in (FIRST, SECOND)])
        wait_until(lambda: gateway.updates() == [SECOND, FIRST], "both versions are offered")

    def start_host(self) -> None:
        self.process = host.start()
        wait_until(lambda: gateway.updates() == [SECOND, FIRST], "the versions are offered again")

    def restart_host(self) -> None:
        self.switch_off()
        self.start_host()

    def assert_goes_on(self, install: Install, percent: int) -> None:
        """The host tells the install as running, as far as it is."""
        wait_until(lambda: job(install.id)["percent"] >= percent, f"{percent} % are told")
        self.assertEqual(("Running", install.watcher), (job(install.id)["state"], job(install.id)["processId"]))
        self.assertTrue(gateway.get("status")["updateInProgress"])

    def assert_succeeds(self, install: Install, version: str) -> None:
        self.assertEqual(("Succeeded", ""), (ended(install.id)["state"], job(install.id)["reason"]))
        self.assertEqual(("B", {"A": "3.044", "B": version}), both_slots())
        wait_until(lambda: not is_alive(install.watcher), "the installer has ended")
        wait_until(lambda: not PROGRESS.exists(), "the relay is free")
        self.assertFalse(gateway.get("status")["updateInProgress"])

    def assert_fails(self, install: Install, *reasons: str) -> None:
        self.assertEqual("Failed", ended(install.id)["state"])
        for reason in reasons:
            self.assertIn(reason, job(install.id)["reason"])
        self.assertEqual("A", both_slots()[0])
        wait_until(lambda: not PROGRESS.exists(), "the relay is free")
        self.assertFalse(gateway.get("status")["updateInProgress"])

    def assert_next_install_works(self) -> None:
        self.assert_succeeds(Install(SECOND), SECOND)

    def assert_history(self, told: dict[str, str]) -> None:
        """The journal holds each install once, as it ended, and nothing that is still open."""
        self.restart_host()
        installs = jobs("Install")
        self.assertEqual(told, {install["id"]: install["state"] for install in installs})
        self.assertEqual(len(told), len(installs))
        self.assertEqual([], gateway.get("operations?state=Open")["operations"])


class Restarts(OperationsCase):
    def test_install_outlives_a_killed_host_at_ten_moments(self) -> None:
        told = {}
        for moment, later in zip(MOMENTS[1:11], MOMENTS[2:12]):
            with self.subTest(moment):
                install = Install(FIRST, until=moment)
                self.kill_host()
                self.start_host()
                self.assert_goes_on(install, 0)
                install.go_on(until=later)
                self.assert_goes_on(install, percent_of(later))
                install.go_on()
                self.assert_succeeds(install, FIRST)
                told[install.id] = "Succeeded"
        self.assert_history(told)

    def test_installer_is_found_that_the_host_did_not_come_to_note(self) -> None:
        install = Install(FIRST, until=HALFWAY)
        self.kill_host()
        with contextlib.closing(sqlite3.connect(paths.STATE / "journal.sqlite")) as journal, journal:
            journal.execute("UPDATE operations SET processId = 0, processStart = 0 WHERE id = ?", (install.id,))
        self.start_host()
        wait_until(lambda: job(install.id)["processId"] == install.watcher, "its process is known again")
        self.assert_goes_on(install, 0)
        install.go_on()
        self.assert_succeeds(install, FIRST)
        self.assert_history({install.id: "Succeeded"})

    def test_one_install_outlives_orderly_restarts_at_ten_moments(self) -> None:
        install = Install(FIRST, until=MOMENTS[0])
        for moment in MOMENTS[1:11]:
            self.restart_host()
            install.go_on(until=moment)
            self.assert_goes_on(install, percent_of(moment))
        install.go_on()
        self.assert_succeeds(install, FIRST)
        self.assert_history({install.id: "Succeeded"})

    def test_end_that_came_while_the_host_was_away_is_told(self) -> None:
        told = {}
        for name, until, end, state, reason in (
                ("ends well", HALFWAY, None, "Succeeded", ""),
                ("fails", HALFWAY, self.kill_worker, "Failed", "SIGKILL"),
                ("killed before the switch", "99 Switching to slot B", self.kill_watcher, "Failed",
                 "was ended before it had finished"),
                ("killed after the switch", "switched", self.kill_watcher, "Succeeded", "")):
            with self.subTest(name):
                install = Install(FIRST, until=until)
                self.kill_host()
                if end:
                    end(install)
                else:
                    install.go_on()
                wait_until(lambda gone=install.watcher: not is_alive(gone), "the installer has ended")
                self.start_host()
                self.assertEqual(state, ended(install.id)["state"])
                self.assertIn(reason, job(install.id)["reason"])
                self.assertEqual("B" if state == "Succeeded" else "A", slots.active())
                self.assertFalse(gateway.get("status")["updateInProgress"])
                told[install.id] = state
        self.assert_history(told)

    @staticmethod
    def kill_worker(install: Install) -> None:
        os.kill(install.worker, signal.SIGKILL)

    @staticmethod
    def kill_watcher(install: Install) -> None:
        os.kill(install.watcher, signal.SIGKILL)


class Together(OperationsCase):

    def test_installer_that_is_killed_has_failed_and_the_next_one_works(self) -> None:
        for name, killed in (("watcher", ("watcher",)), ("worker", ("worker",)), ("both", ("worker", "watcher"))):
            with self.subTest(name):
                install = Install(FIRST, until=HALFWAY)
                for process in killed:
                    os.kill(getattr(install, process), signal.SIGKILL)
                self.assert_fails(install, "SIGKILL")
                wait_until(lambda worker=install.worker: not is_alive(worker), "no worker goes on by itself")
                self.assert_next_install_works()

    def test_installs_without_restart_leave_the_running_slot_alone(self) -> None:
        before = _contents(paths.SLOTS / "A")
        for version in (FIRST, SECOND, FIRST):
            self.assert_succeeds(Install(version), version)
            self.assertEqual(before, _contents(paths.SLOTS / "A"))
            status = gateway.get("status")
            self.assertEqual(("3.044", "A", "B", version), tuple(status[key] for key in (
                "installedVersion", "runningSlot", "nextSlot", "nextVersion")))
            self.assertEqual([], status["operations"])


def _contents(folder: Path) -> dict[str, str]:
    """Digest of every file below a folder."""
    return {str(file.relative_to(folder)): hashlib.sha256(file.read_bytes()).hexdigest()
            for file in sorted(folder.rglob("*")) if file.is_file()}
