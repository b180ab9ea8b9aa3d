"""Runs unittest's command line under the leak checker: `leak_checked.py discover ...`.

The search for memory that nothing points to is made while the interpreter still runs. What the interpreter drops at its
own end is then no finding, and no suppression has to hide it. Exits with 1 for a leak.
"""

import ctypes
import gc
import sys
import unittest

program = unittest.main(module=None, exit=False)
gc.collect()  # a tuple of plain values is let go from the collector's list here, which would keep a lost one reachable
leaks = ctypes.CDLL(None).__lsan_do_recoverable_leak_check()
sys.exit(0 if program.result.wasSuccessful() and not leaks else 1)
