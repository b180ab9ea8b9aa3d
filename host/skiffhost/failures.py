"""The helpers for hosts as the command line calls them: what they raise becomes a Failure with an exit code."""

from __future__ import annotations

from typing import List, Mapping, Optional

from . import completion, presetfiles
from .outcome import EXIT_CANCELLED, EXIT_NO_ANSWER, EXIT_REFUSED, EXIT_USAGE, Failure

EXIT_CODES = {
    completion.REFUSED: EXIT_REFUSED,
    completion.CANCELLED: EXIT_CANCELLED,
    completion.FAILED: EXIT_NO_ANSWER,
}


def find_files(folder: Optional[str], given: Mapping[str, Optional[str]]) -> List[str]:
    """Returns the paths of a preset's files. Raises Failure."""
    try:
        return presetfiles.find_files(folder, {name: given.get(name) for name in presetfiles.FILES})
    except presetfiles.PresetFilesError as error:
        raise Failure(EXIT_USAGE, str(error)) from error


def address_of(ended: completion.Completion, cancelled: bool) -> str:
    """Returns the published item's address. Raises Failure unless the service accepted the upload."""
    try:
        return completion.address_of(ended, cancelled)
    except completion.NotPublished as error:
        raise Failure(EXIT_CODES[error.outcome], str(error)) from error
