"""What a process may do at any moment: fork, exit, be signalled, pump on many threads, or lose its peer. Each case is a
run of program.py, of which the exit status, the output and the time are checked.

SKIFFPORT_TREE names the built tree, LIFECYCLE_SEED repeats a run, LIFECYCLE_PRELOAD names a sanitizer's libraries.
"""

import json
import os
import pathlib
import random
import re
import signal
import sys
import unittest
from concurrent import futures

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import common  # noqa: E402
import phases  # noqa: E402

SEED = os.environ.get("LIFECYCLE_SEED") or str(random.SystemRandom().randrange(10**9))
PRELOAD = os.environ.get("LIFECYCLE_PRELOAD", "")
EXITS = 6 if PRELOAD else 24  # at random moments
PROGRAM = pathlib.Path(__file__).with_name("program.py")
FIRST = ("sys", "ssl", "asyncio")  # what the programs import before the module: OpenSSL then has another first user
WAYS = {"sys.exit": 3, "os._exit": 4, "raise": 1, "return": 0, "SIGTERM": -signal.SIGTERM}
# The exit hook's 5 seconds, and what the start of several interpreters takes; less than any limit of a silent peer.
EXIT_SECONDS = 25
CRASH = "Fatal Python|terminate called|Sanitizer|runtime error:"
DISALLOWED = {0: f"{CRASH}|Traceback", 1: CRASH}  # by exit status


class LifecycleTest(common.NetworkCase):
    def setUp(self):
        super().setUp()
        self.network.reply("plain.kestrelhub.example", "plain", tls="")
        self.network.reply("www.kestrelhub.example", "")  # for the login's probe
        self.network.play("login.kestrelhub.example", "pieces", "--body", phases.LOGIN)
        for port in (80, 443):
            self.network.lead(f"refused.kestrelhub.example:{port}:127.0.0.1:1")
        registry = self.scratch / "registry.reg"
        registry.write_text('[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\n"DumpMsg"=dword:1\n', "utf-16")
        self.env = {"PYTHONPATH": os.pathsep.join([*common.PATH, str(PROGRAM.parent)]), "PYTHONFAULTHANDLER": "1",
                    "SKIFFPORT_REGISTRY": str(registry), "LD_PRELOAD": PRELOAD}

    def test_every_case_ends_well(self):
        dice = random.Random(SEED)
        runs = [("fork_and_kill", phase, "upload", 0) for phase in phases.PHASES]
        runs += [("fork_and_kill", phase, "login", 0) for phase in ("connect", "tls", "silent", "half")]
        deck = [("leave", phase, *way) for phase in phases.PHASES for way in WAYS.items()]
        runs += dice.sample(deck, EXITS)
        runs += [("storm", "fast", "", 0), ("pump_on_threads", "fast", "", 0)]
        if not PRELOAD:  # the locks of a sanitizer do not survive a fork while other threads allocate
            runs += [("fork_often", "fast", "", 0)] * len(FIRST)
        shared = {phase: phases.open_place(self.network, phase) for phase in phases.PHASES}
        with futures.ThreadPoolExecutor(8) as pool:
            started = []
            for number, (case, phase, way, status) in enumerate(runs):
                place = phases.open_place(self.network, phase) if case == "fork_and_kill" else shared[phase]
                run = json.dumps((case, phase, place, way, str(dice.randrange(10**9)), str(self.scratch)))
                network = f"{place.host}:443:127.0.0.1:{place.port},{os.environ['SKIFFPORT_CONNECT_TO']}"
                started.append((pool.submit(
                    common.fixtures.run, [sys.executable, "-B", str(PROGRAM), FIRST[number % len(FIRST)], run],
                    {**os.environ, **self.env, "SKIFFPORT_CONNECT_TO": network},
                    EXIT_SECONDS if case == "leave" else common.fixtures.DEADLINE_SECONDS), status, run))
            for program, status, run in started:
                with self.subTest(run):
                    found, printed = program.result()
                    bad = re.search(DISALLOWED.get(found, DISALLOWED[0]), printed)
                    self.assertEqual((found, bad), (status, None), printed[bad.start() if bad else -4000:][:8000])
                    if "fork_and_kill" in run:
                        self.assertEqual(printed.count("TWR version = version of the child"), 1)


if __name__ == "__main__":
    print(f"seed {SEED}: repeat with LIFECYCLE_SEED={SEED}", flush=True)
    unittest.main()
