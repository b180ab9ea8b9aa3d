"""What tests of all kinds need: a deadline, waits and a small preset to publish. Needs the built tree on sys.path."""

import contextlib
import os
import pathlib
import signal
import subprocess
import tempfile
import time
from typing import Any, Dict, List, Mapping, Optional, Sequence, Set, Tuple

from skiffhost.presetfiles import FILES

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
DEADLINE_SECONDS = 60.0


def wait_until(condition: Any, what: str, seconds: float = DEADLINE_SECONDS, rest: Any = time.sleep) -> Any:
    """Polls the condition, and rests in between. Returns its first true value. Fails when the time is up."""
    deadline = time.monotonic() + seconds
    while True:
        value = condition()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"{what}: not within {seconds:.0f} seconds")
        rest(0.01)


def threads() -> Set[str]:
    return set(os.listdir("/proc/self/task"))


def wait_for_threads(before: Set[str], what: str) -> None:
    """Waits until every thread has ended but those of ``before``, of which any may end meanwhile, too."""
    wait_until(lambda: before.issuperset(threads()), what)


def write_preset(folder: pathlib.Path, sizes: Optional[Mapping[str, int]] = None) -> pathlib.Path:
    """Writes the thirteen files, all different, of 100 bytes or the given sizes. Returns the folder."""
    folder.mkdir(parents=True)
    for number, name in enumerate(FILES):
        size = (sizes or {}).get(name, 100)
        pattern = b"\r\n--" + bytes(range(number, 251)) + b"-" * 27
        (folder / f"{name}.bin").write_bytes((pattern * (size // len(pattern) + 1))[:size])
    return folder


def preset_paths(folder: pathlib.Path, sizes: Optional[Mapping[str, int]] = None) -> List[str]:
    """Writes such files. Returns their paths in the order of StartUpload."""
    write_preset(folder, sizes)
    return [str(folder / f"{name}.bin") for name in FILES]


def run(command: Sequence[str], env: Dict[str, str], seconds: float = DEADLINE_SECONDS) -> Tuple[int, str]:
    """Runs a program, and kills the children that it leaves. Returns its exit status and everything that it printed.

    One that takes too long is aborted, which prints where its threads are if PYTHONFAULTHANDLER is set.
    """
    with tempfile.TemporaryFile() as output, subprocess.Popen(command, env=env, stdout=output, start_new_session=True,
                                                              stderr=subprocess.STDOUT) as process:
        with contextlib.suppress(subprocess.TimeoutExpired):
            process.wait(seconds)
        process.send_signal(signal.SIGABRT)  # does nothing once the program has ended
        process.wait()
        with contextlib.suppress(ProcessLookupError):
            os.killpg(process.pid, signal.SIGKILL)
        return process.returncode, os.pread(output.fileno(), 1 << 26, 0).decode()
