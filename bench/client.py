"""One measured run of the module in its own process: `client.py upload|first-upload PATH...`, `client.py login COUNT`.

An upload follows a login, as in every program, since it needs the token; a first upload is the process's first use of
the network and its libraries. Prints one JSON object: seconds of wall and CPU time for the work itself, and the
process's peak memory. SKIFFPORT_TREE names the built tree.
"""

from __future__ import annotations

import json
import os
import re
import sys
import time
from typing import Any

sys.path.insert(0, os.environ["SKIFFPORT_TREE"])

import Skiffport  # noqa: E402
from skiffhost import loop  # noqa: E402

HOST = "www.kestrelhub.example"
UUID = "00000000-0000-4000-8000-000000000000"


def peak_kib() -> int:
    """Returns this process's peak resident memory, not counting the process it was forked from."""
    with open("/proc/self/status", encoding="ascii") as status:
        return int(re.search(r"VmHWM:\s+(\d+) kB", status.read()).group(1))


def upload(paths: list[str], is_first: bool) -> dict[str, Any]:
    """Uploads the thirteen files and pumps events until the upload is complete."""
    if not is_first:
        login(0)
    completions: list[tuple] = []
    uploader = Skiffport.PyPresetUploader(HOST, "0123456789abcdef", "1.0", "bench", UUID)
    uploader.SetCallback(lambda *event: completions.append(event) if event[1] == "UploadComplete" else None)
    wall, cpu = time.perf_counter(), time.process_time()
    if not uploader.StartUpload(*paths, "key", "A title", "3", "tag", "A description", "", "PRESET", 7):
        sys.exit("the upload did not start")
    while not completions:
        loop.wait(1.0)
        loop.pump()
    wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
    if completions[0][3:5] != (1, f"https://{HOST}/p/7"):
        sys.exit(f"the upload failed: {completions[0]}")
    return {"wall": wall, "cpu": cpu, "peak_kib": peak_kib()}


def login(count: int) -> dict[str, Any]:
    """Logs in once with address discovery and a cold trust store, then `count` times without."""
    session = Skiffport.KHLoginData("1.0", "bench", UUID)

    def exchange(times: int) -> tuple[float, float]:
        wall, cpu = time.perf_counter(), time.process_time()
        for _ in range(times):
            result = session.LoginKestrelhub("member", "password")
            if result != 1:
                sys.exit(f"the login failed: {result}")
        return (time.perf_counter() - wall) / max(times, 1), (time.process_time() - cpu) / max(times, 1)

    first_wall, first_cpu = exchange(1)
    wall, cpu = exchange(count)
    return {"first_wall": first_wall, "first_cpu": first_cpu, "wall": wall, "cpu": cpu}


if __name__ == "__main__":
    if sys.argv[1] == "login":
        print(json.dumps(login(int(sys.argv[2]))))
    else:
        print(json.dumps(upload(sys.argv[2:], sys.argv[1] == "first-upload")))
