"""Drives and uploads that misbehave: the device goes on, tells what it does, and holds on to nothing."""

import contextlib
import os
import shutil
import signal
import subprocess
import unittest
from pathlib import Path

from installs import ended, job, jobs, state_of
from simulation import gateway, paths, places, sticks
from support import InstrumentCase, outcomes, script_package, stick_package, wait_until

MOST_THREADS = 40
PLUGS = 100
BEGUN = paths.RUNTIME / "begun"
HANGS = f"case $1 in --version) echo 9.1;; *) touch {BEGUN}; sleep 1000;; esac"


class SilentDrive:
    """A stick whose file system is served by a process, which can be made to answer no more."""

    def __init__(self, files: list[Path]) -> None:
        self.folder = paths.STATE / "behind-usb1"
        self.folder.mkdir()
        for file in files:
            shutil.copy(file, self.folder)
        self.target = paths.STICKS / "usb1"
        places.make_directory(self.target)
        # In the foreground: the process is the drive.
        self._server = subprocess.Popen(["bindfs", "-f", "-o", "attr_timeout=0,entry_timeout=0",
                                         str(self.folder), str(self.target)])
        wait_until(lambda: sticks.is_attached("usb1"), "the drive is mounted")

    def falls_silent(self) -> None:
        os.kill(self._server.pid, signal.SIGSTOP)
        wait_until(lambda: state_of(self._server.pid) == "T", "it is silent")

    def answers_again(self) -> None:
        os.kill(self._server.pid, signal.SIGCONT)

    def is_pulled(self) -> None:
        if self._server.poll() is None:
            self._server.kill()
            self._server.wait()
            places.unmount(self.target)


@unittest.skipIf(paths.plain_mode() or not shutil.which("bindfs") or not os.path.exists("/dev/fuse"),
                 "no process can serve a drive here")
class Silent(InstrumentCase):
    def attach(self, *files: Path) -> SilentDrive:
        drive = SilentDrive(list(files))
        self.addCleanup(drive.is_pulled)
        return drive

    def test_drive_that_stops_answering_holds_up_nobody(self) -> None:
        drive = self.attach(stick_package("3.046"))
        wait_until(lambda: gateway.updates() == ["3.046"], "3.046 is offered")
        begin = usage(self.process.pid)
        drive.falls_silent()
        self.assertEqual("3.044", gateway.get("status")["installedVersion"])
        self.assertEqual(["3.046"], gateway.updates())
        self.assertEqual("3.044", gateway.post("getinstalledversioninfo")[1]["version"])
        refused = gateway.post("updatesystem", {"version": "3.046", "reboot": False})[1]
        self.assertFalse(refused["bSuccess"])
        told = job(refused["operationId"])
        self.assertEqual("Failed", told["state"])
        self.assertIn(str(drive.target), told["reason"])
        self.assertEqual(0, told["processId"])
        sticks.attach([stick_package("3.045")], "usb2")
        wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "the other stick's is offered")
        drive.answers_again()
        self.ordered(0, "install", "3.046", "--no-reboot", "--wait")
        drive.is_pulled()
        wait_until(lambda: gateway.updates() == ["3.045"], "what was on it is offered no more")
        wait_until(lambda: usage(self.process.pid)["children"] == 0, "no process is left")
        self.assertLessEqual(usage(self.process.pid)["threads"], begin["threads"] + 4)

    def test_pulling_a_silent_drive_ends_its_checks(self) -> None:
        silent = paths.RUNTIME / "silent"
        reads = script_package("reads.pkg", f"touch {BEGUN}; while [ ! -e {silent} ]; do sleep 0.1; done; exec cat \"$0\"")
        drive = self.attach(reads)
        wait_until(BEGUN.exists, "the check has begun")
        drive.falls_silent()
        silent.touch()
        check = jobs("Check")[0]
        self.assertEqual(("Running", str(drive.target / "reads.pkg")), (check["state"], check["file"]))
        drive.is_pulled()
        # It reads nothing any more a moment before its drive is known to have gone.
        self.assertIn(ended(check["id"])["state"], ("Cancelled", "Failed"))
        wait_until(lambda: not gateway.get("operations?state=Open")["operations"], "nothing is left open")
        wait_until(lambda: usage(self.process.pid)["children"] == 0, "no process is left")


