#!/usr/bin/python3
"""Publishes a preset's folder with asyncio: asyncio_publish.py FOLDER TITLE. Ctrl-C cancels.

SKIFFHOST_USER and SKIFFHOST_PASSWORD name the member. To try it against a stand-in of the service:
scripts/with-standin /usr/bin/python3 examples/asyncio_publish.py FOLDER TITLE
"""

import asyncio
import os
import sys
from typing import Any, List

import Skiffport
from skiffhost import Completion, Tracker, Uploader, explain_login, find_files, in_background, loop
from skiffhost.completion import CANCELLED, NotPublished, address_of

PRODUCT = ("10.5", "retail", "4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10")  # version, its type, this installation
EXIT_CANCELLED = 130  # as after Ctrl-C


def log_in(user: str, password: str) -> Skiffport.KHLoginData:
    """Returns the session. Blocks but releases the GIL, so it runs on a worker thread."""
    session = Skiffport.KHLoginData(*PRODUCT)
    problem = explain_login(session, session.LoginKestrelhub(user, password))
    if problem:
        raise RuntimeError(problem)
    return session


async def upload(session: Skiffport.KHLoginData, paths: List[str], title: str) -> str:
    """Uploads and shows the progress. Returns the published address. Raises NotPublished."""
    done: "asyncio.Future[Completion]" = asyncio.get_running_loop().create_future()
    tracker = Tracker()

    def show() -> None:
        print(tracker.phase, f"{tracker.percent} %", tracker.describe(), file=sys.stderr, flush=True)

    def on_event(*event: Any) -> None:
        tracker.feed(*event)
        if tracker.completion is None:
            show()
        else:
            done.set_result(tracker.completion)

    # The uploader goes first at the end, then the attachment.
    with loop.attach_asyncio(), Uploader(session.GetServerUrl(), session.GetLoginTokenID(), *PRODUCT) as uploader:
        def cancel() -> None:
            uploader.CancelUpload()  # the completion event still arrives
            tracker.cancel()
            show()

        uploader.SetCallback(on_event)
        with loop.on_interrupt(cancel):
            uploader.start(paths, title=title)
            completion = await done
    return address_of(completion, tracker.cancelled)


async def publish(folder: str, title: str) -> str:
    paths = find_files(folder)
    user, password = os.environ["SKIFFHOST_USER"], os.environ["SKIFFHOST_PASSWORD"]
    session = await asyncio.wrap_future(in_background(log_in, user, password))
    return await upload(session, paths, title)


def main() -> int:
    """Returns the exit code."""
    try:
        print("published", asyncio.run(publish(*sys.argv[1:])))
    except NotPublished as failure:
        print(f"not published: {failure}", file=sys.stderr)
        return EXIT_CANCELLED if failure.outcome == CANCELLED else 1
    except (RuntimeError, ValueError) as error:  # the login or the start; the files
        print(f"not published: {error}", file=sys.stderr)
        return 1
    except KeyboardInterrupt:  # during the login
        return EXIT_CANCELLED
    return 0


if __name__ == "__main__":
    sys.exit(main() if len(sys.argv) == 3 else __doc__)
