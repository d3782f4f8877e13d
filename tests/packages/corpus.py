#!/usr/bin/env python3
"""Writes files that every reader of packages must judge alike: corpus.py OUT_DIR

    OUT_DIR/trust/          the trusted certificates
    OUT_DIR/trust-*/, OUT_DIR/state-*/   folders with a trust document
    OUT_DIR/files/          good and bad packages and signed files, each named by what is wrong with it
    OUT_DIR/expected.json   a list of {"file", "board", "verdict"}; the board is empty where none is asked for, and a file
                            of format 2 that gets as far as its signatures has "payload" too: "good" or "bad". A file that is
                            not judged by the certificates has "trust" and perhaps "state", folders below OUT_DIR, and
                            "development": true where packages by development keys are accepted
    OUT_DIR/documents/      good and bad chains of trust documents
    OUT_DIR/chains.json     a list of {"current", "chain", "result", "number"}: what becomes of the chain where the last
                            document of "current" is in force (empty: none), both files below OUT_DIR: "followed",
                            "nothingNew", "refused" or "damaged", and the number in force then (0: none)

Each named file has the verdict that the format's description gives it. Behind them come small packages of each format,
and a chain, with seeded changes of bytes; those have the verdict of the reader in packages/.
"""

import functools
import json
import os
import random
import sys
import tempfile

sys.dont_write_bytecode = True
import cases  # noqa: E402
import chains  # noqa: E402
from forge import CODE, PAYLOAD, package_1, package_2  # noqa: E402

from arborinstaller import documents, trust  # noqa: E402
from arborinstaller.failure import Damaged, NotPackage  # noqa: E402
from arborinstaller.layout import Package  # noqa: E402
from arborpkg.inspection import opened  # noqa: E402

MUTATIONS = 200  # of each format
LETTERS = b"0123456789ABCDEFabcdef+/={}[]:,\"\\ -."  # what is put into chains: other bytes are not read at all


def verdict_on(path: str, trusted: trust.Trusted, board: str) -> tuple[str, str | None]:
    """The reader's verdict on the file, and what it says of the payload where that is not part of the verdict."""
    try:
        with opened(path) as signed:
            payload = None
            if isinstance(signed, Package) and signed.header.format == 2:
                payload = "good" if signed.payload_digest() == signed.header.payload.sha256 else "bad"
            return trust.assess(signed, trusted, board).verdict.word, payload
    except (NotPackage, Damaged) as failure:
        return trust.refusal(failure).word, None


def result_of(chain: str, current: str) -> tuple[str, int]:
    """What the reader makes of a chain where the last document of `current` is in force, and which number is then."""
    known = documents.load(current)[-1] if current else None
    number = known.number if known else 0
    try:
        newest = documents.follow(known, documents.load(chain))
    except documents.DamagedChain:
        return "damaged", number
    except documents.Refused:
        return "refused", number
    return "nothingNew" if newest is known else "followed", newest.number


def mutated_package(good: bytes, seed: str) -> list[bytes]:
    """Changes in each region: stub, header, code, payload, what is behind it."""
    header_end = good.index(b"\n", 4096) + 1
    return mutated(good, seed, 0, 4096, header_end, header_end + len(CODE), header_end + len(CODE) + len(PAYLOAD), len(good))


def mutated(good: bytes, seed: str, *borders: int, among: bytes = bytes(range(256))) -> list[bytes]:
    """MUTATIONS changes of `good`, the same for the same seed: a byte changed, bytes put in, or the end cut off.

    Each region between `borders` gets its share, however small it is. New bytes are `among` these.
    """
    chance = random.Random(seed)
    found = []
    for count in range(MUTATIONS):
        region = count % (len(borders) - 1)
        at = chance.randrange(borders[region], borders[region + 1])
        kind = chance.choice(("change", "change", "insert", "cut"))
        if kind == "change":
            found.append(good[:at] + bytes([chance.choice(among.replace(good[at:at + 1], b""))]) + good[at + 1:])
        elif kind == "insert":
            found.append(good[:at] + bytes(chance.choices(among, k=chance.randrange(1, 9))) + good[at:])
        else:
            found.append(good[:at])
    return found


