"""Good and bad packages with the verdict that the description of the formats gives each."""

import base64
import json
import os
from dataclasses import dataclass
from typing import Iterator

from forge import (CA, CODE, MISSING, PAYLOAD, SIGNS, Signer, detached, head, line, members_of, message_1, message_2,
                   message_detached, package_1, package_2, section, signed_1, signed_2, trailer)
from support import write

SERVER = ("keyUsage=digitalSignature", "extendedKeyUsage=serverAuth")
RSA_1024 = ("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:1024")
RSA_2048 = ("-algorithm", "RSA", "-pkeyopt", "rsa_keygen_bits:2048")
P_256 = ("-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256")


@dataclass(frozen=True)
class Case:
    """A file, the signature beside it if it has one, and the verdict for a board, with these folders' trust."""

    name: str
    content: bytes
    verdict: str
    board: str = ""
    beside: bytes | None = None
    trust: str = "trust"
    state: str = ""
    development: bool = False


class Signers:
    """Everybody who signs something here, and the folder of those who are trusted."""

    def __init__(self, work: str, folder: str) -> None:
        def make(name: str, *arguments: object, **named: object) -> Signer:
            return Signer(work, name, *arguments, **named)

        # As arbor-pkg keygen makes it: a CA by its constraints, but not by its usage.
        self.release = make("release", (*SIGNS, "basicConstraints=critical,CA:TRUE"))
        self.ca = make("ca", CA)
        not_a_ca = make("not a ca", ("basicConstraints=critical,CA:FALSE", "keyUsage=digitalSignature,keyCertSign"))
        unconstrained = make("unconstrained", ("keyUsage=digitalSignature,keyCertSign",))
        self.rsa = make("rsa", key=RSA_2048)
        self.rsa_1024 = weak = make("weak", key=RSA_1024)
        self.elliptic = make("elliptic", key=P_256)
        self.server = make("server", SERVER)
        enciphers = make("enciphers", ("keyUsage=keyEncipherment",))
        plain = make("plain", ())
        first, second = make("bundled first"), make("bundled second")
        rsa_ca, weak_ca = make("rsa ca", CA, key=RSA_2048), make("weak ca", CA, key=RSA_1024)
        twice = make("twice", SERVER)
        again = make("twice again", key=twice)
        files = {"release.pem": self.release, "ca.pem": self.ca, "not-a-ca.pem": not_a_ca,
                 "unconstrained.pem": unconstrained, "rsa.pem": self.rsa, "weak.pem": weak,
                 "elliptic.pem": self.elliptic, "server.pem": self.server, "enciphers.pem": enciphers,
                 "plain.crt": plain, "rsa-ca.pem": rsa_ca, "weak-ca.pem": weak_ca, "twice-1.pem": twice, "twice-2.pem": again}
        texts = {name: signer.certificate for name, signer in files.items()}
        self.stranger = make("stranger")
        texts |= {"bundle.crt": f"text before\n{first.certificate}between\n{second.certificate}", "rubbish.pem": "rubbish\n",
                  "note.txt": self.stranger.certificate}
        for name, text in texts.items():
            write(os.path.join(folder, name), text)
        other_ca = make("other ca", CA)
        middle = make("middle", CA, self.ca)
        self.table = (
            ("trusted", self.release, "good"), ("rsa-2048", self.rsa, "good"), ("without-extensions", plain, "good"),
            ("bundled", second, "good"), ("one-of-two-certificates", twice, "good"),
            ("renewed", make("renewed", key=self.release, subject="release"), "good"),
            ("issued", make("issued", issuer=self.ca), "good"),
            ("issued-by-rsa", make("from rsa ca", issuer=rsa_ca), "good"),
            ("rsa-1024", weak, "weakKey"), ("rsa-1024-unknown", make("weak stranger", key=RSA_1024), "weakKey"),
            ("elliptic", self.elliptic, "weakKey"), ("ed448", make("ed448", key=("-algorithm", "ed448")), "weakKey"),
            ("server", self.server, "wrongPurpose"), ("enciphers", enciphers, "wrongPurpose"),
            ("issued-server", make("issued server", SERVER, self.ca), "wrongPurpose"),
            ("issued-unspecific", make("issued plain", (), self.ca), "wrongPurpose"),
            ("issued-any-purpose", make("any", ("extendedKeyUsage=anyExtendedKeyUsage",), self.ca), "wrongPurpose"),
            ("server-unknown", make("server stranger", SERVER), "wrongPurpose"),
            ("unknown", self.stranger, "unknownSigner"),
            ("unknown-same-name", make("impostor", subject="release"), "unknownSigner"),
            ("issued-by-signer", make("from release", issuer=self.release), "unknownSigner"),
            ("issued-by-no-ca", make("from not a ca", issuer=not_a_ca), "unknownSigner"),
            ("issued-by-unconstrained", make("from unconstrained", issuer=unconstrained), "unknownSigner"),
            ("issued-by-weak-ca", make("from weak ca", issuer=weak_ca), "unknownSigner"),
            ("issued-with-sha-1", make("from rsa ca by sha-1", issuer=rsa_ca, options=("-sha1",)), "unknownSigner"),
            ("issued-by-unknown-ca", make("from other", issuer=other_ca), "unknownSigner"),
            ("issued-by-ca-of-other-key", make("from false ca", issuer=make("false ca", CA, subject="ca")), "unknownSigner"),
            ("issued-in-two-steps", make("from middle", issuer=middle), "unknownSigner"))


