"""Subcommand publish: logs a member in and uploads a preset, shows progress, and cancels on Ctrl-C.

The uploader's events arrive through the message loop, which this command pumps on the main thread.
"""

from __future__ import annotations

import argparse
import os
import sys
import uuid
from typing import Any, List

from .. import completion
from ..causes import record_causes
from ..outcome import EXIT_CANCELLED, EXIT_NO_ANSWER, EXIT_REFUSED, EXIT_USAGE, Failure, Result, end_at_once
from ..presetfiles import FILES, PresetFilesError, find_files
from ..progress import Tracker
from ..session import USER_VARIABLE, Session, account_of, log_in, open_session
from ..signals import STOPPING, handling
from ..views import View, choose_view
from .options import add_command, add_login_options

PUMP_SECONDS = 0.2
UPLOAD_ID = 1

EXAMPLES = ["mika presets/evening --title 'Evening light' --category 2",
            "presets/evening --user mika --title Evening --cover-after new.png --tags sunset,warm",
            "mika presets/evening --title Evening --json <password.txt --password-file -"]

EXIT_CODES = {
    completion.REFUSED: EXIT_REFUSED,
    completion.CANCELLED: EXIT_CANCELLED,
    completion.FAILED: EXIT_NO_ANSWER,
}

# Of each preset field: what help says, and the default; None stands for a required field.
FIELDS = {
    "title": ("title, e.g. 'Evening light'", None),
    "category": ("category ID, e.g. 2; 'skiffhost categories' lists them", ""),
    "tags": ("comma-separated tags, e.g. sunset,warm", ""),
    "description": ("description, e.g. 'Warms the lights'", ""),
    "collections": ("collections to add the preset to, e.g. Evenings", ""),
    "pip-type": ("kind of preset, as the service knows it, e.g. colour", ""),
    "template-key": ("key of the preset, e.g. 9C1A52F0-7B0E-4C55-8C39-6A1E7A4B9D21 (default: a new GUID)", ""),
}


def register(subparsers: Any) -> None:
    parser = add_command(subparsers, "publish", publish, "publish a preset", EXAMPLES,
                         {"address": "address of the published preset", "template_key": "key of the preset"})
    add_login_options(parser, positional=True)
    parser.add_argument("folder", nargs="?", help="folder with the preset's files, e.g. presets/evening; the only "
                        "argument if --user or $SKIFFHOST_USER names the user; each file may have any "
                        "extension: " + ", ".join(FILES))
    files = parser.add_argument_group("files that replace those of the folder")
    for name in FILES:
        files.add_argument("--" + name.replace("_", "-"), metavar="FILE",
                           help=f"file to use as {name}, e.g. other/{name}.png")
    fields = parser.add_argument_group("preset fields")
    for name, (text, default) in FIELDS.items():
        fields.add_argument("--" + name, default=default, required=default is None, metavar="TEXT", help=text,
                            type=_not_empty if default is None else str)
    parser.add_argument("--retry-sent", action="store_true", help="with --retries, also try again after files were "
                        "sent, though the service may then have the preset twice")
    parser.add_argument("--progress", choices=("auto", "bar", "lines", "none"), default="auto",
                        help="progress on standard error, e.g. --progress lines (default: auto, a bar on a terminal; "
                        "elsewhere lines; none with --quiet, or with --json elsewhere)")


def publish(arguments: argparse.Namespace) -> Result:
    if arguments.folder is None and (arguments.user or os.environ.get(USER_VARIABLE)):
        arguments.named, arguments.folder = None, arguments.named  # the only argument
    paths = _find_preset(arguments)
    account = account_of(arguments)
    if not arguments.verbose:
        record_causes()
    session = open_session(arguments)
    log_in(session, account)
    arguments.template_key = key = arguments.template_key or str(uuid.uuid4()).upper()
    fields = [key, arguments.title, arguments.category, arguments.tags, arguments.description, arguments.collections,
              arguments.pip_type]
    tracker = Tracker()
    view = choose_view(_kind_of_view(arguments), tracker, sys.stderr, os.environ)
    try:
        Upload(session, tracker, view, arguments.json).run(paths, fields)
    finally:
        view.close()
    try:
        address = tracker.result()
    except completion.NotPublished as error:
        raise Failure(EXIT_CODES[error.outcome], str(error), error.retry, error.error_number) from error
    line = f"published {address}" if address else "published, but the service named no address"
    return Result([line], {"address": address, "template_key": key})


