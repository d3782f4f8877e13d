"""SIGKILL at moments by chance on two devices, while the one brings the other to its own version."""

import json
import os
import random
import signal
import time
from pathlib import Path
from typing import Callable

from device import Command, agreed, expect
from pair.remote import Remote
from simulation import furnish, gateway, paths, slots
from simulation.whole import Broken, until

CART, PALM = Remote("cart"), Remote("palm")
SERIAL, VERSION = PALM.device.serial_number, CART.device.installed
BUILT = CART.path(paths.ARCHIVE / VERSION / "arbor_qm.pkg")
CARRIED = PALM.path(paths.UPDATES / "arbor_qm.pkg")
PROGRAMS = ("ssh", "sshd", "rsync", "avahi-resolve", "python3", "sh", "bash")


def order(*arguments: str) -> Command:
    """arborctl on the host."""
    return Command(arguments, tuple(CART.words("arborctl")))


def processes(device: Remote) -> dict[str, list[int]]:
    """Those of a device by their names, but for what stands in its first one."""
    own = os.readlink(f"/proc/{device.first}/ns/net")
    found: dict[str, list[int]] = {}
    for name in filter(str.isdigit, os.listdir("/proc")):
        try:
            if int(name) != device.first and os.readlink(f"/proc/{name}/ns/net") == own:
                found.setdefault(Path(f"/proc/{name}/comm").read_text().strip(), []).append(int(name))
        except OSError:
            pass
    return found


def host_of(device: Remote) -> list[int]:
    """Its graph host: the one of its children that was not born a moment ago."""
    return sorted(processes(device).get("arbord", []))[:1]


def strike(victim: str, before: dict[str, list[int]], chance: random.Random, longest: float) -> str:
    """Kills it at a moment up to `longest` seconds from now; what that was."""
    choice, end = chance.random(), time.monotonic() + chance.uniform(0, longest)
    while time.monotonic() < end:
        time.sleep(0.005)
    device = CART if victim.startswith("cart") else PALM
    if victim.endswith("host"):
        for pid in host_of(device):
            os.kill(pid, signal.SIGKILL)
        return "host"
    deadline = time.monotonic() + 0.5
    while time.monotonic() < deadline:
        new = [(name, pid) for name, pids in processes(device).items() if name in PROGRAMS for pid in pids if pid not in before.get(name, [])]
        if new:
            name, pid = new[int(choice * len(new))]
            try:
                os.kill(pid, signal.SIGKILL)
                return name
            except ProcessLookupError:
                pass
    return "nothing, it had ended"


def restart(device: Remote) -> None:
    """Until it has: its installer may just restart it, too."""
    said: list[str] = []

    def has() -> bool:
        done = device.run("reboot")
        said[:] = [done.stdout]
        return done.returncode == 0
    try:
        until(has, f"{device.device.name} restarts")
    except Broken as error:
        raise Broken(f"{error}: {said}") from None


def settle(state: str) -> None:
    """A good installer restarts the accessory, after it has told so; after one that was killed somebody has to."""
    def runs_what_starts_next() -> bool:
        status = gateway.get("status", PALM.gateway)
        return status["runningSlot"] == status["nextSlot"]
    if state != "Succeeded" and not runs_what_starts_next():
        restart(PALM)
    until(runs_what_starts_next, "the accessory has restarted")
    connected()
    calm()


def come_back(device: Remote) -> None:
    """A device whose host has gone is restarted by its watchdog."""
    until(lambda: not host_of(device), "the host is gone")
    restart(device)


def connected() -> None:
    def are() -> bool:
        return all((device.peers()["peers"] or [{}])[0].get("connected") for device in (CART, PALM))
    until(are, "they are connected")


def calm() -> None:
    def is_calm(device: Remote) -> bool:
        return not gateway.get("operations?state=open", device.gateway)["operations"] and \
            not gateway.get("status", device.gateway)["updateInProgress"]
    until(lambda: is_calm(CART) and is_calm(PALM), "nothing is under way any more")


def told(kind: str, known: set[str], done: Command) -> tuple[str, str]:
    """The state of the job that the command began, and all that was said of it."""
    new = [job for job in gateway.jobs(kind, CART.gateway) if job["id"] not in known]
    return agreed(new, done)


class Transfer:
    """The package goes over the link."""

    longest = 0.25
    kind = "transfer"

    def begin(self) -> Command:
        CARRIED.unlink(missing_ok=True)
        return order("transfer", VERSION, "--to", SERIAL, "--wait")

    def look(self, state: str, story: str, struck: str) -> None:
        """What is told as carried is there, whole; but an accessory that was restarted has emptied its folder."""
        whole = CARRIED.exists() and CARRIED.read_bytes() == BUILT.read_bytes()
        expect(state != "Succeeded" or whole or struck == "palm-host", f"{story}, and the file is not there, whole")


