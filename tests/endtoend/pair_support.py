"""What the tests on two devices share: the devices, how they are paired, and the troubles that befall the accessory."""

import contextlib
import fcntl
import os
import subprocess
from typing import Iterator

from common import GENEROUS, LoggedCase, wait_until
from pair.devices import LED_BROKEN, SSH
from pair.remote import Remote
from simulation import gateway, paths, slots

CART, PALM = Remote("cart"), Remote("palm")
SERIAL, VERSION = PALM.device.serial_number, CART.device.installed
BUILT = CART.path(paths.ARCHIVE / VERSION / "arbor_qm.pkg")
CARRIED = PALM.path(paths.UPDATES / "arbor_qm.pkg")
TRANSFER = ("transfer", VERSION, "--to", SERIAL, "--model", PALM.device.model, "--wait")
REMOTE_INSTALL = ("remote-install", "--to", SERIAL, "--model", PALM.device.model, "--wait")

HOLD, HELD, REAL_RSYNC = paths.RUNTIME / "hold", paths.RUNTIME / "held", paths.RUNTIME / "rsync"
# Stand-ins for the accessory's side of the copy: one that stops in the middle, one after which nobody is let in any more.
STUCK_COPY = f'{{ stdbuf -o0 head -c 1048576; touch {HELD}; while [ -e {HOLD} ]; do sleep 0.1; done; }} | {REAL_RSYNC} "$@"\n'
LAST_COPY = f'{REAL_RSYNC} "$@" && mv {SSH}/authorized_keys {SSH}/withdrawn\n'


class PairCase(LoggedCase):
    """Both devices run for all tests of one program; each test leaves them ready for work."""

    def log_folders(self) -> dict:
        return {f"{device.device.name}-{folder.name}": device.path(folder)
                for device in (CART, PALM) for folder in (paths.LOGS, paths.CONFIG)}

    def assert_ended(self, code: int, text: str, done: subprocess.CompletedProcess) -> None:
        """A command told `text` and ended with `code`, and the host is ready for the next."""
        self.assertEqual(code, done.returncode, done.stdout)
        self.assertIn(text, done.stdout)
        until(lambda: not gateway.get("status", CART.gateway)["updateInProgress"], "the host is idle again")

    def assert_remote_install_works(self) -> None:
        """It goes well, and the accessory restarts from its other slot and proves itself: the next one may come."""
        folder = PALM.path(paths.SLOTS)
        other = {"A": "B", "B": "A"}[slots.active(folder)]
        before = PALM.path(paths.HOST_PID).read_text()
        self.assert_ended(0, "done", arborctl(CART, *REMOTE_INSTALL))
        until(lambda: PALM.path(paths.HOST_PID).read_text() != before and installed(PALM) == VERSION, "the accessory is back")
        self.assertEqual((other, VERSION), (slots.active(folder), slots.versions(folder)[other]))
        until(lambda: gateway.post("slots", at=PALM.gateway)[1]["state"] == "confirmed", "it has proved itself")


def until(holds, what: str) -> None:
    wait_until(holds, what, lambda: "\n".join(f"--- {device.device.name}\n{device.log[-6000:]}" for device in (CART, PALM)))


def arborctl(device: Remote, *arguments: str) -> subprocess.CompletedProcess:
    return device.run("arborctl", *arguments)


def installed(device: Remote) -> str:
    """The version that runs; empty while the device restarts."""
    try:
        return gateway.post("getinstalledversioninfo", at=device.gateway)[1]["version"]
    except (OSError, TypeError, KeyError):
        return ""


def other(device: Remote) -> dict:
    """What a device knows about the only other one; empty when it knows none, or does not answer."""
    try:
        return next(iter(device.peers()["peers"]), {})
    except (OSError, TypeError, KeyError):
        return {}


def let_in(device: Remote, known: Remote) -> None:
    done = device.let_in(known)
    assert done.returncode == 0, done.stdout


def until_connected() -> None:
    until(lambda: other(CART).get("connected") and other(PALM).get("connected"), "the devices are connected")


def build_package() -> None:
    """Has the host build the accessory's package, unless it did."""
    arborctl(CART, "check", PALM.device.installed, "--board", PALM.device.board)
    until(lambda: f"OK: built version {VERSION}" in CART.log, "the package is built")


@contextlib.contextmanager
def led_broken() -> Iterator[None]:
    with contextlib.ExitStack() as mended:
        PALM.path(LED_BROKEN).touch()
        mended.callback(PALM.path(LED_BROKEN).unlink)
        yield


@contextlib.contextmanager
def folder_in_the_way() -> Iterator[None]:
    """The updates folder is a link to nowhere: neither a file to remove nor a place where a folder can be made."""
    folder = PALM.path(paths.UPDATES)
    with contextlib.ExitStack() as mended:
        folder.rename(folder.with_name("aside"))
        mended.callback(folder.with_name("aside").rename, folder)
        folder.symlink_to("nowhere")
        mended.callback(folder.unlink)
        yield


@contextlib.contextmanager
def rsync_is(script: str) -> Iterator[None]:
    """The accessory's rsync is another program; the real one is at hand for it. No earlier copy spares the new one."""
    CARRIED.unlink(missing_ok=True)
    stand_in = PALM.path(paths.RUNTIME / "stand-in")
    stand_in.write_text("#!/bin/sh\n" + script)
    stand_in.chmod(0o755)
    PALM.run("cp", "/usr/bin/rsync", str(REAL_RSYNC)).check_returncode()
    PALM.run("mount", "--bind", str(paths.RUNTIME / "stand-in"), "/usr/bin/rsync").check_returncode()
    with contextlib.ExitStack() as mended:
        mended.callback(PALM.run, "umount", "--lazy", "/usr/bin/rsync")
        yield


@contextlib.contextmanager
def locked_out_after_the_copy() -> Iterator[None]:
    with contextlib.ExitStack() as mended, rsync_is(LAST_COPY):
        mended.callback(PALM.run, "mv", str(SSH / "withdrawn"), str(SSH / "authorized_keys"))
        yield


@contextlib.contextmanager
def slots_in_use() -> Iterator[None]:
    """Another installer holds the accessory's storage."""
    with contextlib.ExitStack() as mended:
        held = os.open(PALM.path(paths.SLOTS), os.O_RDONLY)
        mended.callback(os.close, held)
        fcntl.flock(held, fcntl.LOCK_EX)
        yield


@contextlib.contextmanager
def running(*command: str) -> Iterator[subprocess.Popen]:
    """The client on the host, while it runs."""
    with subprocess.Popen(CART.words("arborctl", *command), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True) as process:
        yield process


def ended(process: subprocess.Popen) -> subprocess.CompletedProcess:
    said = process.communicate(timeout=GENEROUS)[0]
    return subprocess.CompletedProcess(process.args, process.returncode, said)


@contextlib.contextmanager
def stuck_copy() -> Iterator[subprocess.Popen]:
    """A remote install whose copy stands still with a part of the package carried."""
    with contextlib.ExitStack() as mended, rsync_is(STUCK_COPY):
        PALM.path(HOLD).touch()
        mended.callback(PALM.path(HOLD).unlink)
        with running(*REMOTE_INSTALL) as process:
            until(PALM.path(HELD).exists, "a part of the package is copied")
            mended.callback(PALM.path(HELD).unlink)
            yield process
