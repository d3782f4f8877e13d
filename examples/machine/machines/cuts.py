"""Cuts the power again and again, at moments by chance, while updates go their way; and looks what is left each time.

After each cut the machine has to start a version that stands whole in its slot, to know where its trial is, and to have a journal
that opens; what was under way has to come to an end, and a version that fails must not be what is kept. At first, and every tenth
time, an update goes its whole way, uncut; how long the first one takes decides how late a cut comes.
"""

import collections
import random
import time

from .image import BLIND, DEAD, FURTHER, GOOD, INSTALLED, Factory
from .machine import Machine, MachineError
from .story import asked, offered, outcome, update

_STATES = {"confirmed", "installed", "trial", "reverting"}
_KEPT = {INSTALLED, GOOD, FURTHER}
_OVER = {"Succeeded", "Failed", "Cancelled", "Lost"}
_LATEST = 1.3  # times what a good update takes: the bad ones start more often


class _Broken(Exception):
    """What no waiting mends."""


def run(machine: Machine, factory: Factory, times: int, seed: int) -> None:
    """Cuts it so many times. MachineError with round and seed when something is not as it has to be."""
    chance = random.Random(seed)
    seen: collections.Counter[str] = collections.Counter()
    machine.pause = machine.idle_pause
    machine.power_on()
    machine.wait(lambda: asked(machine, "slots")["state"] == "confirmed", "the graph runs")
    begun = time.monotonic()
    _whole(machine, factory, 0)
    longest = _LATEST * (time.monotonic() - begun)
    for number in range(1, times + 1):
        version = chance.choice([BLIND, DEAD, *(6 * [_other(machine)])])
        moment = chance.uniform(0, longest)
        try:
            stage = _cut_during(machine, factory, version, moment)
            seen[stage] += 1
            print(f"{number}: {version}, cut after {moment:.1f} s ({stage})", flush=True)
            machine.power_on()
            _look(machine, factory)
            if number % 10 == 0:
                _whole(machine, factory, number)
        except (MachineError, _Broken) as error:
            raise MachineError(f"cut {number} of seed {seed}: {error}") from None
    told = ", ".join(f"{count} {stage}" for stage, count in seen.most_common())
    print(f"{times} cuts ({told}), seed {seed}: all is well after each", flush=True)


def _whole(machine: Machine, factory: Factory, number: int) -> None:
    further = _other(machine)
    machine.run(f"arborctl allow {further}")
    machine.pull()
    update(machine, factory, further)
    outcome(machine, further, "confirmed")
    print(f"{number}: {further} went its whole way", flush=True)


def _other(machine: Machine) -> str:
    """A good version that does not run."""
    return FURTHER if asked(machine, "status")["installedVersion"] == GOOD else GOOD


def _cut_during(machine: Machine, factory: Factory, version: str, moment: float) -> str:
    """Lets an update begin, and cuts the power; says how far it was known to be."""
    machine.run(f"arborctl allow {version}")  # it may have been taken back before
    machine.pull()
    stage = "stick in"
    begun = time.monotonic()
    machine.plug([factory.package(version)])
    before = len(machine.starts)
    while (left := begun + moment - time.monotonic()) > 0:
        try:
            if stage == "stick in" and version in offered(machine):
                machine.run(f"arborctl install {version}")
                stage = "installing"
            if len(machine.starts) > before:
                stage = "restarting"
                stage = asked(machine, "slots")["state"]
        except (MachineError, KeyError, ValueError):
            pass  # it restarts just now
        time.sleep(min(machine.pause, left))
    machine.cut()
    return stage


def _look(machine: Machine, factory: Factory) -> None:
    slots: dict = {}
    open_jobs: list[dict] = []

    def settled() -> bool:
        slots.update(asked(machine, "slots"))
        if slots["state"] not in _STATES:
            raise _Broken(f"the state is {slots['state']}: {slots['problem']}")
        open_jobs[:] = [job for job in asked(machine, "history")["operations"] if job["state"] not in _OVER]
        return slots["state"] == "confirmed" and not open_jobs

    try:
        machine.wait(settled, "all that was under way has come to an end", 3 * machine.patience)
    except MachineError as error:
        raise MachineError(f"{error}\nstarts: {machine.starts[-6:]}\nslots: {slots}\nopen: {open_jobs}") from None
    runs = next(slot for slot in slots["slots"] if slot["running"])
    if not runs["next"] or not runs["confirmed"] or runs["version"] not in _KEPT:
        raise MachineError(f"{runs} runs, which is not what is to be kept")
    if asked(machine, "status")["nextSlot"] != runs["slot"]:
        raise MachineError("the link leads elsewhere than the boot loader")
    if asked(machine, "status")["installedVersion"] != runs["version"]:
        raise MachineError(f"slot {runs['slot']} does not hold what it says")
    if (answer := machine.run("arbor-boot show")).status != 0:
        raise MachineError(f"the state can't be read: {answer.text}")
    digest = machine.digest(runs["slot"], factory.size(runs["version"]))
    if digest != runs["digest"]:
        raise MachineError(f"slot {runs['slot']} holds {digest}, not the image of {runs['version']}")

