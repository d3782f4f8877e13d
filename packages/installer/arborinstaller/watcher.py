"""The small process that stands over an install and has the last word about it.

The work is done by a child. Whatever becomes of it (it crashes, is killed, the disk fills up, the stick is
pulled, it hangs), this process is there to say so: each install ends with exactly one done or error document. Before
that document goes out, the record beside the slots says the same (record.py).
"""

import contextlib
import fcntl
import json
import os
import select
import signal
import time
from typing import Callable, Iterator, NamedTuple

from arborinstaller import boot, settings, worker
from arborinstaller.failure import describe
from arborinstaller.files import directory_lock, sync_directory
from arborinstaller.layout import Package
from arborinstaller.process import adopt_orphans, end_with
from arborinstaller.progress import Address, Document, ProgressSink, say
from arborinstaller.record import CANCELLED, FAILED, SUCCEEDED, Outcome, Record, end_of
from arborinstaller.slots import Slots

_TICK = 0.02           # seconds between attempts to get rid of a waiting document
_REAP_LIMIT = 5.0      # seconds for a killed worker to go; one stuck in the kernel is left behind
_REBOOT_LIMIT = 60.0
_LAST_WORD_LIMIT = 30.0  # seconds for a receiver that went away to come back for the final document
_LAST_WORD_BEFORE_RESTART = 6.0  # the same, where the restart waits: 10 with an attempt to connect and to send at its end
_CANCEL_SIGNALS = (signal.SIGTERM, signal.SIGINT)


class Options(NamedTuple):
    """How to install: where, whom to tell, and what to leave out."""

    packages: str
    address: Address | None
    verify: bool
    trust: str  # empty: as the settings say
    reboot: bool
    dry_run: bool


def install(opened: Callable[[], Package], options: Options) -> int:
    """Installs the package that `opened` gives; returns the exit code, 0 when the new version is in place."""
    signal.signal(signal.SIGHUP, signal.SIG_IGN)  # the terminal or remote shell that started it may go
    sink = ProgressSink(options.address)
    header = "Installing"
    with _cancellation() as cancelled:
        try:
            conf = settings.load()
            with opened() as package:
                header = f"Installing {package.header.version}"
                outcome = _install(package, options, conf, sink, cancelled)
        except Exception as error:  # the receiver waits for an end, whatever happened here
            outcome = Outcome(FAILED, describe(error))
        restart = outcome.word == SUCCEEDED and options.reboot and not options.dry_run
        sink.finish(_last_word(header, outcome, options), _LAST_WORD_BEFORE_RESTART if restart else _LAST_WORD_LIMIT)
    if outcome.word != SUCCEEDED:
        return 1
    return _reboot(conf.rebootCommand) if restart else 0


def _last_word(header: str, outcome: Outcome, options: Options) -> Document:
    if outcome.word != SUCCEEDED:
        return Document(header, f"Failed: {outcome.reason}", error=True)
    if options.dry_run:
        message = "Dry run complete, nothing was changed"
    elif options.reboot:
        message = "Installed, the instrument restarts now"
    else:
        message = "Installed, takes effect at the next restart"
    return Document(header, message, percent=100, done=True)


def _install(package: Package, options: Options, conf: settings.Settings, sink: ProgressSink,
             cancelled: int) -> Outcome:
    """Installs, or tries to, under the storage's lock; the record tells how that ended, unless it was a dry run."""
    slots = Slots(options.packages, conf.slotDevices)
    if not options.dry_run:
        slots.create()
    supervision = _Supervision(package, sink, conf.stallSeconds, cancelled)
    lock = directory_lock(slots.root, "another install is running") if slots.exist() else contextlib.nullcontext()
    with lock as slots.lock:
        record = None if options.dry_run else Record.begin(package.header.version)
        _keep(record, slots)
        try:
            choice = boot.choose(slots, conf)
            plan = worker.Plan(options.verify, conf.with_trust(options.trust), choice, record)
            outcome = _run(supervision, slots, plan)
        except Exception as error:
            outcome = Outcome(FAILED, describe(error))
        if record and not supervision.stuck:
            _keep(_written(record, slots).ended(outcome), slots)
        if slots.lock is not None and not supervision.stuck:
            fcntl.flock(slots.lock, fcntl.LOCK_UN)  # also for what a boot loader's program may have left running
        return outcome


