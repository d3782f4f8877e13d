"""The small process that stands over an install and has the last word about it.

The work is done by a child. Whatever becomes of it (it crashes, is killed, the disk fills up, the stick is
pulled, it hangs), this process is there to say so: each install ends with exactly one done or error document.
"""

import contextlib
import json
import os
import select
import signal
import subprocess
import time
from dataclasses import dataclass
from typing import Iterator

from arborinstaller import settings, worker
from arborinstaller.failure import describe
from arborinstaller.files import directory_lock
from arborinstaller.layout import Package
from arborinstaller.progress import Address, Document, ProgressSink, say
from arborinstaller.slots import Slots

_TICK = 0.05           # seconds between attempts to get rid of a waiting document
_REAP_LIMIT = 5.0      # seconds for a killed worker to go; one stuck in the kernel is left behind
_REBOOT_LIMIT = 60.0
_CANCEL_SIGNALS = (signal.SIGTERM, signal.SIGINT)


@dataclass(frozen=True)
class Options:
    """How to install: where, whom to tell, and what to leave out."""

    packages: str
    address: Address | None
    verify: bool
    trust: str  # empty: as the settings say
    reboot: bool
    dry_run: bool


def install(path: str, options: Options) -> int:
    """Installs the package file `path`; returns the exit code, 0 when the new version is in place."""
    signal.signal(signal.SIGHUP, signal.SIG_IGN)  # the terminal or remote shell that started it may go
    sink = ProgressSink(options.address)
    header = "Installing"
    with _cancellation() as cancelled:
        try:
            conf = settings.load()
            with Package(path) as package:
                header = f"Installing {package.header.version}"
                outcome = _supervise(package, options, conf, sink, cancelled)
        except Exception as error:  # the receiver waits for an end, whatever happened here
            outcome = describe(error)
        sink.finish(_last_word(header, outcome, options))
    if outcome is not None:
        return 1
    return _reboot(conf.rebootCommand) if options.reboot and not options.dry_run else 0


def _last_word(header: str, outcome: str | None, options: Options) -> Document:
    if outcome is not None:
        return Document(header, f"Failed: {outcome}", error=True)
    if options.dry_run:
        message = "Dry run complete, nothing was changed"
    elif options.reboot:
        message = "Installed, the instrument restarts now"
    else:
        message = "Installed, takes effect at the next restart"
    return Document(header, message, percent=100, done=True)


def _supervise(package: Package, options: Options, conf: settings.Settings, sink: ProgressSink,
               cancelled: int) -> str | None:
    """Runs a worker under the storage's lock; returns None or why it failed."""
    slots = Slots(options.packages)
    if not options.dry_run:
        slots.create()
    plan = worker.Plan(options.verify, options.trust or conf.trust, options.dry_run)
    lock = directory_lock(slots.root, "another install is running") if slots.exist() else contextlib.nullcontext()
    with lock:
        if not options.dry_run:
            slots.discard_incomplete()
        before = slots.active()
        outcome = _Supervision(package, sink, conf.stallSeconds, cancelled).run(slots, plan)
        if outcome is None or options.dry_run:
            return outcome
        if slots.active() != before:
            say(f"the worker ended after the switch ({outcome}): the new version is in place")
            return None
        slots.discard_incomplete()
        return outcome


