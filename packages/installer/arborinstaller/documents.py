"""Trust documents: which keys may sign packages, in a file that is signed itself.

A file holds a chain of them, whose numbers grow by one. Each is signed by enough of its own trust keys, and by enough of
those of the one before: who believes one document can follow the chain to its newest, wherever the file comes from.
docs/package-format.md has every member.
"""

import base64
import hashlib
import os
import re
from typing import Any, Callable, Iterable, NamedTuple

from arborinstaller import jsontext, openssl
from arborinstaller.certificates import is_strong_public_key
from arborinstaller.failure import Failure, NotPackage, describe
from arborinstaller.layout import MAX_SECURITY_NUMBER, Signature, check_board, check_digest, open_regular

FILE = "arbor-trust.json"
FORMAT = 1
MAX_CHAIN = 48 * 1024  # bytes, without the line feed that may end a file
MAX_DOCUMENTS = 16
MAX_SIGNATURES = 32
MAX_NUMBER = (1 << 31) - 1
MAX_KEYS = 32
MAX_PUBLIC_KEY = 2048  # characters of Base64
MAX_BOARDS = 16
MAX_REVOKED = 128
MAX_THRESHOLD = 16
ROLES = TRUST, RELEASE, DEVELOPMENT = "trust", "release", "development"

_NAME = re.compile(r"[ -~]{1,64}")
_DATE = re.compile(r"([0-9]{4}-[0-9]{2}-[0-9]{2})?")


class DamagedChain(Failure):
    """It is no chain of trust documents, or one of them is wrong."""


class Refused(Failure):
    """The chain is whole, but does not lead on from the document in force."""


class Key(NamedTuple):
    """A key, what it may sign, and for which boards (none: all)."""

    name: str
    publicKey: bytes  # SubjectPublicKeyInfo, DER
    roles: frozenset[str]
    boards: frozenset[str]

    @property
    def id(self) -> str:
        """What signatures name it by."""
        return hashlib.sha256(self.publicKey).hexdigest()

    @property
    def pem(self) -> str:
        """The public key as openssl takes it."""
        return f"-----BEGIN PUBLIC KEY-----\n{base64.encodebytes(self.publicKey).decode()}-----END PUBLIC KEY-----\n"

    def may_sign(self, board: str, roles: Iterable[str]) -> bool:
        """Whether it has one of `roles`, and may sign for the board."""
        return not self.roles.isdisjoint(roles) and (not self.boards or board in self.boards)

    @staticmethod
    def decode(value: Any) -> "Key":
        """The key in a JSON value; ValueError or Failure that names the member when it is none."""
        return Key(**_read(value, {"name": _name, "publicKey": _public_key, "roles": _roles, "boards": _boards}))


class Document(NamedTuple):
    """Which keys may sign what, how many of them it takes, and what does not count any more."""

    number: int
    expires: str  # told to people, and nothing else
    securityFloor: int  # packages with a smaller security number don't count
    thresholds: dict[str, int]  # of each role
    keys: dict[str, Key]  # by id
    revoked: frozenset[str]  # digests that packages were signed by

    @staticmethod
    def decode(text: str, draft: bool = False) -> "Document":
        """The document in `text`; ValueError or Failure that names the member when it is none.

        A `draft` may lack keys yet.
        """
        fields = _read(jsontext.decode(text.encode("ascii")), {
            "format": lambda value: jsontext.whole(value, FORMAT, FORMAT),
            "number": lambda value: jsontext.whole(value, MAX_NUMBER, 1), "expires": _expires,
            "securityFloor": lambda value: jsontext.whole(value, MAX_SECURITY_NUMBER),
            "thresholds": lambda value: _read(value, dict.fromkeys(ROLES, _threshold)),
            "keys": lambda value: _keys(value, 0 if draft else 1),
            "revoked": lambda value: frozenset(map(check_digest, jsontext.entries(value, MAX_REVOKED)))})
        del fields["format"]
        document = Document(**fields)
        if not draft and document.thresholds[TRUST] > len(document.trust_keys()):
            raise ValueError(f"thresholds: {document.thresholds[TRUST]} trust keys have to sign, "
                             f"but there are {len(document.trust_keys())}")
        return document

    def trust_keys(self) -> dict[str, Key]:
        """The keys that sign trust documents, by id."""
        return {id: key for id, key in self.keys.items() if TRUST in key.roles}


