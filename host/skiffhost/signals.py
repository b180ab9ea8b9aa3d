"""What stops a command, and signal handlers for the duration of a block. Main thread only."""

from __future__ import annotations

import contextlib
import signal
import sys
from typing import TYPE_CHECKING, Any, Callable, Iterator, Tuple

if TYPE_CHECKING:
    import asyncio

# On Windows, Ctrl-Break and the end of the console arrive as SIGBREAK.
if sys.platform == "win32":
    STOPPING: Tuple[signal.Signals, ...] = (signal.SIGINT, signal.SIGTERM, signal.SIGBREAK)
else:
    STOPPING = (signal.SIGINT, signal.SIGTERM)


@contextlib.contextmanager
def handling(numbers: Tuple[signal.Signals, ...], handler: Any) -> Iterator[None]:
    """Installs the handler and restores the earlier ones at the end. Ignored signals stay ignored."""
    previous = {number: signal.getsignal(number) for number in numbers}
    changed = [number for number in numbers if previous[number] != signal.SIG_IGN]
    for number in changed:
        signal.signal(number, handler)
    try:
        yield
    finally:
        for number in changed:
            signal.signal(number, previous[number])


@contextlib.contextmanager
def interrupts_for(running: asyncio.AbstractEventLoop, call: Callable[[], object]) -> Iterator[None]:
    """Lets the loop call the function for each Ctrl-C, unless that is ignored."""
    ignored = signal.getsignal(signal.SIGINT) == signal.SIG_IGN
    with handling((signal.SIGINT,), lambda *_: running.call_soon_threadsafe(call)):
        with contextlib.suppress(NotImplementedError):  # as on Windows
            if not ignored:
                running.add_signal_handler(signal.SIGINT, call)  # wakes the loop, too
        try:
            yield
        finally:
            with contextlib.suppress(NotImplementedError):
                running.remove_signal_handler(signal.SIGINT)
