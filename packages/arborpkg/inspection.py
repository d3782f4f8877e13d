"""What a package says about itself, read without running it."""

import hashlib
from typing import Any

from arborinstaller import openssl, trust
from arborinstaller.failure import Failure
from arborinstaller.layout import Package


def inspect(path: str, trusted: str) -> dict[str, Any]:
    """The facts about the package file `path`; Failure when it is none.

    "signature" is "good" or "bad"; "trusted" says whether a certificate in the directory `trusted` vouches for
    the signer (None when `trusted` is empty, and nothing was asked).
    """
    with Package(path) as package:
        header = package.header
        return {
            "file": path,
            "version": header.version,
            "board": header.board,
            "installerVersion": header.installerVersion,
            "silentSeconds": header.silentSeconds,
            "payloadSize": header.payload.size,
            "payloadDigest": header.payload.sha256,
            "signer": openssl.subject(header.signer),
            "signerDigest": hashlib.sha256(header.signer.encode()).hexdigest(),
            "signature": "good" if _holds(trust.check_signature, package) else "bad",
            "trusted": _holds(trust.check_signer, package, trusted) if trusted else None,
        }


def is_sound(facts: dict[str, Any]) -> bool:
    """Whether nothing speaks against the inspected package."""
    return facts["signature"] == "good" and facts["trusted"] is not False


def _holds(check, *arguments) -> bool:
    try:
        check(*arguments)
    except Failure:
        return False
    return True
