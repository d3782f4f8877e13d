"""What a package, or a file with a signature beside it, says about itself, read without running it."""

import contextlib
import hashlib
import os
from typing import Any, Iterator

from arborinstaller import trust
from arborinstaller.certificates import trusted_in
from arborinstaller.failure import Damaged, NotPackage
from arborinstaller.layout import Package
from arborpkg.detached import SUFFIX, DetachedSignature

_MEMBERS = ("file", "format", "version", "board", "securityNumber", "installerVersion", "silentSeconds", "payloadSize",
            "payloadDigest", "signer", "signerDigest", "signature", "payload", "trusted", "verdict", "sentence")


@contextlib.contextmanager
def opened(path: str) -> Iterator[Package | DetachedSignature]:
    """The package in the file, else the file with the signature beside it; NotPackage or Damaged when it is neither."""
    with contextlib.ExitStack() as stack:
        try:
            signed = stack.enter_context(Package(path))
        except NotPackage:
            if not os.path.lexists(path + SUFFIX):
                raise
            signed = DetachedSignature(path)
        yield signed


def inspect(path: str, directory: str, board: str) -> dict[str, Any]:
    """The facts about the file `path`; what is not known is None.

    "signature" is "good" when one of the signatures fits, else "bad"; "payload" says the same of the payload's digest.
    With the certificates in `directory` (empty: nobody is asked) "trusted" says whether one of them vouches for a
    signer, and "verdict" and "sentence" are those of arborinstaller.trust. Without, the verdict only tells what is wrong
    whoever is trusted: notPackage, damaged, badSignature.
    """
    facts: dict[str, Any] = {**dict.fromkeys(_MEMBERS), "file": path}
    trusted = trusted_in(directory) if directory else []
    try:
        with opened(path) as signed:
            findings = trust.examine(signed, trusted)
            verdict = trust.conclude(signed, findings, len(trusted), board)
            facts |= _described(signed) | _signed(trust.decisive(findings))
            fits = any(finding.word != trust.BAD_SIGNATURE for finding in findings)
    except (NotPackage, Damaged) as failure:
        return facts | _told(trust.refusal(failure))
    facts |= {"signature": "good" if fits else "bad", **_told(verdict)}
    if directory:
        facts["trusted"] = verdict.word in (trust.GOOD, trust.WRONG_BOARD)
    elif fits:
        facts |= {"verdict": None, "sentence": "the signature fits; whether its signer is trusted was not asked"}
    if facts["payload"] == "bad":
        facts["sentence"] += "; but its image is damaged"
    return facts


def is_sound(facts: dict[str, Any]) -> bool:
    """Whether nothing speaks against the inspected file."""
    return facts["verdict"] in (None, trust.GOOD) and facts["payload"] == "good"


def _told(verdict: trust.Verdict) -> dict[str, str]:
    return {"verdict": verdict.word, "sentence": verdict.sentence}


def _described(signed: Package | DetachedSignature) -> dict[str, Any]:
    header = signed.header
    facts = {"format": header.format, "version": header.version, "board": header.board,
             "securityNumber": header.securityNumber, "payloadSize": header.payload.size,
             "payloadDigest": header.payload.sha256, "payload": "good"}
    if isinstance(signed, Package):
        facts |= {"installerVersion": header.installerVersion, "silentSeconds": header.silentSeconds,
                  "payload": "good" if signed.payload_digest() == header.payload.sha256 else "bad"}
    return facts


def _signed(finding: trust.Finding) -> dict[str, Any]:
    if finding.signer is None:
        return {}
    return {"signer": finding.signer.subject(), "signerDigest": hashlib.sha256(finding.signer.pem.encode()).hexdigest()}
