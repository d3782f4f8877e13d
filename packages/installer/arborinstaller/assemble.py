"""Puts a package file together. The same inputs give the same bytes, wherever and whenever it is done."""

import contextlib
import hashlib
import json
import os
from dataclasses import dataclass
from typing import Callable, Iterator

from arborinstaller import openssl
from arborinstaller.failure import Failure
from arborinstaller.files import directory_lock, replacing
from arborinstaller.layout import (CHUNK, MAX_SILENCE, STUB_SIZE, Header, Section, check_board, check_version,
                                   signed_message)

_HERE = os.path.dirname(os.path.abspath(__file__))

Signer = Callable[[bytes], bytes]
"""Gives the signature for the message that is to be signed."""


@dataclass(frozen=True)
class Recipe:
    """Everything that goes into a package, save the signature. Checked when it is made."""

    version: str
    board: str
    payload: str  # path of the system image
    certificate: str  # PEM text
    installer_version: str
    silent_seconds: float

    def __post_init__(self) -> None:
        check_version(self.version)
        check_board(self.board)
        check_version(self.installer_version)
        if not 0.1 <= self.silent_seconds <= MAX_SILENCE:
            raise Failure(f"{self.silent_seconds:g}: the silent seconds must lie between 0.1 and {MAX_SILENCE}")


def write_package(recipe: Recipe, output: str, signer: Signer) -> None:
    """Writes the executable package `output`; a file of that name is replaced once the new one is whole."""
    folder = os.path.dirname(os.path.abspath(output))
    with directory_lock(folder, f"another package is being built in {folder}"), \
            replacing(os.path.abspath(output), 0o755) as file:
        digest = hashlib.sha256()
        for chunk in _unsigned(recipe):
            digest.update(chunk)
            file.write(chunk)
        message = signed_message(digest.hexdigest())
        signature = signer(message)
        if not openssl.signature_fits(message, signature, recipe.certificate):
            raise Failure("the signature does not fit the certificate")
        file.write(signature)


def message_to_sign(recipe: Recipe) -> bytes:
    """What is to be signed for the package of `recipe`, without writing it."""
    digest = hashlib.sha256()
    for chunk in _unsigned(recipe):
        digest.update(chunk)
    return signed_message(digest.hexdigest())


def _unsigned(recipe: Recipe) -> Iterator[bytes]:
    """The package's bytes up to the signature."""
    code = _code()
    with contextlib.closing(open(recipe.payload, "rb")) as image:
        digest, size = hashlib.sha256(), 0
        for chunk in iter(lambda: image.read(CHUNK), b""):
            digest.update(chunk)
            size += len(chunk)
        payload = Section(size, digest.hexdigest())
        yield _stub(recipe)
        yield Header(version=recipe.version, board=recipe.board, installerVersion=recipe.installer_version,
                     silentSeconds=recipe.silent_seconds, code=Section(len(code), hashlib.sha256(code).hexdigest()),
                     payload=payload, signer=recipe.certificate).encode()
        yield code
        image.seek(0)
        written = hashlib.sha256()
        for chunk in iter(lambda: image.read(CHUNK), b""):
            written.update(chunk)
            yield chunk
        if written.hexdigest() != payload.sha256:
            raise Failure(f"{recipe.payload} changed while it was read")


def _stub(recipe: Recipe) -> bytes:
    with open(os.path.join(_HERE, "stub.sh"), encoding="ascii") as file:
        text = file.read()
    for name, value in (("VERSION", recipe.version), ("BOARD", recipe.board), ("STUB_SIZE", str(STUB_SIZE))):
        text = text.replace(f"@{name}@", value)
    return text.encode().ljust(STUB_SIZE - 1, b"#") + b"\n"


def _code() -> bytes:
    """The installer's modules as the package carries them."""
    sources = {}
    for name in sorted(os.listdir(_HERE)):
        if name.endswith(".py"):
            with open(os.path.join(_HERE, name), encoding="utf-8") as file:
                sources["arborinstaller" if name == "__init__.py" else f"arborinstaller.{name[:-3]}"] = file.read()
    return json.dumps(sources, sort_keys=True, separators=(",", ":")).encode()
