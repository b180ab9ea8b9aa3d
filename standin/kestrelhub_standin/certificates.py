"""The stand-in's own certificate authority and server certificate, created at each start.

Knows nothing of HTTP or the service.
"""

import os
import ssl
from pathlib import Path
from typing import Iterable, Tuple

import trustme


def make_certificates(folder: Path, hosts: Iterable[str]) -> Tuple[ssl.SSLContext, Path]:
    """Writes ``ca.pem`` (the trusted root) and ``server.pem`` (chain and key) into the folder.

    Returns the server's TLS context and the path of ``ca.pem``.
    """
    authority = trustme.CA(organization_name="Kestrelhub stand-in")
    certificate = authority.issue_cert(*hosts, "localhost", "127.0.0.1", common_name="Kestrelhub stand-in")
    folder.mkdir(parents=True, exist_ok=True)
    ca_file = folder / "ca.pem"
    ca_file.write_bytes(authority.cert_pem.bytes())
    with open(folder / "server.pem", "wb", opener=lambda path, flags: os.open(path, flags, 0o600)) as server:
        server.write(certificate.private_key_and_cert_chain_pem.bytes())
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    certificate.configure_cert(context)
    return context, ca_file