class RemoteInstall:
    """The host installs on its accessory."""

    longest = 2.5
    kind = "remoteinstall"

    def begin(self) -> Command:
        self._before = slots.versions(PALM.path(paths.SLOTS))
        return order("remote-install", "--to", SERIAL, "--wait")

    def look(self, state: str, story: str, _: str) -> None:
        """The version stands in the slot that starts next when it is told so, and what starts next is whole."""
        folder = PALM.path(paths.SLOTS)
        active = slots.active(folder)
        expect(state != "Succeeded" or slots.versions(folder)[active] == VERSION, f"{story}, and {slots.versions(folder)}, {active} starts next")
        expect(bool(slots.versions(folder).get(active)), f"{story}, and slot {active}, which starts next, is not whole")


def fresh() -> None:
    """Both are paired, and the package is built. They try again sooner than devices usually do."""
    for device in (CART, PALM):
        graph = json.loads(device.path(paths.GRAPH).read_text())
        node = next(node for node in graph["nodes"] if node["class"] == "ZNodeArborInstall")
        node["config"].update(AccessoryPatienceSeconds=5, AllowDowngrades=True)
        furnish.write_json(device.path(paths.GRAPH), graph)
        restart(device)
    for device, known in ((CART, PALM), (PALM, CART)):
        done = device.let_in(known)
        expect(done.returncode == 0, done.stdout)
    connected()
    CART.run("arborctl", "check", PALM.device.installed, "--board", PALM.device.board)
    until(BUILT.exists, "the package is built")
    calm()


def is_pinned() -> bool:
    key = PALM.peers()["publicKey"]
    return any(peer["publicKey"] == key and peer["pinned"] for peer in CART.peers()["peers"])


def pairing(chance: random.Random, times: int) -> str:
    """A row: the host is killed while it lets the accessory in, or takes it away again. What is told as done holds after its restart;
    what is not known is one or the other, and nothing else is lost of what it knows."""
    fresh()
    key, own = PALM.peers()["publicKey"], CART.peers()["publicKey"]
    unknown = 0
    for number in range(times):
        pinned = is_pinned()
        words = ("--remove",) if pinned else ("--name", PALM.device.name)
        command = order("pair", key, *words)
        strike("cart-host", {}, chance, 0.025)
        come_back(CART)
        done = command.end()
        until(lambda: CART.peers()["publicKey"] == own, "the host has the key that it had")
        story = f"round {number + 1}: arborctl pair {' '.join(words)} ended with {done.status} ({done.told!r})"
        expect(done.status in (0, 3) and (done.status == 0 or len(done.told.strip()) > 20), story)
        expect(done.status != 0 or is_pinned() != pinned, f"{story}, and the accessory is {'' if is_pinned() else 'not '}let in")
        unknown += done.status != 0
    if not is_pinned():
        expect(CART.let_in(PALM).returncode == 0, "it can be let in again")
    connected()
    done = Transfer().begin().end()
    expect(done.status == 0, f"undisturbed a transfer failed: {done.told}")
    return f"{times - unknown} told as done, {unknown} as not known"


def rounds(activity_class: type, *victims: str) -> Callable[[random.Random, int], str]:
    """A row: so many rounds of an activity with one kill each; then it has to work, undisturbed."""
    def run(chance: random.Random, times: int) -> str:
        fresh()
        struck: dict[str, int] = {}
        for number in range(times):
            activity, victim = activity_class(), chance.choice(victims)
            known = {job["id"] for job in gateway.jobs(activity.kind, CART.gateway)}
            before = {name: pids for device in (CART, PALM) for name, pids in processes(device).items()}
            command = activity.begin()
            name = f"{victim}: {strike(victim, before, chance, activity.longest)}"
            struck[name] = struck.get(name, 0) + 1
            try:
                if victim.endswith("host"):
                    come_back(CART if victim.startswith("cart") else PALM)
                done = command.end()
                connected()
                calm()
                state, story = told(activity.kind, known, done)
                activity.look(state, story, victim)
                settle(state)
            except Broken as error:
                raise Broken(f"round {number + 1}, killed: {name}: {error}") from None
        for again in (Transfer, RemoteInstall):
            activity = again()
            done = activity.begin().end()
            expect(done.status == 0, f"undisturbed it failed: {done.told}")
            settle("Succeeded")
        return ", ".join(f"{count} x {name}" for name, count in struck.items())
    return run
