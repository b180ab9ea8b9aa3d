"""Runs a module as the main program, with a SIGINT inside every progress event: interrupted.py MODULE ARGUMENTS...

A program that imports this module first gets the same signals. INTERRUPTS in the environment limits their number.
"""

import os
import runpy
import signal
import sys

from skiffhost import progress

from_event = progress.from_event
signals = [signal.SIGINT] * int(os.environ.get("INTERRUPTS", "100000"))
progress.from_event = lambda *values: signals and signal.raise_signal(signals.pop()) or from_event(*values)

if __name__ == "__main__":
    del sys.argv[0]
    runpy.run_module(sys.argv[0], run_name="__main__", alter_sys=True)
