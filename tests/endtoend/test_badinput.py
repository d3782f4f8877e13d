"""Hostile texts, requests, clients and disks: each is told of, nothing hangs, and the next good input works."""

import contextlib
import json
import os
import re
import signal
import socket
from pathlib import Path
from typing import Iterator

from simulation import gateway, host, paths, places, sticks
from support import (PROGRESS, REJECTED, InstrumentCase, outcomes, progress_client, script_package, stick_package,
                     wait_until)

LOG_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} [TDIWE] (?!ZForged)\w+ [\w/]+ (?:\w+|operator\(\)):\d+ .*")
MEBIBYTE = 1 << 20


def forged(name: str, line_breaks: str = "\n\r\x85\u2028") -> str:
    """A text that carries a whole log line of its own, behind each of the characters that viewers break lines at."""
    return "".join(f"{line_break}2026-01-01 00:00:00.000 E ZForged Forged Forged:1 {name}" for line_break in line_breaks)


def logged() -> str:
    """All of the host's log."""
    return "".join(file.read_bytes().decode(errors="replace") for file in paths.LOGS.glob("arbord*.log"))


def package(name: str, version: str, verify: str = "", install: str = "") -> Path:
    """A package file that does as told at each of the three ways in which it is called."""
    return script_package(name, f"case $1 in\n--version) {version};;\n--verify) {verify or ':'};;\n*) {install or ':'};;\nesac\n")


