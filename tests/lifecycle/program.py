"""The program under test, with the trace on: program.py MODULE RUN. Imports the module first, and ends with 0 if all
held, unless the case is an exit. RUN is JSON: case, phase, place, way to exit, seed, and a folder for a preset.
"""
import sys

__import__(sys.argv[1])

import contextlib
import ctypes
import functools
import itertools
import json
import os
import pathlib
import random
import signal
import threading
import time

import fixtures
import phases
from publication import TEXTS, Publication

import Skiffport
from skiffhost import loop

REFUSED, PLAIN, LOGIN = (f"{name}.kestrelhub.example" for name in ("refused", "plain", "login"))
FORKED = 5  # exit status of a good child
CHILD = "version of the child"  # which the trace must show


def log_in(host):
    data = Skiffport.KHLoginData("10.5", "retail", "uuid")
    data.SetKHURLAsReg(host)
    return data.LoginKestrelhub("mika", "secret")


def ask(host):
    return Skiffport.KHConnectUtil().SyncSendHttpRequestParam(host, 80, "/", "a=b")


def start_thread(work):
    threading.Thread(target=work, daemon=True).start()


def completions(publication):
    return [event[1:] for event in publication.events if event[0] == "UploadComplete"]


def reap(child):
    """Waits for a forked child, which must have done everything."""
    timer = threading.Timer(20, os.kill, (child, signal.SIGABRT))  # prints where it is
    timer.start()
    status = os.waitpid(child, 0)[1]
    timer.cancel()
    assert status == FORKED << 8, f"the forked child ended with {status}"


def check_descriptors():
    """Another program would inherit none but the standard ones, those by which libcurl wakes itself, and the file of
    certificates while OpenSSL reads it."""
    wakers = pathlib.Path("/proc/net/unix").read_text()
    for number in map(int, os.listdir("/proc/self/fd")):
        with contextlib.suppress(OSError):  # closed in the meantime
            target = os.readlink(f"/proc/self/fd/{number}")
            allowed = f" {target[8:-1]}\n" in wakers or target == os.environ["SSL_CERT_FILE"]
            assert number < 3 or not os.get_inheritable(number) or allowed, target


def fork_and_kill(dice, paths, phase, place, way):
    """A fork in a phase of an upload or a login harms neither side, and the peer's death then ends the work once."""
    publication, results = Publication(place.host), []
    if way == "login":
        start_thread(lambda: results.append(log_in(place.host)))
    else:
        assert publication.start(paths) != 0
    fixtures.wait_until(lambda: loop.pump() < 0 or phase.is_reached(place), "the phase")
    check_descriptors()
    time.sleep(dice.random() / 5)
    child = os.fork()
    if child == 0:
        Skiffport.KHLoginData(CHILD, "retail", "uuid")
        assert ask(PLAIN)["data"] == "plain" and loop.pump() == 0
        assert log_in(LOGIN) == 1
        own = Publication("no-host:1")
        assert own.start(paths) and own.completion()[1] == 0
        publication.uploader = None  # which the parent's thread uses
        sys.exit(FORKED)
    reap(child)
    os.kill(place.process, signal.SIGKILL)
    fixtures.wait_until(lambda: loop.pump() < 0 or results or completions(publication), "the end", 20)
    publication.uploader = None
    assert loop.pump() == 0 and len(results + completions(publication)) == 1
    is_accepted = phase.options[:1] == ("--body",)  # the status may have arrived
    assert is_accepted or 1 not in (results or [completions(publication)[0][1]]), (results, publication.events)


def fork_often(dice, paths, phase, place, way):
    """Forks at random moments while threads log in, fail, trace and upload: no lock stays locked in a child."""
    publication = Publication(REFUSED)

    def work():
        while True:
            log_in(REFUSED)
            ask(REFUSED)

    for _ in range(3):
        start_thread(work)
    for _ in range(100):
        publication.start(paths)
        time.sleep(dice.random() / 200)
        child = os.fork()
        if child == 0:
            log_in(REFUSED)
            os._exit(FORKED)
        reap(child)
        loop.pump()


