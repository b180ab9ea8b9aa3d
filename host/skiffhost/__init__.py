"""Runs the Skiffport module without its application: a message loop, and a command line (``python3 -m skiffhost``)."""

from ._version import __version__

__all__ = ["__version__"]
