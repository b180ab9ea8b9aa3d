"""The helpers for hosts: they interpret events and failures, find files, and release uploaders."""

import asyncio
import gc
import io
import os
import pathlib
import re
import weakref

import common

import Skiffport
import skiffhost
from skiffhost import aio, completion, errors, loop, progress, views

NO_SERVICE = ("no-host:1", "", "10.5", "retail", "uuid-1")  # an invalid address: an upload fails with one event
FAILING = """
import asyncio, sys
import skiffhost
from skiffhost import aio
assert skiffhost.record_causes()
import Skiffport
member = skiffhost.Member(Skiffport.KHLoginData("10.5", "retail", "uuid-1"), "10.5", "retail", "uuid-1")
for host, number, retry in (("refused.test", 12029, "safe"), ("no-host.invalid", 12007, "safe"),
                            ("detect.kestrelhub.example", 12045, "safe"), ("good.test", 12152, "unsafe")):
    member.session.SetKHURLAsReg(host)
    try:
        asyncio.run(aio.publish(member, sys.argv[1:], title="Title"))
    except skiffhost.NotPublished as failure:
        assert (failure.outcome, failure.error_number, failure.retry) == ("failed", number, retry), vars(failure)
        print(failure)
"""


class EventsTest(common.Case):
    def test_estimates_come_from_the_whole_upload(self):
        now, stream = [0.0], io.StringIO()
        tracker = progress.Tracker(lambda: now[0])
        view, phases = views.LineView(tracker, stream, lambda: now[0]), [tracker.phase]
        # A file of 20 bytes that takes a tick makes the event's own rate useless.
        for seconds, sent, rate, shown in ((0.0, 0, 5600, (0, None, None)), (0.1, 20, 5600, (0, None, None)),
                                           (2.0, 26000, 20, (10, 18.0, 13000.0)), (8, 260000, 20, (100, 0.0, 32500.0))):
            now[0] = seconds
            tracker.feed("PROGRESS", "ProgressChanged", 50, 1, sent, 260000, 260000 // rate, rate, "a")
            self.assertEqual((tracker.percent, tracker.seconds_left, tracker.bytes_per_second), shown)
            phases.append(tracker.phase)
            view.draw()
        self.assertTrue(stream.getvalue().endswith("\nuploading 10% (26.0 KB of 260.0 KB, 13.0 KB/s, 0:18 left)\n"
                                                   "finishing 100% (260.0 KB of 260.0 KB)\n"), stream.getvalue())
        tracker.cancel()
        phases.append(tracker.phase)
        tracker.feed("PROGRESS", "UploadComplete", 100, 0, "", "", 5, 7)
        self.assertEqual([*phases, tracker.phase],
                         ["starting", *["uploading"] * 3, "finishing", "cancelling", "cancelled"])
        self.assertEqual(progress.from_event(0, 46, 0, 260000, 46, 5600, "a"), (0, 260000, None, None))
        self.assertEqual(progress.from_event(90, 0, 234000, 260000, 13000, 20000, "b"), (234000, 260000, 0.5, 40000.0))
        shown = progress.from_event(70, 1, -1294967296, -2, 120, 2500000, "x")
        self.assertEqual((progress.describe(shown), shown.percent, shown.finishing),
                         ("3.0 GB of 4.3 GB, 5.0 MB/s, 1:00 left", 69, False))

    def test_completions_have_an_outcome(self):
        for accepted, address, error, cancelled, outcome, problem in (
                (1, "a", "no", False, "published", ""), (1, "", "", True, "published", ""),
                (0, "", "no", True, "refused", "no"), (0, "", "", False, "failed", completion.NO_ANSWER)):
            ended = skiffhost.Completion(100, accepted, address, error, 5, 7)
            self.assertEqual((ended.outcome(cancelled), ended.problem(cancelled)), (outcome, problem))

    def test_finding_files_takes_paths_and_lists_every_fault(self):
        preset = self.preset()
        folder = pathlib.Path(preset[0]).parent
        paths = skiffhost.find_files(folder, {"curve_r": folder / "curve_b.bin"})
        self.assertEqual(paths, [*preset[:6], os.path.join(folder, "curve_b.bin"), *preset[7:]])
        (folder / "large").touch()
        os.truncate(folder / "large", 2**32 - 2**20)
        (folder / "levels_r.old").touch()
        os.unlink(folder / "levels_g.bin")
        incomplete = f"several files could be levels_r: levels_r.bin, levels_r.old; no file levels_g in {folder}"
        whole = {"levels_r": paths[0], "levels_g": paths[0]}
        for given, faults in (
                ({"effect": folder, "curve_g": "/gone", **whole}, f"not a file: {folder}; no such file: /gone"),
                ({"effect": folder / "large", **whole}, "the files exceed the upload limit of 4 GiB in total"),
                ({"effect": "\n", "b": "c", **whole}, r"no such file of a preset: b; control character in the file "
                 r"name '\n'"), ({}, incomplete)):
            with self.subTest(given), self.assertRaises(skiffhost.PresetFilesError) as caught:
                skiffhost.find_files(folder, given)
            self.assertEqual(str(caught.exception), faults)


class UploaderTest(common.Case):
    def test_a_block_frees_the_uploader_and_what_its_callable_reaches(self):
        class Host:
            def on_event(self, *event):
                self.event = event

        host, files = Host(), [pathlib.Path(path) for path in self.preset()]
        with skiffhost.Uploader(*NO_SERVICE) as host.uploader:
            host.uploader.SetCallback(host.on_event)
            host.uploader.start(files, title="Title", number=9)
            self.assertRaises(RuntimeError, host.uploader.start, files, title="while the first one runs")
            while not hasattr(host, "event"):
                loop.wait(1.0)
                loop.pump()
            self.assertRaises(RuntimeError, skiffhost.in_background(host.uploader.close).result)
            host.uploader.start(files, title="cancelled by the end of the block", number=10)
            try:
                host.uploader.StartUpload(*files, *[0] * 8)
            except TypeError as error:
                caught = error  # its traceback refers to the native uploader
        host.uploader.CancelUpload()
        self.assertRaises(RuntimeError, host.uploader.GetUploadedFileUrl)
        self.assertEqual((loop.pump(), host.event[1], host.event[-1]), (0, "UploadComplete", 9))
        self.assertTrue(loop.release(), "no object needs the queue any more")
        gone = weakref.ref(host)
        del caught, host
        gc.collect()
        self.assertIsNone(gone())


class FailureTest(common.NetworkCase):
    def test_a_cancelled_task_waits_for_the_upload_while_the_loop_runs(self):
        self.network.play("www.kestrelhub.example", "stall")
        member = skiffhost.Member(Skiffport.KHLoginData(*NO_SERVICE[2:]), *NO_SERVICE[2:])
        member.session.SetKHURLAsReg("www.kestrelhub.example")
        phases = []

        async def main():
            task = asyncio.ensure_future(aio.publish(member, self.preset({"effect": 10**7}), title="Title",
                                                     on_progress=lambda tracker: phases.append(tracker.phase)))
            while not phases:
                await asyncio.sleep(0.01)
            for _ in range(2):  # the second changes nothing
                task.cancel()
                await asyncio.sleep(0)
            await asyncio.wait([task])
            return task.cancelled()

        self.assertTrue(asyncio.run(main()))
        self.assertEqual((phases[-1], loop.pump()), ("cancelled", 0))

    def test_a_failure_says_why(self):
        self.network.lead("refused.test:443:127.0.0.1:1")
        self.network.play("detect.kestrelhub.example", "reply", tls="unknown-issuer")
        self.network.play("good.test", "close")
        status, printed = self.run_python(FAILING, *self.preset())
        expected = [errors.explain_error(number) + "; none of the files was sent, so it is safe to try again"
                    for number in (12029, 12007, 12045)] + [errors.explain_error(12152) + "; the service may have it"]
        self.assertEqual((status, printed.splitlines()), (0, expected))

    def test_each_error_has_one_sentence_and_a_row_in_the_reference(self):
        source = (common.ROOT / "framework/InternetSession.cpp").read_text()
        page = (common.ROOT / "docs/reference.md").read_text()
        sentences = dict(re.findall(r'\{ERROR_(\w+), L"(.*)"\}', source))
        self.assertEqual({name: errors.ErrorNumber[name].sentence for name in sentences}, sentences)
        rows = re.findall(r"^\| ([0-9, ]+) \| `0x8007", page, re.MULTILINE)
        self.assertEqual(sorted(map(int, ",".join(rows).split(","))), sorted(errors.ErrorNumber))


class PackageTest(common.Case):
    def test_names_are_imported_when_they_are_used_and_methods_are_documented(self):
        script = ("import sys, skiffhost, skiffhost.loop; early = {*sys.modules} & {'skiffhost.uploads', 'typing'};"
                  "found = [name for name in skiffhost.__all__ if getattr(skiffhost, name) and name in dir(skiffhost)];"
                  "print(early or found == skiffhost.__all__, 'skiffhost.outcome' in sys.modules)")
        self.assertEqual(self.run_python(script), (0, "True False\n"))
        members = {**vars(Skiffport.KHLoginData), **vars(Skiffport.KHConnectUtil), **vars(Skiffport.PyPresetUploader)}
        self.assertEqual([name for name, member in members.items() if name != "thisown" and not name.startswith("__")
                          and "\n\n" not in member.__doc__], [])
