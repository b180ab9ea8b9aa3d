"""The parts of scripts/demo that are no commands: makes a sample preset, and checks what the stand-in stored of it.

``sample FOLDER`` writes the effect file and twelve pictures, the same bytes each time. ``check`` takes the publish
command's own options and compares fields, sizes and SHA-256 with the stand-in's record. Standard library only.
"""

import argparse
import hashlib
import json
import math
import random
import struct
import sys
import urllib.request
import zlib
from pathlib import Path
from typing import Any, Callable, Dict, List, Sequence, Tuple

FILES = ("effect", "cover_after", "cover_before", "thumbnail_after", "thumbnail_before", "curve_rgb", "curve_r",
         "curve_g", "curve_b", "levels_rgb", "levels_r", "levels_g", "levels_b")
PARTS = (("PIPfile", "effect"), ("PIPimg", "cover_after")) + tuple(
    (f"PIPimg_{number}", name) for number, name in enumerate(FILES[1:], 1))
FIELD_OPTIONS = {"title": "title", "category": "category", "tags": "tags", "description": "description",
                 "collections": "collections", "pip_type": "PIPtype", "template_key": "templateKey",
                 "version_type": "versionType", "uuid": "uuid"}
FIXED_FIELDS = {"AP": "TWR", "AspectRatio": "1:1", "productName": "Quillon Tintwright", "templatetype": "PRESET"}

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


def expected_fields(arguments: argparse.Namespace) -> Dict[str, str]:
    """What the form holds besides the session's token."""
    fields = {field: getattr(arguments, option) for option, field in FIELD_OPTIONS.items()}
    return {**fields, **FIXED_FIELDS, "Version": arguments.version_name, "versionInfo": arguments.version_name}


def expected_files(folder: Path) -> List[Dict[str, Any]]:
    """The fourteen parts in their order; the cover goes out twice."""
    files = []
    for part, stem in PARTS:
        (path,) = folder.glob(stem + ".*")
        data = path.read_bytes()
        files.append({"name": part, "filename": str(path), "content_type": "application/octet-stream",
                      "size": len(data), "sha256": hashlib.sha256(data).hexdigest()})
    return files


def stored_preset(port: int, address: str) -> Dict[str, Any]:
    """Returns the stand-in's record of the preset with that address."""
    opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
    with opener.open(f"http://127.0.0.1:{port}/standin/presets", timeout=30) as reply:
        records = [record for record in json.load(reply) if record["address"] == address]
    if len(records) != 1:
        raise SystemExit(f"the stand-in stored {len(records)} presets under {address!r}")
    return records[0]


def check(arguments: argparse.Namespace) -> int:
    """Compares and prints. Returns the number of differences."""
    record = stored_preset(arguments.port, arguments.address)
    differences = 0

    def compare(what: str, stored: Any, expected: Any) -> None:
        nonlocal differences
        same = stored == expected
        differences += not same
        print(f"  {'same ' if same else 'OTHER'}  {what}" + ("" if same else f": stored {stored!r}, sent {expected!r}"))

    print("fields")
    compare("member", record["member"], arguments.user)
    token = record["fields"].pop("token", "")
    compare("token: of that member's session", bool(token), True)
    expected = expected_fields(arguments)
    compare("names of the fields", sorted(record["fields"]), sorted(expected))
    for name, value in expected.items():
        compare(f"{name}: {value}", record["fields"].get(name), value)
    print("files")
    files = expected_files(arguments.folder)
    compare(f"names of the {len(files)} parts", [file["name"] for file in record["files"]], [name for name, _ in PARTS])
    for stored, file in zip(record["files"], files):
        compare(f"{file['name']:9} {file['size']:9,} bytes  {file['sha256'][:16]}...",
                {key: stored[key] for key in file}, file)
    return differences


def main() -> int:
    parser = argparse.ArgumentParser(prog="demo.py", description=__doc__)
    commands = parser.add_subparsers(dest="command", required=True)
    commands.add_parser("sample").add_argument("folder", type=Path)
    checking = commands.add_parser("check")
    checking.add_argument("user")
    checking.add_argument("folder", type=Path)
    for option in ("address", "version_name", *FIELD_OPTIONS):
        checking.add_argument("--" + option.replace("_", "-"), required=True)
    checking.add_argument("--port", type=int, required=True)
    arguments = parser.parse_args()
    if arguments.command == "sample":
        sample(arguments.folder)
        return 0
    return 1 if check(arguments) else 0


if __name__ == "__main__":
    sys.exit(main())
