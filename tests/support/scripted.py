"""Directs the service's hosts to scripted, misbehaving peers for the duration of a test."""

import atexit
import contextlib
import fcntl
import functools
import os
import pathlib
import subprocess
import tempfile
from typing import Any, Iterator, List, NamedTuple
from unittest import mock

from kestrelhub_standin import launch

DETECT, DEFAULT, STAGE = "detect.kestrelhub.example", "www.kestrelhub.example", "stage.kestrelhub.example"
COMMAND = (launch.PYTHON, str(pathlib.Path(__file__).with_name("peer.py")))


@functools.lru_cache(maxsize=None)
def certificates() -> str:
    """Returns the folder of the peers' certificates, which lives as long as this process."""
    folder = tempfile.TemporaryDirectory()
    atexit.register(folder.cleanup)
    # in its own process, since making certificates would show up in this one's leak check
    subprocess.run([*COMMAND, "certificates", "--certs", folder.name], check=True, env=launch.standin_environment())
    return folder.name


class Peer(NamedTuple):
    """A peer that runs as a child process, and the file to which it writes what it receives."""

    process: "subprocess.Popen[bytes]"
    port: int
    record: pathlib.Path

    def received(self) -> bytes:
        return self.record.read_bytes()


class Network(contextlib.ExitStack):
    """Where hosts lead. All peers share one folder of certificates, whose authority every request trusts."""

    def __enter__(self) -> "Network":
        self.rules: List[str] = []
        self.certificates = certificates()
        self.folder = self.enter_context(tempfile.TemporaryDirectory())
        env = {**launch.clean_environment(), "SSL_CERT_FILE": os.path.join(self.certificates, "ca.pem")}
        self.enter_context(mock.patch.dict(os.environ, env, clear=True))
        return self

    def play(self, host: str, scenario: str, *options: str, tls: str = "good") -> Peer:
        """Directs a host's connections on port 443, or 80 with tls="", to a new scripted peer."""
        descriptor, record = tempfile.mkstemp(dir=self.folder)
        os.close(descriptor)
        process = subprocess.Popen([*COMMAND, scenario, "--record", record, "--certs", self.certificates, *options,
                                    *(["--tls", tls] if tls else [])], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   env=launch.standin_environment())
        self.callback(process.communicate)
        port = int(process.stdout.readline().split()[1])
        self.lead(f"{host}:{443 if tls else 80}:127.0.0.1:{port}")
        return Peer(process, port, pathlib.Path(record))

    def reply(self, host: str, body: str, *options: str, tls: str = "good") -> Peer:
        """Does the same with a peer that answers every request with this body."""
        return self.play(host, "reply", "--body", body, *options, tls=tls)

    def lead(self, rule: str) -> None:
        """Adds a rule, which overrides earlier ones."""
        self.rules.insert(0, rule)
        os.environ["SKIFFPORT_CONNECT_TO"] = ",".join(self.rules)


@contextlib.contextmanager
def browser() -> Iterator[Any]:
    """Installs a browser that records what it opens, unless it inherits a descriptor. Yields what reads the record."""
    with tempfile.TemporaryDirectory() as folder, open(os.devnull) as null:
        opened, opener = pathlib.Path(folder, "opened"), pathlib.Path(folder, "xdg-open")
        inheritable = fcntl.fcntl(null, fcntl.F_DUPFD, 100)
        opener.write_text(f'#!/bin/sh\n[ -e /proc/$$/fd/{inheritable} ] || printf "%s\\n" "$@" >{opened}\n')
        opener.chmod(0o755)
        with mock.patch.dict(os.environ, {"PATH": f"{folder}:{os.environ['PATH']}"}):
            yield lambda: opened.read_text() if opened.exists() else ""
        os.close(inheritable)
