"""Signing and checking through the openssl program.

Inputs are handed over as anonymous memory files: nothing is written to a disk, and nothing is left behind when
the process is killed half-way.
"""

import contextlib
import os
import subprocess
from typing import Iterator

from arborinstaller.failure import Failure

_TIME_LIMIT = 60  # seconds; openssl answers in milliseconds unless the machine is stuck


@contextlib.contextmanager
def _memory_file(data: bytes) -> Iterator[int]:
    descriptor = os.memfd_create("arbor")
    try:
        os.write(descriptor, data)
        yield descriptor
    finally:
        os.close(descriptor)


def _path(descriptor: int) -> str:
    return f"/proc/self/fd/{descriptor}"


def run(arguments: list[str], descriptors: tuple[int, ...] = ()) -> bytes:
    """Runs openssl and returns its standard output; Failure with its own words when it reports an error."""
    try:
        result = subprocess.run(["openssl", *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                                pass_fds=descriptors, timeout=_TIME_LIMIT, check=False)
    except FileNotFoundError:
        raise Failure("the program openssl was not found") from None
    except subprocess.TimeoutExpired:
        raise Failure(f"openssl {arguments[0]} did not answer within {_TIME_LIMIT} s") from None
    if result.returncode != 0:
        words = (result.stderr or result.stdout).decode(errors="replace").strip().splitlines()
        raise Failure(f"openssl {arguments[0]} failed: {words[-1] if words else result.returncode}")
    return result.stdout


def sign(message: bytes, key: str) -> bytes:
    """The signature of `message` (which must not be empty) by the private key file `key`.

    A key that is protected by a passphrase takes it from the environment variable ARBOR_KEY_PASSPHRASE.
    """
    passphrase = "env:ARBOR_KEY_PASSPHRASE" if "ARBOR_KEY_PASSPHRASE" in os.environ else "pass:"
    with _memory_file(message) as text:
        return run(["pkeyutl", "-sign", "-rawin", "-inkey", key, "-passin", passphrase, "-in", _path(text)],
                   (text,))


def signature_fits(message: bytes, signature: bytes, certificate: str) -> bool:
    """Whether `signature` over `message` was made with the key of `certificate` (PEM text)."""
    with _memory_file(message) as text, _memory_file(signature) as mark, \
            _memory_file(certificate.encode()) as signer:
        try:
            run(["pkeyutl", "-verify", "-rawin", "-certin", "-inkey", _path(signer), "-in", _path(text),
                 "-sigfile", _path(mark)], (text, mark, signer))
        except Failure:
            return False
    return True


def is_issued_by(certificate: str, anchor: str) -> bool:
    """Whether `certificate` (PEM text) is, or was issued by, a certificate in the file `anchor`.

    The validity period is left out: an instrument's clock may be unset when it is updated. A signer is
    withdrawn by taking its certificate out of the trusted directory.
    """
    with _memory_file(certificate.encode()) as signer:
        try:
            run(["verify", "-partial_chain", "-no_check_time", "-trusted", anchor, _path(signer)], (signer,))
        except Failure:
            return False
    return True


def subject(certificate: str) -> str:
    """The subject of `certificate` (PEM text) on one line, such as "CN = Arbor release"."""
    with _memory_file(certificate.encode()) as signer:
        text = run(["x509", "-noout", "-subject", "-in", _path(signer)], (signer,)).decode(errors="replace")
    return text.strip().removeprefix("subject=").strip()
