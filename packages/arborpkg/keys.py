"""Keys and certificates of those who sign packages and trust documents."""

import base64
import contextlib
import os
import re
from typing import Iterator

from arborinstaller import openssl
from arborinstaller.assemble import Signer
from arborinstaller.certificates import Certificate, in_pem
from arborinstaller.failure import Failure, describe
from arborinstaller.layout import Signature

KEY_FILE = "key.pem"
CERTIFICATE_FILE = "cert.pem"
_VALID_DAYS = "36500"  # instruments don't look at it: their clock may be unset
_PIN = re.compile(r"pin-value=[^;?&]*")
_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9 ._@:-]{0,63}")


def generate(directory: str, name: str, token_key: str = "") -> tuple[str, str]:
    """Makes an Ed25519 key and its self-signed certificate in `directory`; returns the paths of the two files.

    For the key `token_key` of a token (a PKCS#11 URI) it makes the certificate alone. Failure when a file is there
    already: a lost key can't be brought back.
    """
    if not _NAME.fullmatch(name):
        raise Failure(f"'{name}' is no name for a certificate: expected up to 64 letters, digits and ' ._@:-'")
    os.makedirs(directory, exist_ok=True)
    key, certificate = token_key or os.path.join(directory, KEY_FILE), os.path.join(directory, CERTIFICATE_FILE)
    for path in (key, certificate):
        if os.path.exists(path):
            raise Failure(f"{path} exists already")
    if not token_key:
        private = openssl.run(["genpkey", "-algorithm", "ed25519"])
        with open(os.open(key, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as file:
            file.write(private)
    _check_usable(key)
    with _naming(key):
        public = openssl.run(["req", "-x509", "-new", *openssl.private_key(key, "-key", "-keyform"), "-subj", f"/CN={name}",
                              "-days", _VALID_DAYS, "-addext", "keyUsage=critical,digitalSignature",
                              "-addext", "extendedKeyUsage=codeSigning"])
    with open(certificate, "xb") as file:
        file.write(public)
    return key, certificate


def signer(pairs: list[tuple[str, str]]) -> Signer:
    """Signs with each pair of a private key (a file, or a PKCS#11 URI) and its certificate file, in their order.

    Failure when one can't be read or can't sign reproducibly.
    """
    signers = [(key, _read_certificate(certificate)) for key, certificate in pairs]
    for key, _ in signers:
        _check_usable(key)
    return lambda message: [Signature(certificate.pem, certificate.key, sign(message, key))
                            for key, certificate in signers]


def public_key_of(key: str) -> bytes:
    """The public key (SubjectPublicKeyInfo, DER) of a private key: a file, or a PKCS#11 URI."""
    _check_usable(key)
    with _naming(key):
        return _der(openssl.run(["pkey", *openssl.private_key(key, "-in", "-inform"), "-pubout"]).decode())


def read_public_key(path: str) -> tuple[bytes, str]:
    """The public key (SubjectPublicKeyInfo, DER) in a PEM file, and the name in its certificate if it is one."""
    text = _read(path)
    if in_pem(text):
        certificate = _read_certificate(path)
        return _der(certificate.public_key), certificate.subject.partition("CN = ")[2]
    if "-----BEGIN PUBLIC KEY-----" not in text:
        raise Failure(f"{path} holds neither a certificate nor a public key")
    return _der(openssl.run(["pkey", "-pubin", "-in", path]).decode()), ""


@contextlib.contextmanager
def _naming(key: str) -> Iterator[None]:
    """What fails inside is told with the private key that it is about."""
    try:
        yield
    except Failure as failure:
        hint = ". Is the token there, libengine-pkcs11-openssl installed, and ARBOR_KEY_PASSPHRASE its PIN?" \
            if openssl.is_in_token(key) else ""
        raise Failure(f"{told(key)}: {describe(failure)}{hint}") from None


def told(key: str) -> str:
    """A private key as messages name it: without its PIN."""
    return _PIN.sub("pin-value=...", key)


def _der(pem: str) -> bytes:
    return base64.b64decode("".join(line for line in pem.splitlines() if not line.startswith("-----")))


def _check_usable(key: str) -> None:
    if openssl.is_in_token(key):
        # A try without one counts as a wrong one, and a few of those lock the token.
        if "ARBOR_KEY_PASSPHRASE" not in os.environ and not re.search(r"[;?&]pin-(value|source)=", key):
            raise Failure(f"{key}: the token's PIN is not known: set ARBOR_KEY_PASSPHRASE")
    elif not os.access(key, os.R_OK):
        raise Failure(f"{key} cannot be read")


def _read(path: str) -> str:
    with open(path, encoding="utf-8", errors="replace") as file:
        return file.read()


def _read_certificate(path: str) -> Certificate:
    try:
        return Certificate.parse(_read(path))
    except Failure as failure:
        raise Failure(f"{path} holds no certificate: {describe(failure)}") from None


def sign(message: bytes, key: str) -> bytes:
    """The signature of `message` by a private key (a file, or a PKCS#11 URI); Failure when it can't sign reproducibly."""
    with _naming(key):
        first, second = openssl.sign(message, key), openssl.sign(message, key)
    if first != second:
        raise Failure(f"{told(key)}: signatures by this kind of key differ each time; use Ed25519 or RSA")
    return first
