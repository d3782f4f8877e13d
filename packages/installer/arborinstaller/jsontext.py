"""JSON as packages carry it: what one reader takes for an object, every other one must take for the same object."""

import base64
import json
from typing import Any

_MAX_DEPTH = 32  # objects and lists inside each other


def encode(value: dict[str, Any]) -> bytes:
    """The one text that `value` has: sorted keys, no blanks, ASCII."""
    return json.dumps(value, sort_keys=True, separators=(",", ":")).encode()


def decode(data: bytes) -> dict[str, Any]:
    """The object that `data` holds from its first to its last byte; ValueError when it is none."""
    if not (data.startswith(b"{") and data.endswith(b"}")):
        raise ValueError("it is not a JSON object")
    try:
        value = json.loads(data.decode("ascii"), parse_int=_number, parse_constant=_refuse)
    except RecursionError:
        raise ValueError("it is nested too deeply") from None
    _check_depth(value, _MAX_DEPTH)
    json.dumps(value, ensure_ascii=False).encode()  # half a surrogate pair is no text
    return value


def members(value: Any, required: set[str], optional: frozenset[str] = frozenset()) -> dict[str, Any]:
    """`value` if it is an object with all `required` members and no others but `optional` ones; else ValueError."""
    if not isinstance(value, dict):
        raise ValueError("an object was expected")
    for name in sorted(required - value.keys()):
        raise ValueError(f"'{name}' is missing")
    for name in sorted(value.keys() - required - optional):
        raise ValueError(f"'{name[:40]}' is unknown")
    return value


def whole(value: Any, largest: int, least: int = 0) -> int:
    """`value` if it is a whole number from `least` to `largest`, written as one; else ValueError."""
    if type(value) is not int or not least <= value <= largest:  # True is an int to isinstance
        raise ValueError(f"a whole number from {least} to {largest} was expected")
    return value


def text(value: Any) -> str:
    """`value` if it is a text; else ValueError."""
    if not isinstance(value, str):
        raise ValueError("a text was expected")
    return value


def entries(value: Any, largest: int, least: int = 0) -> list[Any]:
    """`value` if it is a list of `least` to `largest` values; else ValueError."""
    if not isinstance(value, list) or not least <= len(value) <= largest:
        raise ValueError(f"a list of {least} to {largest} was expected")
    return value


def binary(value: Any) -> bytes:
    """The bytes that the text `value` stands for in Base64; ValueError when it is none."""
    if len(text(value)) % 4:
        raise ValueError("it is not Base64: its length is wrong")
    return base64.b64decode(value, validate=True)


def _number(digits: str) -> int | float:
    """The number; one that no member may have is just large. (int would refuse thousands of digits, which are JSON.)"""
    return int(digits) if len(digits) <= 20 else float(digits)


def _refuse(name: str) -> None:
    raise ValueError(f"{name} is not a number")


def _check_depth(value: Any, room: int) -> None:
    if isinstance(value, (dict, list)):
        if room == 0:
            raise ValueError("it is nested too deeply")
        for inner in value.values() if isinstance(value, dict) else value:
            _check_depth(inner, room - 1)