@contextlib.contextmanager
def _cancellation() -> Iterator[int]:
    """A descriptor that becomes readable when somebody asks this process to end."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    for number in _CANCEL_SIGNALS:
        signal.signal(number, lambda *_: None)
    signal.set_wakeup_fd(writer, warn_on_full_buffer=False)
    try:
        yield reader
    finally:
        signal.set_wakeup_fd(-1)
        os.close(reader)
        os.close(writer)


class _Supervision:
    """One worker from its start to its end."""

    def __init__(self, package: Package, sink: ProgressSink, stall: float, cancelled: int) -> None:
        self._package = package
        self._sink = sink
        self._stall = stall
        self._cancelled = cancelled
        self._outcome: str | None = "the worker said nothing"
        self._finished = False
        self._document = Document(f"Installing {package.header.version}", "Starting")

    def run(self, slots: Slots, plan: worker.Plan) -> str | None:
        """Starts the worker and relays its records until it ends; returns None or why it failed."""
        reader, writer = os.pipe()
        pid = os.fork()
        if pid == 0:
            os.close(reader)
            _work(self._package, slots, plan, writer)
        os.close(writer)
        verdict: str | None = "the watcher failed"
        try:
            with open(reader, "rb", buffering=0) as records:
                verdict = self._relay(records.fileno())
        finally:
            if verdict is not None:
                with contextlib.suppress(ProcessLookupError):
                    os.kill(pid, signal.SIGKILL)
            status = _reap(pid)
        if self._finished:
            return self._outcome
        return verdict or f"the installer's worker {_ending(status)}"

    def _relay(self, records: int) -> str | None:
        """Passes records on until the worker closes its end; returns why it is to be killed, if it is."""
        self._sink.offer(self._document)
        buffer = b""
        silent = max(self._package.header.silentSeconds, _TICK)
        heard = shown = time.monotonic()
        while True:
            timeout = _TICK if self._sink.waiting() else min(silent, self._stall)
            ready, _, _ = select.select([records, self._cancelled], [], [], timeout)
            now = time.monotonic()
            if self._cancelled in ready:
                return "it was cancelled"
            if records in ready:
                data = os.read(records, 65536)
                if not data:
                    return None
                *lines, buffer = (buffer + data).split(b"\n")
                for line in lines:
                    self._take(json.loads(line))
                heard = shown = now
            elif now - shown >= silent:
                self._sink.offer(Document(self._document.header, self._document.message, self._document.percent,
                                          spinner=True))
                shown = now
            if now - heard > self._stall:
                return f"no progress for {self._stall:g} s"
            self._sink.pump()

    def _take(self, record: dict) -> None:
        if "outcome" in record:
            self._finished = True
            self._outcome = record["outcome"]
        else:
            self._document = Document(self._document.header, record["message"], record["percent"])
            self._sink.offer(self._document)


def _work(package: Package, slots: Slots, plan: worker.Plan, writer: int) -> None:
    """The child's whole life. It ends at once when its watcher is gone: nobody could report the end."""
    code = 1
    try:
        os.setsid()
        signal.set_wakeup_fd(-1)
        for number in _CANCEL_SIGNALS:
            signal.signal(number, signal.SIG_IGN)  # the watcher decides

        def send(record: dict) -> None:
            os.write(writer, json.dumps(record).encode() + b"\n")

        outcome = worker.run(package, slots, plan,
                             lambda message, percent: send({"message": message, "percent": percent}))
        send({"outcome": outcome})
        code = 0
    finally:
        os._exit(code)


def _reap(pid: int) -> int | None:
    """The wait status of the ended child, None when it would not go in time."""
    end = time.monotonic() + _REAP_LIMIT
    while True:
        found, status = os.waitpid(pid, os.WNOHANG)
        if found:
            return status
        if time.monotonic() > end:
            return None
        time.sleep(0.01)


def _ending(status: int | None) -> str:
    if status is None:
        return "does not end"
    code = os.waitstatus_to_exitcode(status)
    return f"was ended by {signal.Signals(-code).name}" if code < 0 else f"ended with exit code {code}"


def _reboot(command: tuple[str, ...]) -> int:
    try:
        result = subprocess.run(command, stdin=subprocess.DEVNULL, timeout=_REBOOT_LIMIT, check=False)
    except (OSError, subprocess.TimeoutExpired) as error:
        say(f"the restart command {' '.join(command)} failed: {error}")
        return 1
    if result.returncode != 0:
        say(f"the restart command {' '.join(command)} failed with {result.returncode}")
    return 1 if result.returncode else 0
