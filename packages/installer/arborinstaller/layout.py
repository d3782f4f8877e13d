"""How a package file is laid out, and the reader of it.

    stub        STUB_SIZE bytes   a shell script that answers --version and starts the code that follows
    header      one line of JSON  what the package is: version, board, sizes, digests, the signer's certificate
    code        header.code       the installer's modules: a JSON object of module name to source text
    payload     header.payload    the system image
    signature   the rest          the signer's signature over a digest of every byte before it

Nothing stands outside the signature but the signature itself, and there is no slack: a byte changed, removed
or added anywhere makes the check fail.
"""

import hashlib
import json
import os
import re
from dataclasses import asdict, dataclass
from typing import Any, Iterator

from arborinstaller.failure import Failure

STUB_SIZE = 4096
FORMAT = 1
CHUNK = 1 << 20
MAX_HEADER = 64 * 1024
MAX_SILENCE = 3600  # seconds
MAX_SIGNATURE = 2048  # an RSA key of 16384 bits, the largest that openssl takes

_VERSION = re.compile(r"[0-9]{1,9}(\.[0-9]{1,9}){0,7}")
_BOARD = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")


def check_version(text: str) -> str:
    """`text` if it is a dotted version of up to eight numbers, else Failure."""
    if not _VERSION.fullmatch(text):
        raise Failure(f"'{text}' is no version: expected numbers separated by dots, such as 3.045")
    return text


def check_board(text: str) -> str:
    """`text` if it is a board name (letters, digits, '.', '_', '-'; at most 64), else Failure."""
    if not _BOARD.fullmatch(text):
        raise Failure(f"'{text}' is no board name: expected letters, digits, '.', '_' and '-'")
    return text


@dataclass(frozen=True)
class Section:
    """A part of the file: its size in bytes and the SHA-256 of them in hexadecimal."""

    size: int
    sha256: str


@dataclass(frozen=True)
class Header:
    """What the package says about itself."""

    version: str
    board: str
    installerVersion: str
    silentSeconds: float  # the longest pause between two progress documents while the installer works
    code: Section
    payload: Section
    signer: str  # certificate, PEM
    format: int = FORMAT

    def encode(self) -> bytes:
        """The header line: the same header always gives the same bytes."""
        return json.dumps(asdict(self), sort_keys=True, separators=(",", ":")).encode() + b"\n"

    @staticmethod
    def decode(line: bytes) -> "Header":
        """The header in `line`; Failure when it is none, is of another format, or a field is missing or wrong."""
        try:
            fields: dict[str, Any] = json.loads(line)
            if fields["format"] != FORMAT:
                raise Failure(f"package format {fields['format']} is not supported (this installer reads {FORMAT})")
            sections = {name: Section(int(fields[name]["size"]), str(fields[name]["sha256"]))
                        for name in ("code", "payload")}
            header = Header(**{**fields, **sections})
            if min(header.code.size, header.payload.size) < 0 or not 0 <= header.silentSeconds <= MAX_SILENCE:
                raise ValueError("a number is out of range")
            check_version(header.version)
            check_board(header.board)
            header.signer.encode("ascii")
        except (ValueError, KeyError, TypeError, AttributeError, RecursionError) as error:
            raise Failure(f"the package header is damaged ({error})") from None
        return header


class Package:
    """An open package file. It keeps the file open, so that it can be read on after its name is gone."""

    def __init__(self, path: str) -> None:
        """Opens `path` and reads its header; Failure when it is no complete package, OSError when unreadable."""
        self.path = path
        self._file = open(path, "rb")
        try:
            self._read_layout()
        except BaseException:
            self._file.close()
            raise

    def _read_layout(self) -> None:
        self._file.seek(STUB_SIZE)
        line = self._file.readline(MAX_HEADER)
        if not line.endswith(b"\n"):
            raise Failure("the package header is damaged (no end of line)")
        self.header = Header.decode(line)
        self.payload_offset = STUB_SIZE + len(line) + self.header.code.size
        self.signed_size = self.payload_offset + self.header.payload.size
        size = os.fstat(self._file.fileno()).st_size
        if not self.signed_size < size <= self.signed_size + MAX_SIGNATURE:
            raise Failure(f"the package is incomplete or has a foreign end ({size} bytes, "
                          f"{self.signed_size} and a signature expected)")
        self.signature = self._read(self.signed_size, size - self.signed_size)

    def __enter__(self) -> "Package":
        return self

    def __exit__(self, *_: object) -> None:
        self._file.close()

    def _read(self, offset: int, count: int) -> bytes:
        """Exactly `count` bytes at `offset`; Failure when the file, or the stick it lies on, has gone away."""
        data = b""
        while len(data) < count:
            try:
                piece = os.pread(self._file.fileno(), count - len(data), offset + len(data))
            except OSError as error:
                raise Failure(f"the package {self.path} cannot be read any more: {error.strerror}") from None
            if not piece:
                raise Failure(f"the package {self.path} ended at byte {offset + len(data)} while it was read")
            data += piece
        return data

    def chunks(self, start: int, end: int) -> Iterator[bytes]:
        """The bytes from `start` to `end` in pieces of at most CHUNK."""
        for offset in range(start, end, CHUNK):
            yield self._read(offset, min(CHUNK, end - offset))

    def payload(self) -> Iterator[bytes]:
        """The payload in pieces of at most CHUNK bytes."""
        return self.chunks(self.payload_offset, self.signed_size)

    def signed_message(self) -> bytes:
        """What the signature is over: reads the whole file."""
        digest = hashlib.sha256()
        for chunk in self.chunks(0, self.signed_size):
            digest.update(chunk)
        return signed_message(digest.hexdigest())


def signed_message(digest: str) -> bytes:
    """The text that is signed for a package whose bytes before the signature have the SHA-256 `digest`.

    The digest is signed in place of the bytes, since Ed25519 would need all of them in memory at once.
    """
    return f"arbor update package {FORMAT}\n{digest}\n".encode()