class Corpus:
    """Writes the corpus; tells what is expected, and where the reader in packages/ finds something else."""

    def __init__(self, out: str) -> None:
        self.out = out
        self.rows: list[dict] = []
        self.chain_rows: list[dict] = []
        self.disputed: list[str] = []
        with tempfile.TemporaryDirectory(prefix="arbor") as work:
            signers = cases.Signers(work, self._folder("trust"))
            keys = chains.Keys(work, signers)
            entries = chains.folders(keys)
            for name, entry in entries.items():
                self._write(os.path.join(self._folder(name), documents.FILE), chains.chain(entry) if entry else None)
            for name in ("trust-5", "trust-stranger"):
                self._write(os.path.join(self._folder(name), "stranger.pem"), signers.stranger.certificate.encode())
            self._folder("files")
            self._folder("documents")
            for case in (*cases.all_cases(signers), *chains.package_cases(keys, entries)):
                self._add(case)
            for number, good in ((1, package_1(signers.release)), (2, package_2(signers.release))):
                for count, data in enumerate(mutated_package(good, f"format {number}")):
                    self._add(cases.Case(f"{number}-mutated-{count:03}", data, ""))
            for case in chains.chain_cases(keys, work):
                self._add_chain(case)
            good = chains.mutated_chain(keys)
            self._add_chain(chains.ChainCase("mutated", good, "followed", 5))
            for count, data in enumerate(mutated(good, "chain", 0, len(good), among=LETTERS)):
                self._add_chain(chains.ChainCase(f"mutated-{count:03}", data, "", 0))
        self._save("expected.json", self.rows)
        self._save("chains.json", self.chain_rows)

    def _folder(self, name: str) -> str:
        os.makedirs(path := os.path.join(self.out, name), exist_ok=True)
        return path

    def _save(self, name: str, rows: list[dict]) -> None:
        self._write(os.path.join(self.out, name), json.dumps(rows, indent=1).encode())

    @staticmethod
    def _write(path: str, content: bytes | None) -> None:
        if content is not None:
            with open(path, "wb") as file:
                file.write(content)

    def _add(self, case: cases.Case) -> None:
        path = os.path.join(self.out, "files", case.name)
        self._write(path, case.content)
        self._write(path + ".sig", case.beside)
        trusted = self._trusted(case.trust, case.state, case.development)
        verdict, payload = verdict_on(path, trusted, case.board)
        if case.verdict not in ("", verdict):
            self.disputed.append(f"{case.name}: {verdict} in place of {case.verdict}")
        self.rows.append({"file": case.name, "board": case.board, "verdict": case.verdict or verdict,
                          **({"payload": payload} if payload else {}),
                          **({"trust": case.trust} if case.trust != "trust" else {}),
                          **({"state": case.state} if case.state else {}),
                          **({"development": True} if case.development else {})})

    @functools.cache
    def _trusted(self, folder: str, state: str, development: bool) -> trust.Trusted:
        return trust.Trusted.load(os.path.join(self.out, folder), state and os.path.join(self.out, state), development)

    def _add_chain(self, case: chains.ChainCase) -> None:
        current, chain = (name and f"documents/{name}.json" for name in (case.current, case.name))
        self._write(os.path.join(self.out, chain), case.content)
        result, number = result_of(os.path.join(self.out, chain), current and os.path.join(self.out, current))
        if case.result and (result, number) != (case.result, case.number):
            self.disputed.append(f"{case.name}: {result} with {number} in place of {case.result} with {case.number}")
        self.chain_rows.append({"current": current, "chain": chain, "result": case.result or result,
                                "number": case.number if case.result else number})


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    corpus = Corpus(sys.argv[1])
    print(*corpus.disputed, f"{len(corpus.rows)} files, {len(corpus.chain_rows)} chains", sep="\n")
    sys.exit(1 if corpus.disputed else 0)
