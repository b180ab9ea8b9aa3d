"""Shows an upload's progress: a bar on a terminal, plain lines elsewhere. Draws on the calling thread."""

from __future__ import annotations

import os
import time
from typing import Any, Callable, TextIO

from .progress import Progress, describe

try:
    import rich.console
    import rich.progress
except ImportError:
    rich = None  # type: ignore[assignment]

LINE_EVERY_PERCENT = 10
LINE_EVERY_SECONDS = 10.0
DEFAULT_COLUMNS = 80


class View:
    """Keeps the latest progress and state; the derived classes display them, until their stream fails."""

    terminal_reset = ""  # what the terminal needs if the process ends without ``close``

    def __init__(self) -> None:
        self.progress = Progress(0, 0, 0.0, 0.0)
        self.started = False
        self.cancelling = False  # set once a cancel was requested; shown by the next draw
        self._broken = False

    @property
    def all_sent(self) -> bool:
        """The service may have everything, whatever comes next."""
        return self.started and self.progress.finishing

    @property
    def label(self) -> str:
        """What the upload is doing now."""
        if self.cancelling:
            return "cancelling"
        return "finishing" if self.all_sent else "uploading"

    def show(self, progress: Progress) -> None:
        self.progress = progress
        self.started = True
        self.draw()

    def draw(self) -> None:
        """Updates the display. Call it a few times a second while no event arrives."""
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

    def __init__(self, stream: TextIO, clock: Callable[[], float] = time.monotonic) -> None:
        super().__init__()
        self._stream = stream
        self._clock = clock
        self._last_label = ""
        self._last_percent = 0
        self._last_time = clock()

    def _draw(self) -> None:
        if not self._due():
            return
        self._last_label = self.label
        self._last_percent = self.progress.percent
        self._last_time = self._clock()
        print(f"{self.label} {self.progress.percent}% ({describe(self.progress)})", file=self._stream, flush=True)

    def _due(self) -> bool:
        if not self.started:
            return False
        if self.label != self._last_label or self._clock() - self._last_time >= LINE_EVERY_SECONDS:
            return True
        return self.progress.percent >= self._last_percent + LINE_EVERY_PERCENT


class CarriageView(View):
    """Overwrites one line of the terminal; used where rich is not installed."""

    BAR_CELLS = 20
    terminal_reset = "\n"

    def __init__(self, stream: TextIO) -> None:
        super().__init__()
        self._stream = stream

    def _draw(self) -> None:
        columns = columns_of(self._stream)
        percent = self.progress.percent if self.started else 0
        cells = min(self.BAR_CELLS, columns - 20)
        filled = percent * cells // 100
        bar = f"[{'#' * filled}{'.' * (cells - filled)}] " if cells >= 3 else ""
        text = f"{self.label:10} {bar}{percent:3}%"
        details = fitting_details(self.progress, columns - len(text) - 2)
        self._stream.write("\r" + f"{text} {details}"[:columns - 1].ljust(columns - 1))
        self._stream.flush()

    def _close(self) -> None:
        self._draw()
        self._stream.write("\n")
        self._stream.flush()


class BarView(View):
    """A bar drawn by rich, without rich's refresh thread."""

    terminal_reset = "\x1b[?25h\n"  # shows the cursor
    BESIDE_DETAILS = 35  # columns of the label, a short bar and the percentage

    def __init__(self, stream: TextIO) -> None:
        super().__init__()
        self._bar = rich.progress.Progress(
            rich.progress.TextColumn("{task.description:10}", markup=False),
            rich.progress.BarColumn(bar_width=None, finished_style="green"),  # rich's own turns grey with 16 colours
            rich.progress.TextColumn("{task.fields[percent]:3}%", markup=False),
            rich.progress.TextColumn("{task.fields[details]}", markup=False),
            console=rich.console.Console(file=stream),
            auto_refresh=False,
            expand=True,
        )
        self._task = self._bar.add_task(self.label, total=1, percent=0, details="")
        self._display(self._bar.start)

    def _draw(self) -> None:
        if self.started:
            total = max(self.progress.total, 1)
            done = self.progress.sent if self.progress.total else total
            details = fitting_details(self.progress, self._bar.console.width - self.BESIDE_DETAILS)
            self._bar.update(self._task, total=total, completed=done, percent=self.progress.percent, details=details)
        self._bar.update(self._task, description=self.label)
        self._bar.refresh()

    def _close(self) -> None:
        self._draw()
        self._bar.stop()


def columns_of(stream: TextIO) -> int:
    try:
        return os.get_terminal_size(stream.fileno()).columns or DEFAULT_COLUMNS
    except OSError:  # a bar was requested, but this is no terminal
        return DEFAULT_COLUMNS


def fitting_details(progress: Progress, columns: int) -> str:
    """Returns as much of amount, rate and time left as fits."""
    text = describe(progress)
    while len(text) > columns and text:
        text = text.rpartition(", ")[0]
    return text


def choose_view(kind: str, stream: TextIO, environment: Any) -> View:
    """Returns a view of the given kind ("auto", "bar", "lines" or "none") on the stream."""
    able = stream.isatty() and environment.get("TERM", "dumb") != "dumb"
    if kind == "none":
        return View()
    if kind == "lines" or (kind == "auto" and not able):
        return LineView(stream)
    return BarView(stream) if rich is not None and able else CarriageView(stream)
