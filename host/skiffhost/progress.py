"""What an uploader's events say, in everyday units. Knows the two events and nothing else of the module.

A host feeds a ``Tracker`` with the events and shows what it says.
"""

from __future__ import annotations

import time
from typing import Any, Callable, NamedTuple, Optional

from .causes import take_cause
from .completion import FAILED, PUBLISHED, REFUSED, SAFE, UNSAFE, Completion, NotPublished
from .errors import explain_error

__all__ = ["Progress", "Tracker", "describe", "format_bytes", "format_seconds", "from_event"]

SECONDS_PER_TICK = 0.5
# How long an upload must have run before its average rate says anything about the rest.
SHORTEST_MEASURE_SECONDS = 0.5


class Progress(NamedTuple):
    """How much of an upload has been sent, and how fast. Rate and time are None until there is an estimate."""

    sent: int
    total: int
    seconds_left: Optional[float]
    bytes_per_second: Optional[float]

    @property
    def percent(self) -> int:
        """From 0 to 100, rounded down; 100 means neither success nor "the service has it"."""
        return self.sent * 100 // self.total if self.total else 100

    @property
    def finishing(self) -> bool:
        """Every byte of the files has been sent, but the service has not answered yet."""
        return self.sent >= self.total


def from_event(_percent: int, _file_ticks: int, sent: int, total: int, ticks_left: int, bytes_per_tick: int,
               _path: str) -> Progress:
    """Takes the arguments that follow the name of a ProgressChanged event.

    Counts are unsigned 32-bit numbers that arrive as signed ones, times are ticks of 500 ms, and the rate is bytes per
    tick. A file's first event estimates the time as if nothing had been sent yet, so it is capped by the time that the
    remaining bytes take; before the first chunk the rate is no more than a guess, so there is neither. The rate is that
    of the current file alone: a small one can make it and the time jump. ``Tracker`` has steadier estimates.
    """
    sent, total, ticks_left, bytes_per_tick = (value % 2**32 for value in (sent, total, ticks_left, bytes_per_tick))
    if sent == 0:
        return Progress(sent, total, None, None)
    ticks_left = min(ticks_left, max(total - sent, 0) // max(bytes_per_tick, 1))
    return Progress(sent, total, ticks_left * SECONDS_PER_TICK, bytes_per_tick / SECONDS_PER_TICK)


class Tracker:
    """Follows one upload: pass ``feed`` to SetCallback, or call it in your own callable with all of its arguments.

    Rate and time left come from the average of the whole upload so far, by this process's clock. Use a new one for each
    upload.
    """

    def __init__(self, clock: Callable[[], float] = time.monotonic) -> None:
        self.progress = Progress(0, 0, None, None)
        self.completion: Optional[Completion] = None
        self.cancelled = False
        self.error_number: Optional[int] = None  # why it failed, if that is known
        self._clock = clock
        self._start: Optional[float] = None  # the time of the first event

    def feed(self, _source: str, event: str, *values: Any) -> None:
        """Takes an event's arguments. Ignores events that it does not know."""
        if event == "ProgressChanged":
            self._advance(from_event(*values))
        elif event == "UploadComplete":
            self.completion = Completion(*values)
            self.error_number = take_cause()

    def cancel(self) -> None:
        """Notes that you have called CancelUpload, which the events do not show."""
        self.cancelled = True

    def result(self) -> str:
        """Returns the published item's address, which is empty if the service names none. Raises NotPublished.

        Don't call it in an uploader's callable, where an exception is printed and dropped.
        """
        if self.completion is None:
            raise RuntimeError("the upload has not ended")
        outcome = self.completion.outcome(self.cancelled)
        if outcome == PUBLISHED:
            return self.completion.address
        text = self.completion.problem(self.cancelled) + ("" if outcome == REFUSED else self.doubt)
        if outcome != FAILED:
            raise NotPublished(outcome, text)
        if self.error_number is not None:
            text = explain_error(self.error_number) + self.doubt
        if self._start is None:
            text += "; none of the files was sent, so it is safe to try again"
        raise NotPublished(outcome, text, self.error_number, SAFE if self._start is None else UNSAFE)

    @property
    def doubt(self) -> str:
        """What to add to a failure: once everything is sent, the service may have it, whatever comes next."""
        return "; the service may have it" if self.percent == 100 else ""

    @property
    def phase(self) -> str:
        """"starting", "uploading", "finishing" or "cancelling", and in the end "published", "refused", "cancelled" or
        "failed".
        """
        if self.completion is not None:
            return self.completion.outcome(self.cancelled)
        if self.cancelled:
            return "cancelling"
        if self._start is None:
            return "starting"
        return "finishing" if self.progress.finishing else "uploading"

    @property
    def percent(self) -> int:
        """From 0 to 100, rounded down; 100 means neither success nor "the service has it"."""
        return self.progress.percent if self._start is not None else 0

    @property
    def bytes_per_second(self) -> Optional[float]:
        """None until there is an estimate."""
        return self.progress.bytes_per_second

    @property
    def seconds_left(self) -> Optional[float]:
        """For the rest of the files' bytes. None until there is an estimate."""
        return self.progress.seconds_left

    def describe(self) -> str:
        """Returns the amount and, once they are known, the rate and the time left as one text."""
        return describe(self.progress)

    def _advance(self, progress: Progress) -> None:
        now = self._clock()
        if self._start is None:
            self._start = now
        seconds = now - self._start
        if progress.sent and seconds >= SHORTEST_MEASURE_SECONDS:
            rate = progress.sent / seconds
            left = max(progress.total - progress.sent, 0) / rate
            self.progress = progress._replace(seconds_left=left, bytes_per_second=rate)
        else:
            self.progress = progress._replace(seconds_left=None, bytes_per_second=None)


def format_bytes(count: float) -> str:
    """1234567 -> "1.2 MB"."""
    for unit in ("bytes", "KB", "MB"):
        if count < 1000:
            break
        count /= 1000
    else:
        unit = "GB"
    return f"{count:.0f} {unit}" if unit == "bytes" else f"{count:.1f} {unit}"


def format_seconds(seconds: float) -> str:
    """75.5 -> "1:15"."""
    minutes, rest = divmod(int(seconds), 60)
    hours, minutes = divmod(minutes, 60)
    return f"{hours}:{minutes:02}:{rest:02}" if hours else f"{minutes}:{rest:02}"


def describe(progress: Progress) -> str:
    """Returns the amount and, once they are known, the rate and the time left as one text."""
    amount = f"{format_bytes(progress.sent)} of {format_bytes(progress.total)}"
    if progress.finishing or progress.seconds_left is None or progress.bytes_per_second is None:
        return amount
    return f"{amount}, {format_bytes(progress.bytes_per_second)}/s, {format_seconds(progress.seconds_left)} left"
