"""A misbehaving peer: plays one scenario on a loopback port for each incoming connection.

Prints "port N" once it listens, and exits when standard input closes. With --tls it speaks TLS with one of several
certificates that "peer.py certificates" has written, with their authority (ca.pem), to the folder given by --certs.
scripted.py runs it as a child process.

A scenario is a sequence of steps: bytes to send, the name of a method of `Exchange`, or a name with arguments. One that
has no name of its own is given as a Python literal: peer.py '("read", b"HTTP/1.1 200 OK\\r\\n\\r\\n", "reset")'.
"""

from __future__ import annotations

import argparse
import ast
import contextlib
import ctypes
import datetime
import os
import re
import signal
import socket
import ssl
import struct
import sys
import threading
from pathlib import Path
from typing import Any, Sequence

NAMES = ("good.test", "*.kestrelhub.example")
DAY = datetime.timedelta(days=1)
PAST, FUTURE = datetime.datetime(2020, 1, 1), datetime.datetime.utcnow() + 3650 * DAY
# What sets each kind of certificate apart; "issuer" names another kind, "self" or "stranger", not the authority.
KINDS = {
    "good": {}, "expired": {"until": PAST}, "not-yet-valid": {"since": FUTURE - DAY},
    "wrong-name": {"names": ("other.test",)}, "expired-wrong-name": {"until": PAST, "names": ("other.test",)},
    "unknown-issuer": {"issuer": "stranger"}, "self-signed": {"issuer": "self"}, "no-issuer-right": {"issuer": "good"},
    "client-only": {"purpose": "CLIENT_AUTH"}, "weak-key": {"bits": 1024}, "common-name-only": {"names": ()},
}
LENGTHS = {"right": "Content-Length: {0}", "none": "", "short": "Content-Length: {1}", "long": "Content-Length: 999999",
           "negative": "Content-Length: -1", "garbage": "Content-Length: abc", "chunked": "Transfer-Encoding: chunked"}


class Exchange:
    """One connection: what it receives, the reply that the options specify, and the steps of scenarios."""

    def __init__(self, connection: socket.socket, options: argparse.Namespace, context: ssl.SSLContext | None,
                 stop: threading.Event) -> None:
        self.connection, self.options, self.context, self.stop = connection, options, context, stop
        self.body, self.half = options.body, len(options.body) // 2

    def play(self) -> None:
        with contextlib.suppress(OSError):  # the other side goes away, or refuses the certificate
            self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            if self.context and "tls" not in self.options.scenario:
                self.tls()
            for step in self.options.scenario:
                name, *arguments = {bytes: ("send", step), str: (step,)}.get(type(step), step)
                getattr(self, name.replace("-", "_"))(*arguments)
        self.connection.close()

    def head(self) -> bytes:
        length = LENGTHS[self.options.length].format(len(self.body), self.half)
        lines = ["HTTP/1.1 %d Scripted" % self.options.status, *self.options.header, length]
        return "\r\n".join(line for line in lines if line).encode() + b"\r\n\r\n"

    def framed(self, data: bytes, end: bytes = b"") -> bytes:
        """Returns a piece of the reply's body as it is sent."""
        if self.options.length != "chunked":
            return data
        return (b"%x\r\n%s\r\n" % (len(data), data) if data else b"") + end

    # The steps.

    def tls(self) -> None:
        """Starts TLS; without this step, a peer with a certificate starts it first."""
        self.connection = self.context.wrap_socket(self.connection, server_side=True)

    def end_tls(self) -> None:
        with contextlib.suppress(OSError):
            self.connection.unwrap()

    def receive(self, size: int = 1 << 18) -> bytes:
        """Returns the next bytes after recording them; none at the end."""
        data = self.connection.recv(size)
        if data and self.options.record:
            with open(self.options.record, "ab") as record:
                record.write(data)
        return data

    def send(self, data: bytes) -> None:
        self.connection.sendall(data)

    def read(self, wanted: int | None = None) -> None:
        """Reads the request's head and ``wanted`` bytes of its body, or all of it if None."""
        pending = b""
        while b"\r\n\r\n" not in pending:
            data = self.receive()
            if not data:
                raise ConnectionError("no request")
            pending += data
        head, body = pending.split(b"\r\n\r\n", 1)
        declared = re.search(rb"(?im)^content-length: *(\d+)", head)
        left = (int(declared[1]) if declared else 0) if wanted is None else wanted
        left -= len(body)
        while left > 0 and (data := self.receive()):
            left -= len(data)

    def read_some(self) -> None:
        """Reads --after bytes of the request's body."""
        self.read(self.options.after)

    def reply(self) -> None:
        self.send(self.options.raw or self.head() + self.framed(self.body, b"0\r\n\r\n"))

    def half_reply(self) -> None:
        self.send(self.head() + self.framed(self.body[:self.half]))

    def rest(self) -> None:
        self.send(self.framed(self.body[self.half:], b"0\r\n\r\n"))

    def flood(self, data: bytes, pause: float = 0) -> None:
        while not self.stop.wait(pause):
            self.send(data)

    def repeat(self, data: bytes, count: int) -> None:
        self.send(data * count)

    def flood_messages(self, call: str, argument: int) -> None:
        """Makes OpenSSL send a message after the handshake over and over: bytes flow, but no reply."""
        library = ctypes.CDLL("libssl.so.3")  # the library under the ssl module, which does not expose it
        session = ctypes.c_void_p.from_address(id(self.connection._sslobj) + 3 * ctypes.sizeof(ctypes.c_void_p))
        while library.SSL_do_handshake(session) == 1 and not self.stop.wait(0.002):
            getattr(library, call)(session, argument)

    def pause(self, seconds: float | None = None) -> None:
        self.stop.wait(self.options.pause if seconds is None else seconds)

    def hold(self) -> None:
        """Keeps the connection open, without reading, until the peer exits."""
        self.stop.wait()

    def drain(self, size: int = 1 << 18, pause: float | None = 0) -> None:
        """Reads until the other side ends its sending."""
        while self.receive(size):
            self.pause(pause)

    def shut(self) -> None:
        self.connection.shutdown(socket.SHUT_WR)

    def reset(self) -> None:
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        os.close(self.connection.detach())


