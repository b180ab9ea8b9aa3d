"""What the tests share: the import path, and test cases that run against scripted peers or a stand-in.

Import it first: it puts the built tree, tests/support and standin/ on the path.
"""

import os
import pathlib
import signal
import sys
import tempfile
import unittest
from unittest import mock

ROOT = pathlib.Path(__file__).resolve().parents[2]
PATH = [os.environ["SKIFFPORT_TREE"], str(ROOT / "tests" / "support"), str(ROOT / "standin")]
sys.path[:0] = PATH
import fixtures  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402
from scripted import Network  # noqa: E402

signal.signal(signal.SIGINT, signal.default_int_handler)  # a child would inherit one that is ignored


class Case(unittest.TestCase):
    """Has one folder, ``scratch``, for all its tests, none of which may leak descriptors."""

    KEPT = 8  # descriptors that a first use opens for good

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.scratch = pathlib.Path(scratch.name)

    def setUp(self):
        most = len(os.listdir("/proc/self/fd")) + self.KEPT
        self.addCleanup(fixtures.wait_until, lambda: len(os.listdir("/proc/self/fd")) <= most, "end of descriptors")

    def preset(self, sizes=None):
        """Writes the files of a preset into a new folder. Returns their paths."""
        return fixtures.preset_paths(pathlib.Path(tempfile.mkdtemp(dir=self.scratch), "preset"), sizes)

    def run_python(self, script, *arguments, **env):
        """Runs a script in another interpreter. Returns its exit status and everything that it printed."""
        env = {**os.environ, "PYTHONPATH": os.pathsep.join(PATH), **env}
        return fixtures.run([sys.executable, "-B", "-c", script, *arguments], env)


class NetworkCase(Case):
    """Directs hosts to peers of its own in each test."""

    def setUp(self):
        super().setUp()
        self.network = Network().__enter__()
        self.addCleanup(self.network.close)


class StandinCase(Case):
    """Directs all hosts to one stand-in."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.standin = launch.Standin().__enter__()
        cls.addClassCleanup(cls.standin.__exit__)
        patch = mock.patch.dict(os.environ, cls.standin.env, clear=True)
        patch.start()
        cls.addClassCleanup(patch.stop)

    @staticmethod
    def log_in():
        """Returns the service's host and the token of a member who has logged in."""
        import Skiffport  # only here, since the lifecycle tests' own process loads no sanitizer

        session = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
        assert session.LoginKestrelhub(launch.USER, launch.PASSWORD) == 1
        return session.GetServerUrl(), session.GetLoginTokenID()
