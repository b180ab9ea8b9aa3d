"""Finds the thirteen files of a preset and checks them before anything is sent. Uses only the file system."""

from __future__ import annotations

import os
import unicodedata
from typing import Dict, List, Mapping, Optional, Union

__all__ = ["FILES", "LARGEST_UPLOAD", "SENT", "PresetFilesError", "find_files"]

Path = Union[str, "os.PathLike[str]"]

# In the order of an uploader's arguments; also the names of the files in a preset's folder, without the extension.
FILES = ("effect", "cover_after", "cover_before", "thumbnail_after", "thumbnail_before", "curve_rgb", "curve_r",
         "curve_g", "curve_b", "levels_rgb", "levels_r", "levels_g", "levels_b")
# In the order in which they are sent; the cover goes out twice.
SENT = ("effect", "cover_after", *FILES[1:])

# A request's length is a 32-bit number, and the form around the files takes a little of it.
LARGEST_UPLOAD = 2**32 - 2**20


class PresetFilesError(ValueError):
    """A preset's files are not as they must be. ``faults`` lists everything that was found, in words."""

    def __init__(self, faults: List[str]) -> None:
        super().__init__("; ".join(faults))
        self.faults = faults


def find_files(folder: Optional[Path] = None, given: Optional[Mapping[str, Optional[Path]]] = None) -> List[str]:
    """Returns the thirteen paths in the order of FILES: the given ones, by name, and the others from the folder.

    In the folder, a file's name without its extension is one of FILES. Raises PresetFilesError.
    """
    entries = _by_stem(os.fspath(folder)) if folder is not None else {}
    faults = [f"no such file of a preset: {name}" for name in given or {} if name not in FILES]
    paths: List[str] = []
    missing: List[str] = []
    for name in FILES:
        path = (given or {}).get(name)
        found = [os.fspath(path)] if path is not None else entries.get(name, [])
        if len(found) == 1:
            paths.append(found[0])
            faults += _faults_of(found[0])
        elif found:
            candidates = ", ".join(sorted(os.path.basename(path) for path in found))
            faults.append(f"several files could be {name}: {candidates}")
        else:
            missing.append(name)
    if missing:
        where = f" in {os.fspath(folder)}" if folder is not None else ""
        faults.append(f"no file {', '.join(missing)}{where}")
    if not faults and sum(os.path.getsize(paths[FILES.index(name)]) for name in SENT) > LARGEST_UPLOAD:
        faults.append("the files exceed the upload limit of 4 GiB in total")
    if faults:
        raise PresetFilesError(faults)
    return paths


def _by_stem(folder: str) -> Dict[str, List[str]]:
    """Returns the folder's entries by their names without the extension."""
    entries: Dict[str, List[str]] = {}
    try:
        for entry in os.listdir(folder):
            entries.setdefault(os.path.splitext(entry)[0], []).append(os.path.join(folder, entry))
    except OSError as error:
        raise PresetFilesError([f"cannot read the folder {folder}: {error.strerror}"]) from error
    return entries


def _faults_of(path: str) -> List[str]:
    if any(unicodedata.category(character) == "Cc" for character in path):
        return [f"control character in the file name {path!r}"]
    if not os.path.isfile(path):
        return [f"not a file: {path}" if os.path.exists(path) else f"no such file: {path}"]
    if not os.access(path, os.R_OK):
        return [f"not readable: {path}"]
    return []