class Entry(NamedTuple):
    """A document of a chain, with its signatures."""

    text: str  # the document as it was signed
    document: Document
    signatures: tuple[Signature, ...]

    @property
    def number(self) -> int:
        """The document's number."""
        return self.document.number

    @staticmethod
    def decode(value: Any, draft: bool = False) -> "Entry":
        """The entry in a JSON value; ValueError or Failure that names the member when it is none."""
        fields = _read(value, {"document": jsontext.text, "signatures": lambda value: tuple(
            map(_signature, jsontext.entries(value, MAX_SIGNATURES)))})
        return Entry(fields["document"], _named("document", lambda text: Document.decode(text, draft), fields["document"]),
                     fields["signatures"])

    def fields(self) -> dict[str, Any]:
        """The entry as JSON members."""
        return {"document": self.text, "signatures": [signature.fields() for signature in self.signatures]}

    def message(self) -> bytes:
        """What the signatures are over."""
        return f"arbor trust document 1\n{hashlib.sha256(self.text.encode()).hexdigest()}\n".encode()

    def signers(self, authority: Document) -> list[Key]:
        """The trust keys of `authority` that signed it."""
        message, keys, found = self.message(), authority.trust_keys(), {}
        for signature in self.signatures:
            key = keys.get(signature.key)
            if key and key.id not in found and openssl.signature_fits(message, signature.value, key.pem):
                found[key.id] = key
        return list(found.values())

    def shortfall(self, authority: Document) -> str:
        """What it lacks to be signed by enough trust keys of `authority`, in a sentence; empty when it lacks nothing."""
        signed, needed = len(self.signers(authority)), authority.thresholds[TRUST]
        whose = "its own" if authority is self.document else f"number {authority.number}"
        return "" if signed >= needed else \
            f"number {self.number} is signed by {signed} of the {needed} trust keys of {whose} that are needed"


def decode(data: bytes, draft: bool = False) -> list[Entry]:
    """The chain in a file's content; DamagedChain when it is none. In a `draft` documents may lack keys yet."""
    data = data.removesuffix(b"\n")
    if len(data) > MAX_CHAIN:
        raise DamagedChain(f"it has more than {MAX_CHAIN} bytes")
    try:
        return _chain(jsontext.decode(data), draft)
    except ValueError as error:
        raise DamagedChain(str(error)) from None


def carried(value: dict[str, Any]) -> list[Entry]:
    """The chain in the JSON value that a package carries; DamagedChain when it is none."""
    return decode(jsontext.encode(value))


def follow(current: Entry | None, chain: list[Entry]) -> Entry:
    """The newest document when `current` is in force: the last of `chain`, or `current` itself when nothing is new.

    Refused when the chain does not lead there, with a sentence that says why.
    """
    if current is None:
        raise Refused("no trust document is in force here: the first one comes with the system")
    if any(entry.number == current.number and entry.text != current.text for entry in chain):
        raise Refused(f"trust document {current.number} is another one than the one in force")
    if chain[-1].number < current.number:
        raise Refused(f"it goes back: it is number {chain[-1].number}, and number {current.number} is in force")
    newest = current
    for entry in chain:
        if entry.number > newest.number:
            _check_step(newest, entry)
            newest = entry
    return newest


def _check_step(before: Entry, entry: Entry) -> None:
    if entry.number != before.number + 1:
        raise Refused(f"it skips a number: number {entry.number} follows on number {before.number}")
    for authority in (before.document, entry.document):
        if shortfall := entry.shortfall(authority):
            raise Refused(shortfall)
    if entry.document.securityFloor < before.document.securityFloor:
        raise Refused(f"number {entry.number} goes back: its security floor is {entry.document.securityFloor}, "
                      f"and number {before.number} has {before.document.securityFloor}")


