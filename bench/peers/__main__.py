"""Our system beside an update daemon of the distribution, on the same payload, file system and machine, in turns.

Run it inside an instrument, without the graph host (./run bench --peers does): peers [check|install|daemons|told|memory...]
Ratios are ours to the peer's.
"""

import hashlib
import os
import shutil
import statistics
import subprocess
import sys
import time
from pathlib import Path

import ours
import rauc
from measuring import (MEBI, Memory, Peak, Table, a_second, damaged_copy, family, in_turn, longest_gap, megabytes,
                       microseconds, milliseconds, pieces, seconds, wake_ups)
from simulation import paths

SIZE = 64 * MEBI
ROUNDS = 9
QUIET_SECONDS = 20.0
SETTLE_SECONDS = 2.0
FOLDER = paths.PROJECT / "build" / "peers"
PAYLOAD = FOLDER / "system.img"


def main() -> None:
    if paths.plain_mode():
        sys.exit("peers: this needs mounts of its own, and so a mount namespace")
    shutil.rmtree(FOLDER, ignore_errors=True)
    FOLDER.mkdir(parents=True)
    PAYLOAD.write_bytes(os.urandom(SIZE))
    peer, device, table = rauc.Rauc(FOLDER / "rauc", PAYLOAD), ours.Ours(FOLDER / "ours", PAYLOAD), Table()
    works = {"check": check, "install": install, "daemons": daemons, "told": told, "memory": memory}
    try:
        for name in sys.argv[1:] or works:
            works[name](device, peer, table)
    finally:
        peer.stop()
        shutil.rmtree(FOLDER, ignore_errors=True)
    table.show()


def check(device: ours.Ours, peer: rauc.Rauc, table: Table) -> None:
    """The file by itself. Neither would be worth anything if it took a damaged one."""
    for side, file in ((device.check, device.package), (peer.check, peer.bundle)):
        damaged = damaged_copy(file)
        if not side(file) or side(damaged):
            sys.exit(f"peers: the check of {file} does not tell what is good")
        damaged.unlink()
    table.add("check of the file by itself",
              *in_turn(2 * ROUNDS, lambda: seconds(lambda: device.check(device.package)),
                       lambda: seconds(lambda: peer.check(peer.bundle))), milliseconds)


def install(device: ours.Ours, peer: rauc.Rauc, table: Table) -> None:
    """The installer, signature and all, into slots that are files."""
    copy = FOLDER / "copy.img"

    def by_dd() -> None:
        copy.unlink(missing_ok=True)
        subprocess.run(["dd", f"if={PAYLOAD}", f"of={copy}", "bs=1M", "conv=fsync"], stderr=subprocess.DEVNULL, check=True)

    def by_us() -> float:
        taken = seconds(device.install)
        device.restart()
        return taken

    peer.start()
    mine, theirs, bare = in_turn(ROUNDS, by_us, lambda: seconds(peer.install), lambda: seconds(by_dd))
    peer.stop()
    for slot in (device.slot, peer.slot):
        if digest(slot) != digest(PAYLOAD):
            sys.exit(f"peers: {slot} is not what was to be installed")
    copy.unlink()
    table.add("install into a file, synced (ours: read back as well)", mine, theirs, milliseconds)
    table.add("the same, beside dd with conv=fsync", mine, bare, milliseconds, None)


def digest(file: Path) -> str:
    with open(file, "rb") as data:
        return hashlib.file_digest(data, "sha256").hexdigest()


def daemons(device: ours.Ours, peer: rauc.Rauc, table: Table) -> None:
    """Each beside the other, with nothing to do."""
    def start(side: ours.Ours | rauc.Rauc) -> float:
        taken = side.start()
        side.stop()
        return taken

    table.add("daemon (with its bus): start until ready", *in_turn(ROUNDS, lambda: start(device), lambda: start(peer)),
              milliseconds)
    device.start()
    peer.start()
    time.sleep(SETTLE_SECONDS)
    idle = [Memory(family(side.roots)) for side in (device, peer)]
    table.add("daemon idle: memory, shared files by share", *(one.whole for one in idle), megabytes)
    table.add("daemon idle: memory of its own", *(one.own for one in idle), megabytes)
    table.add("daemon idle: wake-ups", *(wake_ups(side.roots, QUIET_SECONDS) for side in (device, peer)), a_second)
    device.stop()
    peer.stop()


def told(device: ours.Ours, peer: rauc.Rauc, table: Table) -> None:
    """What a client that draws a progress bar gets of an install, which the daemon was asked for."""
    device.start()
    peer.start()
    device.wait_for_packages()

    def ordered() -> float:
        taken = seconds(device.order_and_wait)
        device.restart()
        return taken

    table.add("install that the daemon is asked for, by its client", *in_turn(ROUNDS, ordered, lambda: seconds(peer.install)),
              milliseconds)
    for measure, show, what, more in ((len, pieces, "messages", True), (longest_gap, milliseconds, "longest gap", False)):
        def mine() -> float:
            times = [now for now, _ in device.progress()]
            device.restart()
            return measure(times)
        table.add(f"progress of an install at a client: {what}", *in_turn(ROUNDS, mine, lambda: measure(peer.progress_times())),
                  show, 1.0, more)
    rounds = [(ours.latency(device), rauc.latency(peer, ours.RELAYED)) for _ in range(3)]
    table.add("a progress message's way from its write to a client",
              *(statistics.median(sum(side, [])) for side in zip(*rounds)), microseconds)
    device.stop()
    peer.stop()


def memory(device: ours.Ours, peer: rauc.Rauc, table: Table) -> None:
    """All processes of an install that the daemon is asked for, its client included."""
    device.start()
    peer.start()
    device.wait_for_packages()
    peaks: dict[str, list[Peak]] = {"ours": [], "peer": []}
    for _ in range(ROUNDS):
        for name, side in (("ours", device), ("peer", peer)):
            order, peak = side.order(), Peak()
            peak.watch([*side.roots, order.pid], lambda: order.poll() is not None)
            peaks[name].append(peak)
        device.restart()
    for kind, what in (("whole", "shared files by share"), ("own", "of its own")):
        table.add(f"peak memory of an install: {what}",
                  *(statistics.median(getattr(peak, kind) for peak in peaks[name]) for name in ("ours", "peer")), megabytes)
    device.stop()
    peer.stop()


if __name__ == "__main__":
    main()
