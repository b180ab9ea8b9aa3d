#!/usr/bin/env python3
"""A peer that misbehaves: plays one scenario on a loopback port for each connection that comes in.

Prints "port N" when it listens. It ends when its standard input closes. With --tls it speaks TLS with one of several
certificates, which it makes, with their authority (ca.pem), in the folder given by --certs unless they are there.
`Peer` runs it as a child process:

    with Peer("reply", "--body", "hello", tls="good", certs=folder) as peer:
        ...  # peer.port, peer.received()
"""

from __future__ import annotations

import argparse
import datetime
import os
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
from typing import Callable, Dict, Optional, Tuple

HOST_NAME = "good.test"
CERTIFICATES = ("good", "expired", "wrong-name", "expired-wrong-name", "unknown-issuer")


# --- Certificates


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


def server_context(kind: str, folder: str) -> ssl.SSLContext:
    """A server's TLS context with the certificate of that kind."""
    path = os.path.join(folder, kind + ".pem")
    if not os.path.exists(path):
        make_certificates(folder)
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(path)
    return context


# --- One connection


class Exchange:
    """What a scenario has of its connection: the bytes that come in, the reply that the options ask for."""

    def __init__(self, connection: socket.socket, options: argparse.Namespace, stop: threading.Event) -> None:
        self.connection = connection
        self.options = options
        self.stop = stop
        self.pending = b""

    def receive(self) -> bytes:
        """The next bytes, recorded; none at the end."""
        data = self.connection.recv(1 << 18)
        if data and self.options.record:
            with open(self.options.record, "ab") as record:
                record.write(data)
        return data

    def read_head(self) -> int:
        """Reads the request's head. Returns the declared length of its body."""
        while b"\r\n\r\n" not in self.pending:
            data = self.receive()
            if not data:
                raise ConnectionError("no request")
            self.pending += data
        head, self.pending = self.pending.split(b"\r\n\r\n", 1)
        for line in head.split(b"\r\n"):
            name, _, value = line.partition(b":")
            if name.lower() == b"content-length":
                return int(value)
        return 0

    def read_body(self, length: int) -> None:
        """Reads that many bytes of the body, or to its end."""
        count = len(self.pending)
        self.pending = b""
        while count < length:
            data = self.receive()
            if not data:
                return
            count += len(data)

    def read_request(self) -> None:
        self.read_body(self.read_head())

    def hold(self) -> None:
        """Keeps the connection open, unread, until the peer ends."""
        self.stop.wait()

    def drain(self) -> None:
        """Reads until the other side closes."""
        while self.receive():
            pass

    def reset(self) -> None:
        """Ends the connection with a reset."""
        linger = struct.pack("ii", 1, 0)
        self.connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, linger)
        os.close(self.connection.detach())

    def send(self, data: bytes) -> None:
        self.connection.sendall(data)

    def pause(self) -> None:
        self.stop.wait(self.options.pause)

    def head(self, length: Optional[str] = None) -> bytes:
        """The reply's head."""
        options = self.options
        size = len(options.body)
        kind = length or options.length
        lines = {
            "right": "Content-Length: %d" % size,
            "none": "",
            "short": "Content-Length: %d" % (size // 2),
            "long": "Content-Length: %d" % (size * 2 + 1),
            "negative": "Content-Length: -1",
            "garbage": "Content-Length: abc",
            "chunked": "Transfer-Encoding: chunked",
        }
        head = ["HTTP/1.1 %d Scripted" % options.status, *options.header, lines[kind]]
        return "\r\n".join(line for line in head if line).encode() + b"\r\n\r\n"

    def framed(self, data: bytes) -> bytes:
        """A piece of the reply's body as it goes out."""
        return b"%x\r\n%s\r\n" % (len(data), data) if self.options.length == "chunked" else data

    def send_reply(self) -> None:
        """The whole reply in one go."""
        end = b"0\r\n\r\n" if self.options.length == "chunked" else b""
        self.send(self.head() + (self.framed(self.options.body) if self.options.body else b"") + end)


# --- Scenarios


def reply(exchange: Exchange) -> None:
    """Reads the request, replies, closes."""
    exchange.read_request()
    exchange.send_reply()


def keep(exchange: Exchange) -> None:
    """Reads the request, replies, keeps the connection open until the other side closes."""
    reply(exchange)
    exchange.drain()


def pieces(exchange: Exchange) -> None:
    """Replies with the head and a first half of the body, pauses, sends the rest."""
    exchange.read_request()
    body = exchange.options.body
    first, second = exchange.framed(body[: len(body) // 2]), exchange.framed(body[len(body) // 2 :])
    exchange.send(exchange.head() + first)
    exchange.pause()
    exchange.send(second + (b"0\r\n\r\n" if exchange.options.length == "chunked" else b""))


def trickle(exchange: Exchange) -> None:
    """Replies with one byte of the body after each pause."""
    exchange.read_request()
    exchange.send(exchange.head())
    for position in range(len(exchange.options.body)):
        exchange.pause()
        exchange.send(exchange.options.body[position : position + 1])


def interim(exchange: Exchange) -> None:
    """Sends two interim replies, one with a length, before the reply."""
    exchange.read_request()
    exchange.send(b"HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nContent-Length: 77\r\n\r\n")
    exchange.send_reply()


def early_close(exchange: Exchange) -> None:
    """Replies after --after bytes of the body and closes at once."""
    exchange.read_head()
    exchange.read_body(exchange.options.after)
    exchange.send_reply()


def early_keep(exchange: Exchange) -> None:
    """Replies after --after bytes of the body, goes on reading."""
    early_close(exchange)
    exchange.drain()


def early_hold(exchange: Exchange) -> None:
    """Replies after --after bytes of the body, reads no more and keeps the connection open."""
    early_close(exchange)
    exchange.hold()


def reset_send(exchange: Exchange) -> None:
    """Resets the connection after --after bytes of the body."""
    exchange.read_head()
    exchange.read_body(exchange.options.after)
    exchange.reset()


def reset_reply(exchange: Exchange) -> None:
    """Sends half of the reply's body, pauses, resets the connection."""
    exchange.read_request()
    exchange.send(exchange.head() + exchange.options.body[: len(exchange.options.body) // 2])
    exchange.pause()
    exchange.reset()


def silent_reply(exchange: Exchange) -> None:
    """Reads the request and never answers."""
    exchange.read_request()
    exchange.hold()


def silent_body(exchange: Exchange) -> None:
    """Sends the reply's head and the first half of the body, then nothing."""
    exchange.read_request()
    exchange.send(exchange.head() + exchange.options.body[: len(exchange.options.body) // 2])
    exchange.hold()


def stall(exchange: Exchange) -> None:
    """Reads --after bytes of the body, then stops reading."""
    exchange.read_head()
    exchange.read_body(exchange.options.after)
    exchange.hold()


def close(exchange: Exchange) -> None:
    """Reads the request and closes without a reply."""
    exchange.read_request()


def garbage(exchange: Exchange) -> None:
    """Answers the first bytes with some that are no HTTP."""
    exchange.receive()
    exchange.send(b"\x00\x01\x02 this is no reply\r\n\r\n")


def _flood(exchange: Exchange, start: bytes, block: bytes) -> None:
    exchange.read_request()
    exchange.send(start)
    while not exchange.stop.is_set():
        exchange.send(block)


def flood_headers(exchange: Exchange) -> None:
    """Sends header lines without end."""
    _flood(exchange, b"HTTP/1.1 200 OK\r\n", b"X-Line: flood\r\n" * 64)


def flood_line(exchange: Exchange) -> None:
    """Sends one header line without end."""
    _flood(exchange, b"HTTP/1.1 200 OK\r\nX-Line: ", b"flood" * 1024)


def flood_body(exchange: Exchange) -> None:
    """Sends a body without end."""
    _flood(exchange, exchange.head("none"), b"flood" * 65536)


SCENARIOS: Dict[str, Callable[[Exchange], None]] = {
    function.__name__.replace("_", "-"): function
    for function in (
        reply, keep, pieces, trickle, interim, early_close, early_keep, early_hold, reset_send, reset_reply,
        silent_reply, silent_body, stall, close, garbage, flood_headers, flood_line, flood_body,
    )
}  # fmt: skip
# Played without an exchange: a port whose connections never come about, TLS that is never answered.
SILENT_CONNECT, SILENT_TLS = "silent-connect", "silent-tls"


# --- The program


def listen(options: argparse.Namespace) -> Tuple[socket.socket, list]:
    """The listening socket, and what has to stay open with it."""
    family = socket.AF_INET6 if ":" in options.address else socket.AF_INET
    listener = socket.socket(family, socket.SOCK_STREAM)
    if options.window:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, options.window)
    listener.bind((options.address, 0))
    if options.scenario != SILENT_CONNECT:
        listener.listen(64)
        return listener, []
    listener.listen(0)
    fillers = []
    for _ in range(4):  # fill the queue of connections that nobody accepts
        filler = socket.socket(family, socket.SOCK_STREAM)
        filler.setblocking(False)
        filler.connect_ex(listener.getsockname())
        fillers.append(filler)
    return listener, fillers


def play(
    raw: socket.socket, options: argparse.Namespace, context: Optional[ssl.SSLContext], stop: threading.Event
) -> None:
    """Plays the scenario on one connection."""
    connection = raw
    try:
        raw.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        if options.scenario == SILENT_TLS:
            stop.wait()
            return
        if context:
            connection = context.wrap_socket(raw, server_side=True)
        SCENARIOS[options.scenario](Exchange(connection, options, stop))
    except OSError:
        pass  # the other side went away, or refused the certificate
    finally:
        connection.close()


def serve(options: argparse.Namespace) -> None:
    """Listens, and plays each connection on a thread of its own."""
    context = server_context(options.tls, options.certs) if options.tls else None
    listener, _fillers = listen(options)
    stop = threading.Event()

    def accept() -> None:
        bodies = [options.body, *options.then]
        while True:
            connection = listener.accept()[0]
            options.body = bodies.pop(0) if bodies else options.body
            arguments = (connection, argparse.Namespace(**vars(options)), context, stop)
            threading.Thread(target=play, args=arguments, daemon=True).start()

    if options.scenario != SILENT_CONNECT:
        threading.Thread(target=accept, daemon=True).start()
    print("port", listener.getsockname()[1], flush=True)
    sys.stdin.buffer.read()
    stop.set()
    os._exit(0)


def parse(arguments: Optional[list] = None) -> argparse.Namespace:
    """The command line."""
    scenarios = {**{name: function.__doc__ for name, function in SCENARIOS.items()}}
    scenarios[SILENT_CONNECT] = "Lets no connection come about."
    scenarios[SILENT_TLS] = "Accepts and leaves the TLS handshake unanswered."
    parser = argparse.ArgumentParser(
        description=__doc__,
        formatter_class=argparse.RawDescriptionHelpFormatter,
        epilog="scenarios:\n" + "\n".join("  %-16s %s" % item for item in scenarios.items())
        + "\n  %-16s %s" % ("certificates", "Makes the certificates in the folder of --certs and ends."),
    )
    parser.add_argument("scenario", choices=[*scenarios, "certificates"], metavar="SCENARIO")
    parser.add_argument("--address", default="127.0.0.1", help="where to listen (default: %(default)s)")
    parser.add_argument("--tls", choices=CERTIFICATES, help="speak TLS with this certificate")
    parser.add_argument("--certs", metavar="DIR", help="folder of the certificates")
    parser.add_argument("--record", metavar="FILE", help="append what comes in to this file")
    parser.add_argument("--status", type=int, default=200, help="status of the reply (default: %(default)s)")
    parser.add_argument("--header", action="append", default=[], metavar="LINE", help="header line of the reply")
    parser.add_argument("--body", type=os.fsencode, default=b"", help="body of the reply")
    parser.add_argument("--then", type=os.fsencode, action="append", default=[], metavar="BODY",
                        help="body of the next connection's reply, and of those behind it")  # fmt: skip
    parser.add_argument("--fill", type=int, metavar="BYTES", help="a reply body of that many bytes instead")
    parser.add_argument("--length", default="right", help="the reply's Content-Length (default: %(default)s)",
                        choices=("right", "none", "short", "long", "negative", "garbage", "chunked"))  # fmt: skip
    parser.add_argument("--pause", type=float, default=0.2, help="seconds of a pause (default: %(default)s)")
    parser.add_argument("--after", type=int, default=0, metavar="BYTES", help="bytes of the body to read first")
    parser.add_argument("--window", type=int, metavar="BYTES", help="receive buffer, for a peer that reads slowly")
    options = parser.parse_args(arguments)
    if options.fill is not None:
        options.body = bytes(position % 251 for position in range(options.fill))
    if (options.tls or options.scenario == "certificates") and not options.certs:
        parser.error("--certs is needed")
    return options


class Peer:
    """Runs the peer as a child process for the length of a `with` block."""

    def __init__(self, scenario: str, *arguments: str, tls: str = "", certs: str = "") -> None:
        self._folder = tempfile.TemporaryDirectory()
        self._record = os.path.join(self._folder.name, "received")
        self._command = ["/usr/bin/python3", os.path.abspath(__file__), scenario, "--record", self._record, *arguments]
        if tls:
            self._command += ["--tls", tls, "--certs", certs]
        self.port = 0

    def __enter__(self) -> "Peer":
        env = {name: value for name, value in os.environ.items() if name != "LD_PRELOAD"}  # a checker's run-time
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
        """What came in so far."""
        if not os.path.exists(self._record):
            return b""
        with open(self._record, "rb") as record:
            return record.read()


if __name__ == "__main__":
    if (chosen := parse()).scenario == "certificates":
        make_certificates(chosen.certs)
    else:
        serve(chosen)
