"""Runs unittest's command line under the leak checker: `leak_checked.py discover ...`.

Searches for leaks while the interpreter still runs, so that what the interpreter itself abandons at exit is not
reported and needs no suppression. Exits with 1 for a leak.
"""

import ctypes
import gc
import sys
import unittest

program = unittest.main(module=None, exit=False)
gc.collect()  # untracks tuples of plain values, since the collector's list would keep a leaked one reachable
leaks = ctypes.CDLL(None).__lsan_do_recoverable_leak_check()
sys.exit(0 if program.result.wasSuccessful() and not leaks else 1)
