"""Interprets the end of an upload. Knows the UploadComplete event and nothing else of the module."""

from __future__ import annotations

from typing import NamedTuple

from .outcome import EXIT_CANCELLED, EXIT_NO_ANSWER, EXIT_REFUSED, Failure


class Completion(NamedTuple):
    """The arguments that follow the name of an UploadComplete event."""

    percent: int
    accepted: int
    address: str
    error: str
    thread: int
    upload: int


def address_of(completion: Completion, cancelled: bool) -> str:
    """Returns the published item's address. Raises Failure unless the service accepted the upload."""
    if completion.accepted and (completion.address or not completion.error):
        return completion.address
    if completion.error:
        raise Failure(EXIT_REFUSED, completion.error)
    if cancelled:
        raise Failure(EXIT_CANCELLED, "cancelled")
    raise Failure(EXIT_NO_ANSWER, "no accepted answer")
