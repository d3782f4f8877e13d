"""SIGKILL at moments by chance: of the host, and of what it has started."""

import os
import random
import shutil
import signal
import time
from pathlib import Path

from device import (Command, agreed, arborctl, at_rest, calm, expect, expect_as_before, expect_installed, fresh, install, jobs, package_tool, plug,
                    reap, restart)
from simulation import fixtures, gateway, host, paths, slots, sticks, whole
from simulation.whole import Broken, until

HOST, PROGRAM = "host", "program"


def programs(of: int) -> list[int]:
    """What the host `of` has started, whoever is its parent now: all but the host, this program, and what that stands in."""
    parents = {}
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            parents[int(name)] = int(Path(f"/proc/{name}/stat").read_text(errors="replace").rpartition(")")[2].split()[1])
        except (OSError, IndexError):
            pass
    spared = {of, *(pid for pid, parent in parents.items() if parent == os.getpid())}
    pid = os.getpid()
    while pid:
        spared.add(pid)
        pid = parents.get(pid, 0)
    return sorted(set(parents) - spared)


def kind_of(line: str) -> str:
    """What a command line runs, in a word."""
    for sign, kind in (("bwrap", "confinement"), ("openssl", "openssl"), ("--verify", "check"), ("--version", "check"),
                       ("arbord", "reader of output"), ("--socket", "installer"), ("python3", "installer")):
        if sign in line:
            return kind
    return line[:40]


def strike(victim: str, chance: random.Random, longest: float) -> str:
    """Kills it at a moment up to `longest` seconds from now; what that was."""
    end = time.monotonic() + chance.uniform(0, longest)
    choice = chance.random()
    while time.monotonic() < end:
        time.sleep(0.005)
    pid = host.running_pid()
    if victim == HOST:
        os.kill(pid, signal.SIGKILL)
        until(lambda: host.running_pid() is None, "the host is gone")
        reap()
        return "host"
    deadline = time.monotonic() + 0.5
    while time.monotonic() < deadline:
        running = programs(pid)
        if running:
            one = running[int(choice * len(running))]
            try:
                name = Path(f"/proc/{one}/cmdline").read_bytes().replace(b"\0", b" ").decode(errors="replace")
                os.kill(one, signal.SIGKILL)
                return kind_of(name)
            except (ProcessLookupError, FileNotFoundError):
                pass
    return "nothing, it had ended"


class Check:
    """A stick goes in, and its package is looked at."""

    longest = 0.15

    def begin(self) -> None:
        if sticks.is_attached("usb1"):
            sticks.detach("usb1")
            until(lambda: not gateway.updates(), "the stick's packages are gone")
        sticks.attach([whole.package("3.046")])

    def end(self) -> None:
        """Offered, or refused with a reason; and offered when it is plugged in again."""
        def judged() -> bool:
            refused = gateway.post("inventory")[1]["refused"]
            return gateway.updates() == ["3.046"] or any(entry["reason"] for entry in refused)
        until(judged, "the package is offered, or it is told why not")
        calm()
        plug("3.046")


class Install:
    """3.046 goes into the other slot."""

    longest = 0.3

    def begin(self) -> None:
        if not sticks.is_attached("usb1"):
            plug("3.045", "3.046")
        until(lambda: {"3.045", "3.046"} <= set(gateway.updates()), "both are offered")
        self._version = "3.045" if slots.versions()[slots.active()] == "3.046" else "3.046"
        self._known = set(jobs("install"))
        self._before = slots.versions()
        self._command = Command(("install", self._version, "--no-reboot", "--wait"))

    def end(self) -> None:
        """What arborctl said, the journal's job and the disk agree."""
        done = self._command.end()
        calm()
        new = [job for name, job in jobs("install").items() if name not in self._known]
        state, story = agreed(new, done)
        if state == "Succeeded":
            expect_installed(self._version)
        else:
            whole.check_slot(slots.active())
            # The other slot is written anew, so before that the one that runs has to be the one that starts next.
            expect(slots.active() == slots.running() or self._before == slots.versions(), f"{story}, but {slots.versions()}")


