"""Runs the cases of scripts/torture, which starts it with the allocator preloaded.

Reads one request per line from standard input and answers each with one line, both JSON. A case is a forked process
that has used nothing of the module yet, nor of OpenSSL. It runs its scenario with one fault, then the scenario and an
upload without faults, which must succeed, and then repeats the fault to see whether memory is left each time.
"""

import atexit
import contextlib
import ctypes
import gc
import json
import os
import re
import select
import signal
import sys
import time
import weakref
from collections import Counter

import _Skiffport
import Skiffport
from skiffhost import loop

assert "_hashlib" not in sys.modules, "OpenSSL must not be initialised"
ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
with open(os.path.join(ROOT, "platform", "base", "Seam.h"), encoding="utf-8") as seam_header:
    CALLS = re.findall(r"^  (\w+),$", seam_header.read(), re.MULTILINE)
USER, PASSWORD = os.environ["SKIFFHOST_USER"], os.environ["SKIFFHOST_PASSWORD"]
FOLDER, HOST = os.environ["TORTURE_FOLDER"], "www.kestrelhub.example"
FILES = [os.path.join(FOLDER, name) for name in sorted(os.listdir(FOLDER))]
STACKS, PATIENCE, FASTER = 1 << 15, 4.0, 60
CASE_SECONDS, QUIET_SECONDS = 30.0, 10.0  # for a case; until threads that nobody waits for have ended

EXPECTED = {}  # what runs without a fault find
DESCRIPTORS = {}  # how many they leave open, by scenario
PRINTED = []  # the kinds of exceptions that were printed
ARGUMENTS, RECEIVERS = [], []  # of the scenario's run


class Stack(ctypes.Structure):
    _fields_ = [("hash", ctypes.c_uint64), ("first", ctypes.c_uint64), ("site", ctypes.c_uint64),
                ("distance", ctypes.c_uint32), ("depth", ctypes.c_uint32), ("frames", ctypes.c_size_t * 96)]


class Memory(ctypes.Structure):  # Torture in interposer.cpp
    _fields_ = [("target", ctypes.c_uint64), ("first", ctypes.c_uint64), ("fired", ctypes.c_uint64),
                ("balance", ctypes.c_int64), ("nth", ctypes.c_uint32),
                ("armed", ctypes.c_uint32), ("tracking", ctypes.c_uint32), ("seen", ctypes.c_uint32 * STACKS),
                ("alive", ctypes.c_int32 * STACKS), ("stacks", Stack * STACKS), ("crash", Stack)]


class Seam(ctypes.Structure):  # TortureSeam in seam.cpp
    _fields_ = [(name, ctypes.c_int) for name in ("armed", "call", "nth", "error", "fired", "sleeps")] + [
        ("counts", ctypes.c_int * len(CALLS)), ("begin", ctypes.c_uint64), ("skipped", ctypes.c_uint64)]


class Symbol(ctypes.Structure):  # Dl_info
    _fields_ = [("file", ctypes.c_char_p), ("base", ctypes.c_size_t), ("name", ctypes.c_char_p),
                ("address", ctypes.c_size_t)]


libraries = ctypes.CDLL(None)
libraries.torture_state.restype = ctypes.POINTER(Memory)
memory = libraries.torture_state().contents
seam = Seam.in_dll(ctypes.CDLL(os.path.join(os.path.dirname(_Skiffport.__file__), "libskiffport_platform.so")),
                   "torture_seam")


class Wrong(Exception):
    """A result that is not described."""


def check(condition, what):
    if not condition:
        raise Wrong(what)


class Fault:
    """What is to fail while it is entered: an allocation, by its stack, or a call of Seam.h; or nothing.

    Allocations are looked at if one is to fail, or if all are to be counted.
    """

    def __init__(self, stack="0", call=-1, nth=0, error=0, counts=False):
        self._looks = stack != "0" or counts
        memory.target, memory.nth, memory.fired = int(stack, 16), nth, 0
        memory.first = find(memory.target).first
        seam.call, seam.nth, seam.error, seam.fired = call, nth, error, 0
        ctypes.memset(memory.seen, 0, ctypes.sizeof(memory.seen))
        ctypes.memset(seam.counts, 0, ctypes.sizeof(seam.counts))

    def __enter__(self):
        seam.armed, memory.armed = 1, self._looks and memory.fired == 0

    def __exit__(self, *_exception):
        seam.armed, memory.armed = 0, 0


