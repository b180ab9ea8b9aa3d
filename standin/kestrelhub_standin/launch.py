"""Runs the stand-in as a process of its own, for the demo, the tests and scripts/with-standin.

Needs the standard library only, of Python 3.8 or later; the stand-in itself always runs on the system's Python.
"""

import contextlib
import json
import os
import pathlib
import select
import subprocess
import tempfile
import urllib.request
from typing import Any, Dict

from .members import PASSWORD, USER

__all__ = ["PASSWORD", "PYTHON", "USER", "Standin", "clean_environment", "standin_environment"]

ROOT = pathlib.Path(__file__).resolve().parents[2]
PYTHON = "/usr/bin/python3"
TIMEOUT_SECONDS = 60.0

# Variables that would lead a client's requests elsewhere, in lower case.
REDIRECTING = ("http_proxy", "https_proxy", "all_proxy", "no_proxy", "skiffport_connect_to", "ssl_cert_file")
# Variables that are meant for another interpreter than the stand-in's, such as one that runs under a sanitizer.
NOT_INHERITED = ("LD_PRELOAD", "PYTHONMALLOC", "PYTHONHOME")


def clean_environment() -> Dict[str, str]:
    """Returns this process's environment without anything that would lead a request elsewhere."""
    return {name: value for name, value in os.environ.items() if name.lower() not in REDIRECTING}


def standin_environment() -> Dict[str, str]:
    """Returns the environment of the stand-in's own interpreter, in which it finds its package."""
    env = {name: value for name, value in clean_environment().items() if name not in NOT_INHERITED}
    return {**env, "PYTHONPATH": str(ROOT / "standin")}


class Standin:
    """A running stand-in, for the length of a ``with`` block.

    ``env`` is the environment of a client: it leads the built tree (SKIFFPORT_TREE, or build/release/python) to the
    stand-in and nowhere else. ``ready`` holds the stand-in's ready line, and ``folder`` what was published.
    """

    def __enter__(self) -> "Standin":
        with contextlib.ExitStack() as stack:
            scratch = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="standin-")))
            self.folder = scratch / "presets"
            command = [PYTHON, "-B", "-m", "kestrelhub_standin", str(scratch)]
            self._process: Any = stack.enter_context(subprocess.Popen(
                command, env=standin_environment(), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                start_new_session=True))  # Ctrl-C is for the client
            stack.callback(self._process.kill)
            output = self._process.stdout
            line = select.select([output], [], [], TIMEOUT_SECONDS)[0] and output.readline()
            if not line:
                raise RuntimeError("the stand-in did not start")
            stack.callback(self._end)
            self._stack = stack.pop_all()
        self.ready = json.loads(line)
        tree = os.environ.get("SKIFFPORT_TREE", str(ROOT / "build" / "release" / "python"))
        self.env = {**clean_environment(), "PYTHONPATH": tree, "SKIFFPORT_CONNECT_TO": self.ready["connect_to"],
                    "SSL_CERT_FILE": self.ready["ca_file"]}
        return self

    def __exit__(self, *_exception: object) -> None:
        self._stack.close()

    def get(self, path: str) -> Any:
        """Returns the stand-in's reply on its plain port, decoded from JSON."""
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(f"http://127.0.0.1:{self.ready['http_port']}{path}", timeout=TIMEOUT_SECONDS) as reply:
            return json.load(reply)

    def presets(self) -> Any:
        """Returns the records of what was published, oldest first."""
        return self.get("/standin/presets")

    def requests(self) -> Any:
        """Returns the requests so far, oldest first."""
        return self.get("/standin/requests")

    def _end(self) -> None:
        self._process.stdin.close()
        status = self._process.wait(TIMEOUT_SECONDS)
        if status != 0:
            raise RuntimeError(f"the stand-in ended with {status}")
