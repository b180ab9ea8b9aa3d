"""Works the module at random: soak.py MINUTES SEED. Fails if the process grows. Needs the built tree and the tests'
support files on the path.

Uploads, some of them cancelled or deleted, run on the main thread; logins and requests on two others. Their peers
answer, or misbehave. At each rest, a line says what the process holds.
"""

import ctypes
import gc
import os
import random
import sys
import tempfile
import threading
import time
from array import array
from pathlib import Path
from statistics import median

import fixtures
from publication import Publication
from scripted import Network

import Skiffport
from skiffhost import loop
from skiffhost.presetfiles import FILES

LOGIN = "<info><tokenid>t</tokenid></info>"
ACCEPTED = "<uploadTemplate><templateUrl>https%3A%2F%2Fh%2Fp</templateUrl></uploadTemplate>"
HOSTILE = ("reset-send", "reset-reply", "close", "garbage", "flood-headers", "early-keep", "interim", "trickle")
HOSTS = (*(f"{name}.test" for name in HOSTILE), "refused.test", "unknown.invalid", "no-host:1", "")
RESTS, UPLOADS = 60, 6  # in the whole run; at once
# The keys of a result. Otherwise the interpreter would intern and forget them with each request, and its table of
# interned strings would grow once, by half a MiB.
KEYS = ("bSucc", "data", "errMsg")
# Growth that is no leak, from the second quarter's median to the last one's; see CONTRIBUTING.md for how it was found.
TOLERANCES = {"heap KiB": 128, "RSS KiB": 6 * 1024, "blocks": 150, "tracked": 30}


class Mallinfo(ctypes.Structure):
    _fields_ = [(name, ctypes.c_size_t) for name in ("arena", "ordblks", "smblks", "hblks", "hblkhd", "usmblks",
                                                     "fsmblks", "uordblks", "fordblks", "keepcost")]


MALLINFO = ctypes.CDLL(None).mallinfo2
MALLINFO.restype = Mallinfo


