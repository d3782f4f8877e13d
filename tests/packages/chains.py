"""Good and bad chains of trust documents, and packages that are judged under them."""

import base64
import hashlib
import json
import os
from dataclasses import dataclass
from typing import Iterator

from cases import P_256, RSA_1024, RSA_2048, Case, Signers
from forge import (MISSING, PAYLOAD, Signer, changed, detached, head, line, members_of, message_1, message_2, package_1,
                   package_2, signed_2, trailer)
from support import run

RSA_PSS = ("-algorithm", "RSA-PSS", "-pkeyopt", "rsa_keygen_bits:2048")
WITHDRAWN = {"version": "6.66", "securityNumber": 3}


@dataclass(frozen=True)
class ChainCase:
    """A chain, and what becomes of it where number 3 (or nothing, or another chain's last) is in force."""

    name: str
    content: bytes
    result: str
    number: int = 3
    current: str = "in-force"


def public_key(signer: Signer) -> bytes:
    done = run("openssl", "pkey", "-in", signer.key_file, "-pubout")
    return base64.b64decode("".join(done.stdout.splitlines()[1:-1]))


def key(signer: Signer | bytes, *roles: str, **changes: object) -> dict:
    der = signer if isinstance(signer, bytes) else public_key(signer)
    return changed({"name": "a key", "publicKey": base64.b64encode(der).decode(), "roles": list(roles or ("release",)),
                    "boards": []}, changes)


def message(text: str) -> bytes:
    return f"arbor trust document 1\n{hashlib.sha256(text.encode()).hexdigest()}\n".encode()


def entry(document: dict | str, *signers: Signer) -> dict:
    """A document in a chain, signed by these."""
    text = document if isinstance(document, str) else line(document).decode()
    return {"document": text, "signatures": [signature(signer, text) for signer in signers]}


def signature(signer: Signer, text: str, **changes: object) -> dict:
    return signer.entry(message(text), certificate=MISSING, **changes)


def chain(*entries: object) -> bytes:
    return line({"documents": list(entries)})


class Keys:
    """The keys of those who sign trust documents and, under them, packages."""

    def __init__(self, work: str, signers: Signers) -> None:
        self.first, self.second, self.third, self.fourth, self.other, self.developer, self.both, self.only_b2, self.later = (
            Signer(work, name) for name in ("trust 1", "trust 2", "trust 3", "trust 4", "other release", "developer", "both",
                                            "only b2", "later"))
        self.rsa_trust = Signer(work, "rsa trust", key=RSA_2048)
        self.signers = signers
        self.trust = [key(one, "trust") for one in (self.first, self.second, self.third)]

    def document(self, number: int, /, **changes: object) -> dict:
        return changed({"format": 1, "number": number, "expires": "", "securityFloor": 0, "revoked": [],
                        "thresholds": {"trust": 2, "release": 1, "development": 1},
                        "keys": [*self.trust, key(self.signers.release)]}, changes)

    def signed(self, number: int, /, **changes: object) -> dict:
        return entry(self.document(number, **changes), self.first, self.second)


