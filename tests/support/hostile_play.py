"""Plays rows of the table of hostile peers: hostile_play.py PLATFORM_LIBRARY [WORD...]

Loads the platform library whose clock can be driven, then the module over it. Prints a line for each call that does not
end as its row says, of the rows whose group and text hold one of the words. Needs the built tree, the tests' support
files and the stand-in's on the path. Runs as a process of its own, since a process has one platform library.
"""

import ctypes
import os
import pathlib
import re
import shlex
import sys
import tempfile

driven = ctypes.CDLL(sys.argv[1])
driven.DriveClock.restype = ctypes.c_uint64
libc = ctypes.CDLL(None)
M_MMAP_THRESHOLD, M_ARENA_MAX = -3, -8
libc.mallopt(M_ARENA_MAX, 1)  # so that all freed memory is returned when a measurement begins
libc.mallopt(M_MMAP_THRESHOLD, 1 << 17)
log = open("/proc/self/fd/2", "r+b", buffering=0)  # standard error is a file to which all append
registry = tempfile.NamedTemporaryFile("w", suffix=".reg")
registry.write('[HKEY_LOCAL_MACHINE\\SoftWare\\Quillon\\Tintwright]\n"DumpMsg"=dword:1\n"DumpInETW"=dword:0\n')
registry.flush()
os.environ["SKIFFPORT_REGISTRY"] = registry.name

import fixtures  # noqa: E402
import hostile_peers as table  # noqa: E402
import scripted  # noqa: E402
from publication import Publication  # noqa: E402

import Skiffport  # noqa: E402

HOST = "good.test"
LOOKS = 120  # at the clock, at least, before a limit passes
NUMBER = re.compile(rb"Error code: (\d+)|hr\(0x(?:8007)?(\w+)\)")
curl = ctypes.CDLL("libcurl.so.4")
curl.curl_version.restype = ctypes.c_char_p
# Other versions tell some failures apart in another way, find some of them sooner, and take more memory.
IS_KNOWN = curl.curl_version().startswith(b"libcurl/7.88.")
LEEWAY = 1 if IS_KNOWN else 2
PAGE = (fixtures.REPOSITORY / "docs" / "network-outcomes.md").read_text("utf-8")
SENTENCES = {text: int(number) for number, text in re.findall(r"^\| (\d+) \| ([^|]+) \|", PAGE, re.MULTILINE)}


def resident(name):
    """Returns the resident memory in MiB: "VmRSS" now, "VmHWM" the most since the last reset."""
    return int(re.search(rf"{name}:\s+(\d+)", pathlib.Path("/proc/self/status").read_text())[1]) / 1024


# The calls by their letters, and what is known of them.
MEMORY = {"U": 20, "f": 60}  # MiB that a call may take, if not 4
HAS_TLS = "lsuUd"
IS_TRACED = "uUevcd"  # only the trace has the number of a failure


def session(host=HOST):
    made = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
    made.SetKHURLAsReg(host)
    return made


def blocking(result):
    data = SENTENCES[result["errMsg"]] if "errMsg" in result else result["data"]
    return {"": 0, table.BODY.decode(): 1}.get(data, (1, data)) if result["bSucc"] else data


def upload(paths):
    publication = Publication(HOST)
    thread = publication.start(paths)
    percent, *result, by, number = publication.completion(90)  # longer than any time limit
    names = [event[0] for event in publication.events]
    assert thread and (percent, by, number, names.count("UploadComplete")) == (100, thread, 7, 1), names
    return tuple(result) if any(result[1:]) else result[0]


def find():
    found = session("")
    found.InitKHServerURL()
    return {scripted.STAGE: 0, "ho": 1}[found.GetServerUrl()]


def make_calls(folder):
    small = fixtures.preset_paths(folder / "small")
    large = fixtures.preset_paths(folder / "large", {"effect": 16_000_000})
    util, form, member = Skiffport.KHConnectUtil(), "f" * 8_000_000, session()
    assert member.LoginKestrelhub("u", "p") == 1
    return {"l": lambda: session().LoginKestrelhub("u", "p"), "u": lambda: upload(small), "U": lambda: upload(large),
            "r": lambda: blocking(util.SyncSendHttpRequest(HOST, 80, "/x", "", "")),
            "s": lambda: blocking(util.SyncSendHttpRequest(HOST, 443, "/x", "", "")),
            "f": lambda: blocking(util.SyncSendHttpRequestParam(HOST, 80, "/x", form)),
            "e": lambda: {"": 0, "u": 1}[session().GetEffectByGUID("g")],
            "c": lambda: len(session().GetPresetCategory("en")), "d": find,
            "v": lambda: member.SetRelateVideo("v", "w", "i")}


