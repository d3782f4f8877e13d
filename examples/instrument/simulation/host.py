"""Starts and stops the graph host the way the service manager does, and reboots the instrument."""

import fcntl
import json
import os
import signal
import socket
import subprocess
import tempfile
import time
from pathlib import Path

from . import furnish, paths, slots

START_SECONDS = 60.0
STOP_SECONDS = 60.0


class HostError(Exception):
    """The graph host did not start or stop; the text carries the end of what it said."""


def start() -> subprocess.Popen:
    """Starts arbord on the instrument's graph file and returns when it reports that it is ready.

    It runs in a session of its own, like a service, and ends on `stop` or with the instrument.
    """
    with tempfile.TemporaryDirectory(prefix="arbor-notify-") as folder, \
            socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as ready, \
            open(paths.HOST_CONSOLE, "ab") as console:
        address = os.path.join(folder, "notify")
        ready.bind(address)
        ready.settimeout(0.1)
        process = subprocess.Popen([str(paths.program("arbord")), "--graph", str(paths.GRAPH)],
                                   env={**os.environ, "NOTIFY_SOCKET": address}, stdin=subprocess.DEVNULL,
                                   stdout=console, stderr=console, start_new_session=True)
        paths.HOST_PID.write_text(str(process.pid), encoding="ascii")
        _wait_until_ready(ready, process)
    return process


def stop() -> None:
    """Asks arbord to end and returns when it has; does nothing when none runs."""
    pid = running_pid()
    if pid is None:
        return
    os.kill(pid, signal.SIGTERM)
    deadline = time.monotonic() + STOP_SECONDS
    while running_pid() is not None:
        if time.monotonic() > deadline:
            raise HostError(f"arbord did not end within {STOP_SECONDS:.0f} s of SIGTERM\n{said()}")
        time.sleep(0.02)


def running_pid() -> int | None:
    """The process id of the running arbord, or None. One that ended and was not yet waited for counts as gone.

    A killed one holds what it had until the last of its threads is gone.
    """
    try:
        pid = int(paths.HOST_PID.read_text(encoding="ascii"))
        state = Path(f"/proc/{pid}/stat").read_text(encoding="utf-8", errors="replace").rpartition(")")[2].split()[0]
        threads = os.listdir(f"/proc/{pid}/task")
    except (OSError, ValueError):
        return None
    return None if state in "ZX" and len(threads) < 2 else pid


def reboot() -> None:
    """What a real reboot does for the software: all stops, the active slot's system comes up, the host starts again."""
    if slots.BOOTING in os.environ:
        paths.AGAIN.touch()
        return
    power = os.open(paths.CONFIG, os.O_RDONLY)
    try:
        fcntl.flock(power, fcntl.LOCK_EX)  # one restart at a time: who asks meanwhile restarts what has come up
        stop()
        slots.boot_step("stop")
        power_on()
    finally:
        os.close(power)


def power_on() -> subprocess.Popen:
    """The active slot's system comes up, whatever ended the one before."""
    slots.boot()
    version = slots.versions()[slots.running()]
    manifest = json.loads(paths.MANIFEST.read_text(encoding="utf-8"))
    manifest["systemVersion"] = version
    for component in manifest["components"]:
        component["version"] = version
    furnish.write_json(paths.MANIFEST, manifest)
    return start()


def said(lines: int = 40) -> str:
    """The end of the host's console output."""
    try:
        return "\n".join(paths.HOST_CONSOLE.read_text(encoding="utf-8", errors="replace").splitlines()[-lines:])
    except OSError:
        return ""


def _wait_until_ready(ready: socket.socket, process: subprocess.Popen) -> None:
    deadline = time.monotonic() + START_SECONDS
    while time.monotonic() < deadline:
        try:
            if b"READY=1" in ready.recv(4096):
                return
        except TimeoutError:
            pass
        if process.poll() is not None:
            raise HostError(f"arbord ended with {process.returncode} before it was ready\n{said()}")
    process.kill()
    raise HostError(f"arbord did not report ready within {START_SECONDS:.0f} s\n{said()}")