def followed_cases(keys: Keys) -> Iterator[ChainCase]:
    """Chains that are whole: where they lead, or why nowhere."""
    first, second, third, fourth = keys.first, keys.second, keys.third, keys.fourth
    two, three, four = (keys.signed(number) for number in (2, 3, 4))
    rotated = [key(one, "trust") for one in (third, fourth, keys.rsa_trust)]
    five = entry(keys.document(5, keys=rotated), first, third, fourth)
    six = entry(keys.document(6, keys=rotated, securityFloor=2), fourth, keys.rsa_trust)
    unsigned = {**four, "signatures": []}
    text = four["document"]
    bad = signature(third, "another")
    yield ChainCase("in-force", chain(three), "nothingNew")
    yield ChainCase("of-six", chain(six), "nothingNew", 6, "of-six")
    for name, content, result, number in (
            ("next", chain(four), "followed", 4), ("next-behind-older", chain(two, three, four), "followed", 4),
            ("three-on", chain(four, five, six), "followed", 6), ("line-feed", chain(four) + b"\n", "followed", 4),
            ("blanks", json.dumps({"documents": [four]}, indent=1).encode(), "followed", 4),
            ("text-with-blanks", chain(entry(json.dumps(keys.document(4), indent=1), first, second)), "followed", 4),
            ("more-signatures", chain(entry(text, keys.other, first, third, second)), "followed", 4),
            ("bad-signature-too", chain({**four, "signatures": [bad, *four["signatures"]]}), "followed", 4),
            ("bad-then-good-of-one-key", chain(
                {**four, "signatures": [signature(first, "another"), *four["signatures"]]}), "followed", 4),
            ("32-signatures", chain({**four, "signatures": [bad] * 30 + four["signatures"]}), "followed", 4),
            ("none-of-these-keys-any-more", chain(entry(
                keys.document(4, keys=rotated), first, second, third, fourth)), "followed", 4),
            ("same", chain(three), "nothingNew", 3), ("same-behind-older", chain(two, three), "nothingNew", 3),
            ("same-unsigned", chain({**three, "signatures": []}), "nothingNew", 3),
            ("older", chain(two), "refused", 3), ("skips", chain(five), "refused", 3),
            ("another-of-the-same-number", chain(keys.signed(3, expires="2030-01-01")), "refused", 3),
            ("another-of-the-same-number-first", chain(keys.signed(3, expires="2030-01-01"), four), "refused", 3),
            ("same-with-blanks", chain(entry(json.dumps(keys.document(3)), first, second)), "refused", 3),
            ("unsigned", chain(unsigned), "refused", 3), ("one-signature", chain(entry(text, first)), "refused", 3),
            ("one-key-twice", chain(entry(text, first, first)), "refused", 3),
            ("by-release-key", chain(entry(text, first, keys.signers.release)), "refused", 3),
            ("by-unknown-key", chain(entry(text, first, fourth)), "refused", 3),
            ("signature-of-another-text", chain({**four, "signatures": [
                four["signatures"][0], signature(second, "x")]}), "refused", 3),
            ("signature-as-of-package", chain({**four, "signatures": [four["signatures"][0], second.entry(
                message_2(text.encode()), certificate=MISSING)]}), "refused", 3),
            ("signature-under-another-key", chain({**four, "signatures": [
                four["signatures"][0], signature(first, text, key=second.key)]}), "refused", 3),
            ("not-by-its-own", chain(entry(keys.document(4, keys=rotated), first, second)), "refused", 3),
            ("only-by-its-own", chain(entry(keys.document(4, keys=rotated), fourth, keys.rsa_trust)), "refused", 3),
            ("own-threshold-raised", chain(entry(keys.document(4, thresholds={
                "trust": 3, "release": 1, "development": 1}), first, second)), "refused", 3),
            ("old-threshold-counts", chain(entry(keys.document(4, thresholds={
                "trust": 1, "release": 1, "development": 1}), first)), "refused", 3),
            ("last-one-unsigned", chain(four, {**five, "signatures": []}), "refused", 3),
            ("floor-goes-back-later", chain(keys.signed(4, securityFloor=2), keys.signed(5, securityFloor=1)), "refused", 3)):
        yield ChainCase(f"chain-{name}", content, result, number)
    yield ChainCase("chain-nothing-in-force", chain(three, four), "refused", 0, "")
    yield ChainCase("chain-floor-goes-back", chain(entry(keys.document(
        7, keys=rotated, securityFloor=1), fourth, keys.rsa_trust)), "refused", 6, "of-six")
    yield ChainCase("chain-of-16", chain(three, four, *map(keys.signed, range(5, 19))), "followed", 18)
    yield ChainCase("chain-by-rsa", chain(entry(keys.document(
        7, keys=rotated, securityFloor=2), fourth, keys.rsa_trust)), "followed", 7, "of-six")


