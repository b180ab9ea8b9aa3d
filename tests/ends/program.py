"""The program under test: program.py CASE SEED FOLDER PLACE [WAY], with the trace on. Exits with 0 if all held, unless
the case is an exit. FOLDER is where it may write a preset.
"""

import ctypes
import functools
import itertools
import os
import pathlib
import random
import signal
import sys
import threading
import time

import fixtures
import places
from publication import TEXTS, Publication

import Skiffport
from skiffhost import loop
from skiffhost.presetfiles import FILES

REFUSED, PLAIN = "refused.kestrelhub.example", "plain.kestrelhub.example"
FORKED = 5  # exit status of a good child


def log_in(host, results=None):
    data = Skiffport.KHLoginData("10.5", "retail", "uuid")
    data.SetKHURLAsReg(host)
    result = data.LoginKestrelhub("mika", "secret")
    if results is not None:
        results.append(result)
    return result


def ask(host):
    return Skiffport.KHConnectUtil().SyncSendHttpRequestParam(host, 80, "/", "a=b")


class Work:
    """An upload or a login at a place."""

    def __init__(self, place, paths, is_login):
        self.place, self.results, self.publication = place, [], None
        if is_login:
            threading.Thread(target=log_in, args=(place.host, self.results), daemon=True).start()
        else:
            self.publication = Publication(place.host)
            assert self.publication.start(paths) != 0

    def come_there(self):
        fixtures.wait_until(lambda: self.pump() or self.place.phase.is_reached(self.place), self.place.name)

    def pump(self):
        if self.publication:
            loop.pump()
            self.results = [event[1:] for event in self.publication.events if event[0] == "UploadComplete"]

    def check_end(self):
        """Expects exactly one result, that of a service that died."""
        fixtures.wait_until(lambda: self.pump() or self.results, "the end", seconds=20)
        if self.publication:
            assert loop.pump() == 0 and len(self.results) == 1, self.results
            accepted = 1 if self.place.name == "half" else 0  # the status had arrived
            assert self.results[0][1:4] == (accepted, "", "") or self.place.name == "fast", self.results
        else:
            assert len(self.results) == 1 and self.results[0] != 1, self.results


def reap(child):
    """Waits for a forked child, which must have done everything."""
    found = (0, 0)

    def has_ended():
        nonlocal found
        found = os.waitpid(child, os.WNOHANG)
        return found[0]

    try:
        fixtures.wait_until(has_ended, "the child's end", seconds=20)
    except AssertionError:
        os.kill(child, signal.SIGABRT)  # prints where it is
        raise
    assert found[1] == FORKED << 8, f"the forked child ended with {found[1]}"


def fork_and_kill(dice, paths, place, way):
    """A fork at a place harms neither side, and the peer's death there ends the work once."""
    work = Work(place, paths, way == "login")
    work.come_there()
    time.sleep(dice.random() / 5)
    child = os.fork()
    if child == 0:
        Skiffport.KHLoginData("version of the child", "retail", "uuid")
        assert ask(PLAIN)["data"] == "plain" and loop.pump() == 0
        own = Publication("no-host:1")
        assert own.start(paths) and own.completion()[1] == 0
        work.publication = None  # which the parent's thread uses
        sys.exit(FORKED)
    reap(child)
    os.kill(place.process, signal.SIGKILL)
    work.check_end()


def fork_often(dice, paths, *_):
    """Forks at random moments while threads log in, fail, trace and upload: no lock stays held in a child."""
    stop, faults = threading.Event(), []

    def work(host):
        while not stop.is_set():
            if log_in(host) == 1 or ask(REFUSED)["bSucc"] != 0:
                faults.append("a refused call succeeded")

    threads = [threading.Thread(target=work, args=(REFUSED,), daemon=True) for _ in range(3)]
    for thread in threads:
        thread.start()
    publication = Publication(REFUSED)
    for _ in range(100):
        if publication.start(paths):
            time.sleep(dice.random() / 200)
        child = os.fork()
        if child == 0:
            log_in(REFUSED)
            os._exit(FORKED)
        reap(child)
        loop.pump()
    stop.set()
    for thread in threads:
        thread.join()
    assert not faults, faults


def fork_while_the_trace_blocks(dice, paths, place, _):
    """A thread that waits for the reader of its trace holds nothing that a fork, its child or an exit needs."""
    reader, writer = os.pipe()
    os.set_blocking(writer, False)
    while True:
        try:
            os.write(writer, b"x" * 4096)
        except BlockingIOError:
            break
    os.set_blocking(writer, True)
    data = Skiffport.KHLoginData("10.5", "retail", "uuid")
    data.SetKHURLAsReg(REFUSED)
    results, saved = [], os.dup(2)
    thread = threading.Thread(target=lambda: results.append(data.LoginKestrelhub("mika", "secret")))
    os.dup2(writer, 2)
    thread.start()
    calls = f"/proc/self/task/{thread.native_id}/syscall"
    fixtures.wait_until(lambda: pathlib.Path(calls).read_text().startswith("1 0x2 "), "a trace call that blocks")
    child = os.fork()
    if child == 0:
        os.dup2(saved, 2)
        Skiffport.KHLoginData("version of the child", "retail", "uuid")
        assert ask(PLAIN)["data"] == "plain"
        sys.exit(FORKED)
    os.dup2(saved, 2)
    try:
        reap(child)
    finally:
        os.close(reader)  # the blocked call fails
    thread.join()
    assert results and results[0] != 1