def find(number):
    """Returns the stack with that number, or an unused entry."""
    index = number % STACKS
    while memory.stacks[index].hash not in (0, number):
        index = (index + 1) % STACKS
    return memory.stacks[index]


def fired():
    return bool(memory.fired or seam.fired)


def arguments(*texts):
    """Returns texts that nothing else refers to, and to which nothing may refer afterwards."""
    ARGUMENTS.append(["".join((text[:1], text[1:])) for text in texts])
    return ARGUMENTS[-1]


class Receiver:
    """An uploader's callable."""

    def __init__(self):
        self.completions = []
        RECEIVERS.append((weakref.ref(self), self.completions))

    def __call__(self, source, name, *values):
        check(source == "PROGRESS" and len(values) == {"ProgressChanged": 7, "UploadComplete": 6}[name],
              f"the event {(source, name, *values)}")
        if name == "UploadComplete":
            self.completions.append(values)


def login(fault):
    with fault:
        session = Skiffport.KHLoginData("10.5", "retail", "uuid")
        result = session.LoginKestrelhub(*arguments(USER, PASSWORD))
    token = session.GetLoginTokenID()
    check(result in (0, 1, 8) or 12000 < result < 12200, f"login returned {result}")
    check(bool(token) == (result == 1), f"login returned {result} and set the token {token!r}")
    check(result != 1 or session.GetUserName(), "login succeeded without a name")
    EXPECTED.setdefault("token", token)
    with fault:
        del session
    return "done" if result == 1 else str(result)


def categories(fault):
    with fault:
        session = Skiffport.KHLoginData("10.5", "retail", "uuid")
        found = session.GetPresetCategory(*arguments("tw"))
        count = session.GetCategoryCount()
        del session
    whole = EXPECTED.setdefault("categories", found)
    check(found is None or found.items() <= whole.items() and len(found) <= count, f"{found} of {count} categories")
    return "done" if found == whole and whole else "some or no entries"


def request(fault):
    query = "ap=TWR&Locid=tw&version=10.5"
    with fault:
        util = Skiffport.KHConnectUtil()
        replies = [util.SyncSendHttpRequest(HOST, 80, *arguments("/servlet/getPresetCategory", query, "")),
                   util.SyncSendHttpRequestParam(HOST, 443, *arguments("/servlet/memLogin", query))]
        del util
    whole = EXPECTED.setdefault("replies", replies)
    for reply, expected in zip(replies, whole):
        check(set(reply) <= {"bSucc", "data", "errMsg"} and reply.get("bSucc", 0) in (0, 1), f"the reply {reply}")
        check(reply.get("data", "") in ("", expected["data"]), f"the broken reply {reply}")
    return "done" if replies == whole and all(reply["bSucc"] and reply["data"] for reply in replies) else "failed reply"


def new_uploader(receiver):
    uploader = Skiffport.PyPresetUploader(HOST, EXPECTED["token"], "10.5", "retail", "uuid")
    uploader.SetCallback(receiver)
    return uploader, arguments(*FILES, "key", "Title", "1", "tags", "Text", "", "colour")


def upload(fault, delivery=contextlib.nullcontext()):
    """Uploads a preset, with the fault; or with that of `delivery` while events are run."""
    receiver, uploader = Receiver(), None
    try:
        with fault:
            uploader, texts = new_uploader(receiver)
            thread = uploader.StartUpload(*texts, 42)
            if isinstance(delivery, Fault):
                until(alone, CASE_SECONDS)
            with delivery:  # the thread has posted its last event before it ends
                while not alone() or loop.wait(0):
                    loop.wait(0.01)
                    loop.pump()
            address = uploader.GetUploadedFileUrl()
    finally:
        with fault:
            del uploader
    return judge_upload(thread, receiver.completions, address)


