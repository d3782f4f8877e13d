"""Puts a package file together. The same inputs give the same bytes, wherever and whenever it is done."""

import hashlib
import os
from dataclasses import dataclass
from typing import Any, BinaryIO, Callable

from arborinstaller import jsontext, openssl
from arborinstaller.certificates import Certificate
from arborinstaller.failure import Failure
from arborinstaller.files import directory_lock, replacing
from arborinstaller.layout import (CHUNK, MAX_CODE, MAX_HEADER, MAX_SECURITY_NUMBER, MAX_SILENCE, STUB_SIZE, Header,
                                   Section, Signature, check_board, check_version, encode_trailer, head_message, open_regular)

_HERE = os.path.dirname(os.path.abspath(__file__))
_ZEROS = bytes(CHUNK)
_UNKNOWN_DIGEST = "0" * 64

Signer = Callable[[bytes], list[Signature]]
"""Gives the signatures for the message that is to be signed."""


@dataclass(frozen=True)
class Recipe:
    """Everything that goes into a package, save the signatures. Checked when it is made."""

    version: str
    board: str
    payload: str  # path of the system image
    installer_version: str
    silent_seconds: float
    security_number: int
    trust: dict[str, Any] | None = None  # the chain of trust documents that it carries

    def __post_init__(self) -> None:
        check_version(self.version)
        check_board(self.board)
        check_version(self.installer_version)
        if not 0.1 <= self.silent_seconds <= MAX_SILENCE:
            raise Failure(f"{self.silent_seconds:g}: the silent seconds must lie between 0.1 and {MAX_SILENCE}")
        check_security_number(self.security_number)

    def head(self, payload: Section) -> bytes:
        """Stub, header and code of the package whose payload is `payload`."""
        code = _code()
        header = Header(version=self.version, board=self.board, installerVersion=self.installer_version,
                        silentSeconds=self.silent_seconds, code=Section.of(code), payload=payload,
                        securityNumber=self.security_number, trust=self.trust).encode()
        if len(header) > MAX_HEADER:
            raise Failure(f"the package's header would have {len(header)} bytes, at most {MAX_HEADER} are allowed: "
                          "carry fewer trust documents")
        offset = STUB_SIZE + len(header) + len(code)
        return self._stub(offset, offset + payload.size) + header + code

    def _stub(self, payload_offset: int, payload_end: int) -> bytes:
        with open(os.path.join(_HERE, "stub.sh"), encoding="ascii") as file:
            text = file.read()
        for name, value in (("VERSION", self.version), ("BOARD", self.board), ("STUB_SIZE", STUB_SIZE),
                            ("PAYLOAD_OFFSET", payload_offset), ("PAYLOAD_END", payload_end)):
            text = text.replace(f"@{name}@", str(value))
        return text.encode().ljust(STUB_SIZE - 1, b"#") + b"\n"


def check_security_number(number: int) -> int:
    """`number` if a package may have it, else Failure."""
    if not 0 <= number <= MAX_SECURITY_NUMBER:
        raise Failure(f"{number}: the security number must lie between 0 and {MAX_SECURITY_NUMBER}")
    return number


def write_package(recipe: Recipe, output: str, signer: Signer) -> None:
    """Writes the executable package `output`; a file of that name is replaced once the new one is whole."""
    folder = os.path.dirname(os.path.abspath(output))
    with open(recipe.payload, "rb") as image, \
            directory_lock(folder, f"another package is being built in {folder}"), \
            replacing(os.path.abspath(output), 0o755) as file:
        # The digest is known when the payload has gone by; the head's length is known before.
        size = os.fstat(image.fileno()).st_size
        file.seek(len(recipe.head(Section(size, _UNKNOWN_DIGEST))))
        payload = _copy(image, file)
        if payload.size != size:
            raise Failure(f"{recipe.payload} changed while it was read")
        head = recipe.head(payload)
        file.write(encode_trailer(signed(head_message(head), signer)))
        file.seek(0)
        file.write(head)


def signed(message: bytes, signer: Signer) -> list[Signature]:
    """The signatures of `message`; Failure when one does not fit its certificate, or nobody would accept it."""
    signatures = signer(message)
    for signature in signatures:
        certificate = Certificate.parse(signature.certificate)
        if certificate.key != signature.key or \
                not openssl.signature_fits(message, signature.value, certificate.public_key):
            raise Failure("the signature does not fit the certificate")
        if not certificate.is_strong:
            raise Failure("the key is too weak: use Ed25519 or RSA of at least 2048 bits")
        if not certificate.fits_purpose():
            raise Failure(f"the certificate of {certificate.subject} is not one for signing packages")
    return signatures


def measure(path: str) -> Section:
    """Size and digest of the file `path`; NotPackage when it is something else than a file."""
    with os.fdopen(open_regular(path), "rb") as file:
        return _copy(file, None)


def _copy(source: BinaryIO, target: BinaryIO | None) -> Section:
    """Copies the rest of `source` to where `target` stands, if there is one. What is all zeros becomes a hole there."""
    digest, size = hashlib.sha256(), 0
    for chunk in iter(lambda: source.read(CHUNK), b""):
        digest.update(chunk)
        size += len(chunk)
        if target and len(chunk) == CHUNK and chunk == _ZEROS:
            target.seek(CHUNK, os.SEEK_CUR)
        elif target:
            target.write(chunk)
    return Section(size, digest.hexdigest())


def _code() -> bytes:
    """The installer's modules as the package carries them."""
    sources = {}
    for name in sorted(os.listdir(_HERE)):
        if name.endswith(".py"):
            with open(os.path.join(_HERE, name), encoding="utf-8") as file:
                sources["arborinstaller" if name == "__init__.py" else f"arborinstaller.{name[:-3]}"] = file.read()
    code = jsontext.encode(sources)
    if len(code) > MAX_CODE:
        raise Failure(f"the installer's modules take {len(code)} bytes, at most {MAX_CODE} are allowed")
    return code
