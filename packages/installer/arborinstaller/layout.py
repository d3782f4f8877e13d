"""How a package file is laid out, and the reader of it.

    stub        STUB_SIZE bytes   a shell script that answers --version and starts the code that follows
    header      one line of JSON  what the package is: version, board, sizes, digests
    code        header.code       the installer's modules: a JSON object of module name to source text
    payload     header.payload    the system image
    trailer     the rest          the signatures

Stub, header and code are the head. Format 2 signs the head, and the head holds the payload's digest: what runs can
be checked without reading gigabytes. In format 1 the header holds the signer's certificate, and the rest is one
signature over all bytes before it. New packages are of format 2; both are read.
"""

import base64
import hashlib
import os
import re
import stat
from typing import Any, Iterator, NamedTuple

from arborinstaller import jsontext
from arborinstaller.failure import Damaged, Failure, NotPackage

STUB_SIZE = 4096
FORMAT = 2
CHUNK = 1 << 20
MAX_HEADER = 64 * 1024  # bytes, with the line feed
MAX_CODE = 4 << 20
MAX_TRAILER = 64 * 1024
MAX_SIGNATURES = 16
MAX_SIGNATURE = 2048  # bytes: an RSA key of 16384 bits, the largest that openssl takes
MAX_SILENCE = 3600  # seconds
MAX_SIZE = (1 << 63) - 1
MAX_SECURITY_NUMBER = (1 << 31) - 1

_VERSION = re.compile(r"[0-9]{1,9}(\.[0-9]{1,9}){0,7}")
_BOARD = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,63}")
_DIGEST = re.compile(r"[0-9a-f]{64}")
_COMMON = {"format", "version", "board", "installerVersion", "silentSeconds", "code", "payload"}
_MEMBERS = {1: (_COMMON | {"signer"}, frozenset()), 2: (_COMMON | {"securityNumber"}, frozenset({"trust"}))}


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


class Section(NamedTuple):
    """A part of the file: its size in bytes and the SHA-256 of them in hexadecimal."""

    size: int
    sha256: str

    @staticmethod
    def of(data: bytes) -> "Section":
        """The section that consists of `data`."""
        return Section(len(data), hashlib.sha256(data).hexdigest())

    @staticmethod
    def decode(value: Any, largest: int = MAX_SIZE) -> "Section":
        """The section in a JSON value; ValueError when it is none, or larger than `largest` bytes."""
        fields = jsontext.members(value, {"size", "sha256"})
        return Section(jsontext.whole(fields["size"], largest), check_digest(fields["sha256"]))


class Signature(NamedTuple):
    """One signer's signature and the key it is by."""

    certificate: str  # PEM; may be empty where the key is named
    key: str  # SHA-256 of the public key's SubjectPublicKeyInfo in hexadecimal; empty in format 1
    value: bytes

    def fields(self) -> dict[str, str]:
        """The signature as JSON members."""
        own = {"key": self.key, "signature": base64.b64encode(self.value).decode()}
        return {"certificate": self.certificate, **own} if self.certificate else own

    @staticmethod
    def decode(value: Any) -> "Signature":
        """The signature in a JSON value; ValueError when it is none."""
        fields = jsontext.members(value, {"key", "signature"}, frozenset({"certificate"}))
        data = jsontext.binary(fields["signature"])
        if not 0 < len(data) <= MAX_SIGNATURE:
            raise ValueError("the signature's length is wrong")
        return Signature(jsontext.text(fields.get("certificate", "")), check_digest(fields["key"]), data)