def judge_upload(thread, completions, address):
    check(thread or not completions, "an event of an upload that was refused")
    check(completions or not thread or PRINTED, "no completion, and no error was printed")
    if not completions:
        return "event dropped" if thread else "0"
    percent, accepted, found, error, number, ours = completions[0]
    check((percent, number) == (100, thread) and accepted in (0, 1) and ours in (0, 42), f"completion {completions}")
    check(found == address and isinstance(error, str), f"the completion {completions}, then {address!r}")
    return "done" if accepted and found else "accepted, no address" if accepted else "failed"


def event(fault):
    return upload(contextlib.nullcontext(), fault)


def leave(fault):
    """Leaves an upload running for the interpreter to end, with the fault."""
    sys.modules["running"], texts = new_uploader(print)
    check(sys.modules["running"].StartUpload(*texts, 42), "no upload")
    fault.__enter__()
    return "done"


SCENARIOS = {"login": login, "categories": categories, "request": request, "upload": upload, "event": event,
             "exit": leave}


def alone():
    return len(os.listdir("/proc/self/task")) == 1


def until(condition, seconds):
    deadline = time.monotonic() + seconds
    while not condition() and time.monotonic() < deadline:
        time.sleep(0.001)
    return condition()


def run(name, fault):
    """Runs a scenario. Returns its outcome, after its threads have ended and its references have been checked."""
    for record in (ARGUMENTS, RECEIVERS, PRINTED):
        record.clear()
    now, patience = int(time.monotonic() * 1000), seam.begin + int(PATIENCE * 1000)
    seam.skipped += max(0, now - patience) * (FASTER - 1) if seam.begin else 0
    seam.begin, seam.sleeps = now, name == "exit"
    try:
        outcome = SCENARIOS[name](fault)
    except MemoryError:
        outcome = "MemoryError"
    if name == "exit":
        return outcome
    gc.collect()
    check(until(alone, QUIET_SECONDS), "a thread is left")
    check(set(PRINTED) <= {"MemoryError"}, f"printed: {PRINTED}")
    counts = {sys.getrefcount(text) for texts in ARGUMENTS for text in texts if len(text) > 1}
    check(counts <= {3}, f"references to arguments: {counts}")
    for reference, completions in RECEIVERS:
        check(reference() is None, "the callable is still referenced")
        check(len(completions) < 2, f"several completions: {completions}")
    return outcome


def facts(counts):
    """Returns (stack, count, distance, place) of each stack that has one."""
    return [(f"{stack.hash:x}", count, stack.distance, stack.site)
            for stack, count in ((memory.stacks[index], count) for index, count in enumerate(counts) if count)]


def growth(name, settings):
    """Repeats the fault. Returns the blocks that are left each time: [[number, stack], ...]."""
    balances = []
    for _ in range(3):
        run(name, Fault(**settings))
        balances.append(memory.balance)
        if len(balances) > 1 and balances[-1] <= balances[-2]:
            return []  # what is left once only is a cache that was filled elsewhere
    memory.tracking, places, stacks = 1, [], {}
    for _ in range(3):
        run(name, Fault(**settings))
        alive = facts(memory.alive[:])
        places.append(Counter())
        for stack, count, _, site in alive:
            places[-1][site] += count
            stacks[site] = stack
    return [[number, stacks[site]] for site, number in (places[-1] - places[0]).items() if number > 1]


def run_reference(name):
    """Runs a scenario without a fault, for what a case is compared with."""
    check(run(name, Fault(counts=True)) == "done", "it fails without a fault")
    if name == "exit":
        return {}
    stacks, calls = facts(memory.seen[:]), seam.counts[:]
    run(name, Fault(counts=True))
    repeated = {stack for stack, *_ in facts(memory.seen[:])}
    run("upload", Fault())
    return {"stacks": [[*stack, stack[0] in repeated] for stack in stacks], "calls": calls, "expected": EXPECTED,
            "descriptors": len(os.listdir("/proc/self/fd"))}


