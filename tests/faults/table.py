"""The faults, one row each; docs/reliability.md tells what each promises."""

import random
from dataclasses import dataclass
from typing import Callable

import clock
import crowds
import disks
import kills
from simulation import paths


@dataclass(frozen=True)
class Row:
    """`run` makes the fault `short` or `long` times, and says what it did; Broken when a promise was not kept."""

    name: str
    run: Callable[[random.Random, int], str]
    short: int
    long: int


ROWS = (
    Row("kill-host-check", kills.rounds(kills.Check, kills.HOST), 2, 30),
    Row("kill-program-check", kills.rounds(kills.Check, kills.PROGRAM), 2, 30),
    Row("kill-host-install", kills.rounds(kills.Install, kills.HOST), 2, 30),
    Row("kill-program-install", kills.rounds(kills.Install, kills.PROGRAM), 3, 30),
    Row("kill-host-upload", kills.rounds(kills.Upload, kills.HOST), 2, 30),
    Row("kill-program-upload", kills.rounds(kills.Upload, kills.PROGRAM), 2, 30),
    Row("kill-host-trust", kills.rounds(kills.Trust, kills.HOST), 2, 30),
    Row("kill-host-orders", kills.rounds(kills.Orders, kills.HOST), 2, 30),
    Row("full-updates", disks.row(paths.UPDATES, disks.order_upload, disks.order_install), 1, 10),
    Row("full-slots", disks.row(paths.SLOTS, disks.order_install), 2, 10),
    Row("full-archive", disks.row(paths.ARCHIVE, disks.order_install, disks.order_scan), 1, 10),
    Row("full-state", disks.row(paths.STATE, disks.order_install, disks.order_upload, disks.order_scan), 1, 10),
    Row("full-log", disks.row(paths.LOGS, disks.order_install, disks.order_upload), 1, 10),
    Row("quota-updates", disks.row(paths.UPDATES, disks.order_upload, disks.order_install, disk=disks.disk_with_quota), 1, 10),
    Row("quota-slots", disks.row(paths.SLOTS, disks.order_install, disk=disks.disk_with_quota), 2, 10),
    Row("quota-state", disks.row(paths.STATE, disks.order_install, disks.order_upload, disks.order_scan, disk=disks.disk_with_quota), 1, 10),
    Row("clock", clock.jumps, 6, 60),
    Row("swaps", crowds.swaps, 5, 200),
    Row("plugs", crowds.plugs, 30, 1000),
    Row("installs", crowds.installs, 6, 1000),
    Row("day", crowds.day, 2, 24),
    Row("connections", crowds.connections, 1, 10),
)


OF_TWO = ("kill-transfer", "kill-remote-install", "kill-pairing")


def of_two() -> tuple[Row, ...]:
    """Those that are made on two devices, which have to be there."""
    import pairs  # it looks for them at once

    return (
        Row(OF_TWO[0], pairs.rounds(pairs.Transfer, "cart-host", "palm-host"), 3, 30),
        Row(OF_TWO[1], pairs.rounds(pairs.RemoteInstall, "cart-host", "palm-host", "cart-program", "palm-program"), 3, 30),
        Row(OF_TWO[2], pairs.pairing, 5, 30),
    )
