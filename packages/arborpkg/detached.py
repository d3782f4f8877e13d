"""A signature beside an executable of somebody's own format: FILE.sig says what FILE is, and who says so.

Two lines: the description, a JSON object as a package's header; and the signatures, as a package's trailer.
"""

import hashlib
import os
from typing import Any, NamedTuple

from arborinstaller import jsontext
from arborinstaller.assemble import Signer, check_security_number, measure, signed
from arborinstaller.failure import Damaged, Failure, NotPackage
from arborinstaller.files import directory_lock, replacing
from arborinstaller.layout import (FORMAT, MAX_HEADER, MAX_SECURITY_NUMBER, Package, Section, Signature,
                                   check_board, check_version, decode_trailer, encode_trailer, open_regular)

SUFFIX = ".sig"
_MAX_FILE = 128 * 1024


class Description(NamedTuple):
    """What the signer says of the file."""

    version: str
    board: str
    file: Section
    securityNumber: int
    format: int = FORMAT

    @property
    def payload(self) -> Section:
        """The file itself: there is nothing else."""
        return self.file

    @property
    def trust(self) -> None:
        """It carries no trust documents."""

    def encode(self) -> bytes:
        """The description's line, without its line feed."""
        return jsontext.encode({**self._asdict(), "file": self.file._asdict()})

    @staticmethod
    def decode(line: bytes) -> "Description":
        """The description in `line`; NotPackage when it is none of a known format, Damaged when a member is wrong."""
        try:
            fields = jsontext.decode(line)
        except ValueError as error:
            raise NotPackage(f"the signature beside it does not say what it is for ({error})") from None
        if type(fields.get("format")) is not int or fields["format"] != FORMAT:
            raise NotPackage("the signature beside it is of a format that is not known")
        try:
            return _described(jsontext.members(fields, {"format", "version", "board", "file", "securityNumber"}))
        except (ValueError, Failure) as error:
            raise Damaged(f"the signature beside it is damaged ({error})") from None


def _described(fields: dict[str, Any]) -> Description:
    return Description(check_version(jsontext.text(fields["version"])), check_board(jsontext.text(fields["board"])),
                       Section.decode(fields["file"]), jsontext.whole(fields["securityNumber"], MAX_SECURITY_NUMBER))


class DetachedSignature:
    """A file and what FILE.sig says of it. The file has been read and is as it was when it was signed."""

    def __init__(self, path: str) -> None:
        """NotPackage when there is no FILE.sig of a known format, Damaged when it is not whole or the file is another."""
        data = _read(path + SUFFIX)
        self._line, _, rest = data.partition(b"\n")
        if len(self._line) >= MAX_HEADER:
            raise NotPackage("the signature beside it does not say what it is for (its line is too long)")
        self.header = Description.decode(self._line)
        if not rest.endswith(b"\n") or len(data) > _MAX_FILE:
            raise Damaged("the signature beside it is damaged (it does not end with its second line)")
        self.signatures: tuple[Signature, ...] = decode_trailer(rest[:-1])
        if measure(path) != self.header.file:
            raise Damaged("the file is another one than the one that was signed")

    def signed_message(self) -> bytes:
        """What the signatures are over."""
        return _message(self._line)


def sign(path: str, version: str, board: str, security_number: int, signer: Signer) -> str:
    """Writes FILE.sig beside the file `path`; returns its path. Failure for a package: it has its signatures inside."""
    try:
        with Package(path):
            raise Failure(f"{path} is a package: its signatures are inside it")
    except NotPackage:
        pass
    description = Description(check_version(version), check_board(board), measure(path),
                              check_security_number(security_number))
    line = description.encode()
    trailer = encode_trailer(signed(_message(line), signer))
    folder = os.path.dirname(os.path.abspath(path))
    with directory_lock(folder, f"another file is being signed in {folder}"), \
            replacing(os.path.abspath(path) + SUFFIX, 0o644) as file:
        file.write(line + b"\n" + trailer + b"\n")
    return path + SUFFIX


def _message(line: bytes) -> bytes:
    return f"arbor detached signature 2\n{hashlib.sha256(line).hexdigest()}\n".encode()


def _read(path: str) -> bytes:
    try:
        with os.fdopen(open_regular(path), "rb") as file:
            return file.read(_MAX_FILE + 1)
    except FileNotFoundError:
        raise NotPackage("it is not a package, and there is no signature beside it") from None
