#!/usr/bin/env python3
"""A misbehaving peer: plays one scenario on a loopback port for each incoming connection.

Prints "port N" once it listens, and exits when standard input closes. With --tls it speaks TLS with one of several
certificates that "peer.py certificates" has written, with their authority (ca.pem), to the folder given by --certs.
`Peer` runs it as a child process:

    with Peer("reply", "--body", "hello", tls="good", certs=folder) as peer:
        ...  # peer.port, peer.received()
"""

from __future__ import annotations

import argparse
import contextlib
import ctypes
import datetime
import os
import re
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading

HOST_NAME = "good.test"
CERTIFICATES = ("good", "expired", "wrong-name", "expired-wrong-name", "unknown-issuer")


def make_certificates(folder: str) -> None:
    """Writes ca.pem and, for each kind of certificate, KIND.pem (chain and key) into the folder."""
    import trustme

    authority, stranger = trustme.CA(), trustme.CA()
    past = datetime.datetime(2020, 1, 1)
    certificates = {
        "good": authority.issue_cert(HOST_NAME, "*.kestrelhub.example", "127.0.0.1", "::1", "localhost"),
        "expired": authority.issue_cert(HOST_NAME, not_after=past),
        "wrong-name": authority.issue_cert("other.test"),
        "expired-wrong-name": authority.issue_cert("other.test", not_after=past),
        "unknown-issuer": stranger.issue_cert(HOST_NAME),
    }
    os.makedirs(folder, exist_ok=True)
    for kind, certificate in certificates.items():
        certificate.private_key_and_cert_chain_pem.write_to_path(os.path.join(folder, kind + ".pem"))
    authority.cert_pem.write_to_path(os.path.join(folder, "ca.pem"))


