"""Signing and checking through the openssl program.

Inputs are handed over as anonymous memory files: nothing is written to a disk, and nothing is left behind when
the process is killed half-way.
"""

import contextlib
import os
import select
import time
from typing import Iterator

from arborinstaller.failure import Failure

_TIME_LIMIT = 60  # seconds; openssl answers in milliseconds unless the machine is stuck
_KILL = 9  # SIGKILL; its module takes long to load
# The system's own certificate authorities are not asked: reading all of them would take longer than the work itself.
_NO_AUTHORITIES = {"SSL_CERT_FILE": os.devnull, "SSL_CERT_DIR": os.devnull}


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
    with _memory_file(b"") as complaints:
        code, output = _finished(arguments, descriptors, complaints)
        if code != 0:
            words = (os.pread(complaints, 65536, 0) or output).decode(errors="replace").strip().splitlines()
            raise Failure(f"openssl {arguments[0]} failed: {words[-1] if words else code}")
    return output


def _finished(arguments: list[str], descriptors: tuple[int, ...], complaints: int) -> tuple[int, bytes]:
    """Runs openssl to its end; its exit code and its standard output. (The module subprocess takes longer to load than this to run.)"""
    reader, writer = os.pipe()
    with open(reader, "rb", buffering=0) as output:
        try:
            # A descriptor that is duplicated to its own number is one that the program inherits.
            child = os.posix_spawnp("openssl", ["openssl", *arguments], {**os.environ, **_NO_AUTHORITIES}, file_actions=[
                (os.POSIX_SPAWN_OPEN, 0, os.devnull, os.O_RDONLY, 0), (os.POSIX_SPAWN_DUP2, writer, 1),
                (os.POSIX_SPAWN_DUP2, complaints, 2), *((os.POSIX_SPAWN_DUP2, one, one) for one in descriptors)])
        except FileNotFoundError:
            raise Failure("the program openssl was not found") from None
        finally:
            os.close(writer)
        found, end = b"", time.monotonic() + _TIME_LIMIT
        while select.select([output], [], [], max(0.0, end - time.monotonic()))[0]:
            data = output.read(65536)
            if not data:
                return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]), found
            found += data
    os.kill(child, _KILL)
    os.waitpid(child, 0)
    raise Failure(f"openssl {arguments[0]} did not answer within {_TIME_LIMIT} s")


def private_key(key: str, option: str, form: str) -> list[str]:
    """Names a private key to openssl with its `option` for the key and for the key's `form`.

    The key is a PEM file, or a PKCS#11 URI for one that stays in its token. Passphrase or PIN are taken from the
    environment variable ARBOR_KEY_PASSPHRASE.
    """
    passphrase = "env:ARBOR_KEY_PASSPHRASE" if "ARBOR_KEY_PASSPHRASE" in os.environ else "pass:"
    token = [form, "engine", "-engine", "pkcs11"] if is_in_token(key) else []
    return [option, key, "-passin", passphrase, *token]


def is_in_token(key: str) -> bool:
    """Whether a private key is named by a PKCS#11 URI."""
    return key.startswith("pkcs11:")


def sign(message: bytes, key: str) -> bytes:
    """The signature of `message` (which must not be empty) by the private `key` (see private_key)."""
    with _memory_file(message) as text:
        return run(["pkeyutl", "-sign", "-rawin", *private_key(key, "-inkey", "-keyform"), "-in", _path(text)], (text,))


def signature_fits(message: bytes, signature: bytes, public_key: str) -> bool:
    """Whether `signature` over `message` was made with the private key of `public_key` (PEM text)."""
    with _memory_file(message) as text, _memory_file(signature) as mark, \
            _memory_file(public_key.encode()) as signer:
        try:
            run(["pkeyutl", "-verify", "-rawin", "-pubin", "-inkey", _path(signer), "-in", _path(text),
                 "-sigfile", _path(mark)], (text, mark, signer))
        except Failure:
            return False
    return True


def rsa_text(key: bytes) -> str:
    """What openssl says of the RSA public `key` (DER): its modulus, and the key as PEM. Failure when it is none."""
    with _memory_file(key) as public:
        return run(["rsa", "-pubin", "-inform", "DER", "-in", _path(public), "-modulus"], (public,)).decode(errors="replace")


def is_issued_by(certificate: str, anchor: str) -> bool:
    """Whether `certificate` was issued by the certificate `anchor` (PEM texts), with a strong key and digest.

    The validity period is left out: an instrument's clock may be unset when it is updated. A signer is
    withdrawn by taking its certificate out of the trusted directory.
    """
    with _memory_file(certificate.encode()) as signer, _memory_file(anchor.encode()) as issuer:
        try:
            run(["verify", "-partial_chain", "-no_check_time", "-auth_level", "2", "-trusted", _path(issuer),
                 _path(signer)], (signer, issuer))
        except Failure:
            return False
    return True


def certificate_text(certificate: str) -> str:
    """What openssl says of `certificate` (PEM text): its public key, an RSA key's modulus, its subject, what it may be used for."""
    with _memory_file(certificate.encode()) as signer:
        return run(["x509", "-noout", "-pubkey", "-modulus", "-subject", "-ext", "basicConstraints,keyUsage,extendedKeyUsage",
                    "-in", _path(signer)], (signer,)).decode(errors="replace")

