"""The helpers for hosts: they interpret events, find files, and release uploaders."""

import gc
import io
import os
import pathlib
import weakref

import common

import Skiffport
import skiffhost
from skiffhost import completion, loop, progress, views

NO_SERVICE = ("no-host:1", "", "10.5", "retail", "uuid-1")  # an invalid address: an upload fails with one event


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
                (1, "", "no", False, "refused", "no"), (0, "", "no", True, "refused", "no"),
                (0, "", "", True, "cancelled", "cancelled"), (0, "", "", False, "failed", completion.NO_ANSWER)):
            ended = skiffhost.Completion(100, accepted, address, error, 5, 7)
            self.assertEqual((ended.outcome(cancelled), ended.problem(cancelled)), (outcome, problem))

    def test_finding_files_takes_paths_and_lists_every_fault(self):
        folder = pathlib.Path(self.preset()[0]).parent
        paths = skiffhost.find_files(folder, {"curve_r": folder / "curve_b.bin"})
        self.assertEqual((len(paths), paths[6]), (13, os.path.join(folder, "curve_b.bin")))
        (folder / "large").touch()
        os.truncate(folder / "large", 2**32 - 2**20)
        (folder / "levels_r.old").touch()
        os.unlink(folder / "levels_g.bin")
        incomplete = (f"several files could be levels_r: levels_r.bin, levels_r.old; no file levels_g in {folder}")
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


class PackageTest(common.Case):
    def test_names_are_imported_when_they_are_used_and_methods_are_documented(self):
        script = ("import sys, skiffhost, skiffhost.loop; early = {*sys.modules} & {'skiffhost.uploads', 'typing'};"
                  "found = [name for name in skiffhost.__all__ if getattr(skiffhost, name) and name in dir(skiffhost)];"
                  "print(early or found == skiffhost.__all__, 'skiffhost.outcome' in sys.modules)")
        self.assertEqual(self.run_python(script), (0, "True False\n"))
        members = {**vars(Skiffport.KHLoginData), **vars(Skiffport.KHConnectUtil), **vars(Skiffport.PyPresetUploader)}
        self.assertEqual([name for name, member in members.items() if name != "thisown" and not name.startswith("__")
                          and "\n\n" not in member.__doc__], [])
