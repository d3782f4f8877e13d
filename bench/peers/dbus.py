"""As much of the D-Bus protocol as a client needs to wait for a name, to hear properties change, and to say so itself."""

import os
import select
import socket
import struct
from pathlib import Path

_CALL, _RETURN, _ERROR, SIGNAL = 1, 2, 3, 4
_PATH, _INTERFACE, _MEMBER, _DESTINATION, _SIGNATURE = 1, 2, 3, 6, 8
_BUS = "org.freedesktop.DBus"


class Connection:
    """A client of the bus at a UNIX socket. Used by one thread."""

    def __init__(self, address: Path) -> None:
        self._socket = socket.socket(socket.AF_UNIX)
        self._socket.connect(str(address))
        self._serial = 0
        self._read = b""
        self._socket.sendall(b"\0AUTH EXTERNAL " + str(os.geteuid()).encode().hex().encode() + b"\r\n")
        if not self._socket.recv(256).startswith(b"OK"):
            raise SystemExit("peers: the bus does not let us in")
        self._socket.sendall(b"BEGIN\r\n")
        self._call("Hello")

    def close(self) -> None:
        self._socket.close()

    def listen(self, rule: str) -> None:
        """Asks for the signals that fit the rule."""
        self._call("AddMatch", rule)

    def has_message(self, patience: float) -> bool:
        """Whether one comes, or has come, within `patience` seconds."""
        return bool(self._read) or bool(select.select([self._socket], [], [], patience)[0])

    def receive(self) -> tuple[int, bytes, bytes]:
        """The next message: its type, its header and its body."""
        fixed = self._take(16)
        body, _, fields = struct.unpack("<III", fixed[4:])
        return fixed[1], self._take(-(-fields // 8) * 8), self._take(body)

    def tell_progress(self, interface: str, percent: int, text: str) -> None:
        """Emits the change of the property Progress, a number, a text and a depth, as an installer does."""
        changed = _aligned(_string("Progress"), 1) + b"\x05(isi)\0"
        value = struct.pack("<i", percent) + _string(text)
        value = _aligned(value, 4) + struct.pack("<i", 1)
        head = _aligned(_string(interface), 4)
        before = len(head) + 4
        entry = b"\0" * (-before % 8) + changed
        entry += b"\0" * (-(before + len(entry)) % 8) + value
        size = len(entry) - (-before % 8)
        body = head + struct.pack("<I", size) + entry
        body = _aligned(body, 4) + struct.pack("<I", 0)
        self._send(SIGNAL, {_PATH: ("o", "/"), _INTERFACE: ("s", "org.freedesktop.DBus.Properties"),
                            _MEMBER: ("s", "PropertiesChanged"), _SIGNATURE: ("g", "sa{sv}as")}, body)

    def _call(self, member: str, argument: str = "") -> bytes:
        fields = {_PATH: ("o", "/org/freedesktop/DBus"), _INTERFACE: ("s", _BUS), _MEMBER: ("s", member),
                  _DESTINATION: ("s", _BUS)}
        if argument:
            fields[_SIGNATURE] = ("g", "s")
        self._send(_CALL, fields, _string(argument) if argument else b"")
        while True:
            kind, _, body = self.receive()
            if kind == _ERROR:
                raise SystemExit(f"peers: the bus refuses {member}: {body!r}")
            if kind == _RETURN:
                return body

    def _send(self, kind: int, fields: dict[int, tuple[str, str]], body: bytes) -> None:
        self._serial += 1
        block = b""
        for code, (sort, value) in fields.items():
            block = _aligned(block, 8) + bytes([code, 1]) + sort.encode() + b"\0"
            block += bytes([len(value)]) + value.encode() + b"\0" if sort == "g" else _aligned(block, 4)[len(block):] + _string(value)
        head = struct.pack("<BBBBIII", ord("l"), kind, 1 if kind == SIGNAL else 0, 1, len(body), self._serial, len(block))
        self._socket.sendall(_aligned(head + block, 8) + body)

    def _take(self, count: int) -> bytes:
        while len(self._read) < count:
            data = self._socket.recv(65536)
            if not data:
                raise SystemExit("peers: the bus has gone")
            self._read += data
        taken, self._read = self._read[:count], self._read[count:]
        return taken


def _string(text: str) -> bytes:
    return struct.pack("<I", len(text.encode())) + text.encode() + b"\0"


def _aligned(data: bytes, boundary: int) -> bytes:
    return data + b"\0" * (-len(data) % boundary)