class BadInput(InstrumentCase):

    @contextlib.contextmanager
    def installing(self, install: str = "") -> Iterator[gateway.Events]:
        """While the relay of an install runs, whose package does as told; a client's last document ends it."""
        runs = paths.RUNTIME / "runs"
        lives = f"touch {runs}; {install or ':'}; while [ -e {runs} ]; do sleep 0.1; done"
        sticks.attach([package("installs.pkg", "echo 9.1", install=lives)], "usb2")
        wait_until(lambda: "9.1" in gateway.updates(), "the package is announced")
        with gateway.Events() as events:
            wait_until(lambda: gateway.post("updatesystem", {"version": "9.1"})[1]["bSuccess"],
                       "the installer before it has ended, and the install begins")
            wait_until(PROGRESS.exists, "the relay listens")
            yield events
            wait_until(lambda: runs.exists() and not PROGRESS.exists(), "the relay ends")
            runs.unlink()
        sticks.detach("usb2")
        wait_until(lambda: "9.1" not in gateway.updates(), "the package is forgotten")

    def test_text_from_outside_forges_no_log_line(self) -> None:
        sticks.attach([package(f"a{forged('file', chr(10))}.pkg", "exit 3"), package("b.pkg", f"echo '9.2{forged('version')}'"),
                       package("c.pkg", f"echo '{forged('complaint')}' >&2; exit 3"),
                       package("d.pkg", "echo 9.3", f"echo '{forged('verify')}'; exit 1")])
        wait_until(lambda: gateway.updates() == ["9.2" + forged("version")], "the odd version is announced")
        expected = {"file", "version", "complaint", "verify", "header", "message"}
        for keyword, fields in (("compareversions", "version1"), ("updatesystem", "version serialNumber"),
                                ("checkCompatibility", "version")):
            gateway.post(keyword, {field: forged(keyword + field) for field in fields.split()})
            expected |= {keyword + field for field in fields.split()}
        if not paths.plain_mode():
            stick = paths.STICKS / ("a" + forged("label", "\n"))
            stick.mkdir()
            self.addCleanup(stick.rmdir)
            places.move(paths.STICKS / "usb1", stick)
            self.addCleanup(places.unmount, stick)
            expected.add("label")
        with self.installing() as events, progress_client() as client:
            client.send(json.dumps({"header": forged("header", "\n"), "message": forged("message"), "done": True}).encode())
            self.assertEqual(forged("message"), events.next("progress")["message"])
        wait_until(lambda: expected <= set(re.findall(r"Forged:1 (\w+)", logged())), f"{expected} are logged", logged)
        for text in (logged(), paths.HOST_CONSOLE.read_text(errors="replace")):
            self.assertEqual([], [line for line in text.splitlines() if not LOG_LINE.fullmatch(line)])

    def test_hostile_progress_is_dropped_and_clients_that_stay_hold_up_nobody(self) -> None:
        documents = {
            b'{"message":"first","message":"second"}': "second", b'{"message":"a\\u0000b"}': "a\0b", b'{"message":7}': "",
            b'{"message":"far","percent":4294967296}': "far", b'{"done":"true","message":"not yet"}': "not yet",
            b'{"message":"wide","percent":1e400}': "wide", b'{"message":"deep","x":' + b"[" * 900: None,
            b'{"message":"\xff"}': None, b'["list"]': None, b"\0" * 1000: None}
        stayed = paths.RUNTIME / "stayed"
        with self.installing(f"sleep 600 & echo $! > {stayed}; head -c 20000000 /dev/zero") as events, \
                progress_client() as client:
            half = self.enterContext(progress_client())
            half.send(b'{"message":"half a docu')
            for document, message in documents.items():
                with self.subTest(document[:40]):
                    with progress_client() as bad:
                        bad.sendall(document)
                    client.send(b'{"message":"good"}')
                    relayed = ["good"] if message is None else ["good", message]
                    self.assertCountEqual(relayed, [events.next("progress")["message"] for _ in relayed])
            wait_until(lambda: logged().count("dropping message") == 5, "the bad ones are dropped", logged)
            crowd = [socket.socket(socket.AF_UNIX, socket.SOCK_STREAM | socket.SOCK_NONBLOCK) for _ in range(20)]
            for one in crowd:  # more than may wait, too: those are turned away
                one.connect_ex(str(PROGRESS))
            for one in crowd:
                one.close()
            with progress_client() as flood:
                flood.sendall(b"x" * 50 * MEBIBYTE)
            client.send(b'{"message":"end","done":true}')
            self.assertEqual("end", events.next("progress")["message"])
        wait_until(stayed.exists, "the package has left its child")
        self.addCleanup(os.kill, int(stayed.read_text()), signal.SIGKILL)
        with self.installing() as events, progress_client() as client:  # one client of the first is still there
            client.send(b'{"message":"again","done":true}')
            events.next("progress", lambda message: message["message"] == "again")

    def test_package_of_a_stick_that_is_pulled_in_its_check_is_not_offered(self) -> None:
        begun = paths.RUNTIME / "begun"
        slow = package("slow.pkg", "echo 9.1", f"touch {begun}; while :; do sleep 0.1; done")
        with gateway.Events() as events:
            sticks.attach([stick_package("3.045"), slow])
            wait_until(begun.exists, "the check has begun")
            sticks.detach()
            # The check ends with its drive; the stick is forgotten. Which is told first does not matter.
            told = [outcomes(events.next("updateavailable")) for _ in range(2)]
            self.assertCountEqual([{("slow.pkg", "9.1", REJECTED)}, set()], [rejected for rejected, _ in told])
            self.assertEqual([], told[1][1])
            self.assertEqual([], gateway.updates())
            sticks.attach([stick_package("3.045")])
            events.next("updateavailable", lambda message: outcomes(message) == (set(), ["3.045"]))

    def test_full_updates_folder_refuses_a_file_and_takes_it_once_there_is_room(self) -> None:
        if paths.plain_mode():
            self.skipTest("nothing can be mounted here")
        self.switch_off()
        places.mount("updates", paths.UPDATES, "size=6m")
        self.addCleanup(places.unmount, paths.UPDATES)
        self.process = host.start()
        filler = paths.UPDATES / ".filler"
        filler.write_bytes(b"x" * 4 * MEBIBYTE)
        refused = self.ordered(1, "upload", str(stick_package("3.045")))
        self.assertIn("arbor-3.045.pkg: No space left on device", refused)
        filler.unlink()
        self.ordered(0, "upload", str(stick_package("3.045")))
        self.assertEqual(["3.045"], gateway.updates())