class Upload:
    """A package is sent by a person."""

    longest = 0.2

    def begin(self) -> None:
        if sticks.is_attached("usb1"):
            sticks.detach("usb1")
        for file in paths.UPDATES.iterdir():
            arborctl("forget", file.name)
        until(lambda: not gateway.updates(), "nothing is offered")
        self._host = host.running_pid()
        self._command = Command(("upload", str(whole.package("3.046"))))

    def end(self) -> None:
        """Done means there, whole and offered, unless the host has started since, which empties the folder; otherwise nothing of it
        is left. It can be sent again."""
        done = self._command.end()
        calm()
        found = {file.name: file.read_bytes() for file in paths.UPDATES.iterdir()}
        good = {"arbor-3.046.pkg": whole.package("3.046").read_bytes()}
        story = f"arborctl ended with {done.status} ({done.told!r}), and there is {[(name, len(data)) for name, data in found.items()]}"
        expect(found in ({}, good), story)
        stays = found == good and "3.046" in gateway.updates()
        expect(done.status != 0 or stays or host.running_pid() != self._host, story)
        again = arborctl("upload", str(whole.package("3.046")))
        expect(again.status == 0, f"{story}, and sent again: {again.told}")
        until(lambda: gateway.updates() == ["3.046"], "what was sent is offered")


class Trust:
    """The next trust document is applied."""

    longest = 0.3

    def __init__(self) -> None:
        self._office = paths.STATE / "office"
        shutil.rmtree(self._office, ignore_errors=True)
        self._office.mkdir()
        self._file = self._office / "arbor-trust.json"
        keys = fixtures.ensure() / "keys"
        package_tool("trust", "init", self._file)
        package_tool("keygen", "--out", self._office / "boss", "--name", "boss")
        package_tool("trust", "add-key", self._file, "--key", self._office / "boss/cert.pem", "--role", "trust")
        package_tool("trust", "add-key", self._file, "--key", keys / "cert.pem", "--role", "release")
        self._sign()
        shutil.copy(self._file, paths.TRUST / "arbor-trust.json")
        self._number = 1
        restart()

    def _sign(self) -> None:
        package_tool("trust", "sign", self._file, "--key", self._office / "boss/key.pem")

    def begin(self) -> None:
        package_tool("trust", "expires", self._file, f"2100-01-{self._number % 28 + 1:02}")
        self._sign()
        self._command = Command(("trust", "apply", str(self._file)))

    def end(self) -> None:
        """Told as in force means in force, now and after a restart; the next one is followed all the same."""
        done = self._command.end()
        calm()
        number = gateway.post("trust")[1]["number"]
        story = f"arborctl ended with {done.status} ({done.told!r}), and {number} is in force"
        expect(number in (self._number, self._number + 1), story)
        expect(done.status != 0 or number == self._number + 1, story)
        again = arborctl("trust", "apply", str(self._file))
        self._number += 1
        expect(gateway.post("trust")[1]["number"] == self._number, f"{story}; applied again: {again.told}")
        restart()
        expect(gateway.post("trust")[1]["number"] == self._number, "it is in force after a restart")


class Orders:
    """People order one thing after the other; the journal writes each down."""

    longest = 0.6

    def begin(self) -> None:
        self._known = {job["id"] for job in gateway.get("operations?limit=1000")["operations"]}
        self._commands = [Command(("scan", f"/media/nothing{number}")) for number in range(3)]

    def end(self) -> None:
        """The journal opens, and nothing in it stays open."""
        for command in self._commands:
            command.end()
        calm()
        kept = {job["id"] for job in gateway.get("operations?limit=1000")["operations"]}
        expect(self._known <= kept, f"the journal lost {self._known - kept}")
        shown = arborctl("history")
        expect(shown.status == 0, shown.told)


def rounds(activity_class: type, victim: str):
    """A row: so many rounds of an activity, each with one kill; then a good update, and nothing is left behind."""
    def run(chance: random.Random, times: int) -> str:
        fresh()
        activity = activity_class()
        activity.begin()  # once in peace: what is started once and kept is there then
        activity.end()
        struck: dict[str, int] = {}
        before = at_rest()
        for number in range(times):
            activity.begin()
            name = strike(victim, chance, activity.longest)
            struck[name] = struck.get(name, 0) + 1
            if victim == HOST:
                host.start()
            try:
                activity.end()
            except Broken as error:
                raise Broken(f"round {number + 1}, killed: {name}: {error}") from None
        if victim != HOST and activity_class is not Trust:
            expect_as_before(before)
        plug("3.045", "3.046")
        install(whole.other())
        whole.check()
        restart()
        whole.check()
        return ", ".join(f"{count} x {name}" for name, count in struck.items())
    return run
