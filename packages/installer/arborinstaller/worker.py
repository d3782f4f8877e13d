"""The part of an install that touches the storage. It runs in a process of its own, watched by watcher.py."""

import hashlib
import os
from typing import Callable, Iterable, Iterator, NamedTuple

from arborinstaller import boot
from arborinstaller.boot import Choice
from arborinstaller.failure import Failure, describe
from arborinstaller.files import naming
from arborinstaller.layout import CHUNK, Package, compare_digests
from arborinstaller.record import Record
from arborinstaller.settings import Settings
from arborinstaller.slots import Slots

# Flushed piece by piece, so that the final sync is short and the percentage tells the truth.
_FLUSH_BYTES = 32 << 20
# The storage is told of so much at once, and writes it while the next is read.
_BEGIN_BYTES = 4 << 20

# Shares of the percentage: the write is the long part, reading back the next.
_WRITTEN = 80
_CHECKED = 97

Report = Callable[[str, int], None]
"""Called with a message and a percentage (0 to 99)."""


class Plan(NamedTuple):
    """What the worker is to do: check first (whom to trust is in the settings), where to write, what record to keep.

    Without a record it only looks, and writes nothing.
    """

    verify: bool
    conf: Settings
    choice: Choice
    record: Record | None


def run(package: Package, slots: Slots, plan: Plan, report: Report) -> str | None:
    """Installs the package; returns None, or the reason why the instrument keeps its old version."""
    try:
        if plan.verify:
            report("Checking the signature", 0)
            from arborinstaller import trust  # an install that a host has ordered does not need it

            trust.verify(package, plan.conf, "")
        slots.check_space(plan.choice.slot, package.header.payload.size)
        if plan.record is None:
            _rehearse(package, report)
        else:
            boot.ask(plan.conf)
            _prepare(slots, plan, plan.record, report)
            _install(package, slots, plan, report)
    except (Failure, OSError) as error:
        return describe(error)
    except Exception as error:  # whatever it is, the person at the instrument hears of it
        import traceback
        traceback.print_exc()
        return describe(error)
    return None


def _rehearse(package: Package, report: Report) -> None:
    """Reads the whole image as an install would, without writing anything."""
    expected = package.header.payload
    digest = hashlib.sha256()
    for chunk in _counted(package.payload(), expected.size, "Reading the image (dry run)", (0, _CHECKED), report):
        digest.update(chunk)
    compare_digests(digest.hexdigest(), expected.sha256, "the image in the package is damaged")


def _prepare(slots: Slots, plan: Plan, record: Record, report: Report) -> None:
    """Empties the slot. Whatever stops this, the instrument starts a whole version, and the record tells the truth."""
    choice = plan.choice
    if slots.active() == choice.slot:  # an earlier install has not had its restart: first the way back to what runs
        if not slots.complete(choice.running):
            raise Failure(f"slot {choice.running}, which the system runs from, is not complete, and slot {choice.slot} "
                          "starts next; restart the instrument first")
        report(f"Switching back to slot {choice.running}", 0)
        boot.switch(slots, choice.running, plan.conf)
    elif choice.running and plan.conf.bootCommand:  # the loader may know of a switch that the link does not
        boot.switch(slots, choice.running, plan.conf)
    report(f"Preparing slot {choice.slot}", 0)
    slots.prepare(choice.slot)
    boot.remember(slots, choice)
    record.writing_to(choice.slot).save(slots.root)


def _install(package: Package, slots: Slots, plan: Plan, report: Report) -> None:
    slot = plan.choice.slot
    _write_image(package, slots, slot, report)
    _check_image(package, slots.image(slot), report)
    report(f"Completing slot {slot}", _CHECKED)
    slots.seal(slot, package.header.version, package.header.payload.sha256)
    report(f"Switching to slot {slot}", 99)
    boot.switch(slots, slot, plan.conf)


def _write_image(package: Package, slots: Slots, slot: str, report: Report) -> None:
    begun = flushed = written = 0
    with naming(slots.image(slot)), open(slots.open_for_writing(slot), "wb", buffering=0) as image:
        for chunk in _counted(package.payload(), package.header.payload.size, "Writing the image", (0, _WRITTEN), report):
            if written - flushed >= _FLUSH_BYTES:
                os.fdatasync(image.fileno())
                flushed = written
            _write_all(image.fileno(), chunk)
            written += len(chunk)
            if written - begun >= _BEGIN_BYTES:  # pages that nobody needs any more are written, and it is not waited for
                os.posix_fadvise(image.fileno(), begun, written - begun, os.POSIX_FADV_DONTNEED)
                begun = written
        report("Flushing the image to the storage", _WRITTEN)
        os.fsync(image.fileno())


def _write_all(descriptor: int, data: bytes) -> None:
    rest = memoryview(data)
    while rest:
        rest = rest[os.write(descriptor, rest):]


def _check_image(package: Package, path: str, report: Report) -> None:
    """Reads the image back, from the storage and not from memory, and compares its digest.

    So what was written is known to be what was signed; only when it is not, the package is read again to tell whose fault it is.
    """
    digest, size = hashlib.sha256(), package.header.payload.size
    with naming(path), open(path, "rb", buffering=0) as image:
        os.posix_fadvise(image.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
        pieces = iter(lambda: image.read(min(CHUNK, size - image.tell())), b"")  # a partition goes on behind it
        for chunk in _counted(pieces, size, "Checking the image", (_WRITTEN, _CHECKED), report):
            digest.update(chunk)
    if digest.hexdigest() != package.header.payload.sha256:
        compare_digests(package.payload_digest(), package.header.payload.sha256, "the image in the package is damaged")
    compare_digests(digest.hexdigest(), package.header.payload.sha256, f"{path}: it does not hold the image: the storage wrote it wrongly, or the package was read wrongly")


def _counted(chunks: Iterable[bytes], total: int, message: str, share: tuple[int, int],
             report: Report) -> Iterator[bytes]:
    """Passes `chunks` on and reports each new percent of the `share` of the whole that they stand for."""
    first, last = share
    done = 0
    reported = -1
    for chunk in chunks:
        percent = first + (last - first) * done // max(total, 1)
        if percent != reported:
            report(message, percent)
            reported = percent
        yield chunk
        done += len(chunk)
