"""The program behind scripts/demo: publishes a sample preset to a stand-in and checks every field and byte it stored.

Runs ``python3 -m skiffhost addresses``, ``login`` and ``publish`` as a user would. SKIFFPORT_TREE names the
built tree.
"""

import hashlib
import json
import math
import os
import random
import shlex
import signal
import struct
import subprocess
import sys
import tempfile
import zlib
from pathlib import Path
from typing import Any, Callable, Dict, List, Mapping, Sequence, Tuple

# Instead of this file's own folder.
sys.path[:1] = [os.environ["SKIFFPORT_TREE"], str(Path(__file__).resolve().parents[1] / "standin")]
from kestrelhub_standin.launch import PASSWORD, USER, Standin  # noqa: E402
from kestrelhub_standin.presets import FILE_PARTS  # noqa: E402

from skiffhost.presetfiles import FILES, SENT  # noqa: E402

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

Tone = Callable[[float], float]
CHANNELS: Dict[str, Tuple[int, int, int]] = {"rgb": (230, 230, 230), "r": (230, 60, 60), "g": (60, 200, 60),
                                             "b": (70, 90, 240)}


def png(width: int, rows: List[bytes]) -> bytes:
    """Returns a PNG file of 8-bit RGB rows."""

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    head = struct.pack(">IIBBBBB", width, len(rows), 8, 2, 0, 0, 0)
    pixels = zlib.compress(b"".join(b"\0" + row for row in rows), 6)
    return b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", head) + chunk(b"IDAT", pixels) + chunk(b"IEND", b"")


def photo(width: int, height: int, tones: Sequence[Tone]) -> bytes:
    """Returns a grainy evening sky, each channel put through its tone curve."""
    grain = random.Random(width)
    rows = []
    for y in range(height):
        row = bytearray(3 * width)
        noise = grain.randbytes(width)
        for channel, tone in enumerate(tones):
            level = 0.15 + 0.6 * y / height + 0.12 * math.sin(channel + 5 * y / height)
            row[channel::3] = noise.translate(bytes(round(255 * tone(level + value / 2550)) for value in range(256)))
        rows.append(bytes(row))
    return png(width, rows)


def graph(colour: Tuple[int, int, int], height_at: Callable[[float], float], filled: bool) -> bytes:
    """Returns a curve, or the area below it, on black."""
    size = 256
    heights = [height_at(x / (size - 1)) * (size - 1) for x in range(size)]
    return png(size, [
        b"".join(bytes(colour if (y <= top if filled else abs(y - top) < 2) else (12, 12, 12)) for top in heights)
        for y in reversed(range(size))])


def clamp(value: float) -> float:
    return min(max(value, 0.0), 1.0)


def hill(level: float) -> float:
    return math.exp(-((level - 0.5) / 0.2) ** 2)


def joined(first: Tone, second: Tone) -> Tone:
    return lambda level: second(first(level))


def sample(folder: Path) -> None:
    """Writes the thirteen files of a preset that warms a picture up."""
    curves: Dict[str, Tone] = {
        "rgb": lambda level: clamp(level + 0.08 * math.sin(2 * math.pi * (level - 0.5))),
        "r": lambda level: clamp(level) ** 0.85,
        "g": lambda level: clamp(level),
        "b": lambda level: clamp(level) ** 1.2,
    }
    after = [joined(curves["rgb"], curves[name]) for name in "rgb"]
    before = (clamp, clamp, clamp)
    pictures = {"cover_after": photo(1280, 854, after), "cover_before": photo(1280, 854, before),
                "thumbnail_after": photo(240, 160, after), "thumbnail_before": photo(240, 160, before)}
    for name, curve in curves.items():
        pictures["curve_" + name] = graph(CHANNELS[name], curve, filled=False)
        pictures["levels_" + name] = graph(CHANNELS[name], joined(curve, hill), filled=True)
    folder.mkdir(parents=True)
    points = {name: [round(curve(x / 16), 4) for x in range(17)] for name, curve in curves.items()}
    (folder / "effect.tint").write_text(json.dumps({"curves": points}, indent=1) + "\n", "utf-8")
    for name, data in pictures.items():
        (folder / f"{name}.png").write_bytes(data)
    size = sum(file.stat().st_size for file in folder.iterdir())
    print(f"{len(FILES)} files, {size:,} bytes")


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