class Header(NamedTuple):
    """What the package says about itself."""

    version: str
    board: str
    installerVersion: str
    silentSeconds: float  # the longest pause between two progress documents while the installer works
    code: Section
    payload: Section
    securityNumber: int = 0
    signer: str = ""  # certificate, PEM; in format 1 only
    trust: dict[str, Any] | None = None  # a chain of trust documents, as it came: see documents.py
    format: int = FORMAT

    def encode(self) -> bytes:
        """The header line of format 2: the same header always gives the same bytes."""
        required, optional = _MEMBERS[FORMAT]
        fields = {name: value._asdict() if isinstance(value, Section) else value for name, value in self._asdict().items()
                  if name in required or name in optional and value is not None}
        return jsontext.encode(fields) + b"\n"

    @staticmethod
    def decode(line: bytes) -> "Header":
        """The header in `line`; NotPackage when it is none of a known format, Damaged when a member is wrong."""
        try:
            fields = jsontext.decode(line.removesuffix(b"\n"))
        except ValueError as error:
            raise NotPackage(f"it has no package header ({error})") from None
        number = fields.get("format")
        if type(number) is not int or number not in _MEMBERS:
            raise NotPackage(f"package format {str(number)[:20]} is not supported (this reads 1 to {FORMAT})")
        try:
            return Header(**{name: _member(name, value)
                             for name, value in jsontext.members(fields, *_MEMBERS[number]).items()})
        except (ValueError, Failure) as error:
            raise Damaged(f"the package header is damaged ({error})") from None


def _member(name: str, value: Any) -> Any:
    """The header's member `name`; ValueError or Failure when it is of another type or out of its range."""
    if name in ("version", "installerVersion"):
        return check_version(jsontext.text(value))
    if name == "board":
        return check_board(jsontext.text(value))
    if name in ("code", "payload"):
        return Section.decode(value, MAX_CODE if name == "code" else MAX_SIZE)
    if name == "securityNumber":
        return jsontext.whole(value, MAX_SECURITY_NUMBER)
    if name == "signer":
        jsontext.text(value).encode("ascii")
    if name == "silentSeconds" and (type(value) not in (int, float) or not 0 <= value <= MAX_SILENCE):
        raise ValueError(f"silentSeconds: a number from 0 to {MAX_SILENCE} was expected")
    if name == "trust" and not isinstance(value, dict):
        raise ValueError("trust: an object was expected")
    return value


def check_digest(value: Any) -> str:
    """`value` if it is a SHA-256 in hexadecimal; else ValueError."""
    if not _DIGEST.fullmatch(jsontext.text(value)):
        raise ValueError("64 lower-case hexadecimal digits were expected")
    return value


def compare_digests(found: str, expected: str, complaint: str) -> None:
    """Failure that begins with `complaint` unless the two are the same."""
    if found != expected:
        raise Failure(f"{complaint} (digest {found[:16]}..., expected {expected[:16]}...)")


def encode_trailer(signatures: list[Signature]) -> bytes:
    """The trailer with `signatures`; Failure when they are too many or too long."""
    data = jsontext.encode({"signatures": [signature.fields() for signature in signatures]})
    if not 0 < len(signatures) <= MAX_SIGNATURES or len(data) > MAX_TRAILER:
        raise Failure(f"{len(signatures)} signatures of together {len(data)} bytes: a package has 1 to "
                      f"{MAX_SIGNATURES}, of at most {MAX_TRAILER} bytes")
    return data


def decode_trailer(data: bytes) -> tuple[Signature, ...]:
    """The signatures in a trailer; Damaged when it is not one."""
    try:
        values = jsontext.members(jsontext.decode(data), {"signatures"})["signatures"]
        if len(data) > MAX_TRAILER:
            raise ValueError(f"at most {MAX_TRAILER} bytes were expected")
        return tuple(Signature.decode(value) for value in jsontext.entries(values, MAX_SIGNATURES, 1))
    except ValueError as error:
        raise Damaged(f"the signatures at the end are damaged ({error})") from None


def head_message(head: bytes) -> bytes:
    """The text that is signed for a package of format 2 with this head."""
    return f"arbor update package 2\n{hashlib.sha256(head).hexdigest()}\n".encode()


def open_regular(path: str) -> int:
    """A descriptor of the file `path` for reading; NotPackage when it is something else than a file."""
    descriptor = os.open(path, os.O_RDONLY | os.O_CLOEXEC | os.O_NONBLOCK)
    if not stat.S_ISREG(os.fstat(descriptor).st_mode):
        os.close(descriptor)
        raise NotPackage(f"{path} is not a file")
    return descriptor