def leave(dice, paths, phase, place, way):
    """Ends the process at a random moment of an upload, of another thread's upload and of calls on daemon threads."""
    start_thread(lambda: log_in(place.host))
    start_thread(lambda: ask(place.host))
    start_thread(lambda: Publication(place.host).start(paths) and loop.wait(60))
    publication = Publication(place.host)
    publication.start(paths)
    time.sleep(dice.random() * 0.4)
    loop.pump()
    ways = {"sys.exit": lambda: sys.exit(3), "os._exit": lambda: os._exit(4), "return": lambda: None,
            "SIGTERM": lambda: os.kill(os.getpid(), signal.SIGTERM)}
    ways[way]()  # a KeyError for "raise"


def storm(dice, paths, phase, place, way):
    """A storm of signals changes no result."""
    seen = []
    signal.signal(signal.SIGALRM, lambda *_: seen.append(1))
    signal.setitimer(signal.ITIMER_REAL, 0.001, 0.001)
    for _ in range(2):
        assert log_in(LOGIN) == 1
        assert ask(PLAIN) == {"bSucc": 1, "data": "plain"}
        publication = Publication(place.host)
        assert publication.start(paths) != 0 and publication.completion()[1:4] == (1, "https://h/p", "")
    signal.setitimer(signal.ITIMER_REAL, 0)
    assert seen, "no signal came"


class Pump(threading.Thread):
    """A thread with uploaders of its own, which its callables start again, cancel and delete at random."""

    def __init__(self, dice, paths, host):
        super().__init__()
        self.dice, self.paths, self.hosts = random.Random(dice.random()), paths, (host, host, REFUSED, "x.invalid")
        self.uploaders, self.running, self.ended, self.left = {}, {}, [], list(range(40))

    def start_upload(self, key):
        self.running[key] = self.left.pop() if self.left else -1
        if self.running[key] < 0 or not self.uploaders[key].StartUpload(*self.paths, *TEXTS, self.running[key]):
            del self.uploaders[key]

    def on_event(self, key, _, name, *values):
        """Notes what ended: 0 or 1, and anything else for a fault."""
        act = self.dice.random()
        if key not in self.uploaders:
            self.ended.append("an event after the delete")
        elif name == "UploadComplete":
            self.ended.append(values[1] if self.running.pop(key, None) == values[-1] else f"not another end: {values}")
            self.start_upload(key)
        elif act < 0.003:
            del self.uploaders[key]
        elif act < 0.015:
            self.uploaders[key].CancelUpload()
        elif act < 0.2:
            loop.pump()

    def run(self):
        library = ctypes.CDLL(str(pathlib.Path(Skiffport.__file__).with_name("libskiffport_platform.so")))
        pumps = (loop.pump, functools.partial(library._Z12PumpMessagesi, 64))  # the second without the GIL
        for key in range(3):
            self.uploaders[key] = Skiffport.PyPresetUploader(self.dice.choice(self.hosts), "", "", "", "")
            self.uploaders[key].SetCallback(functools.partial(self.on_event, key))
            self.start_upload(key)
        while self.uploaders:
            loop.wait(0.02)
            self.dice.choice(pumps)()


def pump_on_threads(dice, paths, phase, place, way):
    """Threads pump, with and without the GIL, while another keeps taking it: each upload ends exactly once."""
    sys.setswitchinterval(1e-4)
    hold_gil = ctypes.PyDLL(None).usleep
    start_thread(lambda: [hold_gil(1000) for _ in itertools.count()])
    pumps = [Pump(dice, paths, place.host) for _ in range(4)]
    for pump in pumps:
        pump.start()
    for pump in pumps:
        pump.join()
    assert {0, 1} == {end for pump in pumps for end in pump.ended}, [pump.ended for pump in pumps]


def main():
    case, name, place, way, seed, folder = json.loads(sys.argv[2])
    phase = phases.PHASES[name]
    sizes = {"effect": 100_000 if case == "pump_on_threads" else phase.effect}
    paths = fixtures.preset_paths(pathlib.Path(folder, f"{case}-{os.getpid()}"), sizes)
    globals()[case](random.Random(seed), paths, phase, phases.Place(*place), way)


main()
