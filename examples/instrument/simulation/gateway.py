"""A small client of a device's HTTP gateway (`at` names its socket), for what a person would do with curl."""

import http.client
import json
import queue
import socket
import threading
from pathlib import Path
from typing import Any

from . import paths

ANSWER_SECONDS = 60.0


class _UnixConnection(http.client.HTTPConnection):
    """HTTP over a gateway's socket file."""

    def __init__(self, socket_file: Path) -> None:
        super().__init__("localhost", timeout=ANSWER_SECONDS)
        self._socket_file = socket_file

    def connect(self) -> None:
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        self.sock.settimeout(self.timeout)
        self.sock.connect(str(self._socket_file))


def get(resource: str, at: Path = paths.GATEWAY) -> Any:
    """The JSON document at a resource such as "status"."""
    return _call(at, "GET", resource)[1]


def post(keyword: str, body: dict | None = None, at: Path = paths.GATEWAY) -> tuple[int, Any]:
    """Sends a request message; returns the HTTP status and the answer (None when there is none)."""
    return _call(at, "POST", keyword, json.dumps(body or {}))


def updates(at: Path = paths.GATEWAY) -> list[str]:
    """The versions that can be installed now, newest first."""
    return [message["version"] for message in post("findupdates", at=at)[1]["messages"]]


def jobs(kind: str, at: Path = paths.GATEWAY) -> list[dict]:
    """The device's jobs of a kind such as "install", the newest first."""
    return get(f"operations?kind={kind}", at)["operations"]


def _call(at: Path, method: str, resource: str, body: str | None = None) -> tuple[int, Any]:
    connection = _UnixConnection(at)
    try:
        connection.request(method, f"/v1/{resource}", body, {"Content-Type": "application/json"})
        answer = connection.getresponse()
        text = answer.read()
        return answer.status, json.loads(text) if text else None
    finally:
        connection.close()


class Events:
    """The gateway's event stream from now on. Use it as a context manager; one thread reads until it is closed."""

    def __init__(self, at: Path = paths.GATEWAY) -> None:
        self._at = at

    def __enter__(self) -> "Events":
        self._queue: queue.Queue[tuple[str, Any] | None] = queue.Queue()
        self._connection = _UnixConnection(self._at)
        self._connection.request("GET", "/v1/events")
        self._socket = self._connection.sock  # the answer takes it over from the connection
        self._answer = self._connection.getresponse()
        self._socket.settimeout(None)
        self._reader = threading.Thread(target=self._read)
        self._reader.start()
        return self

    def __exit__(self, *_: object) -> None:
        try:
            self._socket.shutdown(socket.SHUT_RDWR)
        except OSError:
            pass
        self._reader.join()
        self._answer.close()
        self._connection.close()

    def next(self, kind: str, accept=lambda message: True) -> Any:
        """The next event of a kind that `accept` takes; those before it are dropped. Fails when none comes."""
        while True:
            try:
                event = self._queue.get(timeout=ANSWER_SECONDS)
            except queue.Empty:
                raise TimeoutError(f"no '{kind}' event came within {ANSWER_SECONDS:.0f} s") from None
            if event is None:
                raise ConnectionError(f"the event stream ended before a '{kind}' event came")
            if event[0] == kind and accept(event[1]):
                return event[1]

    def _read(self) -> None:
        kind = ""
        try:
            for line in self._answer:
                name, _, value = line.decode("utf-8").rstrip("\r\n").partition(": ")
                if name == "event":
                    kind = value
                elif name == "data":
                    self._queue.put((kind, json.loads(value)))
        except (OSError, http.client.HTTPException, ValueError):
            pass
        self._queue.put(None)