class Package:
    """An open package file. It keeps the file open, so that it can be read on after its name is gone."""

    header: Header
    head: bytes  # stub, header and code
    signatures: tuple[Signature, ...]

    def __init__(self, path: str, whole: int | None = None, ahead: int | None = None) -> None:
        """Opens `path` and reads its head and its signatures, or takes the package from the descriptor `whole`.

        With `whole`, of which this becomes the owner, the file `path` need not be more than the head, which must be
        the same. `ahead` is the pipe in which the stub's process tells the digest of the payload.
        NotPackage or Damaged when it is no complete package, Failure or OSError when it can't be read.
        """
        self.path = path
        self._ahead = ahead
        self._descriptor = open_regular(path) if whole is None else whole
        try:
            self._read_layout()
            if whole is not None:
                self._check_head_of(path)
        except BaseException:
            os.close(self._descriptor)
            raise

    def _read_layout(self) -> None:
        start = self._read_up_to(0, STUB_SIZE + MAX_HEADER)
        end = start.find(b"\n", STUB_SIZE) + 1
        if end == 0:
            raise NotPackage("it has no package header (too short, or no end of line)")
        self.header = Header.decode(start[STUB_SIZE:end])
        self.payload_offset = end + self.header.code.size
        self.payload_end = self.payload_offset + self.header.payload.size
        size = os.fstat(self._descriptor).st_size
        largest = MAX_SIGNATURE if self.header.format == 1 else MAX_TRAILER
        if not self.payload_end < size <= self.payload_end + largest:
            raise Damaged(f"the package is incomplete or has a foreign end ({size} bytes, "
                          f"{self.payload_end} and a signature expected)")
        self.head = self._read(0, self.payload_offset)
        trailer = self._read(self.payload_end, size - self.payload_end)
        self.signatures = (Signature(self.header.signer, "", trailer),) if self.header.format == 1 else decode_trailer(trailer)
        if Section.of(self.head[end:]) != self.header.code:
            raise Damaged("the installer in the package is damaged (another digest than the header says)")

    def _check_head_of(self, path: str) -> None:
        with open(path, "rb") as file:
            if file.read(len(self.head)) != self.head:
                raise Failure(f"the package was exchanged: {path} is not the head of what was handed over")

    def __enter__(self) -> "Package":
        return self

    def __exit__(self, *_: object) -> None:
        os.close(self._descriptor)

    def _read_up_to(self, offset: int, count: int) -> bytes:
        """`count` bytes at `offset`, fewer at the file's end; Failure when the stick it lies on has gone away."""
        data = b""
        while len(data) < count:
            try:
                piece = os.pread(self._descriptor, count - len(data), offset + len(data))
            except OSError as error:
                raise Failure(f"the package {self.path} cannot be read any more: {error.strerror}") from None
            if not piece:
                break
            data += piece
        return data

    def _read(self, offset: int, count: int) -> bytes:
        data = self._read_up_to(offset, count)
        if len(data) < count:
            raise Failure(f"the package {self.path} ended at byte {offset + len(data)} while it was read")
        return data

    def _chunks(self, start: int, end: int) -> Iterator[bytes]:
        """The bytes from `start` to `end` in pieces of at most CHUNK."""
        for offset in range(start, end, CHUNK):
            yield self._read(offset, min(CHUNK, end - offset))

    def payload(self) -> Iterator[bytes]:
        """The payload in pieces of at most CHUNK bytes."""
        return self._chunks(self.payload_offset, self.payload_end)

    def payload_digest(self) -> str:
        """The SHA-256 of the payload as it is, in hexadecimal: what was hashed ahead, or else by reading it now."""
        return self._digest_ahead() or _hash(self.payload())

    def _digest_ahead(self) -> str:
        """The digest that the stub's process tells; empty when there is none, or it is not of this file's whole payload."""
        if self._ahead is None:
            return ""
        with open(self._ahead, encoding="ascii", errors="replace") as told:
            *found, digest = told.read().split(" ")
        self._ahead = None
        state = os.fstat(self._descriptor)
        wanted = [str(one) for one in (state.st_dev, state.st_ino, self.payload_offset, self.payload_end)]
        return digest if found == wanted else ""

    def signed_message(self) -> bytes:
        """What the signatures are over. Reads the whole file for format 1."""
        if self.header.format == 1:
            return f"arbor update package 1\n{_hash(self._chunks(0, self.payload_end))}\n".encode()
        return head_message(self.head)


def _hash(chunks: Iterator[bytes]) -> str:
    digest = hashlib.sha256()
    for chunk in chunks:
        digest.update(chunk)
    return digest.hexdigest()