def signer_cases(signers: Signers) -> Iterator[Case]:
    for name, signer, verdict in signers.table:
        yield Case(f"1-{name}", package_1(signer), verdict)
        yield Case(f"2-{name}", package_2(signer), verdict)
    for board, verdict in (("b1", "good"), ("b2", "wrongBoard"), ("B1", "wrongBoard"), ("b", "wrongBoard")):
        yield Case(f"1-for-{board}", package_1(signers.release), verdict, board)
        yield Case(f"2-for-{board}", package_2(signers.release), verdict, board)
    yield Case("2-unknown-for-other-board", package_2(signers.stranger), "unknownSigner", "b2")


def foreign_cases(signers: Signers) -> Iterator[Case]:
    """What is not a package at all, as far as its header goes."""
    good = package_2(signers.release)
    header = line(members_of(2))
    yield Case("empty", b"", "notPackage")
    yield Case("text", b"hello\n", "notPackage")
    yield Case("cut-in-stub", good[:4095], "notPackage")
    yield Case("cut-after-stub", good[:4096], "notPackage")
    yield Case("cut-in-header", good[:4200], "notPackage")
    for name, text in (("list", b"[1]"), ("text", b"rubbish"), ("null", b"null"), ("not-closed", header[:-1]),
                       ("blank-before", b" " + header), ("blank-behind", header + b" "), ("two", header * 2),
                       ("not-ascii", line(members_of(2, trust={"x": 1})).replace(b'"x"', "\"\u00e4\"".encode())),
                       ("not-a-number", line(members_of(2, silentSeconds=float("nan")))),
                       ("half-surrogate", line(members_of(2, trust={"x": "\ud800"}))),
                       ("too-deep", line(members_of(2, trust=nested(31)))),
                       ("too-long", line(members_of(2, trust={"x": "x" * 65536}))),
                       *((f"format-{json.dumps(value).strip(chr(34))}", line(members_of(2, format=value)))
                         for value in (0, 3, -2, 2.0, True, "2", None, [2])),
                       ("format-missing", line(members_of(2, format=MISSING)))):
        yield Case(f"header-{name}", signed_2(signers.release, head(text)), "notPackage")


def nested(levels: int) -> dict:
    value: dict = {}
    for _ in range(levels):
        value = {"x": value}
    return value


