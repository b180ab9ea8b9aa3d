"""Runs the stand-in: makes certificates, listens on two loopback ports and prints a line of JSON when it is ready."""

import argparse
import asyncio
import json
import os
import signal
import ssl
import sys
import threading
from pathlib import Path
from typing import Any, Dict, List, Optional

from aiohttp import web

from .certificates import make_certificates
from .members import Members
from .presets import PresetStore
from .service import Service

ADDRESS = "127.0.0.1"
HOSTS = ("detect.kestrelhub.example", "www.kestrelhub.example", "stage.kestrelhub.example")
SHUTDOWN_SECONDS = 1.0
DEFAULT_MAX_UPLOAD = 2**32 - 1


def parse_arguments() -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="kestrelhub_standin", description=__doc__)
    parser.add_argument("--https-port", type=int, default=0, help="port for TLS (default: a free one)")
    parser.add_argument("--http-port", type=int, default=0, help="port for plain HTTP (default: a free one)")
    parser.add_argument("--folder", type=Path, required=True, help="folder for published presets")
    parser.add_argument("--cert-folder", type=Path, required=True, help="folder for ca.pem and server.pem")
    parser.add_argument("--members", type=Path, help="JSON file of the members (default: one built-in member)")
    parser.add_argument("--host", action="append", default=[], metavar="NAME", help="another host to answer for")
    parser.add_argument("--api-host", default="www.kestrelhub.example",
                        help="host that detection returns (default: %(default)s)")
    parser.add_argument("--max-upload", type=int, default=DEFAULT_MAX_UPLOAD, metavar="BYTES",
                        help="size limit of an upload (default: %(default)s)")
    parser.add_argument("--ready-file", type=Path, help="also write the ready line to this file")
    parser.add_argument("--until-stdin-closes", action="store_true", help="exit when standard input closes")
    return parser.parse_args()


async def listen(application: web.Application, port: int, context: Optional[ssl.SSLContext]) -> web.AppRunner:
    runner = web.AppRunner(application, access_log=None)
    await runner.setup()
    await web.TCPSite(runner, ADDRESS, port, ssl_context=context, shutdown_timeout=SHUTDOWN_SECONDS).start()
    return runner


def ready_line(hosts: List[str], https_port: int, http_port: int, ca_file: Path) -> Dict[str, Any]:
    """Returns what a client needs to reach this process."""
    ports = ((443, https_port), (80, http_port))
    connect_to = ",".join(f"{host}:{port}:{ADDRESS}:{real}" for host in hosts for port, real in ports)
    return {"pid": os.getpid(), "https_port": https_port, "http_port": http_port, "ca_file": str(ca_file.resolve()),
            "connect_to": connect_to}


def announce(line: str, ready_file: Optional[Path]) -> None:
    print(line, flush=True)
    if ready_file:
        half_done = ready_file.with_name(ready_file.name + ".new")
        half_done.write_text(line + "\n", "utf-8")
        half_done.rename(ready_file)


def stop_event(until_stdin_closes: bool) -> asyncio.Event:
    """Returns an event that a signal sets and, on request, the end of standard input."""
    loop = asyncio.get_running_loop()
    stop = asyncio.Event()
    for number in (signal.SIGTERM, signal.SIGINT):
        loop.add_signal_handler(number, stop.set)

    def watch_stdin() -> None:
        while os.read(0, 4096):
            pass
        loop.call_soon_threadsafe(stop.set)

    if until_stdin_closes:
        threading.Thread(target=watch_stdin, daemon=True).start()
    return stop


async def serve(arguments: argparse.Namespace) -> None:
    stop = stop_event(arguments.until_stdin_closes)
    hosts = list(dict.fromkeys([*HOSTS, arguments.api_host, *arguments.host]))
    context, ca_file = make_certificates(arguments.cert_folder, hosts)
    service = Service(Members(arguments.members), PresetStore(arguments.folder), arguments.api_host,
                      arguments.max_upload)
    secure = await listen(service.secure_application(), arguments.https_port, context)
    plain = await listen(service.plain_application(), arguments.http_port, None)
    ready = ready_line(hosts, secure.addresses[0][1], plain.addresses[0][1], ca_file)
    announce(json.dumps(ready), arguments.ready_file)
    await stop.wait()
    await asyncio.gather(secure.cleanup(), plain.cleanup())


if __name__ == "__main__":
    sys.exit(asyncio.run(serve(parse_arguments())))
