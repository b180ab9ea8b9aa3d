"""The published presets on disk: one folder per preset, with its files under their form names and preset.json.

A preset that is still arriving lives in a folder with a leading dot and becomes visible in one rename.
"""

import contextlib
import hashlib
import json
import secrets
import shutil
from pathlib import Path
from typing import Any, AsyncIterator, Dict, Iterator, List, Optional

Record = Dict[str, Any]

# The names of a form's file parts, in their order.
FILE_PARTS = ("PIPfile", "PIPimg") + tuple(f"PIPimg_{number}" for number in range(1, 13))


class PresetStore:
    """The published presets, in a folder that it makes."""

    def __init__(self, folder: Path) -> None:
        folder.mkdir()
        self._folder = folder
        self._records: Dict[str, Record] = {}

    def all(self) -> List[Record]:
        """Returns the records, oldest first."""
        return list(self._records.values())

    def get(self, preset_id: str) -> Optional[Record]:
        return self._records.get(preset_id)

    def find(self, guid: str) -> Optional[Record]:
        """Returns the latest preset with that id or template key, regardless of case."""
        for record in reversed(self.all()):
            if guid.lower() in (record["id"], record["fields"]["templateKey"].lower()):
                return record
        return None

    @contextlib.contextmanager
    def incoming(self) -> Iterator["IncomingPreset"]:
        """A preset that is being received. Unless it is published by the end of the block, it is removed."""
        preset = IncomingPreset(self._folder)
        try:
            yield preset
            if preset.record is not None:
                preset.folder.rename(self._folder / preset.id)
                self._records[preset.id] = preset.record
        finally:
            shutil.rmtree(preset.folder, ignore_errors=True)


class IncomingPreset:
    """One preset while it arrives: files are written as they come, the record last."""

    def __init__(self, store_folder: Path) -> None:
        self.id = secrets.token_hex(8)
        self.folder = store_folder / ("." + self.id)
        self.folder.mkdir()
        self.files: List[Record] = []
        self.record: Optional[Record] = None

    async def add_file(self, name: str, details: Record, chunks: AsyncIterator[bytes]) -> None:
        """Streams one file to disk and records its size and SHA-256 along with the details."""
        size = 0
        digest = hashlib.sha256()
        with open(self.folder / name, "xb") as file:
            async for chunk in chunks:
                file.write(chunk)
                digest.update(chunk)
                size += len(chunk)
        self.files.append({"name": name, **details, "size": size, "sha256": digest.hexdigest()})

    def publish(self, details: Record) -> Record:
        """Writes the record; the preset becomes visible when the store's block ends."""
        self.record = {"id": self.id, **details, "files": self.files}
        (self.folder / "preset.json").write_text(json.dumps(self.record, indent=2), "utf-8")
        return self.record
