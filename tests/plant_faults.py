#!/usr/bin/env python3
"""Plants the small faults of tests/faults.txt one at a time and tells which of them the tests notice.

Usage: plant_faults.py PRESET [FAULT]... -- [OPTION OF CTEST]...   (release 3 18 -- -LE full)

One build below build/faults holds all of them; the environment's PLANTED_FAULT chooses one. A fault counts as noticed
if a test fails twice with it; without a fault all must pass, which the first run checks. A copy of the tree is built,
so that the work in it may go on.
"""

import concurrent.futures
import os
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parents[1]
COPY = ROOT / "build" / "faults"
HEADER = """#pragma once
#include <cstdlib>
inline bool IsPlanted(int number) {
  static char const *const s_number = std::getenv("PLANTED_FAULT");
  return s_number && number == std::atoi(s_number);
}
constexpr bool Planted(int number) { return !__builtin_is_constant_evaluated() && IsPlanted(number); }
"""


def read_faults():
    """Yields (number, file, tests, original, faulty)."""
    text = re.sub(r"(?m)^#.*\n|\\\n *", "", (ROOT / "tests" / "faults.txt").read_text("utf-8"))
    for entry in filter(None, re.split(r"\n\s*\n", text.strip())):
        head, original, faulty = entry.split("\n")
        number, file, tests = head.split()
        yield int(number), file, tests, original, faulty


def plant(text, number, file, original, faulty):
    """Returns the file's text with a switch between the original and the faulty text, as the list describes them."""
    python, found = file.endswith(".py"), re.findall(r"\s+".join(map(re.escape, original.split())), text)
    if len(found) != 1:
        sys.exit(f"fault {number}: found {len(found)} times in {file}: {original}")
    switch = f'(__import__("os").environ.get("PLANTED_FAULT") == "{number}")' if python else f"Planted({number})"
    if "PLANTED" in faulty:
        new = faulty.replace("PLANTED", switch).replace("\\n", "\n")
    elif python:
        new = f"if not {switch}: {found[0]}" if faulty == "-" else f"({faulty} if {switch} else {found[0]})"
    elif original.endswith(";"):
        new = f"{{ if ({switch}) {{ {faulty.strip('-')} }} else {{ {found[0]} }} }}"
    else:
        new = f"({switch} ? ({faulty}) : ({found[0]}))"
    return text.replace(found[0], new)


def make_copy(faults):
    """Brings the copy of the tracked files up to date, with all faults in it."""
    names = subprocess.check_output(["git", "ls-files"], cwd=ROOT, text=True).splitlines()
    texts = {"build/planted.h": HEADER.encode(), **{name: (ROOT / name).read_bytes() for name in names}}
    for number, file, _, original, faulty in faults:
        texts[file] = plant(texts[file].decode(), number, file, original, faulty).encode()
    for old in COPY.glob("tests/**/*_test.cpp"):
        old.unlink() if str(old.relative_to(COPY)) not in texts else None
    for name, text in texts.items():
        target = COPY / name
        if not target.exists() or target.read_bytes() != text:
            target.parent.mkdir(parents=True, exist_ok=True)
            target.write_bytes(text)
        target.chmod((ROOT / name).stat().st_mode if name in names else 0o644)


def find(build, number, tests, options):
    """Runs the tests that should notice the fault, then all others. Returns the names of those that failed."""
    names, failed = rf"^(python.*-)?({tests})$", []
    for chosen in (["-R", names], ["-E", names]):
        command = ["ctest", "--test-dir", build, "--stop-on-failure", "--repeat", "until-pass:2", "--timeout", "300"]
        done = subprocess.run([*command, *chosen, *options], env={**os.environ, "PLANTED_FAULT": str(number)},
                              stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        left = f"grep -lsazx PLANTED_FAULT={number} /proc/[0-9]*/environ | cut -d/ -f3 | xargs -r kill -KILL"
        subprocess.run(["sh", "-c", left], check=False)
        failed = failed or re.findall(r"(?m)^\s+\d+ - (\S+ \(.*\))", done.stdout)
        if failed:
            break
    return failed


def main():
    words, _, options = " ".join(sys.argv[1:]).partition(" -- ")
    preset, *numbers = words.split()
    faults = list(read_faults())
    make_copy(faults)
    subprocess.run(["scripts/build", "--no-install", "--tests-only" if preset == "tsan" else "--tests", preset,
                    "-DSKIFFPORT_PYTHONS=/usr/bin/python3", "--compile-no-warning-as-error",
                    f"-DCMAKE_CXX_FLAGS=-w -include {COPY}/build/planted.h"], cwd=COPY, check=True)
    build, missed = COPY / "build" / preset, []
    chosen = [fault for fault in faults if not numbers or str(fault[0]) in numbers]
    if not numbers and (failed := find(build, 0, "none", options.split())):
        sys.exit(f"fails without a fault: {failed}")
    with concurrent.futures.ThreadPoolExecutor(2) as pool:
        results = pool.map(lambda fault: find(build, fault[0], fault[2], options.split()), chosen)
        for (number, file, _, _, faulty), failed in zip(chosen, results):
            print(f"{number:4}  {file:40} {' '.join(failed) or 'NOT NOTICED: ' + faulty}", flush=True)
            missed += [] if failed else [number]
    print(f"{len(chosen) - len(missed)} of {len(chosen)} noticed; not noticed:", *missed)


if __name__ == "__main__":
    main()
