"""The story of three updates, told on a machine: a good one, one that does not measure, one that does not start."""

import json

from simulation.narration import check, tell

from .image import BLIND, DEAD, GOOD, INSTALLED, Factory
from .machine import Machine, MachineError, Start


def asked(machine: Machine, *words: str) -> dict:
    """What arborctl answers, as a document. MachineError while it can't."""
    answer = machine.run(f"arborctl --json {' '.join(words)}")
    if answer.status != 0:
        raise MachineError(answer.text)
    return json.loads(answer.text)


def offered(machine: Machine) -> list[str]:
    """The versions that can be installed now, newest first."""
    return [update["version"] for update in asked(machine, "updates")["packages"]]


def shown(machine: Machine, command: str) -> None:
    """Runs a command inside as a person would, before the reader's eyes."""
    print(f"{machine.name}# {command}", flush=True)
    answer = machine.run(command)
    print(answer.text, flush=True)
    if answer.status != 0:
        raise MachineError(f"'{command}' ended with {answer.status}")


def install(machine: Machine, version: str) -> None:
    """Orders it. MachineError with the reason when it is not begun."""
    if (answer := machine.run(f"arborctl install {version}")).status != 0:
        raise MachineError(answer.text)


def update(machine: Machine, factory: Factory, version: str) -> None:
    """Stick in, announced, installed: until the machine restarts."""
    machine.plug([factory.package(version)])
    machine.wait(lambda: version in offered(machine), f"{version} is offered")
    number = len(machine.starts) + 1
    install(machine, version)
    machine.wait(lambda: len(machine.starts) >= number, f"the machine restarts for {version}")


def outcome(machine: Machine, version: str, how: str) -> None:
    """Waits until the trial of a version has ended, and that it ended so."""

    def ended() -> bool:
        slots = asked(machine, "slots")
        return slots["lastVersion"] == version and slots["state"] == "confirmed"

    machine.wait(ended, f"the trial of {version} ends")
    if (told := asked(machine, "slots")["lastOutcome"]) != how:
        raise MachineError(f"{version} was {told}, not {how}")


def whole(machine: Machine, factory: Factory) -> None:
    """All of it; each step is checked."""
    tell("An instrument with two slots is switched on.")
    if not machine.starts:
        machine.power_on()
    machine.wait(lambda: asked(machine, "status")["installedVersion"] == INSTALLED, "it answers")
    shown(machine, "cat /proc/mounts | grep -E ' / |mmcblk1p3|arbor '")
    shown(machine, "arborctl status")

    tell(f"A stick with {GOOD} goes in.")
    before = len(machine.starts)
    machine.plug([factory.package(GOOD)])
    machine.wait(lambda: GOOD in offered(machine), f"{GOOD} is offered")
    shown(machine, "arborctl updates")
    tell("Somebody installs it. The installer restarts the machine.")
    shown(machine, f"arborctl install {GOOD}")
    machine.wait(lambda: len(machine.starts) > before, "the machine restarts")
    check(machine.starts[-1] == Start("B", 1), "the boot loader starts slot B, and counts it as the first start")
    tell("The new version has to prove itself.")
    outcome(machine, GOOD, "confirmed")
    shown(machine, "arborctl slots")
    check(asked(machine, "status")["installedVersion"] == GOOD, f"{GOOD} runs, and is confirmed")

    tell(f"The next stick brings {BLIND}. It starts, but it has no calibration, and does not measure.")
    machine.pull()
    before = len(machine.starts)
    update(machine, factory, BLIND)
    outcome(machine, BLIND, "reverted")
    shown(machine, "arborctl slots")
    check(asked(machine, "status")["nextVersion"] == GOOD, f"{GOOD} runs, and starts next")
    check([start.slot for start in machine.starts[before:]] == ["A", "B"], f"the machine has come back to {GOOD} by itself")
    machine.wait(lambda: asked(machine, "updates") is not None and BLIND not in offered(machine), f"{BLIND} is not offered")
    check(BLIND not in offered(machine), f"{BLIND} is not offered again, though the stick is in")

    tell(f"The last stick brings {DEAD}, whose build went wrong: its kernel finds nothing to start.")
    machine.pull()
    before = len(machine.starts)
    update(machine, factory, DEAD)
    outcome(machine, DEAD, "reverted")
    shown(machine, "arborctl slots")
    check([start.slot for start in machine.starts[before:]] == ["A", "A", "A", "B"], "after three starts the boot loader has left the slot")
    check(asked(machine, "status")["installedVersion"] == GOOD, f"{GOOD} runs")

    tell("What was done, and how it ended, is kept.")
    shown(machine, "arborctl history --kind trial")
    trials = {(job["version"], job["state"]) for job in asked(machine, "history", "--kind", "trial")["operations"]}
    check(trials == {(GOOD, "Succeeded"), (BLIND, "Failed"), (DEAD, "Failed")}, "all three trials are in the journal")
