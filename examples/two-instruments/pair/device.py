"""The life of one device: its first process, from the first mount to the last clean-up."""

import os
import sys
from pathlib import Path

from simulation import furnish, host, paths, places, supervise

from . import network, services, system
from .devices import STATIONS

# What it says on standard output when it has namespaces of its own, before its ssh key, and when everything in it runs.
BORN = "born"
READY = "ready"


def live(name: str, stock: Path) -> int:
    """Runs a device until its standard input ends; a first line there is the other's ssh key, and the cable is laid then."""
    station = STATIONS[name]
    with places.PrivateMounts((Path("/run"), *paths.PLACES)):
        furnish.furnish(stock, station.device, station.graph())
        print(BORN, system.make_ssh_key(station), flush=True)
        others_key = sys.stdin.readline().strip()
        if not others_key:
            return 1
        network.come_up(station, os.getpid())
        system.prepare(station, others_key)
        services.start(station)
        host.start()
        print(READY, flush=True)
        return supervise.run(["cat"], dict(os.environ))
