"""Ends at every moment: forks, exits, signals, deaths of the service, and threads that pump. Each case is a run of
program.py, whose exit status, output and time are checked.

SKIFFPORT_TREE names the built tree, LIFECYCLE_SEED repeats a run, LIFECYCLE_PRELOAD names a sanitizer's libraries for the
programs, and LIFECYCLE_ROUNDS says how many exits there are at random moments.
"""

import json
import os
import pathlib
import random
import re
import signal
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import common  # noqa: E402
import phases  # noqa: E402

SEED = os.environ.get("LIFECYCLE_SEED") or str(random.SystemRandom().randrange(10**9))
ROUNDS = int(os.environ.get("LIFECYCLE_ROUNDS", "25"))
PRELOAD = os.environ.get("LIFECYCLE_PRELOAD", "")
PROGRAM = pathlib.Path(__file__).with_name("program.py")
SIDE_BY_SIDE = 8
# The exit hook's 5 seconds, and what the start of several interpreters takes; less than any limit of a silent peer.
EXIT_SECONDS = 25
CRASH = "Fatal Python|terminate called|Sanitizer|runtime error:"
DISALLOWED = {0: f"{CRASH}|Traceback", 1: CRASH}  # by exit status


class LifecycleTest(common.NetworkCase):
    def setUp(self):
        super().setUp()
        self.dice = random.Random(SEED)
        self.network.reply("plain.kestrelhub.example", "plain", tls="")
        self.network.reply("www.kestrelhub.example", "")  # for the login's probe
        self.network.play("login.kestrelhub.example", "pieces", "--body", phases.LOGIN)
        self.network.lead("refused.kestrelhub.example:443:127.0.0.1:1")
        self.network.lead("refused.kestrelhub.example:80:127.0.0.1:1")
        registry = self.scratch / "registry.reg"
        registry.write_text('[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\n"DumpMsg"=dword:1\n', "utf-16")
        self.env = {"PYTHONPATH": os.pathsep.join([*common.PATH, str(PROGRAM.parent)]), "PYTHONFAULTHANDLER": "1",
                    "SKIFFPORT_REGISTRY": str(registry), "LD_PRELOAD": PRELOAD}

    def start(self, case, name, way=""):
        """Starts a program at a place of its own. Returns the process and its output."""
        place = phases.open_place(self.network, name)
        output = tempfile.TemporaryFile(dir=self.scratch)
        self.addCleanup(output.close)
        seed = str(self.dice.randrange(10**9))
        return subprocess.Popen(
            [sys.executable, "-B", str(PROGRAM), case, seed, str(self.scratch), json.dumps(place), way],
            env={**os.environ, **self.env}, stdout=output, stderr=subprocess.STDOUT), output

    def check(self, started, status=0, seconds=common.fixtures.DEADLINE_SECONDS):
        """Waits for the program's end. Returns what it printed."""
        process, output = started
        try:
            process.wait(seconds)
        except subprocess.TimeoutExpired:
            process.send_signal(signal.SIGABRT)  # prints where the threads are
            process.wait()
        printed = os.pread(output.fileno(), 1 << 26, 0).decode()
        bad = re.search(DISALLOWED.get(process.returncode, DISALLOWED[0]), printed)
        shown = printed[bad.start():][:8000] if bad else printed[-4000:]
        self.assertEqual((process.returncode, bad), (status, None), f"{process.args[3:]}: {shown}")
        return printed

    def check_all(self, runs, seconds=common.fixtures.DEADLINE_SECONDS):
        """Runs (case, place, way, status) side by side. Returns what each printed."""
        printed = []
        for first in range(0, len(runs), SIDE_BY_SIDE):
            batch = [(self.start(*run), status) for *run, status in runs[first:first + SIDE_BY_SIDE]]
            printed += [self.check(started, status, seconds) for started, status in batch]
        return printed

    def test_forks_and_deaths_of_the_service_in_every_phase(self):
        runs = [("fork_and_kill", name, "upload", 0) for name in phases.PHASES]
        runs += [("fork_and_kill", name, "login", 0) for name in ("connect", "tls", "silent", "half")]
        for run, printed in zip(runs, self.check_all(runs)):
            self.assertEqual(printed.count("TWR version = version of the child"), 1, run)

    @unittest.skipIf(PRELOAD, "the locks of a sanitizer do not survive a fork while other threads allocate")
    def test_forks_at_random_moments(self):
        self.check(self.start("fork_often", "fast"))

    def test_exits_at_random_moments(self):
        ways = {"sys.exit": 3, "os._exit": 4, "raise": 1, "return": 0, "SIGTERM": -signal.SIGTERM}
        deck = [(name, way) for name in phases.PHASES for way in ways]
        runs = [("leave", *card, ways[card[1]]) for card in self.dice.sample(deck, min(ROUNDS, len(deck)))]
        self.check_all(runs, EXIT_SECONDS)

    def test_a_storm_of_signals(self):
        process, output = started = self.start("interrupted", "fast")
        common.fixtures.wait_until(lambda: b"ready\n" in os.pread(output.fileno(), 1 << 20, 0), "start")
        while process.poll() is None:
            process.send_signal(signal.SIGINT)
            time.sleep(0.001)
        self.check(started)

    def test_threads_pump_in_parallel(self):
        self.check(self.start("pump_on_threads", "small", "4"))


if __name__ == "__main__":
    print(f"seed {SEED}: repeat with LIFECYCLE_SEED={SEED}", flush=True)
    unittest.main()