def member_cases(keys: Keys, work: str) -> Iterator[ChainCase]:
    """Members of a document and of its keys that are wrong or at their limits, in chains that are signed all the same."""
    def made(name: str, algorithm: tuple[str, ...]) -> bytes:
        run("openssl", "genpkey", *algorithm, "-out", path := os.path.join(work, name))
        return base64.b64decode("".join(run("openssl", "pkey", "-in", path, "-pubout").stdout.splitlines()[1:-1]))

    good, rsa = public_key(keys.first), public_key(keys.rsa_trust)
    thresholds = {"trust": 2, "release": 1, "development": 1}
    digest = "ab" * 32
    many = [key(good[:12] + hashlib.sha256(str(number).encode()).digest()) for number in range(30)]
    wrong = {
        "format": (MISSING, 0, 2, 1.0, "1", True), "number": (MISSING, 0, -1, 4.0, "4", None, 1 << 31),
        "expires": (MISSING, None, "2030", "2030-1-01", "2030-01-01 ", "2030-01-01\n", 20300101),
        "securityFloor": (MISSING, -1, 1 << 31, 1.0, "1", None),
        "thresholds": (MISSING, [], 1, {**thresholds, "trust": 4}, {**thresholds, "x": 1}, {"trust": 2, "release": 1},
                       *({**thresholds, "release": value} for value in (0, 17, 1.0, True, "1", None))),
        "keys": (MISSING, None, {}, [], [*many, *keys.trust], [*keys.trust, keys.trust[0]], [*keys.trust, 1],
                 [*keys.trust, key(good, name="twice", roles=["release"])], [keys.trust[0], key(keys.second)]),
        "revoked": (MISSING, None, {}, [digest] * 129, [digest.upper()], [digest[1:]], [""], [1]), "extra": (1,)}
    wrong_key = {
        "name": (MISSING, "", "x" * 65, "a\n", "\u00e4", "\x7f", 1, None),
        "publicKey": (MISSING, "", 1, "A" * 2052, *(base64.b64encode(der).decode() for der in (
            good + b"\0", good[:-1], rsa + b"\0", rsa[:-1], b"\x30\x81\x2a" + good[2:], good[:11] + b"\1" + good[12:],
            good[12:], made("weak", RSA_1024), made("elliptic", P_256), made("448", ("-algorithm", "ed448")),
            made("x25519", ("-algorithm", "x25519")), made("pss", RSA_PSS))), base64.b64encode(good).decode() + "\n",
            base64.b64encode(good).decode()[:-1]),
        "roles": (MISSING, [], "release", ["root"], ["release", "release"], ["release", 1], [["release"]], [None],
                  {"release": 1}, ["release", "trust", "development", "trust"]),
        "boards": (MISSING, None, "b1", {}, ["a b"], [""], [1], ["b1"] * 17), "extra": (1,)}
    limits = {"expires": ("2030-12-31", "0000-99-99"), "securityFloor": ((1 << 31) - 1,), "revoked": ([digest] * 128,),
              "thresholds": ({"trust": 2, "release": 16, "development": 16}, *({**thresholds, "trust": value} for value in (1, 3))),
              "keys": ([*many[:29], *keys.trust], [*keys.trust, key(keys.other, name=" ~" * 32, boards=["b"] * 16)],
                       [*keys.trust, key(rsa, "trust", "release", "development")])}
    for member, values in limits.items():
        for count, value in enumerate(values):
            signed = entry(keys.document(4, **{member: value}), keys.first, keys.second, keys.third)
            yield ChainCase(f"{member}-limit-{count}", chain(signed), "followed", 4)
    for member, values in wrong.items():
        for count, value in enumerate(values):
            yield ChainCase(f"{member}-wrong-{count}", chain(keys.signed(4, **{member: value})), "damaged")
    for member, values in wrong_key.items():
        for count, value in enumerate(values):
            one = key(keys.other, **{member: value})
            yield ChainCase(f"key-{member}-wrong-{count}", chain(keys.signed(4, keys=[*keys.trust, one])), "damaged")


