"""Fails each allocation of every call once: calls.py LIBRARY PATH..., with tests/torture/allocator.cpp preloaded.

Prints a line for each call that does not end with a MemoryError or as documented, that leaves memory behind, or that
does not work the next time. Libraries allocate so often that each allocation of C++ fails, but only each 61st of all.
"""

import atexit
import ctypes
import gc
import os
import re
import signal
import sys

ALLOCATOR, CRYPTO = ctypes.PyDLL(None), ctypes.PyDLL("libcrypto.so.3")
ALLOCATOR.LiveBlocks.restype = ctypes.c_long
DRIVEN = ctypes.CDLL(sys.argv[1])  # loaded before the module, which then sleeps for no time
DRIVEN.DriveClock(0, False)

import Skiffport  # noqa: E402
from kestrelhub_standin.launch import PASSWORD, USER  # noqa: E402
from skiffhost import loop  # noqa: E402

HOST, PRODUCT, PATHS = "www.kestrelhub.example", ("10.5", "retail", "uuid-1"), sys.argv[2:]
GETTERS = re.findall(r"\bGet\w+(?:API|Count|TokenID|URL|Url|UserName)\b", " ".join(dir(Skiffport.KHLoginData)))
ALL, NEW, NEXT_THREAD = 0, 1, 2  # see tests/torture/allocator.cpp
NO_MEMORY = "no memory"
EACH, OWN, NEXT = ((ALL, 1),), ((ALL, 61), (NEW, 1)), ((NEXT_THREAD, 19), (NEW | NEXT_THREAD, 1))
# The numbers of uploads in the trace. A library that runs out of memory may report what it was about to do.
ENDS = {0, 8, 14, 12002, 12007, 12019, 12029, 12030, 12038, 12045, 12152, 12157}
MEMBER, PRINTED = [], []  # the session that logged in last, and the kinds of exceptions that were printed


# The calls. Each returns its outcome.

def log_in():
    session = Skiffport.KHLoginData(*PRODUCT)
    result = session.LoginKestrelhub(USER, PASSWORD)
    assert bool(session.GetLoginTokenID()) == (result == 1), f"login returned {result}"
    MEMBER[:] = [session] if result == 1 else MEMBER
    return result


def getters():
    session = MEMBER[0]
    Skiffport.KHLoginData(*PRODUCT), Skiffport.KHConnectUtil(), Skiffport.PyPresetUploader(*PRODUCT, "", "")
    session.m_szChkServerUrl = "https://a/" + "b" * 99
    return [getattr(session, name)() for name in GETTERS], session.m_szChkServerUrl


def opaque_members():  # each look at one leaves a copy
    session, uploader = Skiffport.KHLoginData(*PRODUCT), Skiffport.PyPresetUploader(*[""] * 5)
    session.m_hRequest, uploader.m_mapTID2KHID = session.m_hInternet, uploader.m_mapTID2KHID


def detect():
    session = Skiffport.KHLoginData(*PRODUCT)
    session.InitKHServerURL()
    session.LogoutKestrelhub()
    session.SetKHURLAsReg("other.example")
    return session.GetServerUrl()


def others():
    session = Skiffport.KHLoginData(*PRODUCT)
    session.SetKHURLAsReg(HOST)
    return (session.GetPresetCategory("tw"), MEMBER[0].GetEffectByGUID("key")[:7],
            MEMBER[0].SetRelateVideo("https://v/", "site", "text")[:7])


def request():
    util, path = Skiffport.KHConnectUtil(), "/servlet/getPresetCategory"
    return [util.SyncSendHttpRequest(HOST, 80, path, "ap=TWR&Locid=tw&version=1", ""),
            util.SyncSendHttpRequestParam(HOST, 80, path, "ap=TWR&Locid=tw&version=1")]


def start_upload(callback):
    uploader = Skiffport.PyPresetUploader(HOST, MEMBER[0].GetLoginTokenID() if MEMBER else "", *PRODUCT)
    uploader.SetCallback(callback)
    return uploader, uploader.StartUpload(*PATHS, "key", "Title", "1", "".join(("ta", "gs")), "Text", "", "colour", 42)


