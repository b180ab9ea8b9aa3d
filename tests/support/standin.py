"""The stand-in as a process for tests, and a small preset to publish. Knows nothing of the module under test."""

import contextlib
import json
import os
import pathlib
import subprocess
import tempfile
import time
import urllib.request
from typing import Any, Dict, Mapping, Optional

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
STANDIN_PYTHON = "/usr/bin/python3"
DEADLINE_SECONDS = 60.0

USER = "mika@kestrelhub.example"
PASSWORD = "tulip & birch = 100%"

FILES = ("effect", "cover_after", "cover_before", "thumbnail_after", "thumbnail_before", "curve_rgb", "curve_r",
         "curve_g", "curve_b", "levels_rgb", "levels_r", "levels_g", "levels_b")

# Set for the interpreter under test alone; the stand-in runs outside of the checkers.
_NOT_FOR_THE_STANDIN = ("LD_PRELOAD", "PYTHONMALLOC", "PYTHONHOME")


def clean_environment() -> Dict[str, str]:
    """This process's environment without anything that would lead a request elsewhere."""
    unwanted = ("http_proxy", "https_proxy", "all_proxy", "no_proxy", "skiffport_connect_to", "ssl_cert_file")
    return {name: value for name, value in os.environ.items() if name.lower() not in unwanted}


def standin_environment() -> Dict[str, str]:
    """The environment of the stand-in's own interpreter, with its package to be found."""
    env = {name: value for name, value in clean_environment().items() if name not in _NOT_FOR_THE_STANDIN}
    return {**env, "PYTHONPATH": str(REPOSITORY / "standin")}


def wait_until(condition: Any, what: str, seconds: float = DEADLINE_SECONDS) -> Any:
    """Returns the condition's first true value, polled; fails when the time is up."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within {seconds:.0f} seconds")
        time.sleep(0.01)


def write_preset(folder: pathlib.Path, sizes: Optional[Mapping[str, int]] = None) -> pathlib.Path:
    """Writes the thirteen files, each different, of 100 bytes or as many as told. Returns the folder."""
    folder.mkdir(parents=True)
    for number, name in enumerate(FILES):
        size = (sizes or {}).get(name, 100)
        pattern = b"\r\n--" + bytes(range(number, 251)) + b"-" * 27
        (folder / f"{name}.bin").write_bytes((pattern * (size // len(pattern) + 1))[:size])
    return folder


class Standin:
    """A running stand-in; ``env`` is an environment in which the built tree reaches it and nothing else."""

    def __enter__(self) -> "Standin":
        with contextlib.ExitStack() as stack:
            scratch = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory()))
            self.folder = scratch / "service"
            command = [STANDIN_PYTHON, "-B", "-m", "kestrelhub_standin", "--until-stdin-closes", "--folder",
                       str(self.folder), "--cert-folder", str(scratch / "certificates")]
            self._process = subprocess.Popen(command, env=standin_environment(), stdin=subprocess.PIPE, stdout=subprocess.PIPE)
            stack.callback(self._end)
            assert self._process.stdout is not None
            self.ready = json.loads(self._process.stdout.readline() or b"{}")
            assert self.ready, "the stand-in did not start"
            self._stack = stack.pop_all()
        self.env = {**clean_environment(), "SKIFFPORT_CONNECT_TO": self.ready["connect_to"],
                    "SSL_CERT_FILE": self.ready["ca_file"], "PYTHONPATH": os.environ.get("SKIFFPORT_TREE", "")}
        return self

    def __exit__(self, *_exception: Any) -> None:
        self._stack.close()

    def get(self, path: str) -> Any:
        """Returns what the stand-in answers on its plain port, from JSON."""
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(f"http://127.0.0.1:{self.ready['http_port']}{path}", timeout=DEADLINE_SECONDS) as reply:
            return json.load(reply)

    def presets(self) -> Any:
        """Returns the records of what was published, oldest first."""
        return self.get("/standin/presets")

    def requests(self) -> Any:
        """Returns the requests so far, oldest first."""
        return self.get("/standin/requests")

    def _end(self) -> None:
        assert self._process.stdin is not None and self._process.stdout is not None
        self._process.stdin.close()
        status = self._process.wait(DEADLINE_SECONDS)
        self._process.stdout.close()
        assert status == 0, f"the stand-in ended with {status}"
