"""Certificates: whose they are, what they may be used for, and which ones an instrument trusts."""

import base64
import functools
import hashlib
import os
import re
from typing import NamedTuple

from arborinstaller import openssl
from arborinstaller.failure import Failure

_SUFFIXES = (".pem", ".crt")
_PEM = re.compile(r"-----BEGIN CERTIFICATE-----\s[A-Za-z0-9+/=\s]+-----END CERTIFICATE-----")
_PUBLIC_KEY = re.compile(r"-----BEGIN PUBLIC KEY-----\n([A-Za-z0-9+/=\n]+)-----END PUBLIC KEY-----\n")
_EXTENSION = re.compile(r"^X509v3 ([A-Za-z ]+): ?(?:critical)?\n +(.*)$", re.MULTILINE)
_SUBJECT = re.compile(r"^subject= *(.*?) *$", re.MULTILINE)
_MODULUS = re.compile(r"^Modulus=([0-9A-F]+)$", re.MULTILINE)
# How a SubjectPublicKeyInfo names its algorithm: object identifiers in DER.
_ED25519 = bytes.fromhex("06032b6570")
_RSA = bytes.fromhex("06092a864886f70d010101")
_LEAST_RSA_BITS = 2048
_ED25519_KEY = bytes.fromhex("302a300506032b6570032100")  # its SubjectPublicKeyInfo, up to the 32 bytes of the key


class Certificate(NamedTuple):
    """What counts of a certificate. Its dates don't: an instrument's clock may be unset."""

    pem: str
    public_key: str  # PEM
    key: str  # SHA-256 of the public key's SubjectPublicKeyInfo in hexadecimal
    is_strong: bool  # Ed25519, or RSA of at least 2,048 bits
    extensions: dict[str, frozenset[str]]  # what openssl calls them and their values
    subject: str  # whose it is, on one line, such as "CN = Arbor release"

    @staticmethod
    def parse(text: str) -> "Certificate":
        """The first certificate in the PEM text; Failure when there is none that openssl can read."""
        found = in_pem(text)
        if not found:
            raise Failure("there is no certificate in PEM form")
        told = openssl.certificate_text(found[0])
        public_key = _PUBLIC_KEY.search(told)
        if not public_key:
            raise Failure("the certificate has no public key that is known")
        der = base64.b64decode(public_key.group(1))
        subject = _SUBJECT.search(told)
        return Certificate(found[0], public_key.group(), hashlib.sha256(der).hexdigest(), _is_strong(der, told),
                           _extensions(told), subject.group(1) if subject else "")

    def fits_purpose(self) -> bool:
        """Whether nothing in it forbids to sign packages with it."""
        usage, extended = self.extensions.get("Key Usage"), self.extensions.get("Extended Key Usage")
        return (usage is None or "Digital Signature" in usage) and (extended is None or "Code Signing" in extended)

    def is_for_packages(self) -> bool:
        """Whether it says by itself that code may be signed with it."""
        return "Code Signing" in self.extensions.get("Extended Key Usage", ())

    def has_issued(self, other: "Certificate") -> bool:
        """Whether this is the certificate of a CA that issued `other`."""
        return "CA:TRUE" in self.extensions.get("Basic Constraints", ()) and openssl.is_issued_by(other.pem, self.pem)


def in_pem(text: str) -> list[str]:
    """The certificates in a PEM text, each without the text that may stand around it."""
    return [found + "\n" for found in _PEM.findall(text)]


def trusted_in(directory: str) -> list[Certificate]:
    """The certificates in the directory's *.pem and *.crt files; Failure when there is none.

    What can't be read among them does not stop the others from counting.
    """
    try:
        names = sorted(os.listdir(directory))
    except OSError as error:
        raise Failure(f"the trusted certificates in {directory} cannot be read: {error.strerror}") from None
    found: list[Certificate] = []
    for name in names:
        if name.endswith(_SUFFIXES):
            found += _readable(os.path.join(directory, name))
    if not found:
        raise Failure(f"there is no trusted certificate in {directory}")
    return found


def _readable(path: str) -> list[Certificate]:
    found = []
    try:
        with open(path, encoding="utf-8", errors="replace") as file:
            texts = in_pem(file.read())
    except OSError:
        return []
    for text in texts:
        try:
            found.append(Certificate.parse(text))
        except Failure:
            pass
    return found


def _is_strong(der: bytes, told: str) -> bool:
    algorithm = der[:32]
    if _ED25519 in algorithm:
        return True
    modulus = _MODULUS.search(told)
    return _RSA in algorithm and modulus is not None and int(modulus.group(1), 16).bit_length() >= _LEAST_RSA_BITS


@functools.lru_cache(512)
def is_strong_public_key(der: bytes) -> bool:
    """Whether `der` is the SubjectPublicKeyInfo of a strong key, in the one form that DER has for it."""
    if der.startswith(_ED25519_KEY):
        return len(der) == len(_ED25519_KEY) + 32
    try:
        told = openssl.rsa_text(der)
    except Failure:
        return False
    again = _PUBLIC_KEY.search(told)
    return again is not None and base64.b64decode(again.group(1)) == der and _is_strong(der, told)


def _extensions(told: str) -> dict[str, frozenset[str]]:
    found: dict[str, frozenset[str]] = {}
    for name, values in _EXTENSION.findall(told):
        # One that is there twice allows nothing.
        found[name] = frozenset() if name in found else frozenset(values.split(", "))
    return found
