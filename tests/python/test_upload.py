"""Whole uploads, from the call to the completion event, against the stand-in."""

import atexit
import contextlib
import hashlib
import io
import os
import pathlib
import sys

import common
from kestrelhub_standin.presets import FILE_PARTS
from publication import Publication

from skiffhost import loop

SLOW = {"effect": 40_000_000}  # about twelve chunks, enough time to interfere
# An upload that has begun; to be continued. The check runs after the exit hook, which the first upload registers.
BEGUN = """
import atexit, builtins, ctypes, os, sys, time
from publication import Publication
from skiffhost import loop
p = Publication(*sys.argv[1:3])
def entries():  # of m_mapTID2KHID: the count within the standard library's map
    box = p.uploader.m_mapTID2KHID
    box.disown()
    return ctypes.c_size_t.from_address(int(box) + 40).value
def check():
    loop.pump(10000), os.write(1, p.events[-1][0].encode())
atexit.register(check)
assert p.start(sys.argv[3:])
p.pump_until(lambda: p.events)
assert entries() == 1
"""
STALLED = """
quiet, count = time.monotonic(), 0  # until a chunk is under way that does not end
while time.monotonic() < quiet + 1.5:
    loop.wait(0.05), loop.pump()
    if count != len(p.events): quiet, count = time.monotonic(), len(p.events)
atexit.unregister(check)
"""


