"""Compares the module's uploads with `curl -F` and the same form over TLS on loopback, and measures logins.

See scripts/bench. The uploader's pause of 50 ms per chunk is the floor of every upload, so times are given above it.
Runs of the two clients alternate, each in its own process, and the figures are medians.
"""

from __future__ import annotations

import argparse
import json
import sys
from pathlib import Path
from statistics import median
from typing import Any, NamedTuple

from setting import BENCH, HOSTS, Setting, compile_program, keep_apart, prepare, warn_if_busy

SYSTEM_ROOTS = Path("/etc/ssl/certs/ca-certificates.crt")
KIB, MIB, GIB = 1 << 10, 1 << 20, 1 << 30
SMALL_SIZES = [20_000 + i * 280_000 // 12 for i in range(13)]
FIELDS = {
    **{"token": "0123456789abcdef", "title": "A title", "tags": "tag", "description": "A description", "category": "3"},
    **{"PIPtype": "PRESET", "templatetype": "PRESET", "templateKey": "key", "productName": "Quillon Tintwright"},
    **{"versionInfo": "1.0", "AP": "TWR", "Version": "1.0", "AspectRatio": "1:1", "versionType": "bench"},
    "uuid": "00000000-0000-4000-8000-000000000000",
}


class FileSet(NamedTuple):
    name: str
    rounds: int  # of a full run
    sizes: list[int]  # of the thirteen files

    @property
    def part_sizes(self) -> list[int]:
        """The second file is sent twice."""
        return [self.sizes[0], self.sizes[1], *self.sizes[1:]]

    @property
    def chunks(self) -> int:
        """The number of chunks of all parts if no write takes half a second."""
        return sum(count_chunks(size) for size in self.part_sizes)

    @property
    def pauses(self) -> float:
        return self.chunks * 0.050


def count_chunks(size: int) -> int:
    """Returns the number of chunks of one file: 32 KiB, then doubled each time up to 16 MiB."""
    count, chunk = 0, 32 * KIB
    while size > 0:
        size -= chunk
        count += 1
        chunk = min(2 * chunk, 16 * MIB)
    return count


SMALL = FileSet("small preset", 5, SMALL_SIZES)
MEDIUM = FileSet("10 MiB + twelve", 5, [10 * MIB, *SMALL_SIZES[1:]])
LARGE = FileSet("1 GiB + twelve", 7, [GIB, *SMALL_SIZES[1:]])


def make_files(setting: Setting, files: FileSet) -> list[str]:
    """Makes the set's files, all zeros, and reads them so that every run finds them cached."""
    paths = []
    for number, size in enumerate(files.sizes):
        path = setting.folder / f"{size}-{number}.bin"
        with open(path, "ab+") as file:
            file.truncate(size)
            file.seek(0)
            while file.read(MIB):
                pass
        paths.append(str(path))
    return paths


def run_client(setting: Setting, *arguments: str) -> dict[str, Any]:
    """Runs the module's client. Adds the user and system time of the whole process to its figures."""
    output, _, times = setting.run([sys.executable, "-B", str(BENCH / "client.py"), *arguments])
    return {**json.loads(output), "user": times[0], "system": times[1]}


def run_module(setting: Setting, paths: list[str]) -> dict[str, Any]:
    """Runs one upload by the module."""
    return run_client(setting, "upload", *paths)


def run_curl(setting: Setting, paths: list[str]) -> dict[str, Any]:
    """Runs one upload by curl with the same fields and file parts."""
    command = ["curl", "-q", "-sS", "--fail", "--http1.1", "-H", "Expect:"]
    command += ["--cacert", str(setting.folder / "root.pem")]
    command += ["--connect-to", f"{HOSTS[0]}:443:{setting.address}:{setting.secure}", "-w", "\n%{time_total}"]
    for name, value in FIELDS.items():
        command += ["--form-string", f"{name}={value}"]
    for number, path in enumerate([paths[0], paths[1], *paths[1:]]):
        command += ["-F", f"PIPfile{number}=@{path};type=application/octet-stream"]
    output, _, times = setting.run([*command, f"https://{HOSTS[0]}/servlet/uploadTemplate"])
    return {"wall": float(output.rsplit("\n", 1)[1]), "cpu": sum(times), "user": times[0], "system": times[1]}


def measure_uploads(setting: Setting, files: FileSet, quick: bool) -> dict[str, dict[str, float]]:
    """Returns the medians of both clients for one set of files, and prints a line about them."""
    paths = make_files(setting, files)
    runs: dict[str, list[dict[str, Any]]] = {"module": [], "curl": []}
    with keep_apart(setting) as apart:
        for _ in range(1 if quick else files.rounds):
            runs["module"].append(run_module(apart, paths))
            runs["curl"].append(run_curl(apart, paths))
    result = {who: {key: median(run[key] for run in made) for key in made[0]} for who, made in runs.items()}
    module, curl = result["module"], result["curl"]
    print(
        f"{files.name:16} {files.chunks:6} {files.pauses:7.2f} {module['wall']:8.3f} "
        f"{(module['wall'] - files.pauses) * 1000:9.1f} {curl['wall'] * 1000:8.1f} {module['cpu']:8.3f} "
        f"{curl['cpu']:8.3f} {module['peak_kib'] / KIB:8.1f}",
        flush=True,
    )
    return result


def write_all_roots(setting: Setting) -> Path:
    """Writes the system's trusted roots and the peer's own into one file."""
    path = setting.folder / "all-roots.pem"
    roots = SYSTEM_ROOTS.read_bytes() if SYSTEM_ROOTS.exists() else b""
    path.write_bytes(roots + (setting.folder / "root.pem").read_bytes())
    return path


def measure_login(setting: Setting, quick: bool) -> dict[str, float]:
    """Measures a login with the system's trusted roots in addition to the peer's own."""
    setting = setting._replace(environment={**setting.environment, "SSL_CERT_FILE": str(write_all_roots(setting))})
    return run_client(setting, "login", "20" if quick else "100")


def measure_first_upload(setting: Setting, quick: bool) -> float:
    """Returns the seconds above its pauses of a small preset that is a process's first use of the network."""
    paths = make_files(setting, SMALL)
    walls = [run_client(setting, "first-upload", *paths)["wall"] for _ in range(1 if quick else SMALL.rounds)]
    return median(walls) - SMALL.pauses


def report_many(setting: Setting) -> None:
    """Prints what many uploads on one thread's pump, and many logins on many threads, do to each other."""
    many = run_client(setting, "uploads", "16", *make_files(setting, SMALL))
    print(
        f"16 small presets at once: {(many['wall'] - SMALL.pauses) * 1000:.0f} ms above one's pauses, "
        f"{many['cpu'] * 1000 / 16:.1f} ms CPU each, the pump's longest turn {many['gap'] * 1000:.2f} ms"
    )
    for threads in (1, 4, 16):
        figures = run_client(setting, "logins", str(threads), "64")
        print(
            f"64 sessions' logins on {threads:2} threads: {figures['rate']:.0f} a second, "
            f"{figures['cpu'] * 1000:.2f} ms CPU each"
        )


def measure_start(setting: Setting, quick: bool) -> float:
    """Returns the CPU seconds of importing the module and its message loop, above the bare interpreter's start."""
    programs = ["pass", f"import sys; sys.path.append({setting.environment['SKIFFPORT_TREE']!r}); "
                        "import Skiffport; from skiffhost import loop"]  # fmt: skip
    times: list[list[float]] = [[], []]
    for _ in range(5 if quick else 25):
        for program, made in zip(programs, times):
            made.append(sum(setting.run([sys.executable, "-c", program])[2]))
    return median(times[1]) - median(times[0])


def measure_trace(setting: Setting, build: Path) -> float:
    """Returns the nanoseconds that a trace call takes while tracing is off."""
    libraries = [str(build / "trace" / "libskiffport_trace.a"), str(build / "python" / "libskiffport_platform.so")]
    program = compile_program(setting.folder, "trace_bench", *libraries, f"-Wl,-rpath,{build / 'python'}")
    return float(setting.run([program])[0])


def report_processor(uploads: dict[str, dict[str, dict[str, float]]]) -> None:
    """Prints where the largest upload's CPU time goes, with the interpreter's start and the imports and without."""
    module, curl = (uploads[LARGE.name][who] for who in ("module", "curl"))
    reference = curl["user"] + curl["system"]
    print("\nCPU of 1 GiB, s       user  system     all  to curl")
    for name, run in (("module's process", module), ("curl's process", curl)):
        both = run["user"] + run["system"]
        print(f"{name:18} {run['user']:7.3f} {run['system']:7.3f} {both:7.3f} {both / reference:8.2f}")
    print(f"{'the upload alone':18} {'':15} {module['cpu']:7.3f} {module['cpu'] / reference:8.2f}")


def report_targets(
    uploads: dict[str, dict[str, dict[str, float]]], login: dict[str, float], start: float
) -> bool:
    """Prints each target and what was measured. Returns whether all hold."""
    small, medium, large = (uploads[files.name] for files in (SMALL, MEDIUM, LARGE))
    sent = sum(LARGE.part_sizes) - sum(MEDIUM.part_sizes)
    # A difference, so that neither client's start-up counts.
    cpu = {who: (large[who]["cpu"] - medium[who]["cpu"]) * GIB / sent for who in large}
    print(f"\nCPU a GiB: module {cpu['module']:.3f} s, curl {cpu['curl']:.3f} s")
    rows = [
        ("small preset above its pauses, ms", (small["module"]["wall"] - SMALL.pauses) * 1000, 30),
        (
            "1 GiB above its pauses, in curl's time",
            (large["module"]["wall"] - LARGE.pauses) / large["curl"]["wall"],
            1.2,
        ),
        ("CPU a GiB, in curl's", cpu["module"] / cpu["curl"], 1.15),
        ("peak memory, 1 GiB over 10 MiB, MiB", (large["module"]["peak_kib"] - medium["module"]["peak_kib"]) / KIB, 40),
        ("CPU of a login, ms", login["cpu"] * 1000, 5),
        ("CPU of importing module and loop, ms", start * 1000, 15),
    ]
    for name, measured, limit in rows:
        print(f"{name:40} {measured:7.2f} of {limit:5}   {'holds' if measured <= limit else 'FAILS'}")
    return all(measured <= limit for _, measured, limit in rows)


def main() -> int:
    """Runs everything. Returns 1 if a target does not hold."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, required=True, help="the build folder to measure")
    parser.add_argument("--quick", action="store_true", help="one round")
    options = parser.parse_args()
    build = options.build.resolve()
    warn_if_busy()
    with prepare(build / "python") as setting:
        print("files            chunks pauses s module s  above ms  curl ms  module's curl's   module's")
        print("                                                             CPU s    CPU s    peak MiB")
        uploads = {files.name: measure_uploads(setting, files, options.quick) for files in (SMALL, MEDIUM, LARGE)}
        login = measure_login(setting, options.quick)
        print(
            f"\nlogin: {login['wall'] * 1000:.2f} ms, {login['cpu'] * 1000:.2f} ms CPU; the process's first, with "
            f"address discovery: {login['first_wall'] * 1000:.2f} ms, {login['first_cpu'] * 1000:.2f} ms CPU"
        )
        first = measure_first_upload(setting, options.quick)
        print(f"small preset with no login before it: {first * 1000:.1f} ms above its pauses")
        print(f"trace call while tracing is off: {measure_trace(setting, build):.2f} ns")
        report_many(setting)
        report_processor(uploads)
        return 0 if report_targets(uploads, login, measure_start(setting, options.quick)) else 1


if __name__ == "__main__":
    sys.exit(main())