def leave(dice, paths, place, way):
    """Ends the process at a random moment of an upload, of uploads on another thread and of calls on daemon threads."""
    Work(place, paths, True)
    threading.Thread(target=ask, args=(place.host,), daemon=True).start()
    threading.Thread(target=lambda: Publication(place.host).start(paths) and loop.wait(60), daemon=True).start()
    work = Work(place, paths, False)
    time.sleep(dice.random() * 0.4)
    loop.pump()
    builtins_keep = {"sys.exit": lambda: sys.exit(3), "os._exit": lambda: os._exit(4),
                     "SIGTERM": lambda: os.kill(os.getpid(), signal.SIGTERM) or time.sleep(60)}
    if way == "raise":
        raise RuntimeError("unhandled")
    builtins_keep.get(way, lambda: work)()


def interrupted(dice, paths, place, _):
    """A storm of SIGINT changes no result. The handler raises now and then, outside the callable."""
    seen, armed = [], []

    def handle(*_):
        seen.append(1)
        if armed and len(seen) % 3 == 0:
            armed.clear()
            raise KeyboardInterrupt

    signal.signal(signal.SIGINT, handle)
    print("ready", flush=True)
    for _ in range(3):
        assert log_in("login.kestrelhub.example") == 1
        assert ask(PLAIN) == {"bSucc": 1, "data": "plain"}
        publication = Publication(place.host)
        assert publication.start(paths) != 0
        raised = 0
        while not publication.events or publication.events[-1][0] != "UploadComplete":
            try:
                armed.append(1)
                loop.wait(0.05)
                armed.clear()
                loop.pump()
            except KeyboardInterrupt:
                raised += 1
        completions = [event[2:5] for event in publication.events if event[0] == "UploadComplete"]
        assert completions == [(1, "https://h/p", "")], completions
        assert raised, "no signal came"
    signal.signal(signal.SIGINT, signal.SIG_IGN)


class Pump(threading.Thread):
    """A thread with uploaders of its own, which its callables start again, cancel and delete at random."""

    def __init__(self, dice, paths, hosts, seconds):
        super().__init__()
        self.dice, self.paths, self.hosts = random.Random(dice.random()), paths, hosts
        self.end, self.numbers = time.monotonic() + seconds, itertools.count(1)
        self.uploaders, self.running, self.ended, self.faults = {}, {}, [], []

    def begin(self, key):
        host = self.dice.choice(self.hosts)
        self.uploaders[key] = Skiffport.PyPresetUploader(host, "", "10.5", "retail", "uuid")
        self.uploaders[key].SetCallback(functools.partial(self.on_event, key))
        self.start_upload(key)

    def start_upload(self, key):
        self.running[key] = next(self.numbers)
        if not self.uploaders[key].StartUpload(*self.paths, *TEXTS, self.running[key]):
            self.faults.append("refused to start")

    def on_event(self, key, _, name, *values):
        if key not in self.uploaders:
            self.faults.append("an event after the delete")
        elif name == "UploadComplete":
            if self.running.pop(key, None) != values[-1]:
                self.faults.append(f"a completion too many or of another upload: {values}")
            self.ended.append(values[1])
            if time.monotonic() < self.end and self.dice.random() < 0.7:
                self.start_upload(key)
            else:
                del self.uploaders[key]
        else:
            act = self.dice.random()
            if act < 0.003:
                self.running.pop(key)
                del self.uploaders[key]
            elif act < 0.015:
                self.uploaders[key].CancelUpload()
            elif act < 0.2:
                loop.pump()

    def run(self):
        library = ctypes.CDLL(str(pathlib.Path(Skiffport.__file__).with_name("libskiffport_platform.so")))
        pumps = (loop.pump, functools.partial(library._Z12PumpMessagesi, 64))  # the second without the GIL
        for key in itertools.count():
            if time.monotonic() > self.end:
                break
            if len(self.uploaders) < 3:
                self.begin(key)
            loop.wait(0.02)
            self.dice.choice(pumps)()
        fixtures.wait_until(lambda: loop.wait(0.02) and loop.pump() and False or not self.uploaders, "the last ends")


def pump_on_threads(dice, paths, place, way):
    """Threads pump, with and without the GIL, while another keeps taking it: each upload ends exactly once."""
    sys.setswitchinterval(1e-4)
    stop = threading.Event()
    hold_gil = ctypes.PyDLL(None).usleep

    def hog():
        while not stop.is_set():
            hold_gil(random.randrange(2000))

    hogs = threading.Thread(target=hog)
    hogs.start()
    pumps = [Pump(dice, paths, (place.host, place.host, REFUSED, "no-host:1", "x.invalid"), float(way))
             for _ in range(4)]
    for pump in pumps:
        pump.start()
    for pump in pumps:
        pump.join()
    stop.set()
    faults = [fault for pump in pumps for fault in pump.faults]
    ended = [accepted for pump in pumps for accepted in pump.ended]
    assert not faults, faults[:5]
    assert {0, 1} <= set(ended) and len(ended) > 20, ended


CASES = {case.__name__: case for case in (fork_and_kill, fork_often, fork_while_the_trace_blocks, leave, interrupted,
                                          pump_on_threads)}
if __name__ == "__main__":
    case, seed, folder, where, *ways = sys.argv[1:]
    at = places.place_from(where)
    files = fixtures.write_preset(pathlib.Path(folder, f"{case}-{os.getpid()}"), {"effect": at.phase.effect})
    CASES[case](random.Random(seed), [str(files / f"{name}.bin") for name in FILES], at, *(ways or [""]))
