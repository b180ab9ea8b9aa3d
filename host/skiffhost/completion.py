"""Interprets the end of an upload. Knows the UploadComplete event and nothing else of the module."""

from __future__ import annotations

from typing import NamedTuple, Optional

__all__ = ["CANCELLED", "FAILED", "PUBLISHED", "REFUSED", "SAFE", "UNSAFE", "Completion", "NotPublished"]

# How an upload can end.
PUBLISHED, REFUSED, CANCELLED, FAILED = "published", "refused", "cancelled", "failed"
SAFE, UNSAFE = "safe", "unsafe"  # to try again

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
    """An upload that ended without a published preset. Its text says why, for a refusal in the service's words.

    ``outcome`` is REFUSED, CANCELLED or FAILED. ``error_number`` says why an upload failed, as in
    ``errors.ErrorNumber``, or is None if that is not known (see ``causes.record_causes``). ``retry`` says of a failure
    whether it is SAFE to try again, or UNSAFE: the service may have the preset.
    """

    def __init__(self, outcome: str, text: str, error_number: Optional[int] = None,
                 retry: Optional[str] = None) -> None:
        super().__init__(text)
        self.outcome = outcome
        self.error_number = error_number
        self.retry = retry
