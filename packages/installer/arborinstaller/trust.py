"""Whether a package may be believed: its signatures, its signers and its board.

The verdict's words are for programs. They are found in this order, and the first that applies is the verdict:

    notPackage, damaged   found when the package is opened (failure.py)
    badSignature          no signature by a key that is known fits
    weakKey               RSA below 2,048 bits, or neither RSA nor Ed25519
    wrongPurpose          the signer's certificate is for something else than signing packages
    unknownSigner         nobody who is trusted
    wrongBoard            another board than the one asked for
    good

Of several signatures one good one is enough; without one, the first signature's verdict is the package's.
"""

from dataclasses import dataclass
from typing import Protocol

from arborinstaller import openssl
from arborinstaller.certificates import Certificate, trusted_in
from arborinstaller.failure import Damaged, Failure, NotPackage, describe
from arborinstaller.layout import Package, Section, Signature

GOOD, NOT_PACKAGE, DAMAGED, BAD_SIGNATURE = "good", "notPackage", "damaged", "badSignature"
WEAK_KEY, WRONG_PURPOSE, UNKNOWN_SIGNER, WRONG_BOARD = "weakKey", "wrongPurpose", "unknownSigner", "wrongBoard"


class Description(Protocol):
    """What was signed."""

    version: str
    board: str
    payload: Section


class Signed(Protocol):
    """Something with signatures: a package, or a file with a signature beside it."""

    @property
    def header(self) -> Description: ...
    signatures: tuple[Signature, ...]

    def signed_message(self) -> bytes:
        """What the signatures are over."""


@dataclass(frozen=True)
class Verdict:
    """A word for programs, a sentence for people."""

    word: str
    sentence: str


@dataclass(frozen=True)
class Finding:
    """What is to be said of one signature; `signer` is None when its certificate is not known."""

    word: str
    signature: Signature
    signer: Certificate | None

    def name(self) -> str:
        """Who signed, as the certificate says."""
        return self.signer.subject() if self.signer else f"with the key {self.signature.key[:16]}..."


def refusal(failure: NotPackage | Damaged) -> Verdict:
    """The verdict on a file that could not be opened as a package because of `failure`."""
    return Verdict(DAMAGED if isinstance(failure, Damaged) else NOT_PACKAGE, describe(failure))


def examine(signed: Signed, trusted: list[Certificate]) -> list[Finding]:
    """What is to be said of each signature, in their order."""
    message = signed.signed_message()
    return [_examine(message, signature, trusted) for signature in signed.signatures]


def conclude(signed: Signed, findings: list[Finding], trusted_count: int, board: str) -> Verdict:
    """The verdict on what was examined, for the `board` (empty: any)."""
    chosen = decisive(findings)
    if chosen.word == BAD_SIGNATURE:
        return Verdict(BAD_SIGNATURE, "the signature does not fit the package: the file is damaged or was changed"
                       if chosen.signer else "the signature is by a key that nobody here knows, or its certificate is damaged")
    name = chosen.name()
    header = signed.header
    if chosen.word == WEAK_KEY:
        sentence = f"the key of {name} is too weak: Ed25519 or RSA of at least 2048 bits is expected"
    elif chosen.word == WRONG_PURPOSE:
        sentence = f"the certificate of {name} is not one for signing packages"
    elif chosen.word == UNKNOWN_SIGNER:
        sentence = f"the signer {name} is not trusted ({trusted_count} trusted certificate(s))"
    elif board and board != header.board:
        return Verdict(WRONG_BOARD, f"the package is for board {header.board}, not for {board}")
    else:
        sentence = f"version {header.version} for board {header.board}, signed by {name}"
    return Verdict(chosen.word, sentence)


def decisive(findings: list[Finding]) -> Finding:
    """The finding that counts: the first good one, else the first."""
    return next((finding for finding in findings if finding.word == GOOD), findings[0])


def judge(signed: Signed, trusted: list[Certificate], board: str) -> Verdict:
    """Whether somebody of `trusted` vouches for it, and it is for `board` (empty: any)."""
    return conclude(signed, examine(signed, trusted), len(trusted), board)


def verify(package: Package, directory: str, board: str) -> str:
    """Checks signature, signer and, unless `board` is empty, the board; returns the good news in a line.

    The payload of a package of format 2 is not read: who writes it compares its digest.
    """
    verdict = judge(package, trusted_in(directory), board)
    if verdict.word != GOOD:
        raise Failure(verdict.sentence)
    return verdict.sentence


def verify_all(package: Package, directory: str, board: str) -> str:
    """As verify(), and reads the payload too."""
    sentence = verify(package, directory, board)
    if package.header.format != 1:  # there the signature covers it, and it was read
        compare_digests(package.payload_digest(), package.header.payload.sha256, "the image in the package is damaged")
    return sentence


def compare_digests(found: str, expected: str, complaint: str) -> None:
    """Failure that begins with `complaint` unless the two are the same."""
    if found != expected:
        raise Failure(f"{complaint} (digest {found[:16]}..., expected {expected[:16]}...)")


def _examine(message: bytes, signature: Signature, trusted: list[Certificate]) -> Finding:
    """A certificate that is trusted counts in place of one that the file brings along for the same key."""
    own = None if signature.key and any(one.key == signature.key for one in trusted) else _parsed(signature.certificate)
    key = signature.key or (own.key if own else "")
    signers = [one for one in trusted if one.key == key] or ([own] if own and own.key == key else [])
    if not signers:
        return Finding(BAD_SIGNATURE, signature, None)
    if not openssl.signature_fits(message, signature.value, signers[0].public_key):
        return Finding(BAD_SIGNATURE, signature, signers[0])
    return decisive([Finding(_word(signer, trusted), signature, signer) for signer in signers])


def _word(signer: Certificate, trusted: list[Certificate]) -> str:
    if not signer.is_strong:
        return WEAK_KEY
    if not signer.fits_purpose():
        return WRONG_PURPOSE
    if signer in trusted:
        return GOOD
    if not any(anchor.has_issued(signer) for anchor in trusted):
        return UNKNOWN_SIGNER
    return GOOD if signer.is_for_packages() else WRONG_PURPOSE


def _parsed(certificate: str) -> Certificate | None:
    try:
        return Certificate.parse(certificate)
    except Failure:
        return None
