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

CASES = ("test_upload.UploadTest", "test_service", "test_requests", "test_loop.FunctionsTest", "test_loop.AsyncioTest",
         "test_helpers.UploaderTest")
ROUNDS = 4  # at least
# Growth that is no leak, from the second quarter's median to the last one's.
TOLERANCES = {"descriptors": 4, "heap KiB": 128, "RSS KiB": 6144, "blocks": 150, "tracked": 30}


class Mallinfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks",
                                                     "fsmblks", "uordblks", "fordblks", "keepcost")]


mallinfo = ctypes.CDLL(None).mallinfo2
mallinfo.restype = Mallinfo
samples, begin = [array("q") for _ in TOLERANCES], time.monotonic()
while len(samples[0]) < ROUNDS or time.monotonic() < begin + 60 * float(sys.argv[1]):
    ended = unittest.TextTestRunner(verbosity=0).run(unittest.defaultTestLoader.loadTestsFromNames(CASES))
    if not ended.wasSuccessful():
        sys.exit(1)
    common.fixtures.wait_until(lambda: len(common.fixtures.threads()) == 1, "end of all threads")
    gc.collect()
    heap, pages = mallinfo(), int(pathlib.Path("/proc/self/statm").read_text().split()[1])
    for sample, figure in zip(samples, (len(os.listdir("/proc/self/fd")), (heap.uordblks + heap.hblkhd) // 1024,
                                        pages * os.sysconf("SC_PAGESIZE") // 1024, sys.getallocatedblocks(),
                                        len(gc.get_objects()))):
        sample.append(figure)
    print({name: sample[-1] for name, sample in zip(TOLERANCES, samples)}, flush=True)
quarter = len(samples[0]) // 4
for sample, (name, most) in zip(samples, TOLERANCES.items()):
    growth = median(sample[-quarter:]) - median(sample[quarter:2 * quarter])
    print(f"{name}: {growth:+.0f} from the second quarter to the last, at most {most}")
    if growth > most:
        sys.exit(f"{name} grew")
