"""A peer that costs next to nothing: it reads a request's body into one buffer, drops it and sends a fixed reply.

Runs as its own process. Takes the file of its certificate and key and, optionally, a JSON file of further replies that
take precedence: pairs of the start of a request line and a body. It prints its TLS port and its plain port, one per
line, serves one request per connection, each on its own thread, and exits when standard input closes.
"""

from __future__ import annotations

import json
import os
import re
import socket
import ssl
import sys
import threading

# The start of a request line, and the body of the reply.
REPLIES: list[tuple[bytes, bytes]] = [
    (
        b"POST /servlet/uploadTemplate",
        b"<uploadTemplate><templateUrl>https%3a%2f%2fwww.kestrelhub.example%2fp%2f7</templateUrl></uploadTemplate>",
    ),
    (
        b"POST /servlet/memLogin",
        b"<info><tokenid>0123456789abcdef</tokenid><username>Bench</username>"
        b"<profileURL>https://www.kestrelhub.example/u</profileURL>"
        b"<VideoGallery>https://www.kestrelhub.example/v</VideoGallery><search>s</search></info>",
    ),
    (
        b"GET /khserver.jsp",
        b"<INFO><APIUrl>www.kestrelhub.example</APIUrl><AdjustmentPreset>/p?v=1</AdjustmentPreset>"
        b"<SignUp>/s?v=1</SignUp></INFO>",
    ),
    (b"", b"ok"),
]


def serve(connection: socket.socket, context: ssl.SSLContext | None, replies: list[tuple[bytes, bytes]]) -> None:
    """Handles one connection: the handshake if it uses TLS, one request, one reply."""
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    with context.wrap_socket(connection, server_side=True) if context else connection as peer:
        head = b""
        while b"\r\n\r\n" not in head:
            block = peer.recv(65536)
            if not block:
                return
            head += block
        head, _, body = head.partition(b"\r\n\r\n")
        length = re.search(rb"\r\ncontent-length: *(\d+)", head, re.IGNORECASE)
        left = int(length.group(1)) - len(body) if length else 0
        buffer = memoryview(bytearray(max(0, min(left, 1 << 20))))
        while left > 0:
            taken = peer.recv_into(buffer[: min(left, len(buffer))])
            if not taken:
                return
            left -= taken
        reply = next(reply for start, reply in replies if head.startswith(start))
        peer.sendall(b"HTTP/1.1 200 OK\r\nConnection: close\r\nContent-Length: %d\r\n\r\n%s" % (len(reply), reply))


def listen(context: ssl.SSLContext | None, replies: list[tuple[bytes, bytes]]) -> int:
    """Serves connections on a thread of its own. Returns the port."""
    listener = socket.create_server(("127.0.0.1", 0))

    def quietly(connection: socket.socket) -> None:
        try:
            serve(connection, context, replies)
        except OSError:
            pass  # the client is gone, such as a probe that only waits for an answer

    def accept() -> None:
        while True:
            connection, _ = listener.accept()
            threading.Thread(target=quietly, args=(connection,), daemon=True).start()

    threading.Thread(target=accept, daemon=True).start()
    return listener.getsockname()[1]


def main() -> None:
    """Listens until standard input closes."""
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    context.load_cert_chain(sys.argv[1])
    replies = list(REPLIES)
    for path in sys.argv[2:]:
        with open(path, encoding="ascii") as source:
            replies[:0] = [(start.encode(), body.encode()) for start, body in json.load(source)]
    print(listen(context, replies), listen(None, replies), sep="\n", flush=True)
    sys.stdin.read()
    os._exit(0)


if __name__ == "__main__":
    main()
