#!/usr/bin/env python3
"""Writes files that every reader of packages must judge alike: corpus.py OUT_DIR

    OUT_DIR/trust/          the trusted certificates
    OUT_DIR/files/          good and bad packages and signed files, each named by what is wrong with it
    OUT_DIR/expected.json   a list of {"file", "board", "verdict"}; the board is empty where none is asked for, and a file
                            of format 2 that gets as far as its signatures has "payload" too: "good" or "bad"

Each named file has the verdict that the format's description gives it. Behind them come small packages of each format
with seeded changes of bytes; those have the verdict of the reader in packages/.
"""

import json
import os
import random
import sys
import tempfile

sys.dont_write_bytecode = True
import cases  # noqa: E402
from forge import CODE, PAYLOAD, package_1, package_2  # noqa: E402

from arborinstaller import trust  # noqa: E402
from arborinstaller.certificates import Certificate, trusted_in  # noqa: E402
from arborinstaller.failure import Damaged, NotPackage  # noqa: E402
from arborinstaller.layout import Package  # noqa: E402
from arborpkg.inspection import opened  # noqa: E402

MUTATIONS = 200  # of each format


def verdict_on(path: str, trusted: list[Certificate], board: str) -> tuple[str, str | None]:
    """The reader's verdict on the file, and what it says of the payload where that is not part of the verdict."""
    try:
        with opened(path) as signed:
            payload = None
            if isinstance(signed, Package) and signed.header.format == 2:
                payload = "good" if signed.payload_digest() == signed.header.payload.sha256 else "bad"
            return trust.judge(signed, trusted, board).word, payload
    except (NotPackage, Damaged) as failure:
        return trust.refusal(failure).word, None


def mutated(good: bytes, seed: str) -> list[bytes]:
    """MUTATIONS changes of `good`, the same for the same seed: a byte changed, bytes put in, or the end cut off.

    Each region (stub, header, code, payload, what is behind it) gets its share, however small it is.
    """
    chance = random.Random(seed)
    header_end = good.index(b"\n", 4096) + 1
    borders = [0, 4096, header_end, header_end + len(CODE), header_end + len(CODE) + len(PAYLOAD), len(good)]
    found = []
    for count in range(MUTATIONS):
        region = count % (len(borders) - 1)
        at = chance.randrange(borders[region], borders[region + 1])
        kind = chance.choice(("change", "change", "insert", "cut"))
        if kind == "change":
            found.append(good[:at] + bytes([good[at] ^ chance.randrange(1, 256)]) + good[at + 1:])
        elif kind == "insert":
            found.append(good[:at] + chance.randbytes(chance.randrange(1, 9)) + good[at:])
        else:
            found.append(good[:at])
    return found


def write_corpus(out: str) -> tuple[list[dict], list[str]]:
    """Writes the corpus; returns what is expected, and where the reader in packages/ finds something else."""
    trust_folder, files = os.path.join(out, "trust"), os.path.join(out, "files")
    os.makedirs(trust_folder, exist_ok=True)
    os.makedirs(files, exist_ok=True)
    with tempfile.TemporaryDirectory(prefix="arbor") as work:
        signers = cases.Signers(work, trust_folder)
        named = cases.all_cases(signers)
        random_ones = {f"{number}-mutated-{count:03}": data
                       for number, good in ((1, package_1(signers.release)), (2, package_2(signers.release)))
                       for count, data in enumerate(mutated(good, f"format {number}"))}
    trusted = trusted_in(trust_folder)
    expected, disputed = [], []
    for case in named + [cases.Case(name, data, "") for name, data in random_ones.items()]:
        path = os.path.join(files, case.name)
        for name, content in ((path, case.content), (path + ".sig", case.beside)):
            if content is not None:
                with open(name, "wb") as file:
                    file.write(content)
        verdict, payload = verdict_on(path, trusted, case.board)
        if case.verdict not in ("", verdict):
            disputed.append(f"{case.name}: {verdict} in place of {case.verdict}")
        expected.append({"file": case.name, "board": case.board, "verdict": case.verdict or verdict,
                         **({"payload": payload} if payload else {})})
    with open(os.path.join(out, "expected.json"), "w", encoding="utf-8") as file:
        json.dump(expected, file, indent=1)
    return expected, disputed


if __name__ == "__main__":
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    rows, disputes = write_corpus(sys.argv[1])
    print(*disputes, f"{len(rows)} files", sep="\n")
    sys.exit(1 if disputes else 0)
