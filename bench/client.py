"""One measured run of the module in its own process. Prints one JSON object; SKIFFPORT_TREE names the built tree.

    upload PATH...         seconds of wall and CPU time of an upload, and the process's peak memory; the upload follows
                           a login, as in every program, since it needs the token
    first-upload PATH...   the same as the process's first use of the network and its libraries
    uploads COUNT PATH...  the same of that many uploads at once, and the longest time that one turn of the pump took
    login COUNT            seconds per login: of the first, with address discovery and no roots read yet, and of COUNT
    logins THREADS COUNT   logins per second of COUNT sessions on so many threads
"""

from __future__ import annotations

import json
import os
import re
import sys
import time
from concurrent.futures import ThreadPoolExecutor
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


def upload(paths: list[str], count: int, is_first: bool) -> dict[str, Any]:
    """Uploads the thirteen files, `count` times at once, and pumps events until all are complete."""
    if not is_first:
        login(0)
    completions: list[tuple] = []
    uploaders = [Skiffport.PyPresetUploader(HOST, "0123456789abcdef", "1.0", "bench", UUID) for _ in range(count)]
    wall, cpu = time.perf_counter(), time.process_time()
    for uploader in uploaders:
        uploader.SetCallback(lambda *event: completions.append(event) if event[1] == "UploadComplete" else None)
        if not uploader.StartUpload(*paths, "key", "A title", "3", "tag", "A description", "", "PRESET", 7):
            sys.exit("the upload did not start")
    gap = 0.0
    while len(completions) < count:
        loop.wait(1.0)
        turn = time.perf_counter()
        loop.pump()
        gap = max(gap, time.perf_counter() - turn)
    wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
    if any(event[3:5] != (1, f"https://{HOST}/p/7") for event in completions):
        sys.exit(f"an upload failed: {completions}")
    return {"wall": wall, "cpu": cpu, "peak_kib": peak_kib(), "gap": gap}


def logins(threads: int, count: int) -> dict[str, float]:
    """Logs in `count` sessions on so many threads, each twice."""
    sessions = [Skiffport.KHLoginData("1.0", "bench", UUID) for _ in range(count)]

    def log_in(session: Any) -> int:
        return session.LoginKestrelhub("member", "password")

    with ThreadPoolExecutor(threads) as pool:
        for _ in range(2):  # the first round finds the hosts
            wall, cpu = time.perf_counter(), time.process_time()
            if set(pool.map(log_in, sessions)) != {1}:
                sys.exit("a login failed")
    return {"rate": count / (time.perf_counter() - wall), "cpu": (time.process_time() - cpu) / count}


def login(count: int) -> dict[str, Any]:
    """Logs in once with address discovery and no roots read yet, then `count` times without."""
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
    what, *arguments = sys.argv[1:]
    if what == "login":
        print(json.dumps(login(int(arguments[0]))))
    elif what == "logins":
        print(json.dumps(logins(int(arguments[0]), int(arguments[1]))))
    elif what == "uploads":
        print(json.dumps(upload(arguments[1:], int(arguments[0]), False)))
    else:
        print(json.dumps(upload(arguments, 1, what == "first-upload")))
