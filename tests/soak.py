"""Runs tests of the module again and again in one process, for soak.py MINUTES. Fails if the process grows."""

import ctypes
import gc
import os
import pathlib
import sys
import time
import unittest
from array import array
from statistics import median

sys.path.insert(0, str(pathlib.Path(__file__).with_name("python")))
import common  # noqa: E402

CASES = ("test_upload.UploadTest", "test_service", "test_requests", "test_loop", "test_helpers.UploaderTest")
ROUNDS = 4  # at least
# Growth in a round that is no leak. The heap's is setenv's, which keeps every value: each peer has another port.
TOLERANCES = {"descriptors": 0.5, "heap KiB": 40, "blocks": 40, "tracked": 4}


class Mallinfo(ctypes.Structure):
    _fields_ = [("numbers", ctypes.c_size_t * 10)]  # hblkhd, what is mapped, is number 4, and uordblks, in use, 7


mallinfo = ctypes.CDLL(None).mallinfo2
mallinfo.restype = Mallinfo
samples, begin = [array("q") for _ in TOLERANCES], time.monotonic()
while len(samples[0]) < ROUNDS or time.monotonic() < begin + 60 * float(sys.argv[1]):
    ended = unittest.TextTestRunner(verbosity=0).run(unittest.defaultTestLoader.loadTestsFromNames(CASES))
    if not ended.wasSuccessful():
        sys.exit(1)
    common.fixtures.wait_until(lambda: len(common.fixtures.threads()) == 1, "end of all threads")
    gc.collect()
    heap = mallinfo().numbers
    for sample, figure in zip(samples, (len(os.listdir("/proc/self/fd")), (heap[7] + heap[4]) // 1024,
                                        sys.getallocatedblocks(), len(gc.get_objects()))):
        sample.append(figure)
    print({name: sample[-1] for name, sample in zip(TOLERANCES, samples)}, flush=True)
quarter = len(samples[0]) // 4
for sample, (name, most) in zip(samples, TOLERANCES.items()):
    growth = (median(sample[-quarter:]) - median(sample[quarter:2 * quarter])) / (len(sample) / 2)
    print(f"{name}: {growth:+.1f} a round between the second quarter and the last, at most {most}")
    if growth > most:
        sys.exit(f"{name} grew")
