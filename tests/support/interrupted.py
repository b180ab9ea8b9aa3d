"""Runs a module as the main program, with a SIGINT inside every progress event: interrupted.py MODULE ARGUMENTS...

A program that imports this module first gets the same signals.
"""

import runpy
import signal
import sys

from skiffhost import progress

from_event = progress.from_event
progress.from_event = lambda *values: signal.raise_signal(signal.SIGINT) or from_event(*values)

if __name__ == "__main__":
    del sys.argv[0]
    runpy.run_module(sys.argv[0], run_name="__main__", alter_sys=True)
