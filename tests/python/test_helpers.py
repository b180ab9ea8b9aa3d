"""The helpers for hosts: they interpret events, explain failed logins, find files, and release uploaders."""

import gc
import os
import pathlib
import weakref
from concurrent.futures import ThreadPoolExecutor

import common
from scripted import DEFAULT, DETECT

import Skiffport
import skiffhost
from skiffhost import login, loop, progress

PRODUCT = ("10.5", "retail", "uuid-1")
NO_SERVICE = "no-host:1"  # an invalid address: the upload fails at once with one event


class EventsTest(common.Case):
    def test_estimates_come_from_the_whole_upload(self):
        now = [100.0]
        tracker = progress.Tracker(lambda: now[0])
        phases = [tracker.phase]
        # A file of 20 bytes that takes a tick makes the event's own rate useless.
        for seconds, sent, rate, shown in ((0.0, 0, 5600, (0, None, None)), (0.1, 20, 5600, (0, None, None)),
                                           (2.0, 26000, 20, (10, 18.0, 13000.0)), (8, 260000, 20, (100, 0.0, 32500.0))):
            now[0] = 100.0 + seconds
            tracker.feed("PROGRESS", "ProgressChanged", 50, 1, sent, 260000, 260000 // rate, rate, "a")
            self.assertEqual((tracker.percent, tracker.seconds_left, tracker.bytes_per_second), shown)
            phases.append(tracker.phase)
        tracker.cancel()
        phases.append(tracker.phase)
        tracker.feed("PROGRESS", "UploadComplete", 100, 0, "", "", 5, 7)
        self.assertEqual([*phases, tracker.phase],
                         ["starting", *["uploading"] * 3, "finishing", "cancelling", "cancelled"])
        self.assertEqual(progress.from_event(0, 46, 0, 260000, 46, 5600, "a"), (0, 260000, None, None))
        self.assertEqual(progress.from_event(90, 0, 234000, 260000, 13000, 20000, "b"), (234000, 260000, 0.5, 40000.0))

    def test_completions_have_an_outcome(self):
        for accepted, address, error, cancelled, outcome, problem in (
                (1, "a", "", False, "published", ""), (1, "", "", True, "published", ""),
                (1, "", "no", False, "refused", "no"), (0, "", "no", True, "refused", "no"),
                (0, "", "", True, "cancelled", "cancelled"), (0, "", "", False, "failed", "no accepted answer")):
            ended = skiffhost.Completion(100, accepted, address, error, 5, 7)
            self.assertEqual((ended.outcome(cancelled), ended.problem(cancelled)), (outcome, problem))

    def test_finding_files_takes_paths_and_lists_every_fault(self):
        folder = pathlib.Path(self.preset()[0]).parent
        paths = skiffhost.find_files(folder, {"curve_r": folder / "curve_b.bin"})
        self.assertEqual((len(paths), paths[6]), (13, os.path.join(folder, "curve_b.bin")))
        with self.assertRaises(ValueError) as caught:
            skiffhost.find_files(folder, {"effect": folder, "curve_g": folder / "gone"})
        self.assertEqual([fault.split(":")[0] for fault in caught.exception.faults], ["not a file", "no such file"])


class LoginTest(common.NetworkCase):
    def test_says_why_a_login_failed(self):
        self.network.lead(f"{DETECT}:443:127.0.0.1:1")
        for certificate, body, text, refused in (
                (None, "", "the server could not be reached", False),
                ("unknown-issuer", "", "issuer that is not trusted", False), ("expired", "", "has expired", False),
                ("good", "<info/>", "did not accept the login", True),
                ("good", "<info><tokenid>t</tokenid></info>", "", False)):
            self.network.lead(f"{DEFAULT}:443:127.0.0.1:1")
            if certificate:
                self.network.reply(DEFAULT, body, tls=certificate)
            session = Skiffport.KHLoginData(*PRODUCT)
            session.SetKHURLAsReg(DEFAULT)
            result = session.LoginKestrelhub("user", "password")
            found = skiffhost.explain_login(session, result)
            with self.subTest(text):
                self.assertIn(text, found)
                self.assertEqual((bool(found), login.was_refused(session, result)), (bool(text), refused))
        self.assertIn("(error 12007)", skiffhost.explain_login(session, 12007))


class UploaderTest(common.Case):
    def test_a_block_frees_the_uploader_and_what_its_callable_reaches(self):
        class Host:
            def on_event(self, *event):
                self.event = event

        host = Host()
        with skiffhost.Uploader(NO_SERVICE, "", *PRODUCT) as host.uploader:
            host.uploader.SetCallback(host.on_event)
            files = [pathlib.Path(path) for path in self.preset()]
            host.uploader.start(files, title="Title", number=9)
            self.assertRaises(RuntimeError, host.uploader.start, files, title="while the first one runs")
            while not hasattr(host, "event"):
                loop.wait(1.0)
                loop.pump()
            self.assertEqual((host.event[1], host.event[-1]), ("UploadComplete", 9))
            try:
                host.uploader.StartUpload(*files, *[0] * 8)
            except TypeError as error:
                caught = error  # its traceback refers to the native uploader
        self.assertTrue(loop.release(), "no object needs the queue any more")
        gone = weakref.ref(host)
        del caught, host
        gc.collect()
        self.assertIsNone(gone())

    def test_the_end_of_a_block_cancels(self):
        events = []
        with skiffhost.Uploader(NO_SERVICE, "", *PRODUCT) as uploader:
            uploader.SetCallback(lambda *event: events.append(event))
            uploader.start(self.preset(), title="Title")
            self.assertRaises(TypeError, uploader.StartUpload, *[b"a"] * 13, *[""] * 7, 1)
            with ThreadPoolExecutor(1) as other:
                self.assertRaises(RuntimeError, other.submit(uploader.close).result)
        uploader.CancelUpload()
        self.assertEqual((loop.pump(), events), (0, []))
        self.assertRaises(RuntimeError, uploader.GetUploadedFileUrl)


class PackageTest(common.Case):
    def test_names_are_imported_when_they_are_used_and_methods_are_documented(self):
        script = ("import sys, skiffhost, skiffhost.loop; early = {*sys.modules} & {'skiffhost.uploads', 'typing'};"
                  "found = [name for name in skiffhost.__all__ if getattr(skiffhost, name) and name in dir(skiffhost)];"
                  "print(early or found == skiffhost.__all__, 'skiffhost.outcome' in sys.modules)")
        self.assertEqual(self.run_python(script), (0, "True False\n"))
        members = {**vars(Skiffport.KHLoginData), **vars(Skiffport.KHConnectUtil), **vars(Skiffport.PyPresetUploader)}
        for name in members:
            if not name.startswith("__") and name != "thisown":
                self.assertIn("\n\n", members[name].__doc__, name)