def header_cases(signers: Signers) -> Iterator[Case]:
    """Members of the header that are missing, wrong or at their limits, in packages that are signed all the same."""
    common = {
        "version": ("good", "1", "1.2.3.4.5.6.7.999999999"), "board": ("good", "x" * 64), "silentSeconds": ("good", 0, 3600)}
    wrong = {"version": (1, "", "3.x", "1.2.3.4.5.6.7.8.9", "1234567890"), "board": (None, "", "a b", "x" * 65, "-x"),
             "installerVersion": (1.0, "one"), "silentSeconds": ("2", True, -1, 3601, None),
             "code": ([], {"size": len(CODE)}, {**section(CODE), "x": 1}, {**section(CODE), "size": (4 << 20) + 1}),
             "payload": (None, {**section(PAYLOAD), "size": -1}, {**section(PAYLOAD), "size": 768.0},
                         {**section(PAYLOAD), "size": "768"}, {**section(PAYLOAD), "size": True},
                         {**section(PAYLOAD), "size": 1 << 63}, {**section(PAYLOAD), "size": (1 << 63) - 1},
                         {**section(PAYLOAD), "sha256": section(PAYLOAD)["sha256"].upper()},
                         {**section(PAYLOAD), "sha256": "0" * 63}, {**section(PAYLOAD), "sha256": 0}),
             "extra": (1,)}
    own = {1: {"signer": (1, None, "\u00e4")},
           2: {"securityNumber": (-1, 1 << 31, 1.0, "1", True, None), "trust": (None, [], "x"), "signer": ("x",)}}
    limits = {1: common, 2: {**common, "securityNumber": ("good", 0, (1 << 31) - 1), "trust": ("good", {}, nested(30))}}
    digits = line(members_of(2)).replace(b'"b1"', b"9" * 5000, 1)  # more than some readers of JSON take, but JSON
    yield Case("2-board-digits", signed_2(signers.release, head(digits)), "damaged")
    for number, package in ((1, package_1), (2, package_2)):
        for member in members_of(number):
            if member != "format":
                yield Case(f"{number}-{member}-missing", package(signers.release, **{member: MISSING}), "damaged")
        for member, values in {**wrong, **own[number]}.items():
            for count, value in enumerate(values):
                yield Case(f"{number}-{member}-wrong-{count}", package(signers.release, **{member: value}), "damaged")
        for member, (verdict, *values) in limits[number].items():
            for count, value in enumerate(values):
                yield Case(f"{number}-{member}-limit-{count}", package(signers.release, **{member: value}), verdict)
        yield Case(f"{number}-payload-empty", package(signers.release, b""), "good")
        for name, size in (("longer", len(PAYLOAD) + 1), ("shorter", len(PAYLOAD) - 1)):
            yield Case(f"{number}-payload-said-{name}", resized(signers.release, number, size),
                       "badSignature" if number == 1 else "damaged")
    yield Case("1-signer-missing", package_1(signers.release, signer=MISSING), "damaged")
    yield Case("2-header-with-blanks", signed_2(signers.release, head(json.dumps(members_of(2)).encode())), "good")


def resized(signer: Signer, number: int, size: int) -> bytes:
    """A package whose header gives its payload another size."""
    payload = {**section(PAYLOAD), "size": size}
    if number == 2:
        return signed_2(signer, head({**members_of(2), "payload": payload}))
    return signed_1(signer, head({**members_of(1, signer=signer.certificate), "payload": payload}) + PAYLOAD)


