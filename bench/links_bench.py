"""Compares the module's uploads with curl's and with the floor of the pauses on shaped lines; see scripts/bench.

Each line joins two network namespaces of its own. The clients' runs alternate, each in its own process. Chunks and
pauses are the uploader's, so the module can't be faster than what the system's send buffer hides of the pauses.
"""

from __future__ import annotations

import argparse
import contextlib
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
from pathlib import Path
from statistics import median
from typing import Any, Callable, Iterator, NamedTuple, Sequence

from setting import BENCH, HOSTS, Setting, compile_program, prepare, warn_if_busy
from upload_bench import SMALL, SMALL_SIZES, FileSet, make_files, run_curl, run_module

MB = 1_000_000
SERVER = "10.99.0.2"


class Cell(NamedTuple):
    """A set of files on a line. A full run makes the set's number of rounds."""

    files: FileSet
    mbit: int
    delay: int  # of the round trip, in ms
    limit: float  # of the module's time, in curl's

    @property
    def queue(self) -> int:
        """KiB that the line holds back before it drops packets: what it carries in a round trip, as routers do."""
        return self.mbit * self.delay * 1000 // 8 // 1024


CELLS = [
    Cell(SMALL._replace(name="small, 10 Mbit/s", rounds=7), 10, 40, 1.16),
    Cell(FileSet("48 MB, 100 Mbit/s", 15, [4 * MB] * 9 + [2 * MB] * 4), 100, 20, 1.52),
    Cell(FileSet("1 GB, 1 Gbit/s", 5, [1000 * MB, *SMALL_SIZES[1:]]), 1000, 2, 1.42),
]


class BufferWatch:
    """Remembers the last size of the client's send buffer, as the kernel counts it, while the block runs."""

    def __init__(self, setting: Setting) -> None:
        self.command = [*setting.prefix, "ss", "-tmnH", "state", "established", "dst", SERVER]
        self.size = 0
        self.done = threading.Event()

    def __enter__(self) -> BufferWatch:
        self.thread = threading.Thread(target=self.watch)
        self.thread.start()
        return self

    def __exit__(self, *_: object) -> None:
        self.done.set()
        self.thread.join()

    def watch(self) -> None:
        while not self.done.wait(0.25):
            output = subprocess.run(self.command, stdout=subprocess.PIPE, text=True, check=True).stdout
            sizes = re.findall(r"\btb(\d+)", output)
            self.size = max(map(int, sizes), default=self.size)


def run_paced(setting: Setting, paths: list[str]) -> dict[str, Any]:
    """Runs one upload by the client that only keeps to chunks and pauses."""
    server = [HOSTS[0], setting.address, str(setting.secure), setting.environment["SSL_CERT_FILE"]]
    return json.loads(setting.run([sys.executable, "-B", str(BENCH / "paced.py"), *server, *paths])[0])


CLIENTS: dict[str, Callable[[Setting, list[str]], dict[str, Any]]] = {
    "curl": run_curl,
    "paced": run_paced,
    "module": run_module,
}


@contextlib.contextmanager
def open_line(program: str, cell: Cell) -> Iterator[list[list[str]]]:
    """Makes the line. Yields what runs a command on the client's and on the server's end."""
    command = [program, str(cell.mbit), str(cell.delay), str(cell.queue)]
    with subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as line:
        ends = [line.stdout.readline().strip() for _ in range(2)]
        if not all(ends):
            sys.exit("no line can be made")
        yield [["nsenter", f"--net={end}"] for end in ends]
        line.stdin.close()


def measure(cell: Cell, tree: Path, program: str, rounds: int, preload: str) -> dict[str, list[dict[str, float]]]:
    """Returns the figures of each client's runs."""
    runs: dict[str, list[dict[str, float]]] = {name: [] for name in CLIENTS}
    with open_line(program, cell) as (client, server):
        with prepare(tree, address=SERVER, client=client, server=server) as setting:
            if preload:
                setting.environment["LD_PRELOAD"] = preload
            paths = make_files(setting, cell.files)
            for number in range(rounds):
                for name in list(CLIENTS)[number % 3 :] + list(CLIENTS)[: number % 3]:
                    with BufferWatch(setting) as watch:
                        run = CLIENTS[name](setting, paths)
                    runs[name].append({**run, "buffer": watch.size})
    return runs


def report(cell: Cell, runs: dict[str, list[dict[str, float]]]) -> bool:
    """Prints a line for each client. Returns whether the module keeps to its limit."""
    reference = median(run["wall"] for run in runs["curl"])
    for name, made in runs.items():
        walls = [run["wall"] for run in made]
        middle = median(walls)
        spread = max(abs(wall - middle) for wall in walls) / middle * 100
        print(
            f"{cell.files.name:18} {name:7} {len(made):3} {middle:8.2f} {spread:6.1f}% {middle / reference:8.3f} "
            f"{median(run['buffer'] for run in made) / 1000:9.0f} {median(run['cpu'] for run in made):8.3f}",
            flush=True,
        )
    ratio = median(run["wall"] for run in runs["module"]) / reference
    verdict = "holds" if ratio <= cell.limit else "FAILS"
    print(f"{cell.files.name:18} {ratio:.3f} of {cell.limit}   {verdict}", flush=True)
    return ratio <= cell.limit


def main(arguments: Sequence[str] | None = None) -> int:
    """Runs everything. Returns 1 if a target does not hold."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True, help="the build folder to measure")
    parser.add_argument("--quick", action="store_true", help="one round")
    parser.add_argument("--only", default="", metavar="TEXT", help="only the lines whose name contains this")
    parser.add_argument("--stock", action="store_true", help="as if net.core.wmem_max were 212,992, the default")
    options = parser.parse_args(arguments)
    if os.geteuid() != 0 or not os.path.exists("/dev/net/tun"):
        print("SKIPPED: lines need root and /dev/net/tun")
        return 0
    warn_if_busy()
    print("line               client    n        s  spread  to curl  buffer KB   CPU s")
    holds = True
    with tempfile.TemporaryDirectory(prefix="skiffport-bench-") as name:
        program = compile_program(Path(name), "link")
        shared = ["-shared", "-fPIC"]
        preload = compile_program(Path(name), "cap_buffer", *shared) if options.stock else ""
        for cell in CELLS:
            if options.only in cell.files.name:
                rounds = 1 if options.quick else cell.files.rounds
                tree = options.build.resolve() / "python"
                holds &= report(cell, measure(cell, tree, program, rounds, preload))
    return 0 if holds else 1


if __name__ == "__main__":
    sys.exit(main())