def _run(supervision: "_Supervision", slots: Slots, plan: worker.Plan) -> Outcome:
    """Runs the worker, and sees to what it left behind."""
    slot, record = plan.choice.slot, plan.record
    if record is None:
        return supervision.run(slots, plan)
    slots.discard_incomplete(slot)
    outcome = supervision.run(slots, plan)
    if outcome.word == SUCCEEDED or supervision.stuck:
        return outcome
    with _saying("what the install left behind stays for the next one"):
        if end_of(_written(record, slots), slots.active()) == SUCCEEDED:
            say(f"the worker ended after the switch ({outcome.reason}): the new version is in place")
            outcome = Outcome(SUCCEEDED)
            sync_directory(slots.root)
        else:
            boot.settle(slots, plan.conf)
            slots.discard_incomplete(slot)
    return outcome


def _keep(record: Record | None, slots: Slots) -> None:
    """Saves the record; an install does not fail because that fails."""
    if record:
        with _saying("the record of this install is not up to date"):
            record.save(slots.root)


def _written(record: Record, slots: Slots) -> Record:
    """The record as the worker of the same install has left it."""
    found = Record.load(slots.root)
    return found if found and record == found.writing_to("") else record


@contextlib.contextmanager
def _saying(consequence: str) -> Iterator[None]:
    """What fails in the block is said; the work goes on."""
    try:
        yield
    except Exception as error:
        say(f"{describe(error)}: {consequence}")


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
        self._finished: Outcome | None = None  # the worker's own word
        self.stuck = False  # the worker hangs in the kernel, killed: better leave the storage alone
        self._document = Document(f"Installing {package.header.version}", "Starting")

    def run(self, slots: Slots, plan: worker.Plan) -> Outcome:
        """Starts the worker and relays its records until it ends; returns how it ended."""
        reader, writer = os.pipe()
        watcher = os.getpid()
        adopt_orphans()
        pid = os.fork()
        if pid == 0:
            os.close(reader)
            _work(self._package, slots, plan, writer, watcher)
        os.close(writer)
        try:
            with open(reader, "rb", buffering=0) as records:
                verdict = self._relay(records.fileno())
        except Exception as error:
            verdict = Outcome(FAILED, describe(error))
        if verdict is not None:
            with contextlib.suppress(ProcessLookupError):
                os.kill(pid, signal.SIGKILL)
        status = _reap(pid)
        self.stuck = status is None and self._finished is None
        return self._finished or verdict or Outcome(FAILED, f"the installer's worker {_ending(status)}")

    def _relay(self, records: int) -> Outcome | None:
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
                return Outcome(CANCELLED, "it was cancelled")
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
                return Outcome(FAILED, f"no progress for {self._stall:g} s")
            self._sink.pump()

    def _take(self, record: dict) -> None:
        if "outcome" in record:
            self._finished = Outcome(FAILED, record["outcome"]) if record["outcome"] else Outcome(SUCCEEDED)
        else:
            self._document = Document(self._document.header, record["message"], record["percent"])
            self._sink.offer(self._document)


def _work(package: Package, slots: Slots, plan: worker.Plan, writer: int, watcher: int) -> None:
    """The child's whole life. It ends at once when its watcher is gone: nobody could report the end."""
    code = 1
    try:
        end_with(watcher)
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


def _reap_orphans(end: float) -> None:
    """Waits for what the worker has left: a boot loader's program that was killed with it may not have ended yet."""
    with contextlib.suppress(ChildProcessError):  # there is none any more
        while time.monotonic() < end:
            if not os.waitpid(-1, os.WNOHANG)[0]:
                time.sleep(0.01)


def _reap(pid: int) -> int | None:
    """The wait status of the ended child, None when it would not go in time."""
    end, pause = time.monotonic() + _REAP_LIMIT, 0.0005  # it mostly ends at once
    while True:
        found, status = os.waitpid(pid, os.WNOHANG)
        if found:
            _reap_orphans(end)
            return status
        if time.monotonic() > end:
            return None
        time.sleep(pause)
        pause = min(2 * pause, 0.01)


def _ending(status: int | None) -> str:
    if status is None:
        return "does not end"
    code = os.waitstatus_to_exitcode(status)
    return f"was ended by {signal.Signals(-code).name}" if code < 0 else f"ended with exit code {code}"


def _reboot(command: tuple[str, ...]) -> int:
    import subprocess  # it takes long to load, and the new version is in place now
    try:
        result = subprocess.run(command, stdin=subprocess.DEVNULL, timeout=_REBOOT_LIMIT, check=False)
    except (OSError, subprocess.TimeoutExpired) as error:
        say(f"the restart command {' '.join(command)} failed: {error}")
        return 1
    if result.returncode != 0:
        say(f"the restart command {' '.join(command)} failed with {result.returncode}")
    return 1 if result.returncode else 0
