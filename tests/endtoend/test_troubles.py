"""Packages, sticks and installers that misbehave: each is reported, and the next good input works."""

import fcntl
import json
import os

from simulation import gateway, paths, sticks
from support import (PROGRESS, REJECTED, InstrumentCase, arborctl, both_slots, installed, outcomes, progress_client,
                     script_package, stick_package, wait_until)


class Troubles(InstrumentCase):
    def test_bad_files_on_a_stick_are_named_with_their_reason(self) -> None:
        whole = stick_package("3.046").read_bytes()
        cut = script_package("cut.pkg", "")
        cut.write_bytes(whole[:len(whole) // 2])
        files = {
            cut: ("3.046", REJECTED),
            script_package("fails.pkg", "exit 3"): ("unknown", REJECTED),
            script_package("babble.pkg", "echo no version"): ("unknown", REJECTED),
            script_package("liar.pkg", 'case $1 in --version) echo 9.1 ;; *) exit 1 ;; esac'): ("9.1", REJECTED),
            script_package("dead.pkg", "kill -9 $$"): ("unknown", REJECTED),
            script_package("plain.pkg", "echo 9.2", mode=0o644): None,
            script_package("other.bin", "echo 9.3"): None,
            stick_package("3.045"): None,
        }
        with gateway.Events() as events:
            sticks.attach(list(files))
            rejected, available = outcomes(events.next("updateavailable"))
        self.assertEqual({(path.name, *why) for path, why in files.items() if why}, rejected)
        self.assertEqual(["3.045"], available)

    def test_package_that_hangs_in_its_check_holds_up_nobody(self) -> None:
        release, begun = paths.RUNTIME / "release", paths.RUNTIME / "begun"
        hanging = script_package("hangs.pkg", f"touch {begun}\nwhile [ ! -e {release} ]; do sleep 0.1; done\necho 9.1")
        try:
            with gateway.Events() as events:
                sticks.attach([hanging])
                wait_until(begun.exists, "the check has begun")
                self.assertEqual("3.044", installed())
                self.assertEqual(0, arborctl("compare", "3.046", "3.044").returncode)
                sticks.attach([stick_package("3.045")], "usb2")
                self.assertEqual(["3.045"], outcomes(events.next("updateavailable"))[1])
                sticks.detach("usb1")  # pulled in the middle of its check, which ends with it
                gone = ("hangs.pkg", "unknown", REJECTED)
                events.next("updateavailable", lambda message: outcomes(message) == ({gone}, ["3.045"]))
        finally:
            release.touch()

    def test_failed_install_is_told_and_the_next_one_works(self) -> None:
        sticks.attach([stick_package("3.046")])
        wait_until(lambda: gateway.updates() == ["3.046"], "3.046 is announced")
        held = os.open(paths.SLOTS, os.O_RDONLY)
        try:
            fcntl.flock(held, fcntl.LOCK_EX)  # as a second installer holds it
            failed = arborctl("install", "3.046", "--no-reboot", "--wait")
        finally:
            os.close(held)
        self.assertEqual(1, failed.returncode, failed.stdout)
        self.assertIn("another install is running", failed.stdout)
        self.assertEqual("A", both_slots()[0])
        again = arborctl("install", "3.046", "--no-reboot", "--wait")
        self.assertEqual(0, again.returncode, again.stdout)
        self.assertEqual("B", both_slots()[0])

    def test_fifth_progress_client_waits_for_its_turn(self) -> None:
        release = paths.RUNTIME / "release"
        silent = script_package("silent.pkg", "case $1 in\n--version) echo 9.1;;\n--verify) ;;\n"
                                f"*) while [ ! -e {release} ]; do sleep 0.1; done;;\nesac\n")
        self.addCleanup(release.touch)
        sticks.attach([silent])
        wait_until(lambda: gateway.updates() == ["9.1"], "9.1 is announced")
        with gateway.Events() as events:
            self.assertEqual(200, gateway.post("updatesystem", {"version": "9.1", "reboot": False})[0])
            wait_until(PROGRESS.exists, "the relay listens")
            clients = [progress_client() for _ in range(5)]

            def says(client: int, message: str) -> None:
                clients[client].send(json.dumps({"message": message, "done": message == "end"}).encode())

            says(4, "fifth")
            for message in ("fourth", "fourth again"):
                says(3, message)
                self.assertEqual(message, events.next("progress")["message"])
            clients[0].close()
            self.assertEqual("fifth", events.next("progress")["message"])
            says(1, "end")
            self.assertTrue(events.next("progress")["done"])
        for client in clients:
            client.close()