class Exchange:
    """One connection: what it receives, the reply that the options specify, and the steps that make up a scenario."""

    def __init__(self, connection: socket.socket, options: argparse.Namespace, stop: threading.Event) -> None:
        self.connection = connection
        self.options = options
        self.stop = stop
        self.body = options.body
        self.half = len(options.body) // 2

    def receive(self) -> bytes:
        """Returns the next bytes after recording them; none at the end."""
        data = self.connection.recv(1 << 18)
        if data and self.options.record:
            with open(self.options.record, "ab") as record:
                record.write(data)
        return data

    def send(self, data: bytes) -> None:
        self.connection.sendall(data)

    def read(self, wanted: int | None) -> None:
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

    def head(self) -> bytes:
        """Returns the reply's head."""
        size = len(self.body)
        line = {
            "right": "Content-Length: %d" % size,
            "none": "",
            "short": "Content-Length: %d" % (size // 2),
            "long": "Content-Length: %d" % (size * 2 + 1),
            "negative": "Content-Length: -1",
            "garbage": "Content-Length: abc",
            "chunked": "Transfer-Encoding: chunked",
        }[self.options.length]
        lines = ["HTTP/1.1 %d Scripted" % self.options.status, *self.options.header, line]
        return "\r\n".join(line for line in lines if line).encode() + b"\r\n\r\n"

    def framed(self, data: bytes, end: bytes = b"") -> bytes:
        """Returns a piece of the reply's body as it is sent."""
        if self.options.length != "chunked":
            return data
        return (b"%x\r\n%s\r\n" % (len(data), data) if data else b"") + end

    # The steps.

    def read_request(self) -> None:
        self.read(None)

    def read_some(self) -> None:
        """Reads --after bytes of the request's body."""
        self.read(self.options.after)

    def send_reply(self) -> None:
        """Sends the whole reply at once."""
        self.send(self.options.raw or self.head() + self.framed(self.body, b"0\r\n\r\n"))

    def send_half(self) -> None:
        self.send(self.head() + self.framed(self.body[: self.half]))

    def send_rest(self) -> None:
        self.send(self.framed(self.body[self.half :], b"0\r\n\r\n"))

    def send_slowly(self) -> None:
        """Sends the reply with a pause before each byte of the body."""
        self.send(self.head())
        for position in range(len(self.body)):
            self.pause()
            self.send(self.body[position : position + 1])

    def send_interim(self) -> None:
        """Sends two interim replies, one with a length."""
        self.send(b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nContent-Length: 77\r\n\r\n")

    def send_garbage(self) -> None:
        self.send(b"\x00\x01\x02 this is no reply\r\n\r\n")

    def flood_headers(self) -> None:
        """Sends header lines without end."""
        self.send(b"HTTP/1.1 200 OK\r\n")
        while not self.stop.is_set():
            self.send(b"X-Line: flood\r\n" * 64)

    def flood_body(self) -> None:
        """Sends a body without end."""
        self.send(b"HTTP/1.1 200 OK\r\n\r\n")
        while not self.stop.is_set():
            self.send(b"flood" * 65536)

    def sip(self) -> None:
        """Reads on slowly until the other side closes."""
        while self.connection.recv(4096):
            self.pause()

    def update_keys(self) -> None:
        """Requests new TLS keys over and over (RFC 8446, section 4.6.3): bytes flow both ways, but no reply."""
        library = ctypes.CDLL("libssl.so.3")  # the library under the ssl module, which does not expose it
        session = ctypes.c_void_p.from_address(id(self.connection._sslobj) + 3 * ctypes.sizeof(ctypes.c_void_p))
        self.connection.settimeout(0.002)
        while not self.stop.is_set():
            library.SSL_key_update(session, 1)
            library.SSL_do_handshake(session)
            with contextlib.suppress(TimeoutError):
                if not self.connection.recv(1):
                    return

    def pause(self) -> None:
        self.stop.wait(self.options.pause)

    def hold(self) -> None:
        """Keeps the connection open, without reading, until the peer exits."""
        self.stop.wait()

    def drain(self) -> None:
        """Reads until the other side closes."""
        while self.receive():
            pass

    def reset(self) -> None:
        """Ends the connection with a reset."""
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        os.close(self.connection.detach())


# The steps of each scenario; the connection is closed after the last.
SCENARIOS = {
    "reply": (Exchange.read_request, Exchange.send_reply),
    "keep": (Exchange.read_request, Exchange.send_reply, Exchange.drain),
    "pieces": (Exchange.read_request, Exchange.send_half, Exchange.pause, Exchange.send_rest),
    "trickle": (Exchange.read_request, Exchange.send_slowly),
    "interim": (Exchange.read_request, Exchange.send_interim, Exchange.send_reply),
    "early-keep": (Exchange.read_some, Exchange.send_reply, Exchange.drain),
    "early-hold": (Exchange.read_some, Exchange.send_reply, Exchange.hold),
    "early-close": (Exchange.read_some, Exchange.send_reply),
    "first-bytes": (Exchange.receive, Exchange.send_reply, Exchange.drain),
    "reset-send": (Exchange.read_some, Exchange.reset),
    "reset-reply": (Exchange.read_request, Exchange.send_half, Exchange.pause, Exchange.reset),
    "silent-connect": (),  # the connection is never established
    "silent-tls": (Exchange.hold,),
    "silent-reply": (Exchange.read_request, Exchange.hold),
    "update-keys": (Exchange.read_request, Exchange.update_keys),
    "silent-body": (Exchange.read_request, Exchange.send_half, Exchange.hold),
    "sip": (Exchange.read_some, Exchange.sip),
    "stall": (Exchange.read_some, Exchange.hold),
    "close": (Exchange.read_request,),
    "garbage": (Exchange.receive, Exchange.send_garbage),
    "flood-headers": (Exchange.read_request, Exchange.flood_headers),
    "flood-body": (Exchange.read_request, Exchange.flood_body),
}


def play(
    connection: socket.socket, options: argparse.Namespace, context: ssl.SSLContext | None, stop: threading.Event
) -> None:
    """Plays the scenario on one connection."""
    try:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if context:
            connection = context.wrap_socket(connection, server_side=True)
        exchange = Exchange(connection, options, stop)
        for step in SCENARIOS[options.scenario]:
            step(exchange)
    except OSError:
        pass  # the other side went away, or refused the certificate
    finally:
        connection.close()


def accept(listener: socket.socket, options: argparse.Namespace, stop: threading.Event) -> None:
    """Plays each connection on its own thread."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER) if options.tls else None
    if context:
        context.load_cert_chain(os.path.join(options.certs, options.tls + ".pem"))
    bodies = [options.body, *options.then]
    while True:
        connection = listener.accept()[0]
        options.body = bodies.pop(0) if bodies else options.body
        arguments = (connection, argparse.Namespace(**vars(options)), context, stop)
        threading.Thread(target=play, args=arguments, daemon=True).start()


def serve(options: argparse.Namespace) -> None:
    """Listens and plays until standard input closes."""
    stop = threading.Event()
    listener = socket.socket()
    if options.window:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, options.window)
    listener.bind(("127.0.0.1", 0))
    if SCENARIOS[options.scenario]:
        listener.listen(64)
        threading.Thread(target=accept, args=(listener, options, stop), daemon=True).start()
    else:
        listener.listen(0)
        fillers = [socket.socket() for _ in range(4)]  # fill the queue of unaccepted connections
        for filler in fillers:
            filler.setblocking(False)
            filler.connect_ex(listener.getsockname())
    print("port", listener.getsockname()[1], flush=True)
    sys.stdin.buffer.read()
    stop.set()
    os._exit(0)


def unescaped(text: str) -> bytes:
    """Returns the bytes that a string with backslash escapes represents."""
    return text.encode("latin-1").decode("unicode_escape").encode("latin-1")


def parse() -> argparse.Namespace:
    """Parses the command line."""
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("scenario", choices=[*SCENARIOS, "certificates"])
    parser.add_argument("--tls", choices=CERTIFICATES, help="speak TLS with this certificate")
    parser.add_argument("--certs", metavar="DIR", help="folder of the certificates")
    parser.add_argument("--record", metavar="FILE", help="append what is received to this file")
    parser.add_argument("--status", type=int, default=200, help="status of the reply (default: %(default)s)")
    parser.add_argument("--header", action="append", default=[], metavar="LINE", help="header line of the reply")
    parser.add_argument("--body", type=os.fsencode, default=b"", help="body of the reply")
    parser.add_argument("--then", type=os.fsencode, action="append", default=[], metavar="BODY",
                        help="body of the next connection's reply and of all later ones")  # fmt: skip
    parser.add_argument("--fill", type=int, metavar="BYTES", help="use a reply body of that many bytes instead")
    parser.add_argument("--length", default="right", help="the reply's Content-Length (default: %(default)s)",
                        choices=("right", "none", "short", "long", "negative", "garbage", "chunked"))  # fmt: skip
    parser.add_argument("--raw", type=unescaped, metavar="BYTES", help="the whole reply, as in a Python bytes literal")
    parser.add_argument("--pause", type=float, default=0.2, help="seconds of a pause (default: %(default)s)")
    parser.add_argument("--after", type=int, default=0, metavar="BYTES", help="bytes of the body to read first")
    parser.add_argument("--window", type=int, metavar="BYTES", help="receive buffer, for a peer that reads slowly")
    options = parser.parse_args()
    if options.fill is not None:
        options.body = bytes(position % 251 for position in range(options.fill))
    return options


class Peer:
    """Runs the peer as a child process for the duration of a `with` block."""

    def __init__(self, scenario: str, *arguments: str, tls: str = "", certs: str = "") -> None:
        self._folder = tempfile.TemporaryDirectory()
        self._record = os.path.join(self._folder.name, "received")
        self._command = ["/usr/bin/python3", os.path.abspath(__file__), scenario, "--record", self._record, *arguments]
        if tls:
            self._command += ["--tls", tls, "--certs", certs]
        self.port = 0

    def __enter__(self) -> "Peer":
        env = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}  # a sanitizer's runtime
        self._process = subprocess.Popen(self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, env=env)
        line = self._process.stdout.readline().split()
        if len(line) != 2:
            raise RuntimeError("the peer did not start")
        self.port = int(line[1])
        return self

    def __exit__(self, *_: object) -> None:
        self._process.stdin.close()
        self._process.wait()
        self._process.stdout.close()
        self._folder.cleanup()

    def received(self) -> bytes:
        """Returns everything received so far."""
        if not os.path.exists(self._record):
            return b""
        with open(self._record, "rb") as record:
            return record.read()


if __name__ == "__main__":
    if (chosen := parse()).scenario == "certificates":
        make_certificates(chosen.certs)
    else:
        serve(chosen)