class UploadTest(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.host, cls.token = cls.log_in()

    def publication(self, paths=None, **changes):
        """Returns a new publication, started if there are paths."""
        publication = Publication(**{"host": self.host, "token": self.token, **changes})
        self.addCleanup(setattr, publication, "uploader", None)  # breaks a cycle with its callable
        if paths:
            self.assertNotEqual(publication.start(paths), 0)
        return publication

    def test_publishes_every_file_and_field_unchanged(self):
        paths = self.preset({"effect": 9_000_000, "cover_after": 0, "levels_b": 70_001})
        for number, name in ((3, 'quote" ä \U0001F600 name.bin'), (4, os.fsdecode(b"raw-\xff\xe4.bin"))):  # not UTF-8
            os.rename(paths[number], self.scratch / name)
            paths[number] = str(self.scratch / name)
        texts = ("k-1", 'Ti"t\r\nle', "ca\U0001F600", "", "lone \ud800 pair \ud83d\ude00", None, "pi")
        publication = self.publication()
        thread_id = publication.start(paths, texts, -5)
        completion, stored = publication.completion(), self.standin.presets()[-1]
        address = publication.uploader.GetUploadedFileUrl()
        self.assertEqual(completion, (100, 1, address, "", thread_id, -5))
        self.assertTrue(address.startswith("https://") and stored["id"] in address, address)
        self.assertEqual(stored["fields"], {
            "token": self.token, "title": 'Ti"t\r\nle', "description": "lone \ufffd pair \U0001F600",
            "category": "ca\U0001F600", "PIPtype": "pi", "templatetype": "PRESET", "templateKey": "k-1",
            "productName": "Quillon Tintwright", "versionInfo": "10.5", "AP": "TWR", "Version": "10.5",
            "AspectRatio": "1:1", "versionType": "retail", "uuid": "uuid-1"})
        contents = [pathlib.Path(path).read_bytes() for path in (paths[0], paths[1], *paths[1:])]
        self.assertEqual([(part["name"], part["size"], part["sha256"]) for part in stored["files"]],
                         [(name, len(data), hashlib.sha256(data).hexdigest())
                          for name, data in zip(FILE_PARTS, contents)])
        names, percents, _, sent, totals, times, rates, _ = zip(*publication.events[:-1])
        total = sum(map(len, contents))
        self.assertEqual((set(names), set(totals), sorted(sent)), ({"ProgressChanged"}, {total}, list(sent)))
        self.assertEqual((sent[0], sent[-1], times[0], rates[0]), (0, total, total // 5600, 5600))
        self.assertEqual(percents, tuple(int(100 * bytes / total) for bytes in sent))

    def test_refuses_bad_paths_and_changes_nothing(self):
        paths, publication = self.preset(), self.publication()
        broken = paths[0] + "\nX: y"
        os.link(paths[0], broken)  # exists, but would break a part's header
        for number in range(13):
            for bad in (None, "", paths[number] + ".missing", paths[number] + "\0x", broken):
                self.assertEqual(publication.start(paths[:number] + [bad] + paths[number + 1:]), 0)
        self.assertEqual((loop.pump(), publication.events), (0, []))

    def test_fails_at_a_file_that_cannot_be_sent_or_changes(self):
        os.mkfifo(self.scratch / "fifo")
        publication, paths = self.publication(), self.preset()
        for number, bad in enumerate([str(self.scratch), str(self.scratch / "fifo"), "/dev/null"]):
            publication.events.clear()
            thread_id = publication.start(paths[:5] + [bad] + paths[6:], number=number)
            self.assertEqual(publication.completion(), (100, 0, "", "", thread_id, number))
            self.assertEqual({event[7] for event in publication.events[:-1]}, set(paths[:5]))
        for change in (os.unlink, lambda path: os.truncate(path, 10), lambda path: os.truncate(path, 1000)):
            paths = self.preset(SLOW)
            publication = self.publication(paths)
            publication.pump_until(lambda: publication.events)  # the length has been declared
            change(paths[-1])
            self.assertEqual(publication.completion()[1:4], (0, "", ""), change)
        for host in ("", None, "h" * 229, f"{self.host}:8443", f"u@{self.host}", "a\r\nb", "no-such-host.invalid"):
            publication = self.publication(self.preset(), host=host)
            self.assertEqual(publication.completion()[1:4], (0, "", ""), host)

    def test_runs_one_upload_at_a_time_and_restarts_from_the_completion(self):
        def on_event(*arguments):
            publication.on_event(*arguments)
            if arguments[1] == "UploadComplete" and len(started) < 3:
                addresses.append(publication.uploader.GetUploadedFileUrl())
                started.append(publication.start(paths, number=len(started)))
                addresses.append(publication.uploader.GetUploadedFileUrl())

        paths, publication, hooks, addresses = self.preset(), self.publication(), atexit._ncallbacks(), []
        publication.uploader.SetCallback(on_event)
        started = [publication.start(paths, number=0)]
        self.assertEqual(publication.start(paths), 0, "one is running")
        publication.pump_until(lambda: sum(event[0] == "UploadComplete" for event in publication.events) == 3)
        completions = [event[2:] for event in publication.events if event[0] == "UploadComplete"]
        self.assertEqual([(accepted, *numbers) for accepted, _, _, *numbers in completions],
                         [(1, thread_id, number) for number, thread_id in enumerate(started)])
        self.assertEqual(addresses, [completions[0][1], "", completions[1][1], ""])
        self.assertLessEqual(atexit._ncallbacks(), hooks + 1, "the exit hook is registered once")

    def test_cancels_only_the_running_upload(self):
        publication = self.publication()
        publication.uploader.CancelUpload()  # idle: no effect on the next
        publication.start(self.preset())
        self.assertEqual(publication.completion()[1], 1)
        publication.events.clear()
        publication.start(self.preset(SLOW))
        publication.pump_until(lambda: publication.events)
        publication.uploader.CancelUpload()
        self.assertEqual(publication.completion()[1:4], (0, "", ""))

    def test_a_callable_may_raise_or_be_replaced_or_removed(self):
        def raising(*arguments):
            calls.append(arguments)
            raise RuntimeError("from the callable")

        publication, calls = self.publication(), []
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

    def test_a_process_may_exit_during_an_upload(self):
        stored = len(self.standin.presets())
        for end, status, more in (("assert p.completion()[1] == 1 and entries() == 0", 0, 1), ("sys.exit(3)", 3, 0),
                                  ("builtins.kept = p", 0, 0)):
            done = self.run_python(BEGUN + end, self.host, self.token, *self.preset(SLOW))
            stored += more  # a cancelled upload is not
            self.assertEqual((*done, len(self.standin.presets())), (status, "UploadComplete", stored), end)


class SlowPeerTest(common.NetworkCase):
    def test_deletion_and_exit_take_bounded_time(self):
        """The peer takes 700 bytes a second for ten minutes."""
        paths = self.preset({"effect": 30_000_000})
        self.network.play("good.test", '("read-some", ("drain", 700, 1))', "--window", "4096")
        for end, status in (("del p.uploader; assert loop.pump() == 0, 'no event follows'", 0), ("sys.exit(3)", 3)):
            self.assertEqual(self.run_python(BEGUN + STALLED + end, "good.test", "", *paths), (status, ""))
