"""Whether a package may be believed: its signature, its signer and its board."""

import os

from arborinstaller import openssl
from arborinstaller.failure import Failure
from arborinstaller.layout import Package

_CERTIFICATE_SUFFIXES = (".pem", ".crt")


def check_signature(package: Package) -> None:
    """Failure unless the signature fits every byte of the file."""
    if not openssl.signature_fits(package.signed_message(), package.signature, package.header.signer):
        raise Failure("the signature does not fit the package: the file is damaged or was changed")


def check_signer(package: Package, directory: str) -> None:
    """Failure unless a certificate in `directory` vouches for the package's signer.

    One unreadable certificate among several does not stop the others from counting.
    """
    anchors = _certificates(directory)
    if not any(openssl.is_issued_by(package.header.signer, anchor) for anchor in anchors):
        raise Failure(f"the signer {_signer_name(package)} is not trusted "
                      f"({len(anchors)} certificate(s) in {directory})")


def verify(package: Package, directory: str, board: str) -> str:
    """Checks signature, signer and, unless `board` is empty, the board; returns the good news in a line."""
    check_signature(package)
    check_signer(package, directory)
    if board and board != package.header.board:
        raise Failure(f"the package is for board {package.header.board}, not for {board}")
    return f"version {package.header.version} for board {package.header.board}, signed by {_signer_name(package)}"


def _certificates(directory: str) -> list[str]:
    try:
        names = sorted(os.listdir(directory))
    except OSError as error:
        raise Failure(f"the trusted certificates in {directory} cannot be read: {error.strerror}") from None
    found = [os.path.join(directory, name) for name in names if name.endswith(_CERTIFICATE_SUFFIXES)]
    if not found:
        raise Failure(f"there is no trusted certificate in {directory}")
    return found


def _signer_name(package: Package) -> str:
    return openssl.subject(package.header.signer)
