"""The floor of an upload: a client that sends the same chunks with the same pauses, and nothing else.

`paced.py HOST ADDRESS PORT ROOTS PATH...` sends the parts over TLS, each chunk followed by a pause of 50 ms, reads the
reply and prints the seconds that it took as JSON.
"""

import json
import os
import socket
import ssl
import sys
import time

KIB, MIB = 1 << 10, 1 << 20


def main() -> None:
    host, address, port, roots, *paths = sys.argv[1:]
    parts = [paths[0], paths[1], *paths[1:]]
    context = ssl.create_default_context(cafile=roots)
    start, cpu = time.perf_counter(), time.process_time()
    connection = socket.create_connection((address, int(port)))
    connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    with context.wrap_socket(connection, server_hostname=host) as peer:
        head = f"POST /servlet/uploadTemplate HTTP/1.1\r\nHost: {host}\r\nContent-Length: %d\r\n\r\n"
        peer.sendall((head % sum(map(os.path.getsize, parts))).encode())
        for path in parts:
            chunk = 32 * KIB
            with open(path, "rb") as file:
                while block := file.read(chunk):
                    peer.sendall(block)
                    time.sleep(0.05)
                    chunk = min(2 * chunk, 16 * MIB)
        while peer.recv(MIB):
            pass
    print(json.dumps({"wall": time.perf_counter() - start, "cpu": time.process_time() - cpu}))


if __name__ == "__main__":
    main()
