"""Running out of memory: tests/torture/calls.py, in an interpreter whose allocations can be made to fail."""

import os
import pathlib
import subprocess
import sys
import unittest

import common

BUILT = pathlib.Path(os.environ["SKIFFPORT_TREE"]).parent / "tests"
ALLOCATOR, DRIVEN = BUILT / "torture/libskiffport_failing_allocator.so", BUILT / "cpp/driven/libskiffport_platform.so"
TRACE_ON = '[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\n"DumpMsg"=dword:1\n"DumpInETW"=dword:0\n'


@unittest.skipUnless(ALLOCATOR.exists(), "needs what scripts/build --tests builds without a sanitizer")
@unittest.skipUnless(os.path.samefile(sys.executable, "/usr/bin/python3"), "another interpreter has faults of its own")
class MemoryTest(common.StandinCase):
    def test_each_allocation_may_fail(self):
        registry = self.scratch / "trace.reg"
        registry.write_text(TRACE_ON)
        env = {**os.environ, "PYTHONPATH": os.pathsep.join(common.PATH), "LD_PRELOAD": str(ALLOCATOR),
               "PYTHONMALLOC": "malloc", "MALLOC_PERTURB_": "165", "SKIFFPORT_REGISTRY": str(registry)}
        with open(self.scratch / "trace", "w+b") as trace:
            done = subprocess.run([sys.executable, "-B", str(common.ROOT / "tests/torture/calls.py"), str(DRIVEN),
                                   *self.preset()], env=env, stdout=subprocess.PIPE, stderr=trace, timeout=600)
            trace.seek(-min(1000, trace.tell()), os.SEEK_END)
            self.assertEqual((done.returncode, done.stdout.decode()), (0, ""), trace.read().decode("utf-8", "replace"))
