"""Runs the stand-in until its standard input closes: python3 -m kestrelhub_standin FOLDER.

Makes certificates and listens on two free loopback ports, for TLS and plain HTTP. When it is ready, it prints what a
client needs to reach it as a line of JSON. FOLDER gets the trusted root, ca.pem, and the published presets.
"""

import asyncio
import json
import os
import ssl
import sys
from pathlib import Path
from typing import Optional

import trustme
from aiohttp import web

from .presets import PresetStore
from .service import HOST, Service

ADDRESS = "127.0.0.1"
HOSTS = ("detect.kestrelhub.example", HOST, "stage.kestrelhub.example")
SHUTDOWN_SECONDS = 1.0


async def listen(application: web.Application, context: Optional[ssl.SSLContext]) -> web.AppRunner:
    runner = web.AppRunner(application, access_log=None)
    await runner.setup()
    await web.TCPSite(runner, ADDRESS, 0, ssl_context=context, shutdown_timeout=SHUTDOWN_SECONDS).start()
    return runner


async def serve(folder: Path) -> None:
    service = Service(PresetStore(folder / "presets"))
    authority = trustme.CA(organization_name="Kestrelhub stand-in")
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    authority.issue_cert(*HOSTS, "localhost", ADDRESS, common_name="Kestrelhub stand-in").configure_cert(context)
    authority.cert_pem.write_to_path(str(folder / "ca.pem"))
    runners = [await listen(service.secure_application(), context), await listen(service.plain_application(), None)]
    https_port, http_port = (runner.addresses[0][1] for runner in runners)
    connect_to = ",".join(f"{host}:443:{ADDRESS}:{https_port},{host}:80:{ADDRESS}:{http_port}" for host in HOSTS)
    print(json.dumps({"pid": os.getpid(), "https_port": https_port, "http_port": http_port,
                      "ca_file": str(folder / "ca.pem"), "connect_to": connect_to}), flush=True)
    stdin = asyncio.StreamReader()
    await asyncio.get_running_loop().connect_read_pipe(lambda: asyncio.StreamReaderProtocol(stdin), sys.stdin)
    await stdin.read()
    await asyncio.gather(*(runner.cleanup() for runner in runners))


if __name__ == "__main__":
    sys.exit(asyncio.run(serve(Path(sys.argv[1]))) if len(sys.argv) == 2 else __doc__)
