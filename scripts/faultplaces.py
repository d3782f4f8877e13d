"""Where in C++ and Python a fault can be planted, and which: what a slip of the hand or of the mind would leave behind.

A comparison, a constant or a sign that is another one, a check that never holds, a step that is left out, two steps in the
other order. Left alone are log lines, comments, types, and sentences for people: only a test that repeats those would notice.
"""

import ast
import hashlib
import io
import re
import tokenize
from dataclasses import dataclass
from pathlib import Path


@dataclass(frozen=True)
class Fault:
    """A place in a product file, and what stands there instead."""

    file: str
    line: int
    start: int
    end: int
    old: str
    new: str

    def __str__(self) -> str:
        old, new = (" ".join(text.split()) for text in (self.old, self.new))
        return f"{self.file}:{self.line}: {shortened(old)!r} -> {shortened(new)!r}"


def shortened(text: str) -> str:
    return text if len(text) <= 70 else text[:67] + "..."


SWAPPED = {"<": "<=", "<=": "<", ">": ">=", ">=": ">", "==": "!=", "!=": "==", "&&": "||", "||": "&&", "+": "-", "-": "+", "+=": "-=",
           "-=": "+=", "++": "--", "--": "++", "true": "false", "false": "true", "True": "False", "False": "True", "and": "or", "or": "and"}
CPP_TOKEN = re.compile(r"""(?P<skip>//[^\n]*|/\*.*?\*/|^[ \t]*\#(?:[^\n]*\\\n)*[^\n]*|\s+)
    |(?P<text>R"\((?:.*?)\)"|"(?:[^"\\\n]|\\.)*"|'(?:[^'\\\n]|\\.)*')
    |(?P<number>\.?\d(?:[\w.']|[eE][+-])*) |(?P<name>[A-Za-z_]\w*)
    |(?P<sign><=>|->\*?|::|\+\+|--|[-+*/%&|^!=<>]=|&&|\|\||<<|.)""", re.VERBOSE | re.DOTALL | re.MULTILINE)
UNTOUCHED = {"Z_LOG", "static_assert", "Z_CLASS", "operator", "template"}  # with the brackets behind them
NO_STATEMENT = set("return using typedef throw break continue goto case default public private protected if for while do switch else template friend "
                   "static const constexpr auto class struct enum namespace extern virtual explicit operator try catch delete new "
                   "inline bool int char unsigned long double void".split())


class Places:
    """Collects the faults that one file has room for."""

    def __init__(self, file: str, text: str) -> None:
        self.file, self.text, self.found = file, text, []

    def add(self, start: int, end: int, new: str) -> None:
        old = self.text[start:end]
        new += "\n" * (old.count("\n") - new.count("\n"))  # no other line moves
        self.found.append(Fault(self.file, self.text.count("\n", 0, start) + 1, start, end, old, new))

    def exchange(self, first: tuple[int, int], second: tuple[int, int]) -> None:
        text = self.text
        self.add(first[0], second[1], text[slice(*second)] + text[first[1]:second[0]] + text[slice(*first)])

    def number(self, start: int, end: int) -> None:
        whole = re.fullmatch(r"(0[xX][0-9a-fA-F']+|\d[\d']*)([uUlLzZ]*)", self.text[start:end])
        if whole:
            self.add(start, end, f"{int(whole[1].replace(chr(39), ''), 16 if whole[1][:2] in ('0x', '0X') else 10) + 1}{whole[2]}")


def is_value(text: str) -> bool:
    """Whether a text is a name, a key, a path: a sentence for people is noticed only by a test that repeats it."""
    return text[0] == '"' and text[1] != '"' and " " not in text


def cpp_faults(file: str, text: str) -> list[Fault]:
    places = Places(file, text)
    tokens = [found for found in CPP_TOKEN.finditer(text) if found.lastgroup != "skip"]
    closing = brackets(tokens)
    headed = {close for opens, close in closing.items() if tokens[opens - 1][0] in ("if", "for", "while")}
    index, before = 0, None
    while index < len(tokens):
        token = tokens[index]
        word, kind, (start, end) = token[0], token.lastgroup, token.span()
        if word in UNTOUCHED:
            index = closing.get(index + 1, index + 1) + 1
            continue
        spaced = text[start - 1].isspace() and text[end:end + 1].isspace()
        if kind == "number":
            places.number(start, end)
        elif kind == "text" and is_value(word) and tokens[index - 1][0] != "extern":
            places.add(start, end, '""')
        elif word in ("true", "false", "++", "--") or (word in SWAPPED and kind == "sign" and spaced):
            places.add(start, end, SWAPPED[word])
        elif word == "!":
            places.add(start, end, "")
        elif word == "if" and tokens[index + 1][0] == "(":
            close = closing[index + 1]
            begin = max([tokens[inner].end() for inner in range(index + 2, close) if tokens[inner][0] == ";" and
                         not any(inner < closing.get(other, 0) for other in range(index + 2, inner))], default=tokens[index + 1].end())
            places.add(begin, tokens[close].start(), f" false && ({text[begin:tokens[close].start()].strip()})".lstrip())
        if index and (tokens[index - 1][0] in (";", "{", "}", "else") or index - 1 in headed):
            last = statement_end(tokens, closing, index)
            if last is not None:
                span = (start, tokens[last].start())
                places.add(*span, "")
                if before and before[1] == index - 1:
                    places.exchange(before[0], span)
                before = (span, last)
        index += 1
    return places.found


