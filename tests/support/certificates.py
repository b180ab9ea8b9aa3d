"""Makes the certificates of the scripted peers: one good kind, and each with one fault or two."""

import datetime
import ipaddress
import pathlib
from typing import Any, Dict

NAMES = ("good.test", "*.kestrelhub.example", "127.0.0.1", "::1", "localhost")
DAY = datetime.timedelta(days=1)
PAST, FUTURE = datetime.datetime(2020, 1, 1), datetime.datetime.utcnow() + 3650 * DAY
OTHER = {"names": ("other.test",)}
# What sets each kind apart; "issuer" names another kind, "self" or "stranger" instead of the authority.
KINDS: Dict[str, Dict[str, Any]] = {
    "good": {}, "expired": {"until": PAST}, "not-yet-valid": {"since": FUTURE - DAY}, "wrong-name": OTHER,
    "expired-wrong-name": {"until": PAST, **OTHER}, "unknown-issuer": {"issuer": "stranger"},
    "self-signed": {"issuer": "self"}, "no-issuer-right": {"issuer": "good"}, "client-only": {"purpose": "CLIENT_AUTH"},
    "weak-key": {"bits": 1024}, "common-name-only": {"names": ()},
}


def make_certificates(folder: str) -> None:
    """Writes ca.pem and, for each kind of certificate, KIND.pem (chain and key) into the folder."""
    # only here: these take a while to load, and no other test needs them
    from cryptography import x509
    from cryptography.hazmat.primitives import hashes, serialization
    from cryptography.hazmat.primitives.asymmetric import ec, rsa
    from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

    def general_name(name: str) -> Any:
        try:
            return x509.IPAddress(ipaddress.ip_address(name))
        except ValueError:
            return x509.DNSName(name)

    def make(name: str, issuer: Any = None, names: Any = NAMES, since: datetime.datetime = PAST,
             until: datetime.datetime = FUTURE, purpose: str = "SERVER_AUTH", bits: int = 0) -> Any:
        """Returns a chain and its key; one without an issuer is its own, and a good.test without one no authority."""
        key: Any = rsa.generate_private_key(65537, bits) if bits else ec.generate_private_key(ec.SECP256R1())
        subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
        chain, issuer_key = issuer or ([], key)
        is_authority = name != "good.test"
        builder = (x509.CertificateBuilder(chain[0].subject if chain else subject, subject, key.public_key(),
                                           x509.random_serial_number(), min(since, until - DAY), until)
                   .add_extension(x509.BasicConstraints(is_authority, None), critical=False))
        if names and not is_authority:
            builder = builder.add_extension(x509.SubjectAlternativeName(map(general_name, names)), critical=False)
        if not is_authority:
            usage = x509.ExtendedKeyUsage([getattr(ExtendedKeyUsageOID, purpose)])
            builder = builder.add_extension(usage, critical=False)
        return [builder.sign(issuer_key, hashes.SHA256()), *chain], key

    def pem(certificates: Any) -> bytes:
        return b"".join(each.public_bytes(serialization.Encoding.PEM) for each in certificates)

    made = {name: make(name) for name in ("authority", "stranger")}
    root = made["authority"][0]
    pathlib.Path(folder, "ca.pem").write_bytes(pem(root))
    for kind, faults in KINDS.items():
        issuer = made.get(faults.get("issuer", "authority"))  # None for itself
        chain, key = made[kind] = make("good.test", **{**faults, "issuer": issuer})
        secret = key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                   serialization.NoEncryption())
        pathlib.Path(folder, kind + ".pem").write_bytes(secret + pem(each for each in chain if each not in root))
