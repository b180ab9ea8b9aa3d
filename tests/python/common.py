"""What the tests share: the way to the built tree and to tests/support, and cases with scripted peers or a stand-in.

Comes before the imports of what stands there, since it puts both on the path.
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

PATH = [os.environ["SKIFFPORT_TREE"], str(pathlib.Path(__file__).resolve().parents[1] / "support")]
sys.path[:0] = PATH
import standin  # noqa: E402
from scripted import Network  # noqa: E402


class Case(unittest.TestCase):
    """Has a folder, ``scratch``, for all its tests."""

    @classmethod
    def setUpClass(cls):
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.scratch = pathlib.Path(scratch.name)

    def preset(self, sizes=None):
        """Writes the files of a preset into a new folder. Returns: their paths."""
        folder = standin.write_preset(pathlib.Path(tempfile.mkdtemp(dir=self.scratch), "preset"), sizes)
        return [str(folder / f"{name}.bin") for name in standin.FILES]

    def run_python(self, script, *arguments, **env):
        """Runs a script in another interpreter. Returns: its exit status and all that it printed."""
        done = subprocess.run([sys.executable, "-B", "-c", script, *arguments], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              env={**os.environ, "PYTHONPATH": os.pathsep.join(PATH), **env}, timeout=standin.DEADLINE_SECONDS)
        return done.returncode, done.stdout.decode()


class NetworkCase(Case):
    """Leads hosts to peers of its own in each test."""

    def setUp(self):
        self.network = Network().__enter__()
        self.addCleanup(self.network.__exit__)


class StandinCase(Case):
    """Leads all hosts to one stand-in."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.standin = standin.Standin().__enter__()
        cls.addClassCleanup(cls.standin.__exit__)
        patch = mock.patch.dict(os.environ, cls.standin.env, clear=True)
        patch.start()
        cls.addClassCleanup(patch.stop)