def run_case(name, settings, repeats):
    """Runs a case. Returns what the parent is to know of it."""
    answer = {"outcome": run(name, Fault(**settings)), "fired": fired()}
    if name == "exit":
        return answer
    for again in [name] if name in ("upload", "event") else [name, "upload"]:
        outcome = run(again, Fault())
        check(outcome == "done", f"{again} afterwards: {outcome}")
    descriptors = len(os.listdir("/proc/self/fd"))
    check(descriptors <= DESCRIPTORS[name], f"{descriptors} descriptors instead of {DESCRIPTORS[name]}")
    answer["leaks"] = growth(name, settings) if repeats else []
    if answer["leaks"]:
        answer["problem"] = "each time, blocks are left"
    return answer


def report(kind, value, _trace):
    """Takes the place of the interpreter's report, whose record would keep what the exception refers to."""
    PRINTED.append(kind.__name__)
    sys.stderr.write(f"{kind.__name__}: {value}\n")


def child(name, settings, repeats, answers, errors):
    answer, descriptor = {}, os.dup(answers)

    def hand_in():
        if name == "exit":
            answer.update(calls=seam.counts[:], fired=fired())
        os.write(descriptor, json.dumps(answer).encode())

    sys.excepthook = report
    sys.unraisablehook = lambda raised: report(raised.exc_type, raised.exc_value, raised.exc_traceback)
    os.dup2(errors, 1)
    os.dup2(errors, 2)
    if name == "exit":
        atexit.register(hand_in)  # before the upload registers its hook, which therefore runs first
    try:
        answer.update(run_case(name, settings, repeats) if settings else run_reference(name))
    except Exception as error:
        answer.update(problem=str(error) if isinstance(error, Wrong) else repr(error), fired=True)
    if name == "exit":
        sys.exit(0)
    hand_in()
    os._exit(0)


def describe(stack):
    """Returns (library, offset, symbol) of each frame, innermost first."""
    found, symbol = [], Symbol()
    for address in stack.frames[:stack.depth]:
        known = libraries.dladdr(ctypes.c_void_p(address), ctypes.byref(symbol))
        found.append((symbol.file.decode(), hex(address - symbol.base), (symbol.name or b"?").decode()) if known else
                     ("?", hex(address), "?"))
    return found


def await_end(process):
    """Waits for the case to end. Returns its status, and whether it had to be stopped."""
    descriptor = os.pidfd_open(process)
    waits, stops = [CASE_SECONDS, 1.0, None], [signal.SIGABRT, signal.SIGKILL]  # the first records where it hangs
    while not select.select([descriptor], [], [], waits.pop(0))[0]:
        os.kill(process, stops.pop(0))
    os.close(descriptor)
    return os.waitpid(process, 0)[1], len(stops) < 2


def serve(name, settings, repeats):
    memory.crash.depth = memory.fired = 0
    with open(os.memfd_create("answers"), "r+b", 0) as answers, open(os.memfd_create("errors"), "r+b", 0) as errors:
        process = os.fork()
        if process == 0:
            child(name, settings, repeats, answers.fileno(), errors.fileno())
        status, hangs = await_end(process)
        answers.seek(0)
        errors.seek(0)
        answer = json.loads(answers.read() or '{"fired": true}')
        printed = errors.read().decode("utf-8", "replace")
    if hangs or status != 0:
        answer["problem"] = "it hangs" if hangs else f"it ends with {os.waitstatus_to_exitcode(status)}"
    if "problem" in answer:
        answer.update(printed=printed[-300:], crash=describe(memory.crash),
                      stack=describe(find(int(settings["stack"], 16))) if "stack" in settings else [],
                      leaked=[(number, describe(find(int(stack, 16)))) for number, stack in answer.get("leaks", ())])
    if name == "exit":  # the interpreter's end is seen from here only
        answer["stacks"] = [[*stack, False] for stack in facts(memory.seen[:])]
        answer["fired"] = answer.get("fired") or fired()
    if not settings:
        EXPECTED.update(answer.get("expected", {}))
        DESCRIPTORS[name] = answer.get("descriptors")
        answer["calls"] = dict(zip(CALLS, answer.get("calls", ())))
    return answer


if __name__ == "__main__":
    for line in sys.stdin:
        print(json.dumps(serve(**json.loads(line))), flush=True)
