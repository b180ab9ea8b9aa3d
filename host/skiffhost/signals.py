"""Signal handlers for the length of a block. Main thread only."""

from __future__ import annotations

import contextlib
import signal
from typing import Any, Iterator, Tuple


@contextlib.contextmanager
def handling(numbers: Tuple[signal.Signals, ...], handler: Any) -> Iterator[None]:
    """Gives the signals that handler, and their earlier ones back at the end. What was ignored stays ignored."""
    previous = {number: signal.getsignal(number) for number in numbers}
    changed = [number for number in numbers if previous[number] != signal.SIG_IGN]
    for number in changed:
        signal.signal(number, handler)
    try:
        yield
    finally:
        for number in changed:
            signal.signal(number, previous[number])
