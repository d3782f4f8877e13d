"""Keys and certificates of those who sign packages."""

import os
import re

from arborinstaller import openssl
from arborinstaller.assemble import Signer
from arborinstaller.certificates import Certificate
from arborinstaller.failure import Failure, describe
from arborinstaller.layout import Signature

KEY_FILE = "key.pem"
CERTIFICATE_FILE = "cert.pem"
_VALID_DAYS = "36500"  # instruments don't look at it: their clock may be unset
_NAME = re.compile(r"[A-Za-z0-9][A-Za-z0-9 ._@:-]{0,63}")


def generate(directory: str, name: str) -> tuple[str, str]:
    """Makes an Ed25519 key and its self-signed certificate in `directory`; returns the paths of the two files.

    Failure when one of them is there already: a lost key can't be brought back.
    """
    if not _NAME.fullmatch(name):
        raise Failure(f"'{name}' is no name for a certificate: expected up to 64 letters, digits and ' ._@:-'")
    os.makedirs(directory, exist_ok=True)
    key, certificate = os.path.join(directory, KEY_FILE), os.path.join(directory, CERTIFICATE_FILE)
    for path in (key, certificate):
        if os.path.exists(path):
            raise Failure(f"{path} exists already")
    private = openssl.run(["genpkey", "-algorithm", "ed25519"])
    with open(os.open(key, os.O_WRONLY | os.O_CREAT | os.O_EXCL, 0o600), "wb") as file:
        file.write(private)
    public = openssl.run(["req", "-x509", "-new", "-key", key, "-subj", f"/CN={name}", "-days", _VALID_DAYS,
                          "-addext", "keyUsage=critical,digitalSignature", "-addext", "extendedKeyUsage=codeSigning"])
    with open(certificate, "xb") as file:
        file.write(public)
    return key, certificate


def signer(pairs: list[tuple[str, str]]) -> Signer:
    """Signs with each pair of a private key file and its certificate file, in their order.

    Failure when one can't be read or can't sign reproducibly.
    """
    signers = [(key, _read_certificate(certificate)) for key, certificate in pairs]
    for key, _ in signers:
        if not os.access(key, os.R_OK):
            raise Failure(f"{key} cannot be read")
    return lambda message: [Signature(certificate.pem, certificate.key, _sign(message, key))
                            for key, certificate in signers]


def _read_certificate(path: str) -> Certificate:
    with open(path, encoding="utf-8", errors="replace") as file:
        try:
            return Certificate.parse(file.read())
        except Failure as failure:
            raise Failure(f"{path} holds no certificate: {describe(failure)}") from None


def _sign(message: bytes, key: str) -> bytes:
    try:
        first, second = openssl.sign(message, key), openssl.sign(message, key)
    except Failure as failure:
        raise Failure(f"{key}: {describe(failure)}") from None
    if first != second:
        raise Failure(f"{key}: signatures by this kind of key differ each time; use Ed25519 or RSA")
    return first
