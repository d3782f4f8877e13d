"""What a package, or a file with a signature beside it, says about itself, read without running it."""

import contextlib
import hashlib
import os
from typing import Any, Iterator

from arborinstaller import documents, trust
from arborinstaller.failure import Damaged, NotPackage
from arborinstaller.layout import Package
from arborpkg.detached import SUFFIX, DetachedSignature

_MEMBERS = ("file", "format", "version", "board", "securityNumber", "installerVersion", "silentSeconds", "payloadSize",
            "payloadDigest", "signedDigest", "carriedTrust", "signer", "signerDigest", "signature", "payload", "trustDocument",
            "trusted", "verdict", "sentence")


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


def inspect(path: str, trusted: trust.Trusted | None, board: str) -> dict[str, Any]:
    """The facts about the file `path`; what is not known is None.

    "signedDigest" is what a trust document names to revoke it; "carriedTrust" the number of the newest trust document that
    it carries, or 0 for a damaged one. "signature" is "good" when one of the signatures fits, else "bad"; "payload" says
    the same of the payload's digest. When somebody is `trusted`, "trusted" says whether they vouch for it, "trustDocument"
    under which document, and "verdict" and "sentence" are those of arborinstaller.trust. Without, the verdict only tells
    what is wrong whoever is trusted: notPackage, damaged, badSignature.
    """
    facts: dict[str, Any] = {**dict.fromkeys(_MEMBERS), "file": path}
    try:
        with opened(path) as signed:
            found = trust.assess(signed, trusted or trust.Trusted([]), board)
            facts |= _described(signed) | _signed(trust.decisive(found.findings)) | {"signedDigest": found.digest}
            fits = any(finding.word != trust.BAD_SIGNATURE for finding in found.findings)
    except (NotPackage, Damaged) as failure:
        return facts | _told(trust.refusal(failure))
    facts |= {"signature": "good" if fits else "bad", **_told(found.verdict)}
    if trusted:
        facts |= {"trusted": found.verdict.word in (trust.GOOD, trust.WRONG_BOARD),
                  "trustDocument": found.entry.number if found.entry else None}
    elif fits:
        facts |= {"verdict": None, "sentence": "the signature fits; whether its signer is trusted was not asked"}
    if facts["payload"] == "bad":
        facts["sentence"] += "; but its image is damaged"
    return facts


def signed_digest(path: str) -> str:
    """The digest that was signed for the file `path`; NotPackage or Damaged when there is none."""
    with opened(path) as signed:
        return trust.digest_of(signed)


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
    if header.trust is not None:
        facts["carriedTrust"] = _carried(header.trust)
    return facts


def _carried(value: dict[str, Any]) -> int:
    try:
        return documents.carried(value)[-1].number
    except documents.DamagedChain:
        return 0


def _signed(finding: trust.Finding) -> dict[str, Any]:
    if finding.key:
        return {"signer": finding.key.name}
    if finding.signer is None:
        return {}
    return {"signer": finding.signer.subject, "signerDigest": hashlib.sha256(finding.signer.pem.encode()).hexdigest()}
