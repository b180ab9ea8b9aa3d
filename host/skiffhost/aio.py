"""Logs in and publishes in asyncio. Call these in the running loop's own thread."""

from __future__ import annotations

import asyncio
from typing import Any, Sequence

from . import loop
from .background import in_background
from .member import Member
from .member import log_in as _log_in
from .presetfiles import Path

__all__ = ["log_in", "publish"]


async def log_in(user: str, password: str, **product: Any) -> Member:
    """Does what ``member.log_in`` does, on a thread that holds up neither the loop nor the end of the program.

    Cancelling the task ends the wait; the login goes on, and its result is dropped.
    """
    return await asyncio.wrap_future(in_background(_log_in, user, password, **product))


async def publish(member: Member, files: Sequence[Path], **preset: Any) -> str:
    """Publishes a preset. Returns its address, which is empty if the service names none. Raises NotPublished.

    Takes what ``Uploader.start`` takes, ``title`` and ``on_progress`` among it, and raises what that raises. Cancelling
    the task cancels the upload; the task ends with its last event, and the loop runs on until then.
    """
    with loop.attach_asyncio(), member.uploader() as uploader:
        published = asyncio.wrap_future(uploader.start(files, **preset))
        is_cancelled = False
        while not published.done():
            try:
                await asyncio.wait([published])
            except asyncio.CancelledError:
                is_cancelled = True
                uploader.CancelUpload()
        if is_cancelled:
            published.exception()  # marks it as seen
            raise asyncio.CancelledError
        return published.result()
