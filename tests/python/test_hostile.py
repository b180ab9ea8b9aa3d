"""Peers that misbehave: every call ends in bounded time, with bounded memory and a clear outcome."""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
from concurrent import futures

import common
import fixtures
import hostile_peers

LIBRARY = pathlib.Path(os.environ["SKIFFPORT_TREE"]).parent / "tests" / "cpp" / "driven" / "libskiffport_platform.so"


@unittest.skipUnless(LIBRARY.exists(), "needs what scripts/build --tests builds")
@unittest.skipUnless(os.path.samefile(sys.executable, "/usr/bin/python3"), "once is enough for the platform library")
class TableTest(common.Case):
    def play(self, group):
        """Plays a group of rows in a process of its own. Returns what it printed, and its exit status."""
        with tempfile.TemporaryFile("a+b") as errors:
            env = {**os.environ, "PYTHONPATH": os.pathsep.join(common.PATH)}
            command = [sys.executable, "-B", os.path.join(common.PATH[1], "hostile_play.py"), LIBRARY, group + ": "]
            done = subprocess.run(command, env=env, stdout=subprocess.PIPE, stderr=errors, timeout=600)
            return done.stdout.decode(), done.returncode

    def test_every_row_ends_as_the_table_says(self):
        with futures.ThreadPoolExecutor(3) as pool:
            for group, played in zip(hostile_peers.GROUPS, pool.map(self.play, hostile_peers.GROUPS)):
                with self.subTest(group):
                    self.assertEqual(played, ("", 0))


class ExitTest(common.NetworkCase):
    SCRIPT = """
import ctypes, os, sys, threading, Skiffport
class Last:
    def __del__(self, write=os.write):
        write(1, b"x")
Skiffport.last = Last()
call = Skiffport.KHConnectUtil().SyncSendHttpRequestParam
threading.Thread(target=call, args=("slow.test", 80, "/", ""), daemon=True).start()
sys.stdin.read(1)
# Keeps the process alive after the interpreter's end, but before the handler that the first request registered.
ctypes.CDLL(None).on_exit(ctypes.CDLL(None).getchar, None)
"""

    def test_a_thread_that_returns_after_the_interpreter_ends_quietly(self):
        peer = self.network.play("slow.test", "silent-reply", tls="")
        env = {**os.environ, "PYTHONPATH": os.pathsep.join(common.PATH)}
        with subprocess.Popen([sys.executable, "-B", "-u", "-c", self.SCRIPT], stdin=subprocess.PIPE,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=env) as child:
            fixtures.wait_until(peer.received, "the request")
            child.stdin.write(b"x")
            child.stdin.flush()
            self.assertEqual(child.stdout.read(1), b"x")
            peer.process.kill()
            if sys.version_info >= (3, 9):  # 3.8 leaves the thread waiting for the GIL until the process ends
                fixtures.wait_until(lambda: child.poll() is not None
                                    or len(os.listdir(f"/proc/{child.pid}/task")) == 1, "end of the thread")
            self.assertEqual(child.communicate(timeout=fixtures.DEADLINE_SECONDS)[0], b"")
        self.assertEqual(child.returncode, 0)
