"""What the benchmarks share: a folder, certificates, the peer in its own process, and how to run a client."""

from __future__ import annotations

import contextlib
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import Iterator, NamedTuple, Sequence

import trustme

BENCH = Path(__file__).resolve().parent
HOSTS = ["www.kestrelhub.example", "detect.kestrelhub.example"]


class Setting(NamedTuple):
    """What a run needs: files, and how to reach and trust the peer."""

    folder: Path
    address: str
    secure: int  # the peer's ports
    plain: int
    environment: dict[str, str]
    peer: int  # the peer's process identifier
    prefix: Sequence[str] = ()  # of every client's command

    def run(self, command: Sequence[str], **variables: str) -> tuple[str, float, tuple[float, float]]:
        """Runs a client to its end. Returns its output, wall seconds, and CPU seconds in user and system mode."""
        start = time.perf_counter()
        process = subprocess.Popen(
            [*self.prefix, *command],
            stdout=subprocess.PIPE,
            text=True,
            env={**self.environment, **variables},
            cwd=self.folder,
        )
        output = process.stdout.read()
        _, status, usage = os.wait4(process.pid, 0)
        process.returncode = os.waitstatus_to_exitcode(status)
        process.stdout.close()
        if process.returncode:
            sys.exit(f"{command[0]} failed with {process.returncode}: {output}")
        return output, time.perf_counter() - start, (usage.ru_utime, usage.ru_stime)


def compile_program(folder: Path, name: str, *arguments: str) -> str:
    """Compiles bench/NAME.cpp with further arguments, which are libraries. Returns the program's path."""
    program = str(folder / name)
    command = ["g++", "-std=c++20", "-O2", f"-I{BENCH.parent}", str(BENCH / f"{name}.cpp"), "-o", program, *arguments]
    subprocess.run(command, check=True)
    return program


def move_threads(process: int, processors: Sequence[int]) -> None:
    """Lets a process's threads, and those that they start, run on these processors only."""
    for thread in os.listdir(f"/proc/{process}/task"):
        os.sched_setaffinity(int(thread), processors)


@contextlib.contextmanager
def keep_apart(setting: Setting) -> Iterator[Setting]:
    """Gives the peer a processor of its own for the duration of the block. Yields the setting for the clients.

    A real peer takes no time from a client. Here the system may put it on the processor where the client has just woken
    up from a pause, and leave it there while it has an idle one.
    """
    processors = sorted(os.sched_getaffinity(0))
    *others, last = map(str, processors)
    if not others:
        yield setting
        return
    move_threads(setting.peer, [int(last)])
    try:
        yield setting._replace(prefix=["taskset", "--cpu-list", ",".join(others), *setting.prefix])
    finally:
        move_threads(setting.peer, processors)


def warn_if_busy() -> None:
    if os.getloadavg()[0] > 0.5 * (os.cpu_count() or 1):
        print(f"The machine is busy (load {os.getloadavg()[0]:.1f}): these figures say little.\n")


@contextlib.contextmanager
def prepare(
    tree: Path,
    replies: Sequence[tuple[str, str]] = (),
    address: str = "127.0.0.1",
    client: Sequence[str] = (),
    server: Sequence[str] = (),
) -> Iterator[Setting]:
    """Makes a folder and certificates, and runs the peer for the duration of the block.

    The peer sends the replies: pairs of the start of a request line and a body. ``client`` and ``server`` are put in
    front of the commands of each side.
    """
    with tempfile.TemporaryDirectory(prefix="skiffport-bench-") as name:
        folder = Path(name)
        authority = trustme.CA()
        authority.cert_pem.write_to_path(folder / "root.pem")
        authority.issue_cert(*HOSTS, address).private_key_and_cert_chain_pem.write_to_path(folder / "peer.pem")
        (folder / "replies").write_text("".join(f"{len(start)} {len(body)} {start}{body}" for start, body in replies))
        sink = compile_program(folder, "sink", "-lssl", "-lcrypto")
        peer = subprocess.Popen(
            [*server, sink, address, str(folder / "peer.pem"), str(folder / "replies")],
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
        )
        try:
            secure, plain = int(peer.stdout.readline()), int(peer.stdout.readline())
            environment = {key: value for key, value in os.environ.items() if not key.lower().endswith("_proxy")}
            rules = [f"{host}:{port}:{address}:{own}" for host in HOSTS for port, own in ((443, secure), (80, plain))]
            environment.update(
                SKIFFPORT_TREE=str(tree),
                SKIFFPORT_REGISTRY=str(folder / "no-registry"),
                SKIFFPORT_CONNECT_TO=",".join(rules),
                SSL_CERT_FILE=str(folder / "root.pem"),
            )
            yield Setting(folder, address, secure, plain, environment, peer.pid, client)
        finally:
            peer.stdin.close()
            peer.wait()
            peer.stdout.close()
