"""Runs a module as the main program: interrupted.py MODULE ARGUMENTS... Each callable of a progress event gets a SIGINT
while it runs, in every program that imports this first."""

import runpy
import signal
import sys

from skiffhost import progress

from_event = progress.from_event
progress.from_event = lambda *values: signal.raise_signal(signal.SIGINT) or from_event(*values)

if __name__ == "__main__":
    del sys.argv[0]
    runpy.run_module(sys.argv[0], run_name="__main__", alter_sys=True)
