"""Plays rows of the table of hostile peers: hostile_play.py PLATFORM_LIBRARY [WORD...]

Loads the platform library whose clock can be driven, then the module over it. Prints a line for each call of each row
whose text holds one of the words, a Python literal: group, text, call, outcome, seconds, MiB of memory that it took.
Needs the built tree, the tests' support files and the stand-in's on the path. Runs as a process of its own, since a
process has one platform library.
"""

import ctypes
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time

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
import hostile_peers  # noqa: E402
import peer  # noqa: E402
import scripted  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402
from publication import Publication  # noqa: E402

import Skiffport  # noqa: E402
from skiffhost.presetfiles import FILES  # noqa: E402

LOOKS = 120  # at the clock, at least, before a limit passes
NUMBER = re.compile(rb"Error code: (\d+)|hr\(0x(?:8007)?(\w+)\)")


class Memory:
    """The most resident memory that a block takes over what it finds, in MiB."""

    def __enter__(self):
        libc.malloc_trim(0)
        with open("/proc/self/clear_refs", "w") as file:
            file.write("5")  # resets the peak
        self.before = self.read("VmRSS")
        return self

    def __exit__(self, *_exception):
        self.growth = (self.read("VmHWM") - self.before) / 1024

    @staticmethod
    def read(name):
        with open("/proc/self/status") as file:
            return next(int(line.split()[1]) for line in file if line.startswith(name))


class Peers:
    """Starts scripted peers, and ends all those that run."""

    def __init__(self):
        self.process = subprocess.Popen(["/usr/bin/python3", "-B", peer.__file__, "forks"], stdin=subprocess.PIPE,
                                        stdout=subprocess.PIPE, env=launch.standin_environment())

    def start(self, arguments):
        self.process.stdin.write(ascii(arguments).encode() + b"\n")
        self.process.stdin.flush()
        return int(self.process.stdout.readline().split()[-1]) if arguments else self.process.stdout.readline()


class Player:
    """Makes the calls of the table. Each method returns the call's outcome without the number that the trace shows."""

    def __init__(self, folder):
        small, large = folder / "small", folder / "large"
        fixtures.write_preset(small)
        fixtures.write_preset(large, {"effect": 16_000_000})
        self.small, self.large = ([str(each / f"{name}.bin") for name in FILES] for each in (small, large))
        self.peers = Peers()
        self.util = Skiffport.KHConnectUtil()
        self.threads = fixtures.threads()
        self.calls = {
            "l": self.login, "r": self.request, "s": lambda: self.request(443), "f": self.form, "u": self.upload,
            "U": lambda: self.upload(self.large), "e": lambda: self.session().GetEffectByGUID("g"), "v": self.video,
            "c": lambda: self.session().GetPresetCategory("en"), "d": self.detect, "a": self.address, "b": self.page,
        }

    def session(self, host=hostile_peers.HOST):
        session = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
        session.SetKHURLAsReg(host)
        return session

    def login(self):
        return self.session().LoginKestrelhub("u", "p")

    def request(self, port=80):
        return self.blocking(self.util.SyncSendHttpRequest(hostile_peers.HOST, port, "/x", "", ""))

    def form(self):
        return self.blocking(self.util.SyncSendHttpRequestParam(hostile_peers.HOST, 80, "/x", "f" * 8_000_000))

    @staticmethod
    def blocking(result):
        error = result.get("errMsg")
        assert error is None or len(error) < 80, error
        return result["bSucc"], result.get("data") if error is None else hostile_peers.number(error)

    def upload(self, files=None):
        publication = Publication(hostile_peers.HOST)
        thread = publication.start(files or self.small)
        completion = publication.completion()
        assert thread and (completion[0], completion[4:]) == (100, (thread, 7)), completion
        assert {event[0] for event in publication.events[:-1]} <= {"ProgressChanged"}, publication.events
        publication.uploader.SetCallback(None)
        return completion[1:4]

    def video(self):
        return self.member.SetRelateVideo("v", "w", "i")

    def detect(self):
        session = self.session("")
        session.InitKHServerURL()
        return session.GetServerUrl()

    def address(self):
        session = self.session("")
        session.InitKHServerURL()
        return session.GetServerUrl(), session.LoginKestrelhub("u", "p")

    def page(self):
        with scripted.browser() as pages:
            result = self.login()
            fixtures.wait_for_threads(self.threads, "end of the opener")
            return result, pages()


def traced():
    """Returns the last number in the trace since the last call, 0 for none, and empties the log."""
    log.seek(0)
    text = log.read()
    log.truncate(0)
    found = NUMBER.findall(text)
    if not found:
        return 0
    return int(found[-1][0]) if found[-1][0] else int(found[-1][1], 16)


def play(player, row, call):
    """Plays one call of a row. Returns its outcome, its seconds and its MiB."""
    late = row.of_call(row.late, call)
    with scripted.Network() as network:
        for rule in player.rules:
            network.lead(rule)
        row.direct(network, player.peers.start, call)
        traced()
        # "lab" begin with a probe of the default host, "d" with one that the row means
        waits = call in "lab" or (row.since == "reply" and call != "d")
        start, ticks = time.monotonic(), driven.DriveClock(int(late * 1000 / LOOKS), waits)
        with Memory() as memory:
            outcome = player.calls[call]()
        seconds = (driven.DriveClock(0, False) - ticks) / 1000 if late else time.monotonic() - start
    player.peers.start([])
    number = traced()
    if hostile_peers.CALLS[call][2]:
        outcome = (*outcome, number) if isinstance(outcome, tuple) else (outcome, number)
    return hostile_peers.normal(outcome), round(seconds, 2), round(memory.growth, 1)


def main():
    sys.stderr = sys.stdout
    with tempfile.TemporaryDirectory() as folder, scripted.Network() as network:
        player = Player(pathlib.Path(folder))
        good = network.reply(scripted.DEFAULT, "<info><tokenid>t</tokenid></info>", "--longest", "900")
        player.rules = ["::127.0.0.1:1", *(f"{host}:443:127.0.0.1:{good.port}"  # the others lead nowhere
                                           for host in (scripted.DEFAULT, hostile_peers.HOST))]
        for rule in player.rules:
            network.lead(rule)
        player.member = player.session()
        assert player.member.LoginKestrelhub("u", "p") == 1
        for group, row, call in hostile_peers.select(sys.argv[2:]):
            print(repr((group, row.what, call, *play(player, row, call))), flush=True)


main()
