"""What a progress event says, in everyday units. Knows the ProgressChanged event and nothing else of the module."""

from __future__ import annotations

from typing import NamedTuple

SECONDS_PER_TICK = 0.5


class Progress(NamedTuple):
    """One progress event in everyday units."""

    sent: int
    total: int
    seconds_left: float
    bytes_per_second: float

    @property
    def percent(self) -> int:
        return self.sent * 100 // self.total if self.total else 100

    @property
    def finishing(self) -> bool:
        """Every byte of the files has been sent, but the service has not answered yet."""
        return self.sent >= self.total


def from_event(_percent: int, _file_ticks: int, sent: int, total: int, ticks_left: int, bytes_per_tick: int,
               _path: str) -> Progress:
    """Takes the arguments that follow the name of a ProgressChanged event. Counts are unsigned 32-bit numbers that
    arrive as signed ones, times are ticks of 500 ms, and the rate is bytes per tick. A file's first event estimates the
    time as if nothing had been sent yet, so it is capped by the time that the remaining bytes take."""
    sent, total, ticks_left, bytes_per_tick = (value % 2**32 for value in (sent, total, ticks_left, bytes_per_tick))
    ticks_left = min(ticks_left, max(total - sent, 0) // max(bytes_per_tick, 1))
    return Progress(sent, total, ticks_left * SECONDS_PER_TICK, bytes_per_tick / SECONDS_PER_TICK)


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
    """Returns the amount, the rate and the time left as one text."""
    amount = f"{format_bytes(progress.sent)} of {format_bytes(progress.total)}"
    if progress.finishing:
        return amount
    return f"{amount}, {format_bytes(progress.bytes_per_second)}/s, {format_seconds(progress.seconds_left)} left"
