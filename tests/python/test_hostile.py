"""Peers that misbehave: every call ends in bounded time, with bounded memory and a clear outcome."""

import ast
import ctypes
import os
import pathlib
import socket
import subprocess
import sys
import tempfile
import time
import unittest
from concurrent import futures

import common
import fixtures
import hostile_peers

LIBRARY = pathlib.Path(os.environ["SKIFFPORT_TREE"]).parent / "tests" / "cpp" / "driven" / "libskiffport_platform.so"
SANITIZED = "asan" in os.environ.get("LD_PRELOAD", "")
_CURL = ctypes.CDLL("libcurl.so.4")
_CURL.curl_version.restype = ctypes.c_char_p
# Other versions tell some failures apart in another way, find some of them sooner, and take more memory.
AS_ON_PAGE = _CURL.curl_version().startswith(b"libcurl/7.88.")
LEEWAY = 1 if AS_ON_PAGE else 2
AT_ONCE = 30 if SANITIZED else 10  # seconds that a call may take, busy machines included, if no limit passes


@unittest.skipUnless(LIBRARY.exists(), "needs what scripts/build --tests builds")
@unittest.skipUnless(os.path.samefile(sys.executable, "/usr/bin/python3"), "once is enough for the platform library")
class TableTest(common.Case):
    """Plays docs/network-outcomes.md."""

    def play(self, group):
        """Plays a group of rows in a process of its own. Returns a line for each call, and the errors printed."""
        with tempfile.TemporaryFile("a+b") as errors:
            env = {**os.environ, "PYTHONPATH": os.pathsep.join(common.PATH)}
            program = fixtures.REPOSITORY / "tests" / "support" / "hostile_play.py"
            done = subprocess.run([sys.executable, "-B", str(program), str(LIBRARY), group + ": "], env=env,
                                  stdout=subprocess.PIPE, stderr=errors, timeout=600)
            errors.seek(0)
            return done.returncode, done.stdout.decode(), errors.read().decode(errors="replace")

    def check(self, group, line):
        """Checks the time and the memory of a call. Returns its key and its outcome."""
        _, what, call, outcome, seconds, memory = ast.literal_eval(line)
        row = next(row for row in hostile_peers.GROUPS[group] if row.what == what)
        late, most = row.of_call(row.late, call), row.of_call(row.memory, call) or hostile_peers.CALLS[call][3]
        with self.subTest(group, what=what, call=call):
            if AS_ON_PAGE:
                self.assertGreaterEqual(seconds, late * 0.99)
            self.assertLessEqual(seconds, late * 1.4 + row.slack * LEEWAY if late else AT_ONCE)
            if not SANITIZED:
                self.assertLessEqual(memory, most * LEEWAY)
        return (what, call), outcome

    def test_every_row_ends_as_the_page_says(self):
        pages = hostile_peers.tables(hostile_peers.PAGE_FILE.read_text("utf-8"))
        with futures.ThreadPoolExecutor(3) as pool:
            played = dict(zip(hostile_peers.GROUPS, pool.map(self.play, hostile_peers.GROUPS)))
        for group, (status, printed, errors) in played.items():
            lines = printed.splitlines()
            self.assertEqual(status, 0, "\n".join(lines[-20:]) + errors)
            outcomes = dict(self.check(group, line) for line in lines)
            table = hostile_peers.table(group, outcomes)
            self.assertEqual(len(pages[group]), len(table), group)
            for line, row in zip(pages[group], table if AS_ON_PAGE else []):
                with self.subTest(group):
                    self.assertEqual(line, row)


class HostileServiceTest(common.NetworkCase):
    def test_exit_during_a_stalled_upload_takes_bounded_time(self):
        self.network.play("good.test", "stall")
        script = ("import sys\nfrom publication import Publication\np = Publication(sys.argv[1])\n"
                  "assert p.start(sys.argv[2:]) != 0\np.pump_until(lambda: p.events)\nsys.exit(4)\n")
        paths = self.preset({"effect": 30_000_000})
        start = time.monotonic()
        self.assertEqual(self.run_python(script, "good.test", *paths), (4, ""))
        self.assertLess(time.monotonic() - start, 15)


class InterpreterExitTest(common.Case):
    SCRIPT = """
import ctypes, os, sys, threading, Skiffport
class Last:
    def __del__(self, write=os.write):
        write(1, b"x")
ctypes.CDLL(None).on_exit(ctypes.CDLL(None).getchar, None)  # keeps the process alive after the interpreter's end
Skiffport.last = Last()
call = Skiffport.KHConnectUtil().SyncSendHttpRequestParam
threading.Thread(target=call, args=("slow.test", 80, "/", ""), daemon=True).start()
sys.stdin.read(1)
"""

    def test_a_thread_that_returns_afterwards_ends_quietly(self):
        with socket.create_server(("127.0.0.1", 0)) as listener:
            env = {**os.environ, "PYTHONPATH": os.pathsep.join(common.PATH),
                   "SKIFFPORT_CONNECT_TO": f"slow.test:80:127.0.0.1:{listener.getsockname()[1]}"}
            with subprocess.Popen([sys.executable, "-B", "-u", "-c", self.SCRIPT], stdin=subprocess.PIPE,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=env) as child:
                listener.settimeout(fixtures.DEADLINE_SECONDS)
                connection = listener.accept()[0]
                child.stdin.write(b"x")
                child.stdin.flush()
                self.assertEqual(child.stdout.read(1), b"x")
                connection.close()
                tasks = f"/proc/{child.pid}/task"
                if sys.version_info >= (3, 9):  # 3.8 leaves the thread waiting for the GIL until the process ends
                    fixtures.wait_until(lambda: child.poll() is not None or len(os.listdir(tasks)) == 1,
                                        "end of the thread")
                self.assertEqual(child.communicate(timeout=fixtures.DEADLINE_SECONDS)[0], b"")
        self.assertEqual(child.returncode, 0)