# The steps of each scenario; the connection is closed after the last.
SCENARIOS = {
    "reply": ("read", "reply"),
    "keep": ("read", "reply", "drain"),
    "pieces": ("read", "half-reply", "pause", "rest"),
    "interim": ("read", b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nContent-Length: 77\r\n\r\n", "reply"),
    "early-keep": ("read-some", "reply", "drain"),
    "early-hold": ("read-some", "reply", "hold"),
    "reset-send": ("read-some", "reset"),
    "reset-reply": ("read", "half-reply", "pause", "reset"),
    "silent-connect": (),  # the connection is never established
    "silent-tls": ("hold",),
    "silent-reply": ("read", "hold"),
    "silent-body": ("read", "half-reply", "hold"),
    "sip": ("read-some", ("drain", 4096, None)),
    "stall": ("read-some", "hold"),
    "close": ("read",),
    "garbage": ("receive", b"\x00\x01\x02 this is no reply\r\n\r\n"),
}


def accept(listener: socket.socket, options: argparse.Namespace, stop: threading.Event) -> None:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER) if options.tls else None
    if context:
        context.set_ciphers("DEFAULT:@SECLEVEL=0")  # for weak keys, too
        context.options |= ssl.OP_IGNORE_UNEXPECTED_EOF  # a peer can go on when the other side has ended its sending
        context.load_cert_chain(os.path.join(options.certs, options.tls + ".pem"))
    bodies = [options.body, *options.then]
    while True:
        connection = listener.accept()[0]
        options.body = bodies.pop(0) if bodies else options.body
        exchange = Exchange(connection, argparse.Namespace(**vars(options)), context, stop)
        threading.Thread(target=exchange.play, daemon=True).start()


def serve(options: argparse.Namespace) -> None:
    """Listens, and plays until standard input closes."""
    signal.alarm(900)  # in case nobody ends it
    stop, listener = threading.Event(), socket.socket()
    if options.window:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, options.window)
    listener.bind(("127.0.0.1", 0))
    listener.listen(64 if options.scenario else 0)
    fillers = [socket.socket() for _ in range(0 if options.scenario else 4)]  # of the queue of unaccepted connections
    for filler in fillers:
        filler.setblocking(False)
        filler.connect_ex(listener.getsockname())
    if options.scenario:
        threading.Thread(target=accept, args=(listener, options, stop), daemon=True).start()
    print("port", listener.getsockname()[1], flush=True)
    sys.stdin.buffer.read()
    stop.set()
    os._exit(0)


