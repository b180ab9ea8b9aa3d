"""Runs a call that blocks on a thread that a Ctrl-C does not wait for."""

from __future__ import annotations

import sys
import threading
from concurrent.futures import Future, wait
from typing import Any, Callable, Optional, TypeVar

__all__ = ["in_background"]

# How long a wait for a result may keep a Ctrl-C from its handler where it does not end the wait.
TURN_SECONDS = 0.1

T = TypeVar("T")
TYPE_CHECKING = False
if TYPE_CHECKING:
    Base = Future[Any]
else:
    Base = Future  # takes no type arguments before Python 3.9


class _Future(Base):
    def result(self, timeout: Optional[float] = None) -> Any:
        while sys.platform == "win32" and timeout is None and not self.done():
            wait([self], TURN_SECONDS)
        return super().result(timeout)


def in_background(function: Callable[..., T], *arguments: Any, **named: Any) -> "Future[T]":
    """Calls the function on a thread of its own that may make service requests. Returns its future.

    It is a daemon thread: the program can end while the call blocks, which an executor's threads prevent. In asyncio,
    await ``asyncio.wrap_future`` of the future.
    """
    from .loop import initialize_thread

    future: "Future[T]" = _Future()

    def run() -> None:
        future.set_running_or_notify_cancel()  # from now on a cancelled waiter leaves it alone
        initialize_thread()
        try:
            future.set_result(function(*arguments, **named))
        except BaseException as error:
            future.set_exception(error)

    threading.Thread(target=run, daemon=True).start()
    return future
