"""The message loop that an uploader's events arrive through, for whatever event loop the program has.

An uploader belongs to the thread that makes it, and its events run when that thread calls ``pump``. A program without
a loop of its own alternates ``wait`` and ``pump``; one with a loop watches ``fileno`` for reading and then pumps.
Every function speaks of the calling thread. Needs the standard library alone.
"""

from __future__ import annotations

import asyncio
from typing import Callable, Optional

from ._messageloop import fileno, pump, release, wait

__all__ = ["attach_asyncio", "fileno", "pump", "release", "wait"]


def attach_asyncio(loop: Optional[asyncio.AbstractEventLoop] = None) -> Callable[[], None]:
    """Lets an asyncio loop pump the calling thread's messages. Returns a function that ends that.

    Call it on the loop's thread; without a loop it takes the running one.
    """
    target = loop or asyncio.get_running_loop()
    descriptor = fileno()
    target.add_reader(descriptor, pump)

    def detach() -> None:
        target.remove_reader(descriptor)

    return detach
