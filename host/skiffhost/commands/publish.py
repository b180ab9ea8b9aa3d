"""Subcommand publish: logs a member in and uploads a preset, shows progress, and cancels on Ctrl-C.

The uploader's events arrive through the message loop, which this command pumps on the main thread.
"""

from __future__ import annotations

import argparse
import os
import signal
import sys
import uuid
from typing import Any, List, Optional

from .. import loop
from ..completion import Completion
from ..failures import address_of, find_files
from ..outcome import EXIT_NO_ANSWER, Failure, Result
from ..presetfiles import FILES
from ..progress import from_event
from ..session import Session, log_in, open_session, password_of
from ..signals import handling
from ..views import View, choose_view
from .options import add_command, add_login_options

PUMP_SECONDS = 0.2
UPLOAD_ID = 1


def register(subparsers: Any) -> None:
    parser = add_command(subparsers, "publish", publish, "publish a preset")
    add_login_options(parser)
    parser.add_argument("folder", nargs="?", help="folder with the preset's files, each with any extension: " +
                        ", ".join(FILES))
    files = parser.add_argument_group("files that replace those of the folder")
    for name in FILES:
        files.add_argument("--" + name.replace("_", "-"), metavar="FILE")
    fields = parser.add_argument_group("preset fields")
    fields.add_argument("--title", required=True)
    fields.add_argument("--category", default="", help="category ID")
    fields.add_argument("--tags", default="")
    fields.add_argument("--description", default="")
    fields.add_argument("--collections", default="")
    fields.add_argument("--pip-type", default="")
    fields.add_argument("--template-key", default="", help="key of the preset (default: a new GUID)")
    parser.add_argument("--progress", choices=("auto", "bar", "lines", "none"), default="auto",
                        help="progress on standard error (default: auto, a bar on a terminal; elsewhere lines, "
                        "or none with --json)")


def publish(arguments: argparse.Namespace) -> Result:
    paths = find_files(arguments.folder, vars(arguments))
    password = password_of(arguments)
    session = open_session(arguments)
    log_in(session, arguments.user, password)
    key = arguments.template_key or str(uuid.uuid4()).upper()
    fields = [key, arguments.title, arguments.category, arguments.tags, arguments.description, arguments.collections,
              arguments.pip_type]
    kind = arguments.progress
    if kind == "auto" and arguments.json and not sys.stderr.isatty():
        kind = "none"
    view = choose_view(kind, sys.stderr, os.environ)
    try:
        upload = Upload(session, view)
        completion = upload.run(paths, fields)
    finally:
        view.close()
    address = address_of(completion, upload.cancelled)
    line = f"published {address}" if address else "published, but the service named no address"
    return Result([line], {"address": address, "template_key": key})


class Upload:
    """One upload from its start to its completion event, on the thread that creates it."""

    def __init__(self, session: Session, view: View) -> None:
        data = session.data
        self.cancelled = False
        self._view = view
        self._completion: Optional[Completion] = None
        self._uploader = session.module.PyPresetUploader(
            data.GetServerUrl(), data.GetLoginTokenID(), session.version, session.version_type, session.installation)

    def run(self, paths: List[str], fields: List[str]) -> Completion:
        """Uploads and pumps until the completion arrives. SIGINT and SIGTERM cancel, however often they come."""
        with handling((signal.SIGINT, signal.SIGTERM), self._cancel):
            try:
                self._uploader.SetCallback(self._on_event)
                if self._uploader.StartUpload(*paths, *fields, UPLOAD_ID) == 0:
                    raise Failure(EXIT_NO_ANSWER, "the upload could not be started")
                while self._completion is None:
                    loop.wait(PUMP_SECONDS)
                    if loop.pump() == 0:
                        self._view.draw()
                return self._completion
            finally:
                self._uploader.SetCallback(None)  # breaks a reference cycle that the garbage collector cannot see

    def _cancel(self, *_signal: Any) -> None:
        """Must not raise: it may run inside ``_on_event``, where an exception is printed and dropped."""
        self._uploader.CancelUpload()
        self.cancelled = self._view.cancelling = True

    def _on_event(self, _source: str, event: str, *values: Any) -> None:
        if event == "ProgressChanged":
            self._view.show(from_event(*values))
        elif event == "UploadComplete":
            self._completion = Completion(*values)
