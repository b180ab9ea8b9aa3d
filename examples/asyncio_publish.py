#!/usr/bin/python3
"""Publishes a preset's folder with asyncio: asyncio_publish.py FOLDER TITLE. Ctrl-C cancels.

SKIFFHOST_USER and SKIFFHOST_PASSWORD name the member. To try it against a stand-in of the service:
scripts/with-standin /usr/bin/python3 examples/asyncio_publish.py FOLDER TITLE
"""

import asyncio
import os
import signal
import sys
import uuid

import Skiffport
from skiffhost import loop
from skiffhost.completion import Completion, address_of
from skiffhost.outcome import EXIT_CANCELLED, EXIT_NO_ANSWER, Failure
from skiffhost.presetfiles import find_files
from skiffhost.progress import from_event
from skiffhost.views import choose_view
from skiffhost.session import check_login

PRODUCT = ("10.5", "retail", "4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10")  # version, its type, this installation


async def log_in(user, password):
    """Returns the session. The call blocks, so it runs on another thread; it releases the GIL."""
    session = Skiffport.KHLoginData(*PRODUCT)
    outcome = await asyncio.get_running_loop().run_in_executor(None, session.LoginKestrelhub, user, password)
    check_login(session, outcome)
    return session


async def upload(session, paths, title):
    """Uploads and shows the progress. Returns the published address."""
    running = asyncio.get_running_loop()
    done = running.create_future()
    view = choose_view("auto", sys.stderr, os.environ)

    def on_event(_source, name, *values):
        if name == "ProgressChanged":
            view.show(from_event(*values))
        elif name == "UploadComplete":
            done.set_result(Completion(*values))

    def cancel(uploader):
        uploader.CancelUpload()  # the completion event still arrives
        view.cancelling = True
        view.draw()

    with loop.attach_asyncio():
        uploader = Skiffport.PyPresetUploader(session.GetServerUrl(), session.GetLoginTokenID(), *PRODUCT)
        uploader.SetCallback(on_event)
        texts = [str(uuid.uuid4()).upper(), title, "", "", "", "", ""]  # key, title, category ... type
        running.add_signal_handler(signal.SIGINT, cancel, uploader)
        try:
            if uploader.StartUpload(*paths, *texts, 1) == 0:
                raise Failure(EXIT_NO_ANSWER, "the upload could not be started")
            completion = await done
        finally:
            running.remove_signal_handler(signal.SIGINT)
            uploader.SetCallback(None)  # breaks the cycle of uploader and callable
            del uploader
            view.close()
    return address_of(completion, view.cancelling)


async def publish(folder, title):
    paths = find_files(folder, {})
    session = await log_in(os.environ["SKIFFHOST_USER"], os.environ["SKIFFHOST_PASSWORD"])
    print("published", await upload(session, paths, title))


if __name__ == "__main__":
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    try:
        asyncio.run(publish(*sys.argv[1:]))
    except Failure as failure:
        print(f"not published: {failure.text}", file=sys.stderr)
        sys.exit(failure.exit_code)
    except KeyboardInterrupt:  # during the login
        sys.exit(EXIT_CANCELLED)
