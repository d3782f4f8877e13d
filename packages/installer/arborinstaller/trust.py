"""Whether a package may be believed: its signatures, its signers and its board.

The verdict's words are for programs. They are found in this order, and the first that applies is the verdict:

    notPackage, damaged   found when the package is opened (failure.py)
    badSignature          no signature by a key that is known fits
    weakKey               RSA below 2,048 bits, or neither RSA nor Ed25519
    wrongPurpose          the signer's certificate is for something else than signing packages
    unknownSigner         nobody who is trusted
    notAllowed            a key that may not sign packages, or not for this board
    tooFewSigners         some of those who must sign did not
    revoked               it was withdrawn after it had been signed
    belowFloor            its security number is below the one that is asked for
    wrongBoard            another board than the one asked for
    good

Whom to believe is told by the trust document in force (documents.py), else by a folder of certificates. By certificates
one good signature of several is enough, and nobody finds notAllowed to belowFloor; under a document it takes as many as
the document says, and nobody finds weakKey and wrongPurpose. Without enough good ones, the first signature's verdict is
the package's.
"""

from typing import Any, NamedTuple, Protocol

from arborinstaller import documents, openssl
from arborinstaller.certificates import Certificate, trusted_in
from arborinstaller.documents import DEVELOPMENT, RELEASE, Document, Entry
from arborinstaller.failure import Damaged, Failure, NotPackage, describe
from arborinstaller.layout import Package, Section, Signature, compare_digests
from arborinstaller.settings import Settings

GOOD, NOT_PACKAGE, DAMAGED, BAD_SIGNATURE = "good", "notPackage", "damaged", "badSignature"
WEAK_KEY, WRONG_PURPOSE, UNKNOWN_SIGNER, WRONG_BOARD = "weakKey", "wrongPurpose", "unknownSigner", "wrongBoard"
NOT_ALLOWED, TOO_FEW_SIGNERS, REVOKED, BELOW_FLOOR = "notAllowed", "tooFewSigners", "revoked", "belowFloor"


class Description(Protocol):
    """What was signed."""

    version: str
    board: str
    securityNumber: int
    payload: Section

    @property
    def trust(self) -> dict[str, Any] | None:
        """The chain of trust documents that it carries, as it came."""


class Signed(Protocol):
    """Something with signatures: a package, or a file with a signature beside it."""

    @property
    def header(self) -> Description: ...
    signatures: tuple[Signature, ...]

    def signed_message(self) -> bytes:
        """What the signatures are over."""


class Verdict(NamedTuple):
    """A word for programs, a sentence for people."""

    word: str
    sentence: str


class Finding(NamedTuple):
    """What is to be said of one signature; `signer` is None when its certificate is not known or not needed."""

    word: str
    signature: Signature
    signer: Certificate | None
    key: documents.Key | None = None  # of the document in force

    def name(self) -> str:
        """Who signed, as the document or the certificate says."""
        if self.key:
            return self.key.name
        return self.signer.subject if self.signer else f"with the key {self.signature.key[:16]}..."


class Trusted(NamedTuple):
    """Whom to believe: the keys of a trust document or, where there is none, certificates."""

    certificates: list[Certificate]
    entry: Entry | None = None  # the document in force
    development: bool = False  # whether packages by development keys count

    @staticmethod
    def load(folder: str, state: str = "", development: bool = False) -> "Trusted":
        """What holds with these folders (see documents.in_force); Failure when nobody can be trusted."""
        entry = documents.in_force(folder, state)
        return Trusted([] if entry else trusted_in(folder), entry, development)

    def for_package(self, signed: Signed) -> "Trusted":
        """What holds for a package: the chain that it carries may lead on to a newer document."""
        if signed.header.trust is None:
            return self
        try:
            return self._replace(entry=documents.follow(self.entry, documents.carried(signed.header.trust)))
        except (documents.DamagedChain, documents.Refused):
            return self


class Assessment(NamedTuple):
    """The verdict and what led to it."""

    verdict: Verdict
    findings: list[Finding]  # about each signature
    digest: str  # that was signed; it names the package when it is to be revoked
    entry: Entry | None  # the document that it was judged under


def refusal(failure: NotPackage | Damaged) -> Verdict:
    """The verdict on a file that could not be opened as a package because of `failure`."""
    return Verdict(DAMAGED if isinstance(failure, Damaged) else NOT_PACKAGE, describe(failure))


