#!/usr/bin/python3
"""Publishes a sample preset to a stand-in of the service and checks every field and byte that it stored.

Runs ``python3 -m skiffhost addresses``, ``login`` and ``publish`` as a user would. SKIFFPORT_TREE names the built
tree. scripts/demo starts it.
"""

import hashlib
import json
import math
import os
import shlex
import signal
import struct
import subprocess
import sys
import tempfile
import zlib
from pathlib import Path
from typing import Any, Callable, Dict, List, Mapping, Sequence

# Instead of this file's own folder.
sys.path[:1] = [os.environ["SKIFFPORT_TREE"], str(Path(__file__).resolve().parents[1] / "standin")]
from kestrelhub_standin.launch import PASSWORD, USER, Standin  # noqa: E402
from kestrelhub_standin.presets import FILE_PARTS  # noqa: E402

from skiffhost.presetfiles import SENT  # noqa: E402

PRODUCT = {"version_name": "3.2.1", "version_type": "Retail", "uuid": "4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10"}
FIELDS = {
    "title": "Abendröte über dem Hafen 🌇",
    "category": "2",
    "tags": "sunset,harbour,warm",
    "description": 'Warms the lights & lifts the "evening" tones; 100% by hand.',
    "collections": "Evenings",
    "pip_type": "colour",
    "template_key": "9C1A52F0-7B0E-4C55-8C39-6A1E7A4B9D21",
}
FORM_NAMES = {"pip_type": "PIPtype", "template_key": "templateKey", "version_type": "versionType",
              "version_name": "versionInfo"}  # where they differ from the option's
FIXED_FIELDS = {"AP": "TWR", "AspectRatio": "1:1", "productName": "Quillon Tintwright", "templatetype": "PRESET",
                "Version": PRODUCT["version_name"]}

CURVES: Dict[str, Callable[[float], float]] = {  # of a preset that warms a picture up; levels go from 0 to 1
    "rgb": lambda level: level + 0.08 * math.sin(2 * math.pi * (level - 0.5)),
    "r": lambda level: level ** 0.85,
    "g": lambda level: level,
    "b": lambda level: level ** 1.2,
}


def png(width: int, rows: Sequence[bytes]) -> bytes:
    """Returns a PNG file of rows of 8-bit grey levels, or of RGB colours if a row has three bytes for each column."""
    chunks = [(b"IHDR", struct.pack(">IIBBBBB", width, len(rows), 8, 2 if len(rows[0]) > width else 0, 0, 0, 0)),
              (b"IDAT", zlib.compress(b"".join(b"\0" + row for row in rows), 0)), (b"IEND", b"")]
    return b"\x89PNG\r\n\x1a\n" + b"".join(struct.pack(">I", len(data)) + kind + data
                                         + struct.pack(">I", zlib.crc32(kind + data)) for kind, data in chunks)


def sky(width: int, height: int, curves: Sequence[str]) -> bytes:
    """Returns an evening sky, each of its channels put through the common curve and one of its own."""
    levels = [[0.15 + 0.6 * y / height + 0.12 * math.sin(channel + 5 * y / height) for channel in range(3)]
              for y in range(height)]
    if curves:
        levels = [[CURVES[name](CURVES["rgb"](level)) for name, level in zip(curves, row)] for row in levels]
    return png(width, [bytes(round(255 * level) for level in row) * width for row in levels])


def graph(curve: Callable[[float], float], filled: bool) -> bytes:
    """Returns a curve in white on black, or the levels that it makes of a bell curve."""
    heights = [255 * (math.exp(-((curve(x / 255) - 0.5) / 0.2) ** 2) if filled else curve(x / 255)) for x in range(256)]
    return png(256, [bytes(255 * (y <= height if filled else abs(y - height) < 2) for height in heights)
                     for y in reversed(range(256))])


def sample(folder: Path) -> None:
    """Writes the thirteen files of a preset."""
    points = {name: [round(curve(x / 16), 4) for x in range(17)] for name, curve in CURVES.items()}
    files = {"effect.tint": json.dumps({"curves": points}, indent=1).encode()}
    for when, curves in (("after", "rgb"), ("before", "")):
        files[f"cover_{when}.png"], files[f"thumbnail_{when}.png"] = sky(1280, 854, curves), sky(240, 160, curves)
    for name, curve in CURVES.items():
        files[f"curve_{name}.png"], files[f"levels_{name}.png"] = graph(curve, False), graph(curve, True)
    folder.mkdir()
    for file, data in files.items():
        (folder / file).write_bytes(data)
    print(f"{len(files)} files, {sum(map(len, files.values())):,} bytes")