def direct(network, row, call):
    """Leads the connections of a call to the row's peer."""
    host = scripted.DETECT if call == "d" else HOST
    if row.role == "nobody":
        return network.lead(f"{host}::{row.script}")
    arguments = [row.script if isinstance(row.script, str) else repr(row.script), *shlex.split(row.options)]
    if call == "d":
        arguments = [each.replace(table.BODY.decode(), table.FOUND.decode()) for each in arguments]
    port = network.play(host, *arguments, tls=row.tls if call in HAS_TLS and row.role == "service" else "").port
    network.lead(f"{host}:{80 if call == 'v' else ''}:127.0.0.1:{port}")
    if row.role == "proxy":
        network.lead(f"{host}::{host}:")
        os.environ["http_proxy"] = os.environ["https_proxy"] = f"http://127.0.0.1:{port}"


def fits(outcome, wanted):
    if isinstance(wanted, tuple) and isinstance(outcome, tuple):
        return len(outcome) == len(wanted) and all(map(fits, outcome, wanted))
    return outcome in wanted if isinstance(wanted, frozenset) else outcome == wanted


def play(calls, rules, row, call):
    """Plays one call of a row. Returns what is not as the row says."""
    wanted = row.outcomes[call]
    limit = wanted if isinstance(wanted, table.Late) else table.Late(0, wanted)
    with scripted.Network() as network:
        for rule in rules:
            network.lead(rule)
        direct(network, row, call)
        log.truncate(0)
        libc.malloc_trim(0)
        pathlib.Path("/proc/self/clear_refs").write_text("5")  # resets the most
        before = resident("VmRSS")
        # "l" begins with a probe of the default host, "d" with one that the row means
        waits = call == "l" or (not limit.early and call != "d")
        ticks = driven.DriveClock(int(limit.seconds * 1000 / LOOKS), waits)
        outcome = calls[call]()
        seconds, growth = (driven.DriveClock(0, False) - ticks) / 1000, resident("VmHWM") - before
    log.seek(0)
    numbers = [int(code) if code else int(result, 16) for code, result in NUMBER.findall(log.read())]
    if call in IS_TRACED and numbers and numbers[-1]:
        outcome = numbers[-1]
    fault = "" if not IS_KNOWN or fits(outcome, limit.outcome) else str(outcome)[:200]
    least, most = limit.seconds * (0.99 if IS_KNOWN else 0), limit.seconds * 1.4 + limit.slack * LEEWAY
    if limit.seconds and not least <= seconds <= most:
        fault += f" after {seconds:.2f} s"
    if growth > (row.memory or MEMORY.get(call, 4)) * LEEWAY and "asan" not in os.environ.get("LD_PRELOAD", ""):
        fault += f" with {growth:.1f} MiB"
    return fault


def main():
    sys.stderr = sys.stdout
    with tempfile.TemporaryDirectory() as folder, scripted.Network() as network:
        good = network.reply(scripted.DEFAULT, "<info><tokenid>t</tokenid></info>")
        rules = ["::127.0.0.1:1", *(f"{host}:443:127.0.0.1:{good.port}" for host in (scripted.DEFAULT, HOST))]
        for rule in rules:  # the others lead nowhere
            network.lead(rule)
        calls = make_calls(pathlib.Path(folder))
        before = len(os.listdir("/proc/self/fd"))
        for group, rows in table.GROUPS.items():
            for row in (row for row in rows if any(word in f"{group}: {row.what}" for word in sys.argv[2:] or [""])):
                for call in row.outcomes:
                    fault = play(calls, rules, row, call)
                    if fault:
                        print(f"{group}: {row.what}, {call}: {fault}", flush=True)
        leaked = len(os.listdir("/proc/self/fd")) - before
        if leaked > 8:  # what a first use opens for good
            print(f"{leaked} descriptors leaked")


main()
