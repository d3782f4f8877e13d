"""The story of two machines: a host brings its accessory to its own version, and the accessory proves it."""

import contextlib
import os
import subprocess
import tempfile
import time
from pathlib import Path
from typing import Iterator

from pair import network
from simulation.narration import check, tell

from . import image
from .container import Container
from .emulated import Emulated
from .image import ACCESSORY, GOOD, HOST, INSTALLED, Kind
from .machine import Machine, MachineError, Start
from .story import asked, offered, outcome, shown


@contextlib.contextmanager
def machines(kind: Kind) -> Iterator[tuple[Machine, Machine]]:
    """The host and its accessory, joined by a cable and switched off."""
    host, accessory = image.ensure(kind, HOST, ACCESSORY)
    with contextlib.ExitStack() as place:
        if kind.boots:
            folder = Path(place.enter_context(tempfile.TemporaryDirectory(prefix="cable-")))
            ends = folder / "1", folder / "2"
            yield place.enter_context(Emulated(host, ends)), place.enter_context(Emulated(accessory, ends[::-1]))
        else:
            spaces = [place.enter_context(_network_namespace()) for _ in range(2)]
            network.join(*spaces)
            for process, factory in zip(spaces, (host, accessory)):
                assert factory.model.station
                network.come_up(factory.model.station, process)
            yield tuple(place.enter_context(Container(factory, Path(f"/proc/{process}/ns/net")))
                        for process, factory in zip(spaces, (host, accessory)))


@contextlib.contextmanager
def _network_namespace() -> Iterator[int]:
    """A network of its own, as long as the process lives whose number this is."""
    with subprocess.Popen(["setpriv", "--pdeathsig", "KILL", "unshare", "--net", "sleep", "infinity"]) as holder:
        try:
            deadline = time.monotonic() + 60
            while os.readlink(f"/proc/{holder.pid}/ns/net") == os.readlink("/proc/self/ns/net"):
                if holder.poll() is not None or time.monotonic() > deadline:
                    raise MachineError("no network can be made")
                time.sleep(0.01)
            yield holder.pid
        finally:
            holder.kill()


def other(machine: Machine) -> dict:
    """What a machine knows about the one at the other end."""
    return (asked(machine, "peers")["peers"] or [{}])[0]


def joined(host: Machine, accessory: Machine) -> None:
    """Waits until they talk to each other."""
    for machine in (host, accessory):
        machine.wait(lambda machine=machine: other(machine).get("connected", False), f"{machine.name} is connected")


def whole(host: Machine, accessory: Machine) -> None:
    """All of it; each step is checked."""
    assert HOST.station
    tell(f"Two instruments are switched on: the host with {GOOD}, its accessory, joined by a cable, with {INSTALLED}.")
    for machine in (host, accessory):
        if not machine.starts:
            machine.power_on()
    for machine, version in ((host, GOOD), (accessory, INSTALLED)):
        machine.wait(lambda machine=machine, version=version: asked(machine, "status")["installedVersion"] == version, f"{machine.name} answers")

    tell("Neither talks to a stranger: each is told the other's key.")
    shown(accessory, f"arborctl pair {asked(host, 'peers')['publicKey']} --name {host.name} --address {HOST.station.link_address}")
    shown(host, f"arborctl pair {asked(accessory, 'peers')['publicKey']} --name {accessory.name}")
    joined(host, accessory)
    shown(host, "arborctl peers")

    tell("The accessory's software does not fit, and the host builds the package for its board.")
    host.wait(lambda: [job["state"] for job in asked(host, "history", "--kind", "build")["operations"]] == ["Succeeded"], "the package is built")
    check(other(accessory)["requiresUpdate"] and other(accessory)["targetVersion"] == GOOD, f"the accessory is to run {GOOD}")
    shown(host, f"arborctl transfer {GOOD} --to {ACCESSORY.device.serial_number} --wait")
    accessory.wait(lambda: offered(accessory) == [GOOD], f"{accessory.name} offers {GOOD}")

    tell("Somebody installs it there. The accessory restarts, and proves itself.")
    shown(accessory, f"arborctl install {GOOD}")
    accessory.wait(lambda: len(accessory.starts) > 1, "the accessory restarts")
    check(accessory.starts[-1] == Start("B", 1), "its boot loader starts slot B, and counts it as the first start")
    outcome(accessory, GOOD, "confirmed")
    joined(host, accessory)
    accessory.wait(lambda: other(accessory)["compatible"] and not other(accessory)["requiresUpdate"], "its software fits")
    shown(accessory, "arborctl slots")
    shown(accessory, "arborctl peers")
    check(other(host)["version"] == GOOD, f"the host knows that its accessory runs {GOOD}")

    tell("The host's power goes, and comes back.")
    host.cut()
    host.power_on()
    joined(host, accessory)
    check(asked(host, "status")["installedVersion"] == GOOD, "they talk to each other again, by themselves")
    shown(host, "arborctl history")