def byte_cases(signers: Signers) -> Iterator[Case]:
    """Bytes that were changed, added or taken away, in each region."""
    for number, good in ((1, package_1(signers.release)), (2, package_2(signers.release))):
        header_end = good.index(b"\n", 4096) + 1
        payload = header_end + len(CODE)
        end = payload + len(PAYLOAD)
        digest = good.index(b'"payload":{"sha256":"', 4096) + 30
        yield Case(f"{number}-changed-digest", good[:digest] + bytes([ord("1") + (good[digest] == ord("1"))]) + good[digest + 1:],
                   "badSignature")
        behind = "badSignature" if number == 1 else "good"  # the payload's digest is looked at elsewhere
        for name, at, verdict in (("stub", 30, "badSignature"), ("stub-padding", 4000, "badSignature"),
                                  ("version", good.index(b"3.045", 4096), "badSignature"), ("code", header_end + 40, "damaged"),
                                  ("payload-first", payload, behind), ("payload-last", end - 1, behind)):
            yield Case(f"{number}-changed-{name}", flipped(good, at), verdict)
        yield Case(f"{number}-cut-in-code", good[:header_end + 9], "damaged")
        yield Case(f"{number}-cut-in-payload", good[:payload + 5], "damaged")
        yield Case(f"{number}-cut-before-signature", good[:end], "damaged")
        yield Case(f"{number}-cut-by-one", good[:-1], "badSignature" if number == 1 else "damaged")
        for name, more in (("zero", b"\0"), ("line-feed", b"\n"), ("blank", b" ")):
            yield Case(f"{number}-longer-by-{name}", good + more, "badSignature" if number == 1 else "damaged")
        yield Case(f"{number}-longer-by-much", good + bytes(70000), "damaged")
    yield Case("1-signature-changed", flipped(package_1(signers.release), -1), "badSignature")
    data = head(members_of(1, signer=signers.release.certificate)) + PAYLOAD
    yield Case("1-signature-of-other-format", data + signers.release.sign(message_2(data)), "badSignature")
    yield Case("1-signer-rubbish", package_1(signers.release, signer="rubbish"), "badSignature")
    yield Case("1-signer-another", package_1(signers.release, signer=signers.rsa.certificate), "badSignature")


def flipped(data: bytes, at: int) -> bytes:
    at %= len(data)
    return data[:at] + bytes([data[at] ^ 1]) + data[at + 1:]


def trailer_cases(signers: Signers) -> Iterator[Case]:
    """What may stand at the end of a package of format 2, and what may not."""
    start = head(members_of(2))
    message = message_2(start)
    release, stranger = signers.release, signers.stranger
    good, unknown = release.entry(message), stranger.entry(message)
    bad = release.entry(message_1(start))
    server, weak = signers.server.entry(message), signers.rsa_1024.entry(message)
    other = base64.b64encode(bytes(64)).decode()
    one = trailer(good)
    for name, end, verdict in (
            ("no-certificate", trailer(release.entry(message, certificate=MISSING)), "good"),
            ("certificate-of-another", trailer(release.entry(message, certificate=stranger.certificate)), "good"),
            ("certificate-rubbish", trailer(release.entry(message, certificate="rubbish")), "good"),
            ("blanks", json.dumps({"signatures": [good]}).encode(), "good"),
            ("unused-bits", trailer({**good, "signature": with_unused_bits(good["signature"])}), "good"),
            ("unknown-then-good", trailer(unknown, good), "good"), ("bad-then-good", trailer(bad, good), "good"),
            ("good-then-bad", trailer(good, bad), "good"), ("sixteen", trailer(*[unknown] * 15, good), "good"),
            ("unknown-then-weak", trailer(unknown, weak), "unknownSigner"),
            ("weak-then-unknown", trailer(weak, unknown), "weakKey"),
            ("bad-then-unknown", trailer(bad, unknown), "badSignature"),
            ("server-then-unknown", trailer(server, unknown), "wrongPurpose"),
            ("of-other-text", trailer(bad), "badSignature"),
            ("of-other-head", trailer(release.entry(message_2(b""))), "badSignature"),
            ("zeros", trailer(release.entry(message, signature=other)), "badSignature"),
            ("short", trailer(release.entry(message, signature="AAAA")), "badSignature"),
            ("elliptic-of-other-text", trailer(signers.elliptic.entry(b"other")), "badSignature"),
            ("key-of-another", trailer(release.entry(message, key=signers.rsa.key)), "badSignature"),
            ("key-unknown", trailer(stranger.entry(message, certificate=MISSING)), "badSignature"),
            ("key-not-of-certificate", trailer(stranger.entry(message, key="0" * 64)), "badSignature"),
            ("unknown-certificate-rubbish", trailer(stranger.entry(message, certificate="rubbish")), "badSignature"),
            ("seventeen", trailer(*[good] * 17), "damaged"), ("none", trailer(), "damaged"),
            ("no-list", line({"signatures": good}), "damaged"),
            ("list", line([good]), "damaged"), ("empty-object", b"{}", "damaged"), ("not-closed", one[:-1], "damaged"),
            ("more-members", line({"signatures": [good], "x": 1}), "damaged"), ("number", trailer(1), "damaged"),
            ("line-feed", one + b"\n", "damaged"), ("two", one + one, "damaged"), ("blank-before", b" " + one, "damaged"),
            ("too-long", trailer({**unknown, "certificate": "x" * 65536}), "damaged"),
            ("not-ascii", trailer({**good, "certificate": "Z"}).replace(b'"Z"', "\"\u00e4\"".encode()), "damaged"),
            *((f"{member}-{count}", trailer(release.entry(message, **{member: value})), "damaged")
              for member, values in {
                  "certificate": (None, 1), "extra": ("x",), "key": (MISSING, 1, "", release.key.upper(), release.key[1:]),
                  "signature": (MISSING, None, "", "A", "AAA", "AAA=AAA=", "AA==AA", "AAAA=", "AAAA==", good["signature"] + "\n", "-" * 88,
                                base64.b64encode(bytes(2049)).decode())}.items()
              for count, value in enumerate(values))):
        yield Case(f"2-end-{name}", start + PAYLOAD + end, verdict)


