"""Runs the Skiffport module without its application: helpers for hosts, and a command line (``python3 -m skiffhost``).

For hosts: ``loop`` delivers an uploader's events through any event loop; ``Uploader`` is an uploader for a ``with``
block; ``Tracker`` and ``Completion`` put the events into everyday terms (``progress``, ``completion``);
``in_background`` runs a login on a thread of its own (``background``); ``explain_login`` says why it failed
(``login``); ``find_files`` finds and checks a preset's files (``presetfiles``). Everything else
belongs to the command line and may change.
"""

from ._version import __version__

TYPE_CHECKING = False
if TYPE_CHECKING:
    from typing import Any, List

    from .background import in_background as in_background
    from .completion import Completion as Completion
    from .login import explain_login as explain_login
    from .presetfiles import PresetFilesError as PresetFilesError
    from .presetfiles import find_files as find_files
    from .progress import Tracker as Tracker
    from .uploads import Uploader as Uploader

# Imported when they are first used: a host that only pumps needs none of them.
_HOMES = {
    "Completion": "completion",
    "PresetFilesError": "presetfiles",
    "Tracker": "progress",
    "Uploader": "uploads",
    "explain_login": "login",
    "find_files": "presetfiles",
    "in_background": "background",
}

__all__ = ["Completion", "PresetFilesError", "Tracker", "Uploader", "__version__", "explain_login", "find_files",
           "in_background"]


def __getattr__(name: str) -> "Any":
    if name not in _HOMES:
        raise AttributeError(f"module {__name__!r} has no attribute {name!r}")
    from importlib import import_module

    return getattr(import_module(f"{__name__}.{_HOMES[name]}"), name)


def __dir__() -> "List[str]":
    return sorted({*globals(), *_HOMES})