def shape_cases(keys: Keys) -> Iterator[ChainCase]:
    """What is around the documents."""
    three, four = keys.signed(3), keys.signed(4)
    text, signatures = four["document"], four["signatures"]
    whole = chain(four)
    deep = json.loads('{"x":' * 32 + "1" + "}" * 32)
    # The longest file that a chain may be; blanks between its members count.
    longest = whole[:-1] + b" " * (48 * 1024 - len(whole)) + b"}"
    for name, content, result in (
            ("longest", longest, "followed"), ("longest-and-line-feed", longest + b"\n", "followed"),
            ("too-long", longest[:-1] + b" }", "damaged"), ("two-line-feeds", whole + b"\n\n", "damaged"),
            ("return-and-line-feed", whole + b"\r\n", "damaged"), ("empty", b"", "damaged"), ("line-feed", b"\n", "damaged"),
            ("blank-before", b" " + whole, "damaged"), ("zero-behind", whole + b"\0", "damaged"), ("list", b"[]", "damaged"),
            ("not-ascii", whole.replace(b"a key", "\u00e4".encode(), 1), "damaged"), ("no-entries", chain(), "damaged"),
            ("no-list", line({"documents": four}), "damaged"), ("more-members", line({"documents": [four], "x": 1}), "damaged"),
            ("17-entries", chain(three, four, *map(keys.signed, range(5, 20))), "damaged"),
            ("twice", chain(four, four), "damaged"),
            ("backwards", chain(four, three), "damaged"), ("gap", chain(keys.signed(2), four), "damaged"),
            ("older-one-damaged", chain(entry(keys.document(3, x=1)), four), "damaged"),
            ("document-as-object", chain({**four, "document": keys.document(4)}), "damaged"),
            ("document-empty", chain({**four, "document": ""}), "damaged"),
            ("document-list", chain(entry("[]")), "damaged"), ("document-line-feed", chain(entry(text + "\n")), "damaged"),
            ("document-blank", chain(entry(" " + text)), "damaged"),
            ("document-not-ascii", chain(entry(text.replace("a key", "\u00e4", 1))), "damaged"),
            ("document-escaped", chain(entry(text.replace("a key", "\\u0061 key", 1), keys.first, keys.second)), "followed"),
            ("document-same-member-twice", chain(entry('{"number":9,' + text[1:], keys.first, keys.second)), "followed"),
            ("document-too-deep", chain(entry(keys.document(4, x=deep))), "damaged"),
            ("signatures-missing", chain({"document": text}), "damaged"), ("entry-text", chain(text), "damaged"),
            ("entry-more-members", chain({**four, "x": 1}), "damaged"),
            ("33-signatures", chain({**four, "signatures": signatures[:1] * 31 + signatures}), "damaged"),
            ("signatures-object", chain({**four, "signatures": {}}), "damaged"),
            *((f"signature-{member}-{count}", chain({**four, "signatures": [*signatures, changed(
                signatures[0], {member: value})]}), "damaged")
              for member, values in {"key": (MISSING, 1, "", signatures[0]["key"].upper()), "certificate": ("",),
                                     "signature": (
                  MISSING, None, "", "AAA", "AAAA\n", base64.b64encode(bytes(2049)).decode())}.items()
              for count, value in enumerate(values))):
        yield ChainCase(f"shape-{name}", content, result, 4 if result == "followed" else 3)


def chain_cases(keys: Keys, work: str) -> list[ChainCase]:
    """Every case; each has a name of its own."""
    return [*followed_cases(keys), *member_cases(keys, work), *shape_cases(keys)]


def mutated_chain(keys: Keys) -> bytes:
    """The chain whose random changes are followed."""
    return chain(keys.signed(3), keys.signed(4), keys.signed(5, securityFloor=1))


def folders(keys: Keys) -> dict[str, dict]:
    """Each folder's trust document. Number 5 knows everybody; 6 asks for two signers, and 7 has withdrawn the release key."""
    release, rsa = keys.signers.release, keys.signers.rsa
    revoked = [hashlib.sha256(head(members_of(2, **WITHDRAWN))).hexdigest(),
               message_1(package_1(release, version="6.66")[:-64]).split()[-1].decode(),
               hashlib.sha256(detached(release, b"", version="6.66").splitlines()[0]).hexdigest()]
    everybody = [*keys.trust, key(release, name="Release"), key(keys.other, name="Other"), key(rsa),
                 key(keys.developer, "development"), key(keys.both, "release", "development"), key(keys.only_b2, boards=["b2", "b3"])]
    two = {"trust": 2, "release": 2, "development": 2}
    return {"trust-5": keys.signed(5, keys=everybody, revoked=revoked),
            "trust-6": keys.signed(6, keys=everybody, thresholds=two, securityFloor=4, revoked=revoked),
            "state-7": keys.signed(7, keys=[*keys.trust, key(keys.later)], securityFloor=4),
            "state-5": keys.signed(5, keys=[*keys.trust, key(keys.later)]), "state-4": keys.signed(4), "state-none": {}}


