"""Runs the Skiffport module without its application: helpers for hosts, and a command line (``python3 -m skiffhost``).

For hosts: ``log_in`` logs a member in (``member``), and ``in_background`` runs it on a thread of its own
(``background``); ``find_files`` finds and checks a preset's files (``presetfiles``); ``Uploader`` publishes them, for a
``with`` block (``uploads``); ``loop`` delivers its events through any event loop, ``aio`` does all of it in asyncio.
``Tracker`` and ``Completion`` put the events into everyday terms (``progress``, ``completion``); ``explain_login`` says
why a login failed (``login``), ``record_causes`` makes failed uploads say why (``causes``), and ``errors`` has the
error numbers. Everything else belongs to the command line and may change.
"""

from ._version import __version__

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any, List

    from .background import in_background as in_background
    from .causes import record_causes as record_causes
    from .completion import Completion as Completion
    from .completion import NotPublished as NotPublished
    from .login import explain_login as explain_login
    from .member import LoginFailed as LoginFailed
    from .member import Member as Member
    from .member import log_in as log_in
    from .presetfiles import PresetFilesError as PresetFilesError
    from .presetfiles import find_files as find_files
    from .progress import Tracker as Tracker
    from .uploads import Uploader as Uploader

# Imported when they are first used: a host that only pumps needs none of them.
_HOMES = {
    "Completion": "completion",
    "LoginFailed": "member",
    "Member": "member",
    "NotPublished": "completion",
    "PresetFilesError": "presetfiles",
    "Tracker": "progress",
    "Uploader": "uploads",
    "explain_login": "login",
    "find_files": "presetfiles",
    "in_background": "background",
    "log_in": "member",
    "record_causes": "causes",
}

__all__ = ["Completion", "LoginFailed", "Member", "NotPublished", "PresetFilesError", "Tracker", "Uploader",
           "__version__", "explain_login", "find_files", "in_background", "log_in", "record_causes"]


def __getattr__(name: str) -> "Any":
    if name not in _HOMES:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    from importlib import import_module

    return getattr(import_module(f"{__name__}.{_HOMES[name]}"), name)


def __dir__() -> "List[str]":
    return sorted({*globals(), *_HOMES})
