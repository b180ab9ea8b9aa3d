"""Interprets the end of an upload. Knows the UploadComplete event and nothing else of the module."""

from __future__ import annotations

from typing import NamedTuple

__all__ = ["CANCELLED", "FAILED", "PUBLISHED", "REFUSED", "Completion", "NotPublished", "address_of"]

# How an upload can end.
PUBLISHED, REFUSED, CANCELLED, FAILED = "published", "refused", "cancelled", "failed"

NO_ANSWER = "the network or a file failed before the service answered, or it refused without a reason"


class Completion(NamedTuple):
    """The arguments that follow the name of an UploadComplete event: ``Completion(*values)``."""

    percent: int
    accepted: int
    address: str
    error: str
    thread: int
    upload: int

    def outcome(self, cancelled: bool = False) -> str:
        """Returns PUBLISHED, REFUSED, CANCELLED or FAILED.

        ``cancelled`` says whether you called CancelUpload: the event of a cancelled upload looks like that of one that
        the network or a file ended.
        """
        if self.accepted and (self.address or not self.error):
            return PUBLISHED
        if self.error:
            return REFUSED
        return CANCELLED if cancelled else FAILED

    def problem(self, cancelled: bool = False) -> str:
        """Returns why the preset was not published, in words: for a refusal the service's. Empty if it was."""
        texts = {PUBLISHED: "", REFUSED: self.error, CANCELLED: "cancelled", FAILED: NO_ANSWER}
        return texts[self.outcome(cancelled)]


class NotPublished(Exception):
    """An upload that ended without a published preset. ``outcome`` is REFUSED, CANCELLED or FAILED."""

    def __init__(self, outcome: str, text: str) -> None:
        super().__init__(text)
        self.outcome = outcome


def address_of(completion: Completion, cancelled: bool = False) -> str:
    """Returns the published item's address, which is empty if the service names none. Raises NotPublished.

    Don't call it in an uploader's callable, where an exception is printed and dropped.
    """
    outcome = completion.outcome(cancelled)
    if outcome != PUBLISHED:
        raise NotPublished(outcome, completion.problem(cancelled))
    return completion.address