def with_unused_bits(base64_text: str) -> str:
    """Another text that stands for the same bytes: 64 of them leave four bits over."""
    assert base64_text.endswith("==")
    letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/"
    return base64_text[:-3] + letters[letters.index(base64_text[-3]) + 1] + "=="


def detached_cases(signers: Signers) -> Iterator[Case]:
    """Executables of somebody's own format with a signature beside them."""
    tool = b"#!/bin/sh\necho 3.045\n"
    beside = detached(signers.release, tool)
    first, second = beside.splitlines(keepends=True)
    for name, signature, verdict in (
            ("good", beside, "good"), ("unknown", detached(signers.stranger, tool), "unknownSigner"),
            ("server", detached(signers.server, tool), "wrongPurpose"), ("weak", detached(signers.rsa_1024, tool), "weakKey"),
            ("line-changed", beside.replace(b"3.045", b"3.046", 1), "badSignature"),
            ("of-package-text", first + trailer(signers.release.entry(message_2(first[:-1]))) + b"\n", "badSignature"),
            ("of-line-feed-too", first + trailer(signers.release.entry(message_detached(first))) + b"\n", "badSignature"),
            ("empty", b"", "notPackage"), ("rubbish", b"rubbish\n", "notPackage"),
            ("format-1", detached(signers.release, tool, format=1), "notPackage"),
            ("format-missing", detached(signers.release, tool, format=MISSING), "notPackage"),
            ("one-line", first, "damaged"), ("not-ended", beside[:-1], "damaged"), ("longer", beside + b"\n", "damaged"),
            ("swapped", second + first, "notPackage"), ("too-long", beside + b"x" * 131072, "damaged"),
            ("too-long-rubbish", b"rubbish\n" + b"x" * 131072, "notPackage"),
            ("of-another-file", detached(signers.release, tool + b"#"), "damaged"),
            *((f"{member}-{count}", detached(signers.release, tool, **{member: value}), "damaged")
              for member, values in {"version": (MISSING, "x", 3), "board": (MISSING, ""), "securityNumber": (MISSING, 1.0),
                                     "installerVersion": ("1.0",),
                                     "file": (MISSING, {**section(tool), "size": 1}, {**section(tool), "x": 1})}.items()
              for count, value in enumerate(values))):
        yield Case(f"signed-{name}", tool, verdict, beside=signature)
    yield Case("signed-changed", tool + b"#", "damaged", beside=beside)
    yield Case("signed-for-b1", tool, "good", "b1", beside)
    yield Case("signed-for-b2", tool, "wrongBoard", "b2", beside)
    broken = package_2(signers.release)[:-1]
    yield Case("signed-broken-package", broken, "damaged", beside=detached(signers.release, broken))


def all_cases(signers: Signers) -> list[Case]:
    """Every case; each has a name of its own."""
    groups = (signer_cases, foreign_cases, header_cases, byte_cases, trailer_cases, detached_cases)
    return [case for group in groups for case in group(signers)]
