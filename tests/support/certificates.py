"""Makes the certificates of the scripted peers: one good kind, and each with one fault or two."""

import datetime
import ipaddress
import os
from typing import Any, Dict, Optional

NOW = datetime.datetime.utcnow()
PAST, FUTURE = datetime.datetime(2020, 1, 1), NOW + datetime.timedelta(days=3650)
OTHER = {"names": ("other.test",)}
# What sets each kind apart; "issuer" names another kind, "self" or "stranger" in place of the authority.
KINDS: Dict[str, Dict[str, Any]] = {
    "good": {},
    "expired": {"until": PAST},
    "wrong-name": OTHER,
    "expired-wrong-name": {"until": PAST, **OTHER},
    "unknown-issuer": {"issuer": "stranger"},
    "self-signed": {"issuer": "self"},
    "not-yet-valid": {"since": FUTURE - datetime.timedelta(days=1)},
    "client-only": {"purpose": "CLIENT_AUTH"},
    "no-signing": {"signs": False},
    "weak-key": {"bits": 1024},
    "no-issuer-right": {"issuer": "good"},
    "common-name-only": {"names": ()},
    "public-suffix": {"names": ("*.test",)},
    "zero-in-name": {"names": ("good.test\0.other.test",)},
}
NAMES = ("good.test", "*.kestrelhub.example", "127.0.0.1", "::1", "localhost")


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
             until: datetime.datetime = FUTURE, purpose: str = "SERVER_AUTH", signs: bool = True, bits: int = 0,
             authority: bool = False) -> Any:
        key: Any = rsa.generate_private_key(65537, bits) if bits else ec.generate_private_key(ec.SECP256R1())
        subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
        chain, issuer_key = issuer or ([], key)
        builder = (x509.CertificateBuilder().subject_name(subject).public_key(key.public_key())
                   .issuer_name(chain[0].subject if chain else subject).serial_number(x509.random_serial_number())
                   .not_valid_before(since if since < until else until - datetime.timedelta(days=1))
                   .not_valid_after(until))
        usage = dict.fromkeys(("content_commitment", "data_encipherment", "crl_sign", "encipher_only",
                               "decipher_only", "key_agreement"), False)
        extensions = [x509.BasicConstraints(ca=authority, path_length=None),
                      x509.KeyUsage(digital_signature=signs, key_encipherment=not signs, key_cert_sign=authority,
                                    **usage)]
        if names and not authority:
            extensions.append(x509.SubjectAlternativeName([general_name(each) for each in names]))
        if not authority:
            extensions.append(x509.ExtendedKeyUsage([getattr(ExtendedKeyUsageOID, purpose)]))
        for extension in extensions:
            builder = builder.add_extension(extension, critical=isinstance(extension, x509.KeyUsage))
        return [builder.sign(issuer_key, hashes.SHA256()), *chain], key

    def write(name: str, chain: Any, key: Optional[Any] = None) -> None:
        with open(os.path.join(folder, name + ".pem"), "wb") as file:
            if key:
                file.write(key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                             serialization.NoEncryption()))
            file.write(b"".join(each.public_bytes(serialization.Encoding.PEM) for each in chain))

    os.makedirs(folder, exist_ok=True)
    issuers = {name: make(name, authority=True) for name in ("authority", "stranger")}
    for kind, faults in KINDS.items():
        issuer = issuers.get(faults.get("issuer", "authority"))  # None for itself
        made = issuers[kind] = make("good.test", **{**faults, "issuer": issuer})
        write(kind, [each for each in made[0] if each not in issuers["authority"][0]], made[1])
    write("ca", issuers["authority"][0])
