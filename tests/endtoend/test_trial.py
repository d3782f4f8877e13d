"""Versions that have to prove themselves: confirmed, or back on the one before, whatever happens on the way."""

import os
import shutil
import signal
import subprocess

from installs import jobs
from signing import build, refusal
from simulation import gateway, host, paths, sticks
from support import InstrumentCase, arborctl, both_slots, configure, installed, stick_package, wait_until

BOTH = [stick_package(version) for version in ("3.045", "3.046")]


def standing() -> dict:
    """Where the version that runs stands; empty while the instrument restarts."""
    try:
        return gateway.post("slots")[1]
    except (OSError, TypeError, KeyError):
        return {}


def counters() -> str:
    """What the gateway counts, as text."""
    return subprocess.run(["curl", "--silent", "--unix-socket", str(paths.GATEWAY), "http://localhost/v1/metrics"],
                          check=True, capture_output=True, text=True).stdout


class Trial(InstrumentCase):
    TRUST = str(paths.TRUST)

    def setUp(self) -> None:
        super().setUp()
        sticks.attach(BOTH)
        wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "both versions are offered")

    def judge(self, **settings: object) -> None:
        """Other rules for trials, from the next start on."""
        configure("Trial", **settings)
        self.restart()
        wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "both versions are offered again")

    def install(self, version: str) -> None:
        """Installs it, and waits until the instrument has left what ran before."""
        before = host.running_pid()
        done = arborctl("install", version, "--wait")
        self.assertIn(done.returncode, (0, 3), done.stdout)  # 3: the restart came before the last word
        wait_until(lambda: host.running_pid() not in (before, None), "the instrument restarts")

    def cut(self) -> None:
        """A power cut, and the power comes back."""
        os.kill(host.running_pid(), signal.SIGKILL)
        wait_until(lambda: host.running_pid() is None, "the host is gone")
        self.process.wait()
        self.process = host.power_on()

    def trials(self) -> list[tuple[str, str]]:
        return [(job["version"], job["state"]) for job in jobs("Trial")]

    def exchange_another_image_for_the_one_taken_back(self) -> None:
        """Of the same version, once it is offered."""
        another = build(paths.STATE / "another" / "arbor-3.045.pkg", "3.045")
        drive = sticks.attach([another], paths.STICK_NAMES[1])
        wait_until(lambda: "3.045" in gateway.updates(), "another image of that version is offered")
        shutil.copyfile(stick_package("3.045"), drive / another.name)
        self.assertIn("was taken back", self.ordered(1, "install", "3.045", "--wait"))
        sticks.detach(paths.STICK_NAMES[1])
        wait_until(lambda: gateway.updates() == ["3.046"], "it is not offered any more")

    def test_one_that_does_not_measure_comes_back_and_one_that_does_is_confirmed(self) -> None:
        paths.FAULTS.write_text("3.045 no signal on channel 2\n")
        self.install("3.045")
        wait_until(lambda: standing().get("lastVersion") == "3.045" and installed() == "3.044", "the instrument is back")
        stands = standing()
        self.assertEqual(("confirmed", "reverted", "measures: no signal on channel 2"),
                         (stands["state"], stands["lastOutcome"], stands["lastReason"]))
        self.assertFalse(stands["lastAlike"])
        self.assertEqual(("A", {"A": "3.044", "B": "3.045"}), both_slots())
        self.assertIn("3.045 was taken back", arborctl("status").stdout)
        wait_until(lambda: ("3.045", "Failed") in self.trials() and gateway.updates() == ["3.046"], "it is not offered again")
        self.assertIn("came back to 3.044: measures: no signal on channel 2", jobs("Trial")[0]["reason"])
        self.assertEqual((0, 0), (jobs("Trial")[0]["startedAt"], jobs("Trial")[0]["took"]), "nobody knows")
        wait_until(lambda: "was taken back" in refusal("arbor-3.045.pkg"), "it is refused")
        self.ordered(1, "install", "3.045", "--wait")
        self.exchange_another_image_for_the_one_taken_back()

        self.ordered(0, "allow", "3.045")
        wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "it is offered again")
        self.ordered(1, "allow", "3.045")

        self.install("3.046")
        wait_until(lambda: standing().get("lastVersion") == "3.046", "the trial has ended")
        self.assertEqual(("confirmed", "confirmed"), (standing()["state"], standing()["lastOutcome"]))
        self.assertEqual(("B", {"A": "3.044", "B": "3.046"}), both_slots())
        wait_until(lambda: ("3.046", "Succeeded") in self.trials(), "the journal has it")
        self.cut()
        self.assertEqual(("3.046", "confirmed"), (installed(), standing()["state"]))
        metrics = counters()
        for sample in ("begun_total 2", "confirmed_total 1", 'taken_back_total{cause="check"} 1', 'taken_back_total{cause="starts"} 0'):
            self.assertIn(f"\narbor_trials_{sample}\n", metrics)
        self.assertIn("\narbor_trial_starts_used 0\n", metrics)

    def test_power_cuts_use_up_the_starts_and_orderly_restarts_do_not(self) -> None:
        self.judge(holdSeconds=3600, deadlineSeconds=0)
        self.install("3.046")
        wait_until(lambda: standing().get("state") == "trial", "it is on trial")
        self.assertEqual(0, subprocess.run([paths.INSTRUMENT / "reboot"], check=False).returncode)
        self.assertEqual(("trial", 1), (standing()["state"], standing()["attempt"]))
        for attempt in (2, 3):
            self.cut()
            self.assertEqual(("trial", attempt, "3.046"), (standing()["state"], standing()["attempt"], installed()))
        self.cut()
        self.assertEqual(("confirmed", "3.044"), (standing()["state"], installed()))
        self.assertIn("in 3 starts", standing()["lastReason"])
        wait_until(lambda: gateway.updates() == ["3.045"], "it is not offered again")

    def test_people_confirm_and_go_back_and_nothing_writes_over_the_way_back(self) -> None:
        self.judge(confirmByPerson=True, deadlineSeconds=0)
        self.ordered(1, "confirm")
        self.install("3.045")
        wait_until(lambda: standing().get("waiting") == "somebody who confirms it", "it waits for a person")
        wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "both versions are offered")
        self.assertIn("has not proved itself", self.ordered(1, "install", "3.046", "--wait"))
        self.ordered(0, "revert", "--reason", "too loud")
        wait_until(lambda: standing().get("lastOutcome") == "reverted" and installed() == "3.044", "the instrument is back")
        self.assertRegex(standing()["lastReason"], "^taken back by user .*: too loud$")

        wait_until(lambda: gateway.updates() == ["3.046"], "the other one is offered")
        self.install("3.046")
        wait_until(lambda: standing().get("waiting") == "somebody who confirms it", "it waits for a person")
        self.ordered(0, "confirm")
        wait_until(lambda: ("3.046", "Succeeded") in self.trials(), "the journal has it")
        self.assertEqual(("confirmed", "3.046"), (standing()["state"], installed()))

    def test_fault_of_the_instrument_is_not_the_versions(self) -> None:
        paths.FAULTS.write_text("3.046 no probe\n3.044 no probe\n")
        self.install("3.046")
        wait_until(lambda: standing().get("lastAlike"), "the version before fails in the same way")
        self.assertEqual(("confirmed", "3.044"), (standing()["state"], installed()))
        self.assertIn("fails in the same way", arborctl("slots").stdout)
        wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "it is offered again")

    def test_install_without_a_restart_is_undone(self) -> None:
        self.ordered(0, "install", "3.046", "--no-reboot", "--wait")
        wait_until(lambda: standing()["state"] == "installed", "it starts next")
        self.ordered(0, "revert")
        self.assertEqual(("confirmed", "A"), (standing()["state"], both_slots()[0]))
        self.ordered(1, "revert")
