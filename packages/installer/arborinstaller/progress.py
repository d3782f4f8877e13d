"""Progress documents, and the way they take to whoever shows them.

The receiver takes each read of up to 1024 bytes for a document (or several whole ones), so a document must
never be torn by a read. Hence they are short, each goes out in one send, and the next one waits until the
receiver has taken the last: a slow receiver gets fewer documents, always with the newest state. The final one
is never left out: a receiver that went away with it unread, and comes back in time, gets it again.
"""

import fcntl
import json
import os
import socket
import struct
import termios
import time
from typing import NamedTuple

_MAX_DOCUMENT = 500  # bytes: two that arrive together still fit one read
_INTERVAL = 0.1      # seconds between documents over TCP, where nothing tells when the receiver has read
_RETRY = 0.5         # seconds between attempts to reach the receiver
_CONNECT_LIMIT = 2.0
_UNREACHED_LIMIT = 3.0  # seconds for the final document to reach a receiver that has never answered


class Document(NamedTuple):
    """One progress document; `percent` is 0 to 100."""

    header: str
    message: str
    percent: int = 0
    error: bool = False
    done: bool = False
    spinner: bool = False
    operation: str = "install"

    def encode(self) -> bytes:
        """The document as JSON; a message too long for a document is cut."""
        message = self.message
        while len(text := self._json(message)) > _MAX_DOCUMENT and message:
            message = message[: max(0, len(message) - 8)]
        return text

    def _json(self, message: str) -> bytes:
        return json.dumps(self._replace(message=message)._asdict(), separators=(",", ":")).encode()


def say(text: str) -> None:
    """Writes a line to standard error, which may be gone: the install goes on without it."""
    try:
        os.write(2, f"{text}\n".encode(errors="replace"))
    except OSError:
        pass


class Address(NamedTuple):
    """Where the receiver listens: a UNIX socket (`path`) or TCP (`host`, `port`)."""

    path: str = ""
    host: str = ""
    port: int = 0

    def connect(self) -> socket.socket:
        """A connected stream socket; OSError when the receiver can't be reached within two seconds."""
        if not self.path:
            return socket.create_connection((self.host, self.port), _CONNECT_LIMIT)
        connection = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        try:
            connection.settimeout(_CONNECT_LIMIT)
            connection.connect(self.path)
        except BaseException:
            connection.close()
            raise
        return connection

    def __str__(self) -> str:
        return self.path or f"{self.host}:{self.port}"


class ProgressSink:
    """Sends documents to an address, or to standard error when there is none or nobody answers there.

    The receiver may appear late or come back: it is tried again while the install runs. Used by one thread.
    """

    def __init__(self, address: Address | None) -> None:
        self._address = address
        self._connection: socket.socket | None = None
        self._pending: Document | None = None
        self._said: Document | None = None
        self._reached = False
        self._last_sent = self._last_try = float("-inf")

    def offer(self, document: Document) -> None:
        """Makes `document` the next to send; one that still waits is replaced by it."""
        self._pending = document
        self.pump()

    def pump(self) -> None:
        """Sends the waiting document if it can go now. Call it again soon while waiting() holds."""
        if self._pending is None:
            return
        if self._address is None:
            self._say(self._pending)
            self._pending = None
        elif self._connected() and self._unread() == 0 and \
                (self._address.path or time.monotonic() - self._last_sent >= _INTERVAL):
            self._send(self._pending)

    def waiting(self) -> bool:
        """Whether a document waits to be sent."""
        return self._pending is not None

    def finish(self, document: Document, limit: float) -> None:
        """Sends the final document and closes the connection when it is taken, or after `limit` seconds.

        Less patience is needed with a receiver that has never been reached.
        """
        end = time.monotonic() + (limit if self._reached else min(limit, _UNREACHED_LIMIT))
        self.offer(document)
        while not self._taken(document) and time.monotonic() < end:
            time.sleep(0.01)
            self.pump()
        if self.waiting() and self._connection:
            self._send(document)  # the receiver has stopped reading: rather glued to another than lost
        if self.waiting():
            self._say(document)
        self._close()

    def _taken(self, document: Document) -> bool:
        """Whether the receiver has read all; one that left something unread is given `document` once more."""
        if self.waiting() or self._connection is None:
            return not self.waiting()
        if self._unread() > 0:
            return False
        if self._connection.getsockopt(socket.SOL_SOCKET, socket.SO_ERROR) == 0:
            return True
        self._close()
        self._pending = document
        return False

    def _connected(self) -> bool:
        now = time.monotonic()
        if self._connection is None and now - self._last_try >= _RETRY:
            self._last_try = now
            try:
                self._connection = self._address.connect()
                self._reached = True
            except OSError as error:
                self._unreachable(error)
        return self._connection is not None

    def _unread(self) -> int:
        """Bytes sent that the receiver has not taken (UNIX) or whose arrival is not confirmed (TCP)."""
        try:
            answer = fcntl.ioctl(self._connection.fileno(), termios.TIOCOUTQ, b"\0" * 4)
        except OSError:
            return 0  # the next send finds out
        return struct.unpack("i", answer)[0]

    def _send(self, document: Document) -> None:
        data = document.encode()
        try:
            sent = self._connection.send(data)
        except OSError as error:
            self._close()
            self._unreachable(error)
            return
        self._last_sent = time.monotonic()
        self._pending = None
        if sent != len(data):  # half a document: the receiver would read on in the middle of it
            self._close()

    def _unreachable(self, error: OSError) -> None:
        if self._said is None:
            say(f"progress receiver {self._address} cannot be reached ({error}); the install goes on without it")
        self._say(self._pending)

    def _say(self, document: Document) -> None:
        if document == self._said:
            return
        self._said = document
        say(f"{document.header}: {document.percent:3d} % {document.message}{' ...' if document.spinner else ''}")

    def _close(self) -> None:
        if self._connection:
            self._connection.close()
        self._connection = None