def expected_fields() -> Dict[str, str]:
    """Returns what the form holds besides the session's token."""
    return {**{FORM_NAMES.get(name, name): value for name, value in {**PRODUCT, **FIELDS}.items()}, **FIXED_FIELDS}


def expected_files(folder: Path) -> List[Dict[str, Any]]:
    """Returns the fourteen file parts in their order."""
    files = []
    for part, stem in zip(FILE_PARTS, SENT):
        (path,) = folder.glob(stem + ".*")
        data = path.read_bytes()
        files.append({"name": part, "filename": str(path), "content_type": "application/octet-stream",
                      "size": len(data), "sha256": hashlib.sha256(data).hexdigest()})
    return files


def check(record: Dict[str, Any], folder: Path) -> int:
    """Compares what was stored with what was sent, and prints it. Returns the number of differences."""
    differences = 0

    def compare(what: str, stored: Any, expected: Any) -> None:
        nonlocal differences
        same = stored == expected
        differences += not same
        print(f"  {'same ' if same else 'OTHER'}  {what}" + ("" if same else f": stored {stored!r}, sent {expected!r}"))

    print("fields")
    compare("member", record["member"], USER)
    token = record["fields"].pop("token", "")
    compare("token: of that member's session", bool(token), True)
    expected = expected_fields()
    compare("names of the fields", sorted(record["fields"]), sorted(expected))
    for name, value in expected.items():
        compare(f"{name}: {value}", record["fields"].get(name), value)
    print("files")
    files = expected_files(folder)
    compare(f"names of the {len(files)} parts", [file["name"] for file in record["files"]], list(FILE_PARTS))
    for stored, file in zip(record["files"], files):
        compare(f"{file['name']:9} {file['size']:9,} bytes  {file['sha256'][:16]}...",
                {key: stored[key] for key in file}, file)
    return differences


def options(values: Mapping[str, str]) -> List[str]:
    return [word for name, value in values.items() for word in ("--" + name.replace("_", "-"), value)]


def run(environment: Dict[str, str], *arguments: str) -> str:
    """Prints the command as a user would type it and runs it. Returns its output, which is printed too."""
    print("\n$ " + shlex.join(["python3", "-m", "skiffhost", *arguments]), flush=True)
    output = subprocess.run([sys.executable, "-m", "skiffhost", *arguments], env=environment, check=True,
                            stdout=subprocess.PIPE).stdout.decode()
    print(output, end="", flush=True)
    return output


def demonstrate(standin: Standin, folder: Path) -> int:
    """Returns the number of differences between what was sent and what was stored."""
    process, secure, plain = (standin.ready[name] for name in ("pid", "https_port", "http_port"))
    print(f"Stand-in of the service: process {process}, ports {secure} (TLS) and {plain}\n\nSample preset: ", end="")
    sample(folder)
    environment = {**standin.env, "SKIFFHOST_PASSWORD": PASSWORD}
    product = options(PRODUCT)
    run(environment, *product, "addresses")
    run(environment, *product, "login", USER)
    address = run(environment, *product, "publish", USER, str(folder), *options(FIELDS)).split()[-1]
    print("\nWhat the stand-in stored")
    (record,) = standin.presets()
    if record["address"] != address:
        raise SystemExit(f"the stand-in stored no preset with the address {address!r}")
    differences = check(record, folder)
    if not differences:
        print(f"\nEverything that was sent was stored: {address}")
    return differences


def main() -> int:
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))  # runs the cleanup
    try:
        with tempfile.TemporaryDirectory() as work, Standin() as standin:
            return 1 if demonstrate(standin, Path(work, "preset")) else 0
    except KeyboardInterrupt:
        return 128 + signal.SIGINT
    except subprocess.CalledProcessError as error:  # the command has said why
        return error.returncode


if __name__ == "__main__":
    sys.exit(main())
