"""Places that are full: what can't be kept is told, and once there is room again the same order works."""

import os
import random
import re
import shutil
import subprocess
import tempfile
import threading
from contextlib import contextmanager
from pathlib import Path
from typing import Callable, Iterator

from device import LeftOut, arborctl, at_rest, calm, expect, expect_as_before, fresh, install, jobs, plug, restart
from simulation import gateway, host, paths, places, slots, whole
from simulation.whole import until

ROOM = "size=24m,mode=0755"
NO_ROOM = re.compile(r"(.*)(?:No space left|Disk quota exceeded|database or disk is full)")


@contextmanager
def _on(place: Path, mount: Callable[[Path, Path], None]) -> Iterator[None]:
    """The folder with all that is in it is at another disk, which `mount` shows at a place from a copy; the host starts again
    on it, and offers what it offered."""
    offered = gateway.updates()
    host.stop()
    with tempfile.TemporaryDirectory(prefix="arbor-fault-") as copy:
        mount(Path(copy), place)
        try:
            host.start()
            until(lambda: gateway.updates() == offered, "what is on the stick is offered again")
            calm()
            yield
        finally:
            host.stop()
            places.unmount(place)


@contextmanager
def small_disk(place: Path) -> Iterator[Callable]:
    """A disk with little room. Yields what makes it full."""
    def mount(copy: Path, over: Path) -> None:
        places.mount("small", copy, ROOM)
        try:
            shutil.copytree(over, copy, symlinks=True, dirs_exist_ok=True)
            places.move(copy, over)
        except BaseException:
            places.unmount(copy)
            raise
    with _on(place, mount):
        yield full


@contextmanager
def disk_with_quota(place: Path) -> Iterator[Callable]:
    """A disk with room, of which the user may have a part. Yields what makes that end."""
    if not os.path.exists("/dev/fuse"):
        raise LeftOut("there is no /dev/fuse")
    served: list[subprocess.Popen] = []

    def mount(copy: Path, over: Path) -> None:
        shutil.copytree(over, copy, symlinks=True, dirs_exist_ok=True)
        served.append(subprocess.Popen([Path(__file__).with_name("quota"), copy, over]))
        until(lambda: served[-1].poll() is not None or Path("/proc/self/mountinfo").read_text().count(f" {over} ") > before,
              "the disk is there")
        if served[-1].returncode is not None:
            raise LeftOut("this machine mounts no FUSE file system")
    before = Path("/proc/self/mountinfo").read_text().count(f" {place} ")
    try:
        with _on(place, mount):
            yield spent
    finally:
        for server in served:
            server.terminate()
            server.wait()


@contextmanager
def spent(place: Path, leave: int = 0) -> Iterator[None]:
    """So many bytes may still be written there, and none that are deleted come back."""
    os.setxattr(place, "user.left", str(leave).encode())
    try:
        yield
    finally:
        os.removexattr(place, "user.left")


@contextmanager
def full(place: Path, leave: int = 0) -> Iterator[None]:
    """Somebody else takes every byte there, but for `leave`, as soon as it is free."""
    filler = place / "filler"
    ended = threading.Event()
    filled = threading.Event()

    def fill() -> None:
        with open(filler, "wb", buffering=0) as file:
            while not ended.is_set():
                room = os.statvfs(place)
                count = room.f_bavail * room.f_frsize - leave
                try:
                    while count > 0:
                        count -= file.write(b"x" * min(count, 65536))
                except OSError:
                    pass
                filled.set()
                ended.wait(0.002)
    taker = threading.Thread(target=fill, daemon=True)
    taker.start()
    filled.wait(whole.LIMIT)
    try:
        yield
    finally:
        ended.set()
        taker.join()
        filler.unlink(missing_ok=True)


def row(place: Path, *orders, disk=small_disk):
    """A row: each order while the place is full (with nothing, little or much less room than it takes), and when it is not."""
    def run(chance: random.Random, times: int) -> str:
        fresh()
        plug("3.045", "3.046")
        told = []
        with disk(place) as without_room:
            install("3.046")  # in peace
            arborctl("upload", str(whole.package("3.045")))
            arborctl("forget", "arbor-3.045.pkg")
            before = at_rest()
            for _ in range(times):
                for order in orders:
                    leave = chance.choice((0, 4096, 65536, 1 << 20))
                    with without_room(place, leave):
                        told.append(order(leave))
                        expect("updateInProgress" in gateway.get("status"), "the state is told")
                        calm()
                        if place == paths.STATE and leave == 0:
                            problem = gateway.get("status")["historyProblem"] or ""
                            expect(bool(NO_ROOM.search(problem)), f"nobody tells that the history is lost, but {problem!r}")
                            expect("History " in arborctl("status").told, "arborctl tells that the history is lost")
                    whole.check_slot(slots.active())
                    until(lambda: not gateway.get("status")["historyProblem"], "the history is written again")
                    again = order(None)
                    expect(again.startswith("done"), f"with room again: {again}")
            expect_as_before(before)
            restart()
            whole.check()
            until(lambda: "3.045" in gateway.updates(), "the stick's packages are offered again")
            install("3.045")
        return f"{len(told)} orders, {sum(text.startswith('done') for text in told)} done all the same; " + \
            " | ".join(sorted({text for text in told if not text.startswith("done")}))[:300]
    return run


def order_install(leave: int | None) -> str:
    """What arborctl says, the job and the slots agree; a failure says that there is no room."""
    version = "3.045" if slots.versions()[slots.active()] == "3.046" else "3.046"
    known = set(jobs("install"))
    done = arborctl("install", version, "--no-reboot", "--wait")
    now = slots.versions()
    if done.status == 0:
        expect(now[slots.active()] == version, f"told as done, but {now}")
        return "done"
    new = [job for name, job in jobs("install").items() if name not in known]
    expect(all(job["state"] == "Failed" and job["reason"] for job in new), f"{done.told}: {new}")
    told = NO_ROOM.search(done.told)
    expect(told is not None and "/" in told[1], f"{leave} bytes were left, and a person is not told where: {done.told}")
    return done.told.strip().splitlines()[-1]


def order_upload(leave: int | None) -> str:
    """Nothing half stays; a failure says that there is no room."""
    done = arborctl("upload", str(whole.package("3.045")))
    found = [file.name for file in paths.UPDATES.iterdir() if file.name != "filler"]
    if done.status == 0:
        expect(found == ["arbor-3.045.pkg"], f"told as done, but there is {found}")
        arborctl("forget", "arbor-3.045.pkg")
        calm()
        return "done"
    expect(not found, f"{done.told}, but there is {found}")
    expect(bool(NO_ROOM.search(done.told)) or "room" in done.told, f"{leave} bytes were left, and a person is told: {done.told}")
    return done.told.strip().splitlines()[-1]


def order_scan(leave: int | None) -> str:
    """What is on the stick is found whatever is full."""
    done = arborctl("scan", "/media/usb1")
    expect(done.status == 0, f"{leave} bytes were left, and a person is told: {done.told}")
    return "done"