def take_sample(samples):
    """Adds what the process holds, in arrays, which do not count themselves."""
    gc.collect()
    heap, pages = MALLINFO(), int(Path("/proc/self/statm").read_text().split()[1])
    for name, figure in (("descriptors", len(os.listdir("/proc/self/fd"))), ("threads", len(fixtures.threads())),
                         ("heap KiB", (heap.uordblks + heap.hblkhd) // 1024),
                         ("RSS KiB", pages * os.sysconf("SC_PAGESIZE") // 1024),
                         ("blocks", sys.getallocatedblocks()), ("tracked", len(gc.get_objects()))):
        samples.setdefault(name, array("q")).append(figure)


def direct(network):
    """Starts the peers."""
    for host, scenario, body in (("good", "keep", ACCEPTED), ("login", "reply", LOGIN), ("pieces", "pieces", LOGIN),
                                 *((name, name, ACCEPTED) for name in HOSTILE)):
        network.play(f"{host}.test", scenario, "--body", body, "--pause", "0.002", "--longest", "86400")
        network.lead(f"{host}.test:80:127.0.0.1:1")
    network.reply("www.kestrelhub.example", "", "--longest", "86400")
    network.lead("refused.test::127.0.0.1:1")


def log_in(host):
    session = Skiffport.KHLoginData("10.5", "retail", "uuid")
    session.SetKHURLAsReg(host)
    return session, session.LoginKestrelhub("mika", "secret")


def call(dice):
    """Makes one blocking call."""
    host = dice.choice(("login.test",) * 4 + HOSTS)
    if dice.random() < 0.5:
        answer = Skiffport.KHConnectUtil().SyncSendHttpRequestParam(host, dice.choice((80, 443)), "/", "a=b")
        assert set(answer) <= set(KEYS), answer
        return
    session, result = log_in(host)
    assert (result == 1) == (host == "login.test"), f"a login to {host} gave {result}"
    session.GetPresetCategory("1")
    session.GetEffectByGUID("guid")
    session.SetRelateVideo("v", "w", "i")


def start_upload(dice, presets):
    """Returns an upload, its fate, and when that is due."""
    upload = Publication("good.test" if dice.random() < 0.5 else dice.choice(HOSTS), "token")
    assert upload.start(dice.choice(presets)), "an upload was refused"
    return upload, dice.choices(("end", "cancel", "delete"), (6, 2, 1))[0], time.monotonic() + dice.random()


def is_over(upload, fate, due):
    """Meets the upload's fate. Returns whether it has ended."""
    completions = [event for event in upload.events if event[0] == "UploadComplete"]
    assert len(completions) < 2, completions
    is_due = time.monotonic() > due
    if is_due and fate == "cancel":
        upload.uploader.CancelUpload()
    if completions or (is_due and fate == "delete"):
        upload.uploader = None  # which breaks a cycle, too
    return upload.uploader is None


def work(seconds, dice, presets):
    """Works for that long, then lets everything end."""
    until, uploads, faults = time.monotonic() + seconds, [], []

    def call_often(own):
        try:
            while time.monotonic() < until:
                call(own)
        except BaseException as fault:
            faults.append(fault)

    callers = [threading.Thread(target=call_often, args=(random.Random(dice.random()),)) for _ in range(2)]
    for caller in callers:
        caller.start()
    while time.monotonic() < until or uploads or any(caller.is_alive() for caller in callers):
        if len(uploads) < UPLOADS and time.monotonic() < until:
            uploads.append(start_upload(dice, presets))
        loop.wait(0.02)
        loop.pump()
        uploads = [each for each in uploads if not is_over(*each)]
    if faults:
        raise faults[0]


def rest(descriptors):
    """Waits for the last threads' ends, and fills the module's cache of idle transfers, which keep descriptors."""
    for _ in range(5):
        callers = [threading.Thread(target=log_in, args=("pieces.test",)) for _ in range(4)]
        for caller in callers:
            caller.start()
        for caller in callers:
            caller.join()
        # A thread that looks up a name may outlive the request that wanted it.
        fixtures.wait_until(lambda: len(fixtures.threads()) == 1, "end of all threads")
        if len(os.listdir("/proc/self/fd")) == descriptors:
            break


def grown(samples):
    """Yields what has grown."""
    quarter = len(samples["threads"]) // 4
    for name, most in TOLERANCES.items():
        before, after = median(samples[name][quarter:2 * quarter]), median(samples[name][-quarter:])
        print(f"{name}: {before:.0f} in the second quarter, {after:.0f} in the last, {after - before:+.0f} of {most}")
        if after - before > most:
            yield f"{name} grew"
    for name in ("descriptors", "threads"):
        if len(set(samples[name][1:])) > 1:  # something lazy may follow the first rest
            yield f"{name} at rest: {sorted(set(samples[name][1:]))}"


def main():
    seconds, dice, samples, begin = float(sys.argv[1]) * 60, random.Random(sys.argv[2]), {}, time.monotonic()
    with Network() as network, tempfile.TemporaryDirectory() as folder:
        direct(network)
        folders = [fixtures.write_preset(Path(folder, str(size)), {"effect": size}) for size in (100, 500_000)]
        presets = [[str(each / f"{name}.bin") for name in FILES] for each in folders]
        while not samples or len(samples["threads"]) < 8 or time.monotonic() < begin + seconds:
            work(seconds / RESTS, dice, presets)
            rest(samples["descriptors"][1] if len(samples.get("descriptors", ())) > 1 else 0)
            take_sample(samples)
            print(f"{time.monotonic() - begin:.0f} s:", *(f"{name} {each[-1]}" for name, each in samples.items()),
                  flush=True)
    faults = list(grown(samples))
    print(*faults or ["nothing has grown"], sep="\n")
    sys.exit(bool(faults))


main()
