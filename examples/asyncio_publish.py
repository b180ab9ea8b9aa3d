#!/usr/bin/python3
"""Publishes a preset's folder with asyncio: asyncio_publish.py FOLDER TITLE. Ctrl-C cancels.

SKIFFHOST_USER and SKIFFHOST_PASSWORD name the member. To try it against a stand-in of the service:
scripts/with-standin /usr/bin/python3 examples/asyncio_publish.py FOLDER TITLE
"""

import asyncio
import os
import sys

import skiffhost
from skiffhost import aio, loop

PRODUCT = {"version": "10.5", "version_type": "retail", "uuid": "4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10"}
EXIT_CANCELLED = 130  # as after Ctrl-C


def show(tracker: skiffhost.Tracker) -> None:
    print(tracker.phase, f"{tracker.percent} %", tracker.describe(), file=sys.stderr, flush=True)


async def publish(folder: str, title: str) -> str:
    files = skiffhost.find_files(folder)
    member = await aio.log_in(os.environ["SKIFFHOST_USER"], os.environ["SKIFFHOST_PASSWORD"], **PRODUCT)
    return await aio.publish(member, files, title=title, on_progress=show)


async def publish_until_interrupted(folder: str, title: str) -> str:
    task = asyncio.ensure_future(publish(folder, title))
    with loop.on_interrupt(task.cancel):  # the upload ends with its completion event
        return await task


def main() -> int:
    """Returns the exit code."""
    skiffhost.record_causes()
    try:
        print("published", asyncio.run(publish_until_interrupted(*sys.argv[1:])))
    except asyncio.CancelledError:
        print("not published: cancelled", file=sys.stderr)
        return EXIT_CANCELLED
    except (skiffhost.LoginFailed, skiffhost.NotPublished, skiffhost.PresetFilesError) as failure:
        print(f"not published: {failure}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main() if len(sys.argv) == 3 else __doc__)
