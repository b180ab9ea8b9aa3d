"""Whole uploads, from the call to the completion event, against the stand-in."""

import atexit
import contextlib
import hashlib
import io
import os
import pathlib
import sys
from concurrent import futures

import common
from kestrelhub_standin import launch
from kestrelhub_standin.presets import FILE_PARTS
from publication import Publication

import Skiffport
from skiffhost import loop

SLOW = {"effect": 40_000_000}  # about twelve chunks, enough time to interfere
# An upload against a peer that has begun to read very slowly; to be continued.
SLOW_PEER = """
import sys, time
from publication import Publication
from skiffhost import loop
p = Publication("good.test")
assert p.start(sys.argv[1:]) != 0
p.pump_until(lambda: p.events)
quiet, count = time.monotonic(), 0  # until a chunk is under way that does not end
while time.monotonic() < quiet + 1.5:
    loop.wait(0.05); loop.pump()
    if count != len(p.events): quiet, count = time.monotonic(), len(p.events)
"""
THREADS = """
import ctypes, os, sys, threading, Skiffport
library = ctypes.CDLL(os.path.join(os.path.dirname(Skiffport.__file__), "libskiffport_platform.so"))
pump, wait = library._Z12PumpMessagesi, library._Z15WaitForMessagesi  # ctypes releases the GIL
sys.setswitchinterval(1e-5)
def publish():
    uploaders = [Skiffport.PyPresetUploader("no-host:1", "", "1", "r", "u") for _ in range(100)]
    for _ in range(25):
        for uploader in uploaders: uploader.StartUpload(*[sys.argv[1]] * 13, *[""] * 7, 1)
        ran = 0
        while ran < 100: wait(1000); ran += pump(100)
for _ in range(4): threading.Thread(target=publish).start()
"""


