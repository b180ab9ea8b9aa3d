"""Runs a call that blocks on a thread that a Ctrl-C does not wait for."""

from __future__ import annotations

import threading
from concurrent.futures import Future
from typing import Any, Callable, TypeVar

__all__ = ["in_background"]

T = TypeVar("T")


def in_background(function: Callable[..., T], *arguments: Any) -> "Future[T]":
    """Calls the function on a thread of its own that may make service requests. Returns its future.

    It is a daemon thread: the program can end while the call blocks, which an executor's threads prevent. In asyncio,
    await ``asyncio.wrap_future`` of the future.
    """
    from .loop import initialize_thread

    future: "Future[T]" = Future()

    def run() -> None:
        future.set_running_or_notify_cancel()  # from now on a cancelled waiter leaves it alone
        initialize_thread()
        try:
            future.set_result(function(*arguments))
        except BaseException as error:
            future.set_exception(error)

    threading.Thread(target=run, daemon=True).start()
    return future