def assess(signed: Signed, trusted: Trusted, board: str) -> Assessment:
    """Judges it for the `board` (empty: any)."""
    trusted = trusted.for_package(signed)
    message = signed.signed_message()
    digest = _digest_in(message)
    if trusted.entry:
        document = trusted.entry.document
        roles = (RELEASE, DEVELOPMENT) if trusted.development else (RELEASE,)
        findings = [_examine_under(document, roles, signed.header.board, message, signature)
                    for signature in signed.signatures]
        verdict = _conclude_under(document, roles, signed.header, digest, findings)
    else:
        findings = [_examine(message, signature, trusted.certificates) for signature in signed.signatures]
        chosen = decisive(findings)
        verdict = _praise(signed.header, chosen.name()) if chosen.word == GOOD else \
            _complaint(chosen, f"{len(trusted.certificates)} trusted certificate(s)")
    if verdict.word == GOOD and board and board != signed.header.board:
        verdict = Verdict(WRONG_BOARD, f"the package is for board {signed.header.board}, not for {board}")
    return Assessment(verdict, findings, digest, trusted.entry)


def digest_of(signed: Signed) -> str:
    """The digest that was signed, which names the package when it is to be revoked."""
    return _digest_in(signed.signed_message())


def decisive(findings: list[Finding]) -> Finding:
    """The finding that counts: the first good one, else the first."""
    return next((finding for finding in findings if finding.word == GOOD), findings[0])


def _digest_in(message: bytes) -> str:
    """Every signed text ends with it."""
    return message.split()[-1].decode()


def _praise(header: Description, names: str) -> Verdict:
    return Verdict(GOOD, f"version {header.version} for board {header.board}, signed by {names}")


def _complaint(finding: Finding, trusted: str) -> Verdict:
    """What is wrong with a signature that is not good; `trusted` says whom it was held to."""
    if finding.word == BAD_SIGNATURE:
        return Verdict(BAD_SIGNATURE, "the signature does not fit the package: the file is damaged or was changed"
                       if finding.signer or finding.key
                       else "the signature is by a key that nobody here knows, or its certificate is damaged")
    name = finding.name()
    return Verdict(finding.word, {
        WEAK_KEY: f"the key of {name} is too weak: Ed25519 or RSA of at least 2048 bits is expected",
        WRONG_PURPOSE: f"the certificate of {name} is not one for signing packages",
        UNKNOWN_SIGNER: f"the signer {name} is not trusted ({trusted})",
        NOT_ALLOWED: f"{name} may not sign packages for this board ({trusted})"}[finding.word])


def verify(package: Package, conf: Settings, board: str) -> str:
    """Checks signatures, signers and, unless `board` is empty, the board; returns the good news in a line.

    The payload of a package of format 2 is not read: who writes it compares its digest.
    """
    verdict = assess(package, Trusted.load(conf.trust, conf.trustState, conf.acceptDevelopment), board).verdict
    if verdict.word != GOOD:
        raise Failure(verdict.sentence)
    return verdict.sentence


def verify_all(package: Package, conf: Settings, board: str) -> str:
    """As verify(), and reads the payload too."""
    sentence = verify(package, conf, board)
    if package.header.format != 1:  # there the signature covers it, and it was read
        compare_digests(package.payload_digest(), package.header.payload.sha256, "the image in the package is damaged")
    return sentence


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


def _examine_under(document: Document, roles: tuple[str, ...], board: str, message: bytes, signature: Signature) -> Finding:
    """Certificates that come along only tell who it is that the document does not know."""
    own = None if signature.key in document.keys else _parsed(signature.certificate)
    key = document.keys.get(signature.key or (own.key if own else ""))
    if key is None and (own is None or signature.key not in ("", own.key)):
        return Finding(BAD_SIGNATURE, signature, None)
    if not openssl.signature_fits(message, signature.value, key.pem if key else own.public_key):
        word = BAD_SIGNATURE
    elif key is None:
        word = UNKNOWN_SIGNER
    else:
        word = GOOD if key.may_sign(board, roles) else NOT_ALLOWED
    return Finding(word, signature, own, key)


def _conclude_under(document: Document, roles: tuple[str, ...], header: Description, digest: str,
                    findings: list[Finding]) -> Verdict:
    counted = {finding.key.id: finding.key for finding in findings if finding.word == GOOD and finding.key}
    if not counted:
        return _complaint(findings[0], f"trust document {document.number}")
    signed = {role: sum(role in key.roles for key in counted.values()) for role in roles}
    if not any(signed[role] >= document.thresholds[role] for role in roles):
        role = next(role for role in roles if signed[role])
        return Verdict(TOO_FEW_SIGNERS, f"signed by {signed[role]} of the {document.thresholds[role]} keys that are needed "
                                        f"(trust document {document.number})")
    if digest in document.revoked:
        return Verdict(REVOKED, f"the package was withdrawn by trust document {document.number}")
    if header.securityNumber < document.securityFloor:
        return Verdict(BELOW_FLOOR, f"the package has the security number {header.securityNumber}, and trust document "
                                    f"{document.number} asks for {document.securityFloor} or more")
    return _praise(header, ", ".join(key.name for key in counted.values()))


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