class UploadTest(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.session = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
        assert cls.session.LoginKestrelhub(launch.USER, launch.PASSWORD) == 1
        cls.host, cls.token = cls.session.GetServerUrl(), cls.session.GetLoginTokenID()

    def publication(self, paths=None, **changes):
        """Returns a new publication, started if there are paths."""
        publication = Publication(**{"host": self.host, "token": self.token, **changes})
        if paths:
            self.assertNotEqual(publication.start(paths), 0)
        return publication

    def test_publishes_every_file_and_field_unchanged(self):
        paths = self.preset(sizes={"effect": 9_000_000, "cover_after": 0, "levels_b": 70_001})
        odd = self.scratch / 'quote" ä \U0001F600 name.bin'
        os.rename(paths[3], odd)
        raw = os.fsencode(str(self.scratch)) + b"/raw-\xff\xe4.bin"  # not UTF-8
        os.rename(paths[4], raw)
        paths[3], paths[4] = str(odd), os.fsdecode(raw)
        texts = ("k-1", 'Ti"t\r\nle', "ca\U0001F600", "", "lone \ud800 pair \ud83d\ude00", None, "pi")
        publication = self.publication()
        thread_id = publication.start(paths, texts, -5)
        self.assertEqual(publication.uploader.GetUploadedFileUrl(), "")
        percent, accepted, address, error, *numbers = publication.completion()
        self.assertEqual((percent, accepted, error, numbers), (100, 1, "", [thread_id, -5]))
        self.assertEqual(publication.uploader.GetUploadedFileUrl(), address)

        stored = self.standin.presets()[-1]
        self.assertTrue(address.startswith("https://") and stored["id"] in address, address)
        self.assertEqual(stored["fields"], {
            "token": self.token, "title": 'Ti"t\r\nle', "description": "lone \ufffd pair \U0001F600",
            "category": "ca\U0001F600", "PIPtype": "pi", "templatetype": "PRESET", "templateKey": "k-1",
            "productName": "Quillon Tintwright", "versionInfo": "10.5", "AP": "TWR", "Version": "10.5",
            "AspectRatio": "1:1", "versionType": "retail", "uuid": "uuid-1"})
        contents = [pathlib.Path(path).read_bytes() for path in (paths[0], paths[1], *paths[1:])]
        for part, name, data in zip(stored["files"], FILE_PARTS, contents):
            self.assertEqual((part["name"], part["size"], part["sha256"]),
                             (name, len(data), hashlib.sha256(data).hexdigest()))

        names, percents, _, sent, totals, times, rates, files = zip(*publication.events[:-1])
        total = sum(map(len, contents))
        self.assertEqual((set(names), set(totals), sorted(sent)), ({"ProgressChanged"}, {total}, list(sent)))
        self.assertEqual((sent[0], sent[-1], times[0], rates[0]), (0, total, total // 5600, 5600))
        self.assertEqual(percents, tuple(int(100 * bytes / total) for bytes in sent))
        # The first and the last report of each file; the empty one is sent twice.
        self.assertEqual([files.count(path) >= 2 for path in paths], [True] * 13)

    def test_refuses_bad_paths_and_changes_nothing(self):
        paths = self.preset()
        broken = paths[0] + "\nX: y"
        os.link(paths[0], broken)  # exists, but would break a part's header
        publication = self.publication()
        for number in range(13):
            for bad in (None, "", paths[number] + ".missing", paths[number] + "\0x", broken):
                self.assertEqual(publication.start(paths[:number] + [bad] + paths[number + 1:]), 0)
        self.assertEqual((loop.pump(), publication.events), (0, []))

    def test_fails_at_a_file_that_cannot_be_sent_or_changes(self):
        fifo = self.scratch / "fifo"
        os.mkfifo(fifo)
        publication = self.publication()
        for number, bad in enumerate([str(self.scratch), str(fifo), "/dev/null"]):
            paths = self.preset()
            publication.events.clear()
            thread_id = publication.start(paths[:5] + [bad] + paths[6:], number=number)
            self.assertEqual(publication.completion(), (100, 0, "", "", thread_id, number))
            self.assertEqual({event[7] for event in publication.events[:-1]}, set(paths[:5]))
        for name, change in {"vanishes": os.unlink, "shrinks": lambda path: os.truncate(path, 10),
                             "grows": lambda path: os.truncate(path, 1000)}.items():
            with self.subTest(name):
                paths = self.preset(SLOW)
                publication = self.publication(paths)
                publication.pump_until(lambda: publication.events)  # the length has been declared
                change(paths[-1])
                self.assertEqual(publication.completion()[1:4], (0, "", ""))

    def test_runs_one_upload_at_a_time_and_restarts_from_the_completion(self):
        paths = self.preset()
        publication = self.publication()
        hooks, started = atexit._ncallbacks(), []

        def on_event(*arguments):
            publication.on_event(*arguments)
            if arguments[1] == "UploadComplete" and len(started) < 3:
                self.assertNotEqual(publication.uploader.GetUploadedFileUrl(), "")
                started.append(publication.start(paths, number=len(started)))
                self.assertEqual(publication.uploader.GetUploadedFileUrl(), "")

        publication.uploader.SetCallback(on_event)
        started.append(publication.start(paths, number=0))
        self.assertEqual(publication.start(paths), 0, "one is running")
        publication.pump_until(lambda: sum(event[0] == "UploadComplete" for event in publication.events) == 3)
        completions = [(event[2], *event[5:]) for event in publication.events if event[0] == "UploadComplete"]
        self.assertEqual(completions, [(1, thread_id, number) for number, thread_id in enumerate(started)])
        self.assertLessEqual(atexit._ncallbacks(), hooks + 1, "the exit hook is registered once")

    def test_cancels_only_the_running_upload(self):
        publication = self.publication()
        for sizes, cancel_before, cancel_after, accepted in (
                (None, False, False, 1), (None, True, False, 1), (SLOW, False, True, 0), (None, False, False, 1)):
            publication.events.clear()
            if cancel_before:  # idle: no effect on the next
                publication.uploader.CancelUpload()
            publication.start(self.preset(sizes))
            publication.pump_until(lambda: publication.events)
            if cancel_after:
                publication.uploader.CancelUpload()
            completion = publication.completion()
            self.assertEqual((completion[1], completion[2] != "", completion[3]), (accepted, accepted == 1, ""))

    def test_fails_for_an_invalid_address(self):
        for host in ("", None, "h" * 229, f"{self.host}:8443", f"u@{self.host}", "a\r\nb", "no-such-host.invalid"):
            publication = self.publication(self.preset(), host=host)
            self.assertEqual(publication.completion()[1:4], (0, "", ""), host)

    def test_a_callable_may_raise_or_be_replaced_or_removed(self):
        publication = self.publication()
        calls = []

        def raising(*arguments):
            calls.append(arguments)
            raise RuntimeError("from the callable")

        publication.uploader.SetCallback(raising)
        with contextlib.redirect_stderr(io.StringIO()) as stderr:
            publication.start(self.preset())
            publication.pump_until(lambda: len(calls) >= 3)
            publication.uploader.SetCallback(5)  # not callable
            publication.pump_until(lambda: "not callable" in stderr.getvalue())
            publication.uploader.SetCallback(publication.on_event)
            self.assertEqual(publication.completion()[1], 1)
            self.assertEqual(stderr.getvalue().count("RuntimeError: from the callable"), len(calls))
            publication.uploader.SetCallback(None)
            self.assertEqual(sys.getrefcount(raising), 2, "the uploader keeps no reference")
            publication.start(self.preset())
            publication.pump_until(lambda: publication.uploader.GetUploadedFileUrl())  # it runs all the same
        self.assertNotIn("NoneType", stderr.getvalue())

    def test_may_be_deleted_at_any_time(self):
        for last, sizes in ((None, SLOW), ("ProgressChanged", None), ("UploadComplete", None)):
            publication = self.publication()

            def deleting(*arguments):
                publication.on_event(*arguments)
                if arguments[1] == last:
                    publication.uploader = None

            publication.uploader.SetCallback(deleting)
            publication.start(self.preset(sizes))
            publication.pump_until(lambda: publication.events if last is None else publication.uploader is None)
            events = len(publication.events)
            publication.uploader = None
            loop.pump()
            self.assertEqual(len(publication.events), events, "no event follows")
            self.assertEqual(publication.events[-1][0], last or "ProgressChanged")

    def test_threads_publish_in_parallel(self):
        def publish(number):
            publication = self.publication()
            publication.start(self.preset({"effect": 400_000}), number=number)
            return publication.completion()[1::4]

        with futures.ThreadPoolExecutor() as pool:
            self.assertEqual(list(pool.map(publish, range(4))), [(1, number) for number in range(4)])
        self.assertEqual(self.run_python(THREADS, __file__), (0, ""), "and may pump without the GIL")

    def test_a_process_may_fork_or_exit_during_an_upload(self):
        head = ("import atexit, ctypes, os, sys\nfrom publication import Publication\nfrom skiffhost import loop\n"
                "def entries():\n"  # of m_mapTID2KHID: the count within the standard library's map
                "    box = p.uploader.m_mapTID2KHID\n"
                "    box.disown()\n"
                "    return ctypes.c_size_t.from_address(int(box) + 40).value\n"
                "def check():\n"
                "    loop.pump(10000)\n"
                "    os.write(1, p.events[-1][0].encode())\n"  # the hook has waited for the end
                "p = Publication(*sys.argv[1:3])\n"
                "atexit.register(check)\n"  # runs after the hook, which the first upload registers
                "assert p.start(sys.argv[3:])\n"
                "p.pump_until(lambda: p.events)\n"
                "assert entries() == 1\n")
        fork = ("child = os.fork()\n"
                "if child == 0:\n"
                "    atexit.unregister(check)\n"
                "    assert loop.pump() == 0\n"
                "    p.uploader.CancelUpload()\n"
                "    del p.uploader\n"
                "    sys.exit(5)\n"  # with the child's own exit hook
                "assert os.WEXITSTATUS(os.waitpid(child, 0)[1]) == 5\n"
                "assert p.completion()[1] == 1 and entries() == 0\n")
        before = len(self.standin.presets())
        for lines, status, stored in ((fork, 0, 1), ("sys.exit(3)\n", 3, 0),
                                      ("import builtins; builtins.kept = p\n", 0, 0)):
            with self.subTest(lines):
                done = self.run_python(head + lines, self.host, self.token, *self.preset(SLOW),
                                       PYTHONWARNINGS="ignore::DeprecationWarning")  # since 3.12, for such a fork
                self.assertEqual(done, (status, "UploadComplete"))
                before += stored
                self.assertEqual(len(self.standin.presets()), before, "a cancelled upload is not stored")


class SlowPeerTest(common.NetworkCase):
    def test_deletion_and_exit_take_bounded_time(self):
        """The peer takes 700 bytes a second for ten minutes."""
        paths = self.preset({"effect": 30_000_000})
        self.network.play("good.test", '("read-some", ("sip", 700))', "--pause", "1", "--window", "4096",
                          "--longest", "600")
        ends = ("count = len(p.events); del p.uploader; loop.pump()\nassert len(p.events) == count, 'no event follows'",
                "import builtins; builtins.kept = p")
        with futures.ThreadPoolExecutor() as pool:
            self.assertEqual(list(pool.map(lambda end: self.run_python(SLOW_PEER + end, *paths), ends)), [(0, "")] * 2)