def upload():
    completions = []
    uploader, thread = start_upload(lambda *event: event[1] == "UploadComplete" and completions.append(event[2:]))
    while len(os.listdir("/proc/self/task")) > 1 or loop.wait(0):  # the completion is posted before the thread's end
        loop.wait(0.01)
        loop.pump()
    assert len(completions) < (2 if thread else 1), (thread, completions)
    if not completions:
        assert not thread or MemoryError in PRINTED, "no completion"
        return [0]
    percent, accepted, address, _, number, ours = completions[0]
    assert (percent, number, address) == (100, thread, uploader.GetUploadedFileUrl()), completions
    return [accepted, bool(address), ours]


def leave():
    sys.modules["running"], thread = start_upload(print)


def run(call, n, which):
    """Returns the outcome, NO_MEMORY if memory ran out, and whether an allocation failed."""
    ALLOCATOR.FailAllocation(n, which)
    try:
        outcome, has_failed = call(), ALLOCATOR.EndFailing()
    except (MemoryError, OSError):
        outcome, has_failed = NO_MEMORY, ALLOCATOR.EndFailing()
    PRINTED.clear()
    sys.last_type = sys.last_value = sys.last_traceback = None  # what the interpreter keeps of a printed exception
    CRYPTO.ERR_clear_error()  # OpenSSL keeps the texts of its last errors
    gc.collect()
    return outcome, has_failed


def fail_each(call, may_be, plans=OWN):
    """Runs the call with each allocation of the plans failing. `may_be` says of an outcome that it is one."""
    good, is_good, outcome = call(), False, None
    for which, step in plans:
        n, has_failed = 0, True
        while has_failed:
            again, is_growing = 0, True  # what stays once is a cache; what stays each time is lost
            while is_growing and again < 4:
                before, again = ALLOCATOR.LiveBlocks(), again + 1
                outcome, has_failed = run(call, n, which)
                if outcome not in (good, NO_MEMORY) and not may_be(outcome):
                    print(call.__name__, which, n, "ends with", outcome)
                is_good, outcome = outcome == good, None
                is_growing = ALLOCATOR.LiveBlocks() > before
            if is_growing:
                print(call.__name__, which, n, "leaks")
            n += step
        if not (good and is_good):
            print(call.__name__, which, "fails")


def in_new_process(call, n, at_exit=False):
    """Runs the call, with its nth allocation failing or the nth of the interpreter's exit. Returns the exit status."""
    process = os.fork()
    if process:
        return os.waitpid(process, 0)[1]
    os.dup2(2, 1)
    signal.alarm(60)
    DRIVEN.DriveClock(10, False)  # OpenSSL may go on with a handshake until a limit passes
    has_failed = run(call, -1 if at_exit else n, ALL)[1]
    if at_exit:
        atexit.register(ALLOCATOR.FailAllocation, n, NEW)  # runs before the module's hook
        sys.exit()
    run(call, -1, ALL)  # may fail, since OpenSSL never tries again what it initialises once, but must not crash
    os._exit(0 if has_failed else 3)


def fail_first(call, step, count=1_000_000, at_exit=False):
    """Does so with each `step`th allocation, until none fails."""
    for n in range(0, count, step):
        status = in_new_process(call, n, at_exit)
        if status:
            break
    if status not in (0, 3 << 8):
        print(call.__name__, n, f"in a new process ends with {status:#x}")


def main():
    sys.excepthook = lambda kind, value, _: PRINTED.append(kind)
    sys.unraisablehook = lambda raised: PRINTED.append(raised.exc_type)
    loop.wait(0)
    gc.freeze()
    fail_first(detect, 11, 3000)
    fail_first(opaque_members, 1)
    fail_first(leave, 11)
    fail_first(leave, 1, 40, at_exit=True)
    fail_each(log_in, lambda result: result in (0, 8) or 12000 < result < 12200, OWN + NEXT)
    fail_each(upload, lambda outcome: outcome[0] == 0 or outcome[2] in (0, 42), OWN + NEXT)
    fail_each(detect, lambda host: host == "")
    fail_each(getters, lambda outcome: False, EACH)
    fail_each(request, lambda replies: all(reply.get("bSucc", 0) in (0, 1) for reply in replies), EACH)
    fail_each(others, lambda found: {"", " ", "https:/"}.issuperset(found[1:]) and "" not in (found[0] or {}).values(),
              EACH)
    with open("/proc/self/fd/2", "rb") as trace:
        ends = {int(number, 16) for number in re.findall(rb"hr\(0x(?:8007)?(\w+)\)", trace.read())}
    assert {0, 14} <= ends <= ENDS, ends


main()