def in_force(folder: str, state: str) -> Entry | None:
    """The document in force: the newest of those in the system's folder and in the folder `state` (may be empty).

    None when neither has one. Failure when one is there that can't be read, is damaged or lacks signatures: who may sign
    is not known then.
    """
    found = [entry for place in (folder, state) if place and (entry := _last(os.path.join(place, FILE)))]
    return max(found, key=lambda entry: entry.number, default=None)  # of equal ones the first: the system's


def load(path: str, draft: bool = False) -> list[Entry]:
    """The chain in the file `path`; OSError, or Failure that names the file."""
    try:
        with os.fdopen(open_regular(path), "rb") as file:
            return decode(file.read(MAX_CHAIN + 2), draft)
    except DamagedChain as failure:
        raise DamagedChain(f"the trust document {path} is damaged: {failure}") from None


def _last(path: str) -> Entry | None:
    try:
        last = load(path)[-1]
    except (FileNotFoundError, NotADirectoryError):
        return None
    except (OSError, NotPackage) as error:
        raise Failure(f"the trust document cannot be read: {describe(error)}") from None
    if shortfall := last.shortfall(last.document):
        raise DamagedChain(f"the trust document {path} is damaged: {shortfall}")
    return last


def _chain(value: dict[str, Any], draft: bool) -> list[Entry]:
    values = _read(value, {"documents": lambda values: jsontext.entries(values, MAX_DOCUMENTS, 1)})["documents"]
    found: list[Entry] = []
    for entry in (_named(f"documents: entry {place}", lambda value: Entry.decode(value, draft), value)
                  for place, value in enumerate(values, 1)):
        if found and entry.number != found[-1].number + 1:
            raise ValueError(f"documents: number {entry.number} stands behind number {found[-1].number}")
        found.append(entry)
    return found


def _read(value: Any, readers: dict[str, Callable[[Any], Any]]) -> dict[str, Any]:
    """The members of an object, all of them, as their readers read them; ValueError that names the member."""
    fields = jsontext.members(value, set(readers))
    return {name: _named(name, read, fields[name]) for name, read in readers.items()}


def _named(name: str, read: Callable[[Any], Any], value: Any) -> Any:
    try:
        return read(value)
    except (ValueError, Failure) as error:
        raise ValueError(f"{name}: {error}") from None


def _keys(values: Any, least: int) -> dict[str, Key]:
    keys = [_named(f"key {place}", Key.decode, value)
            for place, value in enumerate(jsontext.entries(values, MAX_KEYS, least), 1)]
    found = {key.id: key for key in keys}
    if len(found) < len(keys):
        raise ValueError("a key is there twice")
    return found


def _signature(value: Any) -> Signature:
    return Signature.decode(jsontext.members(value, {"key", "signature"}))


def _name(value: Any) -> str:
    if not _NAME.fullmatch(jsontext.text(value)):
        raise ValueError("1 to 64 printable ASCII characters were expected")
    return value


def _public_key(value: Any) -> bytes:
    der = jsontext.binary(value)
    if len(value) > MAX_PUBLIC_KEY or not is_strong_public_key(der):
        raise ValueError("an Ed25519 key, or an RSA key of at least 2048 bits, was expected")
    return der


def _roles(value: Any) -> frozenset[str]:
    roles = jsontext.entries(value, len(ROLES), 1)
    if not all(role in ROLES for role in roles) or len(set(roles)) < len(roles):
        raise ValueError(f"one or more of {', '.join(ROLES)} were expected, each once")
    return frozenset(roles)


def _boards(value: Any) -> frozenset[str]:
    return frozenset(check_board(jsontext.text(board)) for board in jsontext.entries(value, MAX_BOARDS))


def _threshold(value: Any) -> int:
    return jsontext.whole(value, MAX_THRESHOLD, 1)


def _expires(value: Any) -> str:
    if not _DATE.fullmatch(jsontext.text(value)):
        raise ValueError("a date such as 2030-12-31 was expected, or an empty text")
    return value