def _not_empty(text: str) -> str:
    """Rejects ASCII whitespace only; other whitespace is left to the service."""
    if not text.strip(" \t\r\n"):
        raise argparse.ArgumentTypeError("must not be empty")
    return text


def _find_preset(arguments: argparse.Namespace) -> List[str]:
    """Returns the preset's paths. Raises Failure with one line, not thirteen, if there is no preset at all."""
    folder = arguments.folder
    given = [name for name in FILES if getattr(arguments, name) is not None]
    if folder is None and not given:
        raise Failure(EXIT_USAGE, "missing: the preset's folder, or its files (see skiffhost publish --help)")
    if folder is not None and not os.path.isdir(folder):
        raise Failure(EXIT_USAGE, f"{'not a' if os.path.exists(folder) else 'no such'} folder: {folder}")
    if folder is not None and not given and os.access(folder, os.R_OK):
        if not {os.path.splitext(entry)[0] for entry in os.listdir(folder)}.intersection(FILES):
            raise Failure(EXIT_USAGE,
                          f"no preset: {folder} has none of its {len(FILES)} files, such as {FILES[0]} or "
                          f"{FILES[1]} (see skiffhost publish --help)")
    try:
        return find_files(folder, {name: getattr(arguments, name) for name in given})
    except PresetFilesError as error:
        raise Failure(EXIT_USAGE, str(error)) from error


def _kind_of_view(arguments: argparse.Namespace) -> str:
    if arguments.quiet:
        return "none"
    if arguments.progress != "auto":
        return str(arguments.progress)
    if arguments.json and not sys.stderr.isatty():
        return "none"
    return "lines" if arguments.verbose else "auto"  # the trace would tear a bar apart


class Upload:
    """One upload from its start to its completion event, on the thread that creates it."""

    def __init__(self, session: Session, tracker: Tracker, view: View, as_json: bool) -> None:
        data = session.data
        self._tracker = tracker
        self._view = view
        self._as_json = as_json
        self._uploader = session.module.PyPresetUploader(
            data.GetServerUrl(), data.GetLoginTokenID(), session.version, session.version_type, session.installation)

    def run(self, paths: List[str], fields: List[str]) -> None:
        """Uploads and pumps until the completion arrives. STOPPING cancels; a second one ends the process."""
        with handling(STOPPING, self._cancel):
            try:
                self._uploader.SetCallback(self._on_event)
                if self._uploader.StartUpload(*paths, *fields, UPLOAD_ID) == 0:
                    raise Failure(EXIT_NO_ANSWER, "the upload could not be started")
                if self._tracker.cancelled:  # before the start, which forgets that
                    self._uploader.CancelUpload()
                self._wait()
            finally:
                self._uploader.SetCallback(None)  # breaks a reference cycle that the garbage collector cannot see

    def _wait(self) -> None:
        from .. import loop  # here, so that the parser can be made without a built module

        while self._tracker.completion is None:
            loop.wait(PUMP_SECONDS)
            if loop.pump() == 0:
                self._view.draw()

    def _cancel(self, *_signal: Any) -> None:
        """Must not raise: it may run inside ``_on_event``, where an exception is printed and dropped."""
        if self._tracker.completion is not None:
            return
        if self._tracker.cancelled:
            failure = Failure(EXIT_CANCELLED, "cancelled" + self._tracker.doubt)
            end_at_once(failure, self._as_json, self._view.terminal_reset)
        self._uploader.CancelUpload()
        self._tracker.cancel()

    def _on_event(self, *event: Any) -> None:
        self._tracker.feed(*event)
        if self._tracker.completion is None:
            self._view.draw()