class Plugs(InstrumentCase):
    def test_hundred_plugs_of_a_package_that_hangs_leave_nothing_behind(self) -> None:
        hangs = script_package("hangs.pkg", HANGS)
        with gateway.Events() as events:
            self.plug_and_pull(hangs, events)  # starts what stays from then on, such as the threads that check
            wait_until(lambda: usage(self.process.pid)["children"] == 0, "the check's processes have ended")
            begin = most = usage(self.process.pid)
            for _ in range(PLUGS):
                now = self.plug_and_pull(hangs, events)
                most = {key: max(most[key], now[key]) for key in most}
            self.assertLess(most["threads"], MOST_THREADS)
            self.assertLess(most["descriptors"], begin["descriptors"] + MOST_THREADS)
            self.assertLess(most["children"], MOST_THREADS)
            sticks.attach([stick_package("3.045")], "usb2")
            events.next("updateavailable", lambda message: outcomes(message) == (set(), ["3.045"]))
            for kind in begin:
                wait_until(lambda kind=kind: usage(self.process.pid)[kind] <= begin[kind], f"no more {kind} than before")
        self.assertEqual([], gateway.get("operations?state=Open")["operations"])

    def plug_and_pull(self, package: Path, events: gateway.Events) -> dict[str, int]:
        """What the host holds while the package of a stick hangs; the stick is gone then."""
        BEGUN.unlink(missing_ok=True)
        sticks.attach([package])
        wait_until(BEGUN.exists, "it hangs")
        holds = usage(self.process.pid)
        sticks.detach()
        events.next("operation", lambda told: (told["kind"], told["state"]) == ("Check", "Cancelled"))
        return holds

    def test_others_are_offered_while_one_hangs_and_how_far_the_scan_is_is_told(self) -> None:
        with gateway.Events() as events:
            sticks.attach([script_package("hangs.pkg", HANGS), stick_package("3.045"), stick_package("3.046")])
            wait_until(lambda: gateway.updates() == ["3.046", "3.045"], "the others of the stick are offered")
            scan = events.next("operation", lambda told: told["kind"] == "Scan" and told["message"].endswith(" of 3"))
            self.assertRegex(scan["message"], "checking [123] of 3")
            self.assertEqual(("Running", str(paths.STICKS / "usb1")), (job(scan["id"])["state"], scan["file"]))
            sticks.attach([script_package("other.pkg", "case $1 in --version) echo 9.2;; esac")], "usb2")
            wait_until(lambda: "9.2" in gateway.updates(), "the other stick's is offered")
            gateway.post("cancel", {"id": next(check["id"] for check in jobs("Check") if check["state"] == "Running")})
            self.assertEqual("Succeeded", ended(scan["id"])["state"])
            events.next("updateavailable")


class Uploads(InstrumentCase):
    def test_upload_is_checked_when_it_may_be_run_and_forgotten_when_it_goes(self) -> None:
        upload = paths.UPDATES / "late.pkg"
        shutil.copyfile(stick_package("3.045"), upload)
        with gateway.Events() as events:
            upload.chmod(0o755)
            events.next("updateavailable", lambda message: outcomes(message)[1] == ["3.045"])
            upload.unlink()
            events.next("updateavailable", lambda message: outcomes(message)[1] == [])
        self.assertEqual([], gateway.updates())


def usage(pid: int) -> dict[str, int]:
    """What a process holds: threads, descriptors, and processes that it started and that have not been waited for."""
    process = Path(f"/proc/{pid}")
    children = 0
    for task in (process / "task").iterdir():
        with contextlib.suppress(OSError):
            children += len((task / "children").read_text(encoding="ascii").split())
    return {"threads": len(list((process / "task").iterdir())), "descriptors": len(list((process / "fd").iterdir())),
            "children": children}
