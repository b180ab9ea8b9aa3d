"""The helpers for hosts: they interpret events, explain failed logins, find files, and release uploaders."""

import gc
import os
import pathlib
import threading
import weakref

import common
from publication import TEXTS
from scripted import DEFAULT, DETECT

import Skiffport
import skiffhost
from skiffhost import completion, loop, login, progress

PRODUCT = ("10.5", "retail", "uuid-1")
NO_SERVICE = "no-host:1"  # an invalid address: the upload fails at once with one event


class EventsTest(common.Case):
    def test_a_tracker_estimates_from_the_whole_upload(self):
        now = [100.0]
        tracker = progress.Tracker(lambda: now[0])
        self.assertEqual((tracker.phase, tracker.percent, tracker.seconds_left), ("starting", 0, None))
        # seconds, bytes sent and bytes per tick of each event; then percent, time left and rate. A file of 20 bytes that
        # took a tick makes the event's own rate useless.
        for seconds, sent, rate, percent, left, speed in ((0, 0, 5600, 0, None, None), (0.1, 20, 5600, 0, None, None),
                                                          (0.5, 20, 20, 0, 6499.5, 40.0), (2, 26000, 20, 10, 18.0, 13000.0),
                                                          (20, 260000, 20, 100, 0.0, 13000.0)):
            now[0] = 100.0 + seconds
            tracker.feed("PROGRESS", "ProgressChanged", 50, 1, sent, 260000, 260000 // rate, rate, "a")
            self.assertEqual((tracker.percent, tracker.seconds_left, tracker.bytes_per_second), (percent, left, speed))
        self.assertEqual((tracker.phase, tracker.describe()), ("finishing", "260.0 KB of 260.0 KB"))
        tracker.cancel()
        self.assertEqual(tracker.phase, "cancelling")
        tracker.feed("PROGRESS", "UploadComplete", 100, 0, "", "", 5, 7)
        self.assertEqual((tracker.phase, tracker.completion.upload), ("cancelled", 7))

    def test_an_event_has_no_estimate_before_the_first_chunk_and_never_counts_what_was_sent(self):
        self.assertEqual(progress.from_event(0, 46, 0, 260000, 46, 5600, "a"), (0, 260000, None, None))
        self.assertEqual(progress.from_event(90, 0, 234000, 260000, 13000, 20000, "b"), (234000, 260000, 0.5, 40000.0))

    def test_completions_have_an_outcome(self):
        for accepted, address, error, cancelled, outcome, problem in (
                (1, "a", "", False, "published", ""), (1, "", "", True, "published", ""),
                (1, "", "no", False, "refused", "no"), (0, "", "no", True, "refused", "no"),
                (0, "", "", True, "cancelled", "cancelled"), (0, "", "", False, "failed", "no accepted answer")):
            ended = skiffhost.Completion(100, accepted, address, error, 5, 7)
            self.assertEqual((ended.outcome(cancelled), ended.problem(cancelled)), (outcome, problem))
            if problem:
                with self.assertRaisesRegex(completion.NotPublished, problem) as caught:
                    completion.address_of(ended, cancelled)
                self.assertEqual(caught.exception.outcome, outcome)
            else:
                self.assertEqual(completion.address_of(ended, cancelled), address)

    def test_finding_files_takes_paths_and_lists_every_fault(self):
        folder = pathlib.Path(self.preset()[0]).parent
        paths = skiffhost.find_files(folder, {"curve_r": folder / "curve_b.bin"})
        self.assertEqual([type(path) for path in paths], [str] * 13)
        self.assertEqual(paths[6], os.path.join(folder, "curve_b.bin"))
        with self.assertRaises(ValueError) as caught:
            skiffhost.find_files(folder, {"effect": folder, "curve_g": folder / "gone"})
        self.assertEqual(len(caught.exception.faults), 2)
        for fault in ("not a file: ", "no such file: "):
            self.assertIn(fault, str(caught.exception))


class LoginTest(common.NetworkCase):
    def test_says_why_a_login_failed(self):
        self.network.lead(f"{DETECT}:443:127.0.0.1:1")
        cases = [(None, None, "", "the server could not be reached", False),
                 ("reply", "unknown-issuer", "", "issuer that is not trusted", False),
                 ("reply", "expired", "", "its certificate has expired", False),
                 ("reply", "good", "<info/>", "did not accept the login", True),
                 ("reply", "good", "<info><tokenid>t</tokenid></info>", "", False)]
        for scenario, certificate, body, text, refused in cases:
            self.network.lead(f"{DEFAULT}:443:127.0.0.1:1")
            if scenario:
                self.network.play(DEFAULT, scenario, "--body", body, tls=certificate)
            session = Skiffport.KHLoginData(*PRODUCT)
            session.SetKHURLAsReg(DEFAULT)
            result = session.LoginKestrelhub("user", "password")
            with self.subTest(text):
                self.assertEqual(login.was_refused(session, result), refused)
                self.assertIn(text, skiffhost.explain_login(session, result))
                self.assertEqual(bool(text), bool(skiffhost.explain_login(session, result)))
        self.assertIn("(error 12007)", skiffhost.explain_login(session, 12007))


class UploaderTest(common.Case):
    def test_the_block_breaks_the_cycle_and_frees_the_uploader_at_once(self):
        class Host:
            def on_event(self, *event):
                self.event = event

        with skiffhost.Uploader(NO_SERVICE, "", *PRODUCT) as uploader:
            host = Host()
            host.uploader = uploader
            uploader.SetCallback(host.on_event)
            files = [pathlib.Path(path) for path in self.preset()]
            self.assertNotEqual(uploader.start(files, title="Title", number=9), 0)
            with self.assertRaisesRegex(RuntimeError, "still runs"):
                uploader.StartUpload(*files, *TEXTS, 9) or uploader.start(files, title="Title")
            while not hasattr(host, "event"):
                loop.wait(1.0)
                loop.pump()
            self.assertEqual((host.event[1], host.event[-1]), ("UploadComplete", 9))
            with self.assertRaises(ValueError):
                uploader.start(files[1:], title="Title")
            with self.assertRaises(TypeError) as caught:
                uploader.StartUpload(*files)
        self.assertTrue(loop.release(), "no object needs the queue any more")
        del caught
        gone = weakref.ref(host)
        del host, uploader
        gc.collect()
        self.assertIsNone(gone())

    def test_the_end_cancels_what_runs_and_closes(self):
        events = []
        with skiffhost.Uploader(NO_SERVICE, "", *PRODUCT) as uploader:
            uploader.SetCallback(lambda *event: events.append(event))
            uploader.start(self.preset(), title="Title")
            raised = []
            other = threading.Thread(target=lambda: raised.append(self.assertRaises(RuntimeError, uploader.close)))
            other.start()
            other.join()
            self.assertEqual(len(raised), 1)
        loop.pump()
        self.assertEqual(events, [])
        uploader.close()
        uploader.CancelUpload()
        self.assertRaises(RuntimeError, uploader.GetUploadedFileUrl)


class PackageTest(common.Case):
    def test_exports_are_imported_when_they_are_used(self):
        script = ("import sys, skiffhost, skiffhost.loop; print(sorted(name for name in sys.modules if 'skiffhost' in name));"
                  "print([getattr(skiffhost, name) and name for name in skiffhost.__all__] == sorted(skiffhost.__all__),"
                  "set(skiffhost.__all__) <= set(dir(skiffhost)), 'skiffhost.outcome' in sys.modules)")
        self.assertEqual(self.run_python(script), (0, "['skiffhost', 'skiffhost._messageloop', 'skiffhost._version', "
                                                      "'skiffhost.loop']\nTrue True False\n"))