def package_cases(keys: Keys, entries: dict[str, dict]) -> Iterator[Case]:
    """Packages that are judged under a document."""
    signers = keys.signers
    release, other, developer, both, later = signers.release, keys.other, keys.developer, keys.both, keys.later
    start = head(members_of(2))
    low = head(members_of(2, securityNumber=3))
    said = message_2(start)
    bad = release.entry(b"another")

    def by(*who: Signer | dict, start: bytes = start) -> bytes:
        return start + PAYLOAD + trailer(*(one if isinstance(one, dict) else one.entry(message_2(start)) for one in who))

    def carrying(signer: Signer, value: dict, **changes: object) -> bytes:
        return signed_2(signer, head(members_of(2, trust=value, **changes)))

    six, last = entries["trust-6"], entries["state-7"]
    next_one = keys.signed(6, keys=[*keys.trust, key(later)])
    for name, package, verdict, *places in (
            ("good", by(release), "good"), ("1-good", package_1(release), "good"), ("rsa", by(signers.rsa), "good"),
            ("1-rsa", package_1(signers.rsa), "good"), ("both", by(both), "good"), ("without-certificate", by(
                release.entry(said, certificate=MISSING)), "good"),
            ("certificate-of-another", by(release.entry(said, certificate=signers.stranger.certificate)), "good"),
            ("trusted-certificate-does-not-count", by(signers.stranger), "unknownSigner"),
            ("1-trusted-certificate-does-not-count", package_1(signers.stranger), "unknownSigner"),
            ("trusted-by-certificates", by(signers.stranger), "good", {"trust": "trust-stranger"}),
            ("elliptic", by(signers.elliptic), "unknownSigner"), ("weak", by(signers.rsa_1024), "unknownSigner"),
            ("server", by(signers.server), "unknownSigner"),
            ("unknown-without-certificate", by(signers.stranger.entry(said, certificate=MISSING)), "badSignature"),
            ("unknown-with-certificate-of-another", by(
                signers.stranger.entry(said, certificate=release.certificate)), "badSignature"),
            ("unknown-that-does-not-fit", by(signers.stranger.entry(b"another")), "badSignature"),
            ("bad", by(bad), "badSignature"), ("bad-then-good", by(bad, other), "good"),
            ("1-certificate-rubbish", package_1(release, signer="rubbish"), "badSignature"),
            ("by-trust-key", by(keys.first), "notAllowed"), ("trust-key-then-good", by(keys.first, release), "good"),
            ("unknown-then-not-allowed", by(signers.stranger, keys.first), "unknownSigner"),
            ("bad-by-trust-key", by(keys.first.entry(b"another")), "badSignature"),
            ("by-developer", by(developer), "notAllowed"),
            ("by-developer-accepted", by(developer), "good", {"development": True}),
            ("1-by-developer", package_1(developer), "notAllowed"),
            ("for-another-board", by(keys.only_b2), "notAllowed"),
            ("for-another-board-asked", by(keys.only_b2), "notAllowed", {"board": "b2"}),
            ("for-its-board", package_2(keys.only_b2, board="b3"), "good", {"board": "b3"}),
            ("for-its-board-not-asked", package_2(keys.only_b2, board="b3"), "good"),
            ("wrong-board", by(release), "wrongBoard", {"board": "b2"}), ("right-board", by(release), "good", {"board": "b1"}),
            ("revoked", package_2(release, **WITHDRAWN), "revoked"),
            ("1-revoked", package_1(release, version="6.66"), "revoked"),
            ("revoked-before-board", package_2(release, **WITHDRAWN), "revoked", {"board": "b2"}),
            ("revoked-by-unknown", package_2(signers.stranger, **WITHDRAWN), "unknownSigner"),
            *((f"two-{name}", package, verdict, {"trust": "trust-6", **place}) for name, package, verdict, *rest in (
                ("one", by(release), "tooFewSigners"), ("good", by(release, other), "good"),
                ("same-twice", by(release, release), "tooFewSigners"),
                ("one-bad", by(release, bad), "tooFewSigners"),
                ("one-unknown", by(signers.stranger, release), "tooFewSigners"),
                ("release-and-developer", by(release, developer), "tooFewSigners", {"development": True}),
                ("release-and-both", by(release, both), "good"),
                ("developer-and-both", by(developer, both), "good", {"development": True}),
                ("developer-and-both-not-accepted", by(developer, both), "tooFewSigners"),
                ("developer-alone", by(developer), "tooFewSigners", {"development": True}),
                *((f"below-floor-{len(place)}", by(release, other, start=low), "belowFloor", place)
                  for place in ({}, {"board": "b2"})),
                ("too-few-before-revoked", package_2(release, **WITHDRAWN), "tooFewSigners"),
                ("revoked-before-floor", by(release, other, start=head(members_of(2, **WITHDRAWN))), "revoked"),
                ("1-one", package_1(release), "tooFewSigners"),
                ("two-other-state", by(release), "tooFewSigners", {"state": "state-5"}))
              for place in (rest[0] if rest else {},)),
            ("1-below-floor", package_1(later), "belowFloor", {"state": "state-7"}),
            ("state-newer", by(later), "good", {"state": "state-7"}),
            ("state-newer-withdrew", by(release), "unknownSigner", {"state": "state-7"}),
            ("state-same-number", by(later), "unknownSigner", {"state": "state-5"}),
            ("state-older", by(other), "good", {"state": "state-4"}),
            ("state-none", by(release), "good", {"state": "state-none"}),
            ("state-missing", by(release), "good", {"state": "there-is-none"}),
            ("state-alone", by(later), "good", {"trust": "trust-stranger", "state": "state-7"}),
            ("state-alone-no-certificates", by(later), "good", {"trust": "state-none", "state": "state-7"}),
            ("carries-next", carrying(later, {"documents": [next_one]}), "good"),
            ("carries-next-against-itself", carrying(release, {"documents": [next_one]}), "unknownSigner"),
            ("carries-two-on", carrying(later, {"documents": [six, last]}), "good"),
            ("carries-floor-against-itself", carrying(later, {"documents": [six, last]}, securityNumber=3), "belowFloor"),
            ("carries-same", carrying(release, {"documents": [entries["trust-5"]]}), "good"),
            ("carries-older", carrying(release, {"documents": [entries["state-4"]]}), "good"),
            ("carries-another-of-same-number", carrying(later, {"documents": [entries["state-5"]]}), "unknownSigner"),
            ("carries-skipping", carrying(later, {"documents": [last]}), "unknownSigner"),
            ("carries-unsigned", carrying(later, {"documents": [{**next_one, "signatures": []}]}), "unknownSigner"),
            ("carries-unsigned-by-known", carrying(release, {"documents": [{**next_one, "signatures": []}]}), "good"),
            ("carries-rubbish", carrying(release, {"x": 1}), "good"),
            ("carries-nothing", carrying(release, {"documents": []}), "good"),
            ("carries-next-without-document-in-force", carrying(later, {"documents": [next_one]}), "unknownSigner",
             {"trust": "trust-stranger"}),
            ("carries-next-to-state", carrying(later, {"documents": [last]}), "good", {"trust": "trust-6"})):
        yield Case(f"under-{name}", package, verdict, **{"trust": "trust-5", **(places[0] if places else {})})
    tool = b"#!/bin/sh\n"
    for name, beside, verdict, place in (
            ("good", detached(release, tool), "good", {}), ("by-trust-key", detached(keys.first, tool), "notAllowed", {}),
            ("below-floor", detached(later, tool, securityNumber=3), "belowFloor", {"state": "state-7"}),
            ("at-floor", detached(later, tool, securityNumber=4), "good", {"state": "state-7"})):
        yield Case(f"under-signed-{name}", tool, verdict, beside=beside, **{"trust": "trust-5", **place})
    yield Case("under-signed-revoked", b"", "revoked", beside=detached(release, b"", version="6.66"), trust="trust-5")
