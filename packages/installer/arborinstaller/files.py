"""File operations that hold across a power cut: locks, directory syncs and whole-file replacement."""

import contextlib
import fcntl
import os
from typing import BinaryIO, Iterator

from arborinstaller.failure import Failure


def sync_directory(path: str) -> None:
    """Makes the names in directory `path` durable (created, removed and renamed entries)."""
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        with naming(path):
            os.fsync(descriptor)
    finally:
        os.close(descriptor)


@contextlib.contextmanager
def naming(path: str) -> Iterator[None]:
    """A system's error in the block names the file `path` when it names none: writing to an open file tells no name."""
    try:
        yield
    except OSError as error:
        if error.filename is None:
            error.filename = path
        raise


@contextlib.contextmanager
def directory_lock(path: str, refusal: str) -> Iterator[int]:
    """Holds the exclusive lock of directory `path`; raises Failure(`refusal`) when somebody else has it.

    The lock is the kernel's, on the directory itself: no lock file is left behind, whatever ends the holder.
    Whoever inherits its descriptor shares it, so it is free again only when all of them are gone, or one unlocks it.
    """
    descriptor = os.open(path, os.O_RDONLY | os.O_DIRECTORY)
    try:
        try:
            fcntl.flock(descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Failure(refusal) from None
        yield descriptor
    finally:
        os.close(descriptor)


@contextlib.contextmanager
def replacing(path: str, mode: int, lasting: bool = True) -> Iterator[BinaryIO]:
    """A file to write that becomes `path` as a whole, or not at all, when the block ends; durably, if it is to be `lasting`.

    The unfinished file has a fixed name beside `path`, so that one left by a killed run is overwritten by the
    next. The caller sees to it that only one writer is at work (directory_lock).
    """
    folder, name = os.path.split(path)
    partial = os.path.join(folder, f".{name}.partial")
    try:
        with naming(path), open(partial, "w+b") as file:
            yield file
            file.flush()
            os.fchmod(file.fileno(), mode)
            os.fsync(file.fileno())
        os.replace(partial, path)
    except BaseException:
        with contextlib.suppress(OSError):
            os.unlink(partial)
        raise
    if lasting:
        sync_directory(folder or ".")


def remove_if_there(path: str) -> None:
    """Removes the file or link `path`; its absence is no error."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path)