def make_certificates(folder: str) -> None:
    """Writes ca.pem and, for each kind of certificate, KIND.pem (chain and key) into the folder."""
    # only here: these take a while to load, and no peer needs them
    from cryptography import x509
    from cryptography.hazmat.primitives import hashes, serialization
    from cryptography.hazmat.primitives.asymmetric import ec, rsa
    from cryptography.x509.oid import ExtendedKeyUsageOID, NameOID

    def make(name: str, issuer: Any = None, names: Any = NAMES, since: datetime.datetime = PAST,
             until: datetime.datetime = FUTURE, purpose: str = "SERVER_AUTH", bits: int = 0) -> Any:
        """Returns a chain and its key; one without an issuer is its own, and a good.test without one no authority."""
        key: Any = rsa.generate_private_key(65537, bits) if bits else ec.generate_private_key(ec.SECP256R1())
        subject = x509.Name([x509.NameAttribute(NameOID.COMMON_NAME, name)])
        chain, issuer_key = issuer or ([], key)
        extensions = [x509.BasicConstraints(name != "good.test", None),
                      x509.ExtendedKeyUsage([getattr(ExtendedKeyUsageOID, purpose)])]
        if names:
            extensions.append(x509.SubjectAlternativeName(list(map(x509.DNSName, names))))
        builder = x509.CertificateBuilder(chain[0].subject if chain else subject, subject, key.public_key(),
                                          x509.random_serial_number(), min(since, until - DAY), until)
        for extension in extensions:
            builder = builder.add_extension(extension, critical=False)
        return [builder.sign(issuer_key, hashes.SHA256()), *chain], key

    def pem(certificates: Any) -> bytes:
        return b"".join(each.public_bytes(serialization.Encoding.PEM) for each in certificates)

    made = {name: make(name) for name in ("authority", "stranger")}
    root = made["authority"][0]
    Path(folder, "ca.pem").write_bytes(pem(root))
    for kind, faults in KINDS.items():
        issuer = made.get(faults.get("issuer", "authority"))  # None for itself
        chain, key = made[kind] = make("good.test", **{**faults, "issuer": issuer})
        secret = key.private_bytes(serialization.Encoding.PEM, serialization.PrivateFormat.PKCS8,
                                   serialization.NoEncryption())
        Path(folder, kind + ".pem").write_bytes(secret + pem(each for each in chain if each not in root))


def parse(arguments: Sequence[str] | None = None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add = parser.add_argument
    add("scenario", metavar="SCENARIO", help=f"steps, or certificates, or one of {', '.join(SCENARIOS)}")
    add("--tls", choices=KINDS, metavar="KIND", help=f"speak TLS with a certificate: {', '.join(KINDS)}")
    add("--certs", metavar="DIR", help="folder of the certificates")
    add("--record", metavar="FILE", help="append what is received to this file")
    add("--status", type=int, default=200, help="status of the reply (default: %(default)s)")
    add("--header", action="append", default=[], metavar="LINE", help="header line of the reply")
    add("--body", type=os.fsencode, default=b"", help="body of the reply")
    add("--then", type=os.fsencode, action="append", default=[], metavar="BODY", help="body of the next reply, and on")
    add("--length", default="right", choices=LENGTHS, help="the reply's Content-Length (default: %(default)s)")
    add("--raw", type=lambda text: ast.literal_eval(f"b'{text}'"), help="the whole reply, as in a bytes literal")
    add("--pause", type=float, default=0.2, help="seconds of a pause (default: %(default)s)")
    add("--after", type=int, default=0, metavar="BYTES", help="bytes of the body to read first")
    add("--window", type=int, metavar="BYTES", help="receive buffer, for a peer that reads slowly")
    options = parser.parse_args(arguments)
    known = {"certificates": "certificates", **SCENARIOS}
    options.scenario = known[options.scenario] if options.scenario in known else ast.literal_eval(options.scenario)
    return options


if __name__ == "__main__":
    if (chosen := parse()).scenario == "certificates":
        make_certificates(chosen.certs)
    else:
        serve(chosen)
