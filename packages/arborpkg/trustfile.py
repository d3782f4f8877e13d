"""Makes and changes trust documents: a file with a chain of them, of which the last may be a draft.

A document is complete when enough trust keys have signed it. A complete one is never changed: the next draft follows
on it, with the next number.
"""

import base64
import contextlib
import datetime
import json
import os
import re
from typing import Any, Callable

from arborinstaller import documents, jsontext, openssl
from arborinstaller.documents import FORMAT, ROLES, Document, Entry, Key
from arborinstaller.failure import Failure
from arborinstaller.files import directory_lock, replacing
from arborinstaller.layout import Signature
from arborpkg import keys

Change = Callable[[dict[str, Any]], None]
"""Changes a document's members."""

_BEGINNING = re.compile(r"[0-9a-f]{8,64}")  # of a key's id


class TrustFile:
    """The chain in a file. Changes are in memory until save()."""

    def __init__(self, path: str, entries: list[Entry]) -> None:
        self.path = path
        self.entries = entries

    @staticmethod
    def load(path: str) -> "TrustFile":
        """The chain in the file `path`; OSError, or Failure that names the file."""
        return TrustFile(path, documents.load(path, draft=True))

    @staticmethod
    def new(path: str) -> "TrustFile":
        """Document 1, without keys yet; Failure when the file is there already."""
        if os.path.lexists(path):
            raise Failure(f"{path} exists already")
        return TrustFile(path, [_entry({
            "format": FORMAT, "number": 1, "expires": "", "securityFloor": 0, "thresholds": dict.fromkeys(ROLES, 1),
            "keys": [], "revoked": []})])

    @property
    def last(self) -> Entry:
        """The newest document."""
        return self.entries[-1]

    def missing(self, place: int = -1) -> list[str]:
        """What the document at `place` lacks to be complete, in sentences; empty when it is."""
        entry = self.entries[place]
        try:
            _check_whole(entry)
        except Failure as failure:
            return [str(failure)]
        return [f"{shortfall} (may sign: {_names(authority, entry)})" for authority in self._authorities(place)
                if (shortfall := entry.shortfall(authority))]

    def signers(self, place: int) -> dict[str, str]:
        """The names of those who signed the document at `place`, by the ids of their keys."""
        return {key.id: key.name for authority in self._authorities(place)
                for key in self.entries[place].signers(authority)}

    def edit(self, change: Change) -> list[str]:
        """Changes the last document, or lets a draft follow when it is complete. Returns what there is to say of it.

        Failure when it would be no document any more.
        """
        fields = json.loads(self.last.text)
        change(fields)
        if fields == json.loads(self.last.text):
            return ["that is so already: nothing was changed"]
        if not self.missing():
            fields["number"] += 1
            self.entries.append(_entry(fields))
            return [f"number {self.last.number} follows on number {self.last.number - 1}"]
        dropped = len(self.last.signatures)
        self.entries[-1] = _entry(fields)
        return [f"number {self.last.number} changed: {dropped} signature(s) of it were dropped"] if dropped else []

    def sign(self, key: str) -> str:
        """Signs the last document with a private key (a file, or a PKCS#11 URI); returns what there is to say of it."""
        _check_whole(self.last)
        public = keys.public_key_of(key)
        known = {id: own for authority in self._authorities(-1) for id, own in authority.trust_keys().items()}
        signer = next((own for own in known.values() if own.publicKey == public), None)
        if signer is None:
            raise Failure(f"{keys.told(key)} is not a trust key of number {self.last.number} or of the one before")
        value = keys.sign(self.last.message(), key)
        if not openssl.signature_fits(self.last.message(), value, signer.pem):
            raise Failure(f"the signature by {signer.name} does not fit")
        others = tuple(one for one in self.last.signatures if one.key != signer.id)
        if len(others) >= documents.MAX_SIGNATURES:
            raise Failure(f"number {self.last.number} has {len(others)} signatures already")
        self.entries[-1] = Entry(self.last.text, self.last.document, (*others, Signature("", signer.id, value)))
        return f"{signer.name} has signed number {self.last.number}"

    def save(self) -> list[str]:
        """Writes the file anew, as a whole. Returns what there is to say of it."""
        dropped = []
        while len(self.entries) > documents.MAX_DOCUMENTS or len(self._content()) > documents.MAX_CHAIN + 1:
            if len(self.entries) <= 2:
                raise Failure(f"{self.path} would have more than {documents.MAX_CHAIN} bytes: remove keys, or digests of "
                              "packages that the security floor keeps out anyway")
            dropped.append(f"number {self.entries.pop(0).number} fell off: instruments that have an older one can't follow "
                           "this file any more")
        with replacing(os.path.abspath(self.path), 0o644) as file:
            file.write(self._content())
        return dropped

    def lock(self) -> contextlib.AbstractContextManager[None]:
        """Keeps others from changing a file in the same folder."""
        folder = os.path.dirname(os.path.abspath(self.path))
        return directory_lock(folder, f"another file is being changed in {folder}")

    def _content(self) -> bytes:
        return jsontext.encode({"documents": [entry.fields() for entry in self.entries]}) + b"\n"

    def _authorities(self, place: int) -> list[Document]:
        """Those whose trust keys have to sign the document at `place`."""
        entries = self.entries[:place + 1 or None]
        return [entry.document for entry in entries[-2:]]