def brackets(tokens: list) -> dict[int, int]:
    """Where each opening bracket closes."""
    closing, opened = {}, []
    for index, token in enumerate(tokens):
        if token[0] in ("(", "[", "{"):
            opened.append(index)
        elif token[0] in (")", "]", "}") and opened:
            closing[opened.pop()] = index
    return closing


def statement_end(tokens: list, closing: dict[int, int], index: int) -> int | None:
    """The semicolon of a call or an assignment that begins here, and is no declaration."""
    if tokens[index].lastgroup != "name" and tokens[index][0] not in ("++", "--", "*", "::") or tokens[index][0] in NO_STATEMENT:
        return None
    acts, before = False, ""
    while index < len(tokens) and tokens[index][0] != ";":
        word = tokens[index][0]
        if tokens[index].lastgroup == "name" and not acts and (re.fullmatch(r"\w+|>|&|\*", before) and before or word in NO_STATEMENT):
            return None
        if word in ("{", "}", ")", "]") and not acts:
            return None
        acts = acts or word in ("(", "=", "+=", "-=", "|=", "++", "--", "<<")
        if word in UNTOUCHED or word in ("}", ")", "delete", "default"):
            return None
        before = word if index or word != "*" else ""
        index = closing.get(index, index) + 1
    return index if acts and index < len(tokens) else None


def python_faults(file: str, text: str) -> list[Fault]:
    places, tree = Places(file, text), ast.parse(text)
    starts = [0]
    for line in text.splitlines(keepends=True):
        starts.append(starts[-1] + len(line))

    def span(node: ast.AST) -> tuple[int, int]:
        return starts[node.lineno - 1] + node.col_offset, starts[node.end_lineno - 1] + node.end_col_offset

    documented = set()
    for node in ast.walk(tree):
        if isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant):
            documented.add(span(node)[0])
        if isinstance(node, ast.If):
            start, end = span(node.test)
            places.add(start, end, f"False and ({text[start:end]})")
        for name in ("body", "orelse", "finalbody"):
            before = None
            for statement in getattr(node, name, None) or [] if not isinstance(node, (ast.IfExp, ast.Lambda)) else []:
                calls = isinstance(statement, ast.Expr) and isinstance(statement.value, ast.Call)
                sets = isinstance(statement, (ast.Assign, ast.AugAssign)) and isinstance(node, (ast.FunctionDef, ast.If, ast.For, ast.While, ast.With))
                if calls or sets:
                    places.add(*span(statement), "pass")
                    if before:
                        places.exchange(span(before), span(statement))
                before = statement if calls or sets else None
    for token in tokenize.generate_tokens(io.StringIO(text).readline):
        start, end = (starts[row - 1] + column for row, column in (token.start, token.end))
        if token.type == tokenize.NUMBER:
            places.number(start, end)
        elif token.type == tokenize.STRING and start not in documented and is_value(token.string.lstrip("bfr")):
            places.add(start, end, ("b" if token.string[0] == "b" else "") + '""')
        elif token.string in SWAPPED and token.type in (tokenize.OP, tokenize.NAME):
            places.add(start, end, SWAPPED[token.string])
        elif token.string == "not" and not text[:start].endswith("is ") and not text[end:].startswith(" in "):
            places.add(start, end, "")
    return [fault for fault in places.found if parses(text[:fault.start] + fault.new + text[fault.end:])]


def parses(text: str) -> bool:
    try:
        return bool(ast.parse(text))
    except SyntaxError:
        return False


def choose(root: Path, folders: tuple[str, ...], seed: str) -> list[Fault]:
    """One fault for each line that has room for any, in the order that the seed gives them."""
    lines: dict[tuple, list[Fault]] = {}
    for path in sorted(path for folder in folders for path in (root / folder).rglob("*") if path.is_file()):
        file, text = str(path.relative_to(root)), path.read_bytes().decode("latin-1")
        finds = cpp_faults if path.suffix in (".cpp", ".h") else python_faults if path.suffix == ".py" else None
        rows, seen = text.split("\n"), {}
        for fault in sorted(finds(file, text), key=lambda fault: fault.start) if finds else []:
            row = rows[fault.line - 1].strip()
            seen.setdefault(row, {}).setdefault(fault.line, len(seen[row]) if row in seen else 0)
            lines.setdefault((file, row, seen[row][fault.line]), []).append(fault)

    def drawn(*words: object) -> int:
        return int.from_bytes(hashlib.sha256("\0".join(map(str, (seed, *words))).encode()).digest()[:8], "big")
    return [lines[key][drawn("kind", *key) % len(lines[key])] for key in sorted(lines, key=lambda key: drawn(*key))]
