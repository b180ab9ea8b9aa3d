"""Shows an upload's progress: a bar on a terminal, plain lines elsewhere. Draws on the calling thread."""

from __future__ import annotations

import os
import sys
import time
from typing import Any, Callable, TextIO

from .progress import Tracker, describe

LINE_EVERY_PERCENT = 10
LINE_EVERY_SECONDS = 10.0
DEFAULT_COLUMNS = 80


class View:
    """Shows what a tracker says, until its stream fails. This one shows nothing."""

    terminal_reset = ""  # what the terminal needs if the process ends without ``close``

    def __init__(self, tracker: Tracker) -> None:
        self._tracker = tracker
        self._broken = False

    def draw(self) -> None:
        """Updates the display. Call it after an event, and a few times a second while no event arrives."""
        self._display(self._draw)

    def close(self) -> None:
        """Leaves the cursor at the start of a new line."""
        self._display(self._close)

    def _display(self, action: Callable[[], None]) -> None:
        """An upload must not end because nobody watches it any more."""
        if not self._broken:
            try:
                action()
            except OSError:
                self._broken = True

    def _draw(self) -> None:
        pass

    def _close(self) -> None:
        pass


class LineView(View):
    """Prints a line every ten percent or ten seconds, and one for each change of state."""

    def __init__(self, tracker: Tracker, stream: TextIO, clock: Callable[[], float] = time.monotonic) -> None:
        super().__init__(tracker)
        self._stream = stream
        self._clock = clock
        self._last_phase = "starting"
        self._last_percent = 0
        self._last_time = clock()

    def _draw(self) -> None:
        if not self._due():
            return
        self._last_phase = self._tracker.phase
        self._last_percent = self._tracker.percent
        self._last_time = self._clock()
        print(f"{self._last_phase} {self._last_percent}% ({self._tracker.describe()})", file=self._stream, flush=True)

    def _due(self) -> bool:
        if self._tracker.phase != self._last_phase:
            return True
        return (self._tracker.percent >= self._last_percent + LINE_EVERY_PERCENT
                or self._clock() - self._last_time >= LINE_EVERY_SECONDS)


class BarView(View):
    """Overwrites one line of the terminal."""

    SHORTEST_BAR = 3
    terminal_reset = "\n"

    def __init__(self, tracker: Tracker, stream: TextIO) -> None:
        super().__init__(tracker)
        self._stream = stream
        self._cells = "█░"
        try:
            self._cells.encode(stream.encoding)
        except UnicodeEncodeError:
            self._cells = "#."

    def _draw(self) -> None:
        percent = self._tracker.percent
        head, tail = f"{self._tracker.phase:10}", f" {percent:3}%"
        columns = columns_of(self._stream) - 1  # in the last one the cursor would wrap
        left = columns - len(head) - len(tail) - 1
        details = self._fitting_details(left - self.SHORTEST_BAR - 2)
        width = left - len(details)
        if width >= self.SHORTEST_BAR:
            full = percent * width // 100
            head += " " + self._cells[0] * full + self._cells[1] * (width - full)
        self._stream.write("\r" + (head + tail + details)[:columns].ljust(columns))
        self._stream.flush()

    def _close(self) -> None:
        self._draw()
        self._stream.write("\n")
        self._stream.flush()

    def _fitting_details(self, columns: int) -> str:
        """Returns as much of amount, rate and time left as fits, after two blanks."""
        text = describe(self._tracker.progress) if self._tracker.phase != "starting" else ""
        while len(text) > columns and text:
            text = text.rpartition(", ")[0]
        return "  " + text if text else ""


def columns_of(stream: TextIO) -> int:
    try:
        return os.get_terminal_size(stream.fileno()).columns or DEFAULT_COLUMNS
    except OSError:  # a bar was requested, but this is no terminal
        return DEFAULT_COLUMNS


def choose_view(kind: str, tracker: Tracker, stream: TextIO, environment: Any) -> View:
    """Returns a view of the given kind ("auto", "bar", "lines" or "none") on the stream."""
    if kind == "none":
        return View(tracker)
    able = stream.isatty() and (sys.platform == "win32" or environment.get("TERM", "dumb") != "dumb")
    return BarView(tracker, stream) if kind == "bar" or (kind == "auto" and able) else LineView(tracker, stream)
