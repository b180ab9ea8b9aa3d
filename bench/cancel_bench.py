"""Measures what a cancel costs: the time from CancelUpload to the completion event, and that of deleting an uploader
whose upload runs, in each phase of an upload against a peer that stays silent or slow there.

See scripts/bench. Each sample is a process with one upload and one peer. All samples of the silent phases run at once,
since they wait for a time limit; those of a fast upload follow, one at a time.
"""

from __future__ import annotations

import argparse
import os
import random
import sys
import tempfile
import time
from pathlib import Path
from statistics import median
from typing import Any

ROOT = Path(__file__).resolve().parents[1]
WAYS = ("cancel", "delete")
SLOWEST_CALL = 0.01  # seconds that CancelUpload itself may take


def sample(place: Any, paths: list[str], way: str, delay: float) -> tuple[float, float]:
    """Ends one upload. Returns the seconds that the call took, and those until the upload was over."""
    import fixtures
    import phases
    from publication import Publication
    from skiffhost import loop

    publication = Publication(place.host)
    assert publication.start(paths)
    phase = phases.PHASES[place.host.split(".")[0]]
    fixtures.wait_until(lambda: loop.pump() < 0 or phase.is_reached(place), place.host)
    time.sleep(delay)
    begin = time.perf_counter()
    if way == "delete":
        publication.uploader = None
        return time.perf_counter() - begin, time.perf_counter() - begin
    publication.uploader.CancelUpload()
    called = time.perf_counter() - begin
    publication.pump_until(lambda: publication.events and publication.events[-1][0] == "UploadComplete", 90)
    return called, time.perf_counter() - begin


def start_sample(network: Any, folder: Path, name: str, way: str, delay: float) -> int:
    """Forks the process of one sample. Returns the descriptor that its result can be read from."""
    import fixtures
    import phases
    from skiffhost.presetfiles import FILES

    place = phases.open_place(network, name)
    preset = folder / name
    if not preset.exists():
        # A fast upload takes some 4 s if it is not cancelled, with so many chunks and their pauses.
        sizes = dict.fromkeys(FILES, 1_000_000) if name == "fast" else {"effect": phases.PHASES[name].effect}
        fixtures.write_preset(preset, sizes)
    reader, writer = os.pipe()
    if os.fork() == 0:
        try:
            result = sample(place, [str(preset / f"{file}.bin") for file in FILES], way, delay)
            os.write(writer, " ".join(map(str, result)).encode())
        finally:
            os._exit(0)
    os.close(writer)
    return reader


def finish_sample(reader: int) -> tuple[float, float]:
    """Returns the sample's result; infinity for one that failed."""
    with open(reader, encoding="ascii") as result:
        words = result.read().split()
    os.wait()
    return (float(words[0]), float(words[1])) if words else (float("inf"), float("inf"))


def main() -> int:
    """Runs everything. Returns 1 if an upload ended later than its limits allow."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True, help="the build folder to measure")
    parser.add_argument("--quick", action="store_true", help="fewer samples")
    parser.add_argument("--seed", type=int, default=random.SystemRandom().randrange(10**9))
    options = parser.parse_args()
    tree = str(options.build.resolve() / "python")
    os.environ["SKIFFPORT_TREE"] = tree
    sys.path[:0] = [tree, *(str(ROOT / part) for part in ("tests/support", "tests/lifecycle", "standin"))]
    import phases
    from scripted import Network

    dice = random.Random(options.seed)
    silent, fast = [name for name in phases.PHASES if name != "fast"], ["fast"]
    results: dict[tuple[str, str], list[tuple[float, float]]] = {}
    with tempfile.TemporaryDirectory() as folder, Network() as network:
        for names, count, at_once in ((silent, 2 if options.quick else 7, 1000), (fast, 3 if options.quick else 15, 2)):
            left = [(name, way) for _ in range(count) for name in names for way in WAYS]
            while left:
                batch, left = left[:at_once], left[at_once:]
                readers = [start_sample(network, Path(folder), *key, dice.random() * 0.8) for key in batch]
                for key, reader in zip(batch, readers):
                    results.setdefault(key, []).append(finish_sample(reader))
    print(f"seed {options.seed}\nphase    way      samples  median s   worst s  limit s")
    holds = True
    for (name, way), found in sorted(results.items(), key=lambda item: list(phases.PHASES).index(item[0][0])):
        whole = [seconds for _, seconds in found]
        kept = max(whole) <= phases.PHASES[name].seconds
        holds = holds and kept
        print(f"{name:8} {way:8} {len(found):7} {median(whole):9.3f} {max(whole):9.3f} "
              f"{phases.PHASES[name].seconds:8.0f}   {'holds' if kept else 'FAILS'}")
    slowest = max(call for (_, way), found in results.items() if way == "cancel" for call, _ in found)
    print(f"CancelUpload itself: {slowest * 1e6:.0f} us at most")
    return 0 if holds and slowest <= SLOWEST_CALL else 1


if __name__ == "__main__":
    sys.exit(main())