def to_carry(path: str) -> dict[str, Any]:
    """The chain in the file `path` as a package carries it; Failure when its last document is not complete."""
    file = TrustFile.load(path)
    for sentence in file.missing():
        raise Failure(f"{path}: {sentence}")
    return {"documents": [entry.fields() for entry in file.entries]}


def key_to_add(source: str, roles: list[str], boards: list[str], name: str) -> Change:
    """Adds the key in a PEM file, or in a token; a name is taken from its certificate where none is given."""
    public, own_name = (keys.public_key_of(source), "") if openssl.is_in_token(source) else keys.read_public_key(source)
    fields = {"name": name or own_name, "publicKey": base64.b64encode(public).decode(), "roles": roles, "boards": boards}
    if not fields["name"]:
        raise Failure(f"{source} does not tell whose key it is: give --name")
    try:
        key = Key.decode(fields)
    except ValueError as error:
        raise Failure(f"{source}: {error}") from None

    def change(document: dict[str, Any]) -> None:
        if any(_id(one) == key.id for one in document["keys"]):
            raise Failure(f"the key {key.id[:16]} is there already; to change it, remove it and add it again")
        document["keys"].append(fields)
    return change


def key_to_remove(which: str) -> Change:
    """Removes the key with an id that begins with `which`, or the one in the PEM file `which`."""
    def change(document: dict[str, Any]) -> None:
        if _BEGINNING.fullmatch(which):
            found = [one for one in document["keys"] if _id(one).startswith(which)]
        else:
            public = base64.b64encode(keys.read_public_key(which)[0]).decode()
            found = [one for one in document["keys"] if one["publicKey"] == public]
        if len(found) != 1:
            raise Failure(f"{which}: {'several keys begin' if found else 'no key is there'} like that; name one by its id, "
                          "or 8 digits or more of its beginning, or its PEM file")
        document["keys"].remove(found[0])
    return change


def thresholds(texts: list[str]) -> Change:
    """Sets thresholds, each given as ROLE=N."""
    wanted = {}
    for text in texts:
        role, _, number = text.partition("=")
        if role not in ROLES or not re.fullmatch(r"[1-9][0-9]?", number) or int(number) > documents.MAX_THRESHOLD:
            raise Failure(f"'{text}': expected ROLE=N, such as trust=2, with N from 1 to {documents.MAX_THRESHOLD}")
        wanted[role] = int(number)
    return lambda document: document["thresholds"].update(wanted)


def revocation(digest: str) -> Change:
    """Revokes what was signed by this digest."""
    def change(document: dict[str, Any]) -> None:
        if digest not in document["revoked"]:
            if len(document["revoked"]) >= documents.MAX_REVOKED:
                raise Failure(f"{documents.MAX_REVOKED} packages are revoked already: raise the security floor instead")
            document["revoked"].append(digest)
    return change


def floor(file: TrustFile, number: int) -> Change:
    """Sets the security floor; Failure when it is below the one of the last complete document."""
    complete = file.entries[:None if not file.missing() else -1]
    least = complete[-1].document.securityFloor if complete else 0
    if not least <= number <= documents.MAX_NUMBER:
        raise Failure(f"{number}: the security floor is {least} and only goes up (at most {documents.MAX_NUMBER})")
    return lambda document: document.update(securityFloor=number)


def expiry(date: str) -> Change:
    """Sets the date that is told to people; "never" for none."""
    if date != "never":
        try:
            datetime.date.fromisoformat(date)
        except ValueError:
            raise Failure(f"'{date}': expected a date such as 2030-12-31, or never") from None
    return lambda document: document.update(expires="" if date == "never" else date)


def _entry(fields: dict[str, Any]) -> Entry:
    text = jsontext.encode(fields).decode()
    try:
        return Entry(text, Document.decode(text, draft=True), ())
    except ValueError as error:
        raise Failure(str(error)) from None


def _check_whole(entry: Entry) -> None:
    try:
        Document.decode(entry.text)
    except ValueError as error:
        raise Failure(f"number {entry.number} is not ready to be signed: {error}") from None


def _names(authority: Document, entry: Entry) -> str:
    """Those who may still sign the entry for the authority."""
    signed = {key.id for key in entry.signers(authority)}
    return ", ".join(f"{key.name} {id[:8]}" for id, key in authority.trust_keys().items() if id not in signed) or "nobody"


def _id(fields: dict[str, Any]) -> str:
    return Key.decode(fields).id
