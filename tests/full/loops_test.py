"""Uploads in a real event loop: ``loops_test.py LOOP [TEST]...``, where LOOP is a name in LOOPS. One loop per process.

Each test runs the loop with its own 10 ms timer and checks that no descriptor leaks. Prints what it measured.
"""

import asyncio
import contextlib
import ctypes
import functools
import importlib
import io
import os
import pathlib
import signal
import sys
import threading
import time
import unittest
from unittest import mock

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import common  # noqa: E402
import fixtures  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402
from publication import Publication  # noqa: E402

import Skiffport  # noqa: E402
from skiffhost import loop  # noqa: E402

TICK_MILLISECONDS = 10
LONGEST_GAP_SECONDS = 0.05  # of this thread's CPU time, so that a busy machine makes no difference
WAITING_UPLOADS = 36
WAITING_COMMANDS = 2000
EVENT_SECONDS = 0.0005  # what a window may spend on one event
NO_SERVICE = "no-host:1"  # an invalid address: the upload fails at once with one event


def print_error(error):
    print(repr(error), file=sys.stderr)


# Each loop has ``attach``; ``run_inside``, which an event calls to run the loop itself, where that is possible; and
# ``run``, which runs the loop and calls ``tick`` every 10 ms until it returns something true.


class AsyncioLoop:
    def __init__(self):
        self._loop = asyncio.new_event_loop()
        self._loop.set_exception_handler(lambda _loop, context: print_error(context["exception"]))
        self.attach = functools.partial(loop.attach_asyncio, self._loop)

    def run_inside(self):
        pass

    def run(self, tick):
        async def ticking():
            while not tick():
                await asyncio.sleep(TICK_MILLISECONDS / 1000)

        self._loop.run_until_complete(ticking())


class QtLoop:
    def __init__(self, binding):
        self._core = importlib.import_module(binding + ".QtCore")
        self._application = importlib.import_module(binding + ".QtWidgets").QApplication([])
        self.attach, self.run_inside = loop.attach_qt, self._application.processEvents

    def run(self, tick):
        timer = self._core.QTimer()
        timer.timeout.connect(lambda: self._application.exit() if tick() else None)
        timer.start(TICK_MILLISECONDS)
        run = self._application.exec if hasattr(self._application, "exec") else self._application.exec_
        run()
        timer.stop()


class GLibLoop:
    def __init__(self, own_context=False):
        from gi.repository import GLib
        self._glib = GLib
        self._context = GLib.MainContext() if own_context else None
        self.attach = functools.partial(loop.attach_glib, self._context)

    def run_inside(self):
        context = self._context or self._glib.MainContext.default()
        while context.pending():
            context.iteration(False)

    def run(self, tick):
        main_loop = self._glib.MainLoop(self._context)
        timer = self._glib.timeout_source_new(TICK_MILLISECONDS)
        timer.set_callback(lambda *_: main_loop.quit() if tick() else True)
        timer.attach(self._context)
        main_loop.run()
        timer.destroy()


class TkLoop:
    def __init__(self):
        import tkinter
        self._root = tkinter.Tk()
        self.attach, self.run_inside = functools.partial(loop.attach_tk, tkinter.Label(self._root)), self._root.update

    def run(self, tick):
        def again():
            if tick():
                self._root.quit()
            else:
                timer[0] = self._root.after(TICK_MILLISECONDS, again)

        timer = [self._root.after(0, again)]
        while True:
            try:
                self._root.mainloop()
                break
            except RuntimeError as error:  # raised by a signal handler
                print_error(error)
        self._root.after_cancel(timer[0])


LOOPS = {
    "asyncio": AsyncioLoop,
    "PyQt6": functools.partial(QtLoop, "PyQt6"),
    "PyQt5": functools.partial(QtLoop, "PyQt5"),
    "PySide2": functools.partial(QtLoop, "PySide2"),
    "GLib": GLibLoop,
    "GLib-context": functools.partial(GLibLoop, True),
    "Tk": TkLoop,
}


class Recorded(Publication):
    """A publication that does some work in each event."""

    work = staticmethod(lambda: None)

    def on_event(self, *arguments):
        assert threading.current_thread() is threading.main_thread()  # a dropped event fails the test
        super().on_event(*arguments)
        self.work()

    @property
    def complete(self):
        return bool(self.events) and self.events[-1][0] == "UploadComplete"


def busy_work():
    deadline = time.thread_time() + EVENT_SECONDS
    while time.thread_time() < deadline:
        pass


def descriptors():
    return sorted(os.listdir("/proc/self/fd"))


def count_threads():
    return len(os.listdir("/proc/self/task"))


class LoopTest(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        session = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
        assert session.LoginKestrelhub(launch.USER, launch.PASSWORD) == 1
        cls.session = session.GetServerUrl(), session.GetLoginTokenID()
        running.run(lambda: True)  # opens the loop's own descriptors

    def setUp(self):
        self.small = self.preset()
        self.before, self.threads = descriptors(), count_threads()

    def tearDown(self):
        self.assertEqual(descriptors(), self.before)

    def wait_for_uploads(self):
        """Waits, without running the loop, until all uploads have ended and their events are queued."""
        fixtures.wait_until(lambda: count_threads() <= self.threads, "end of the uploads' threads")

    def run_until(self, condition, what):
        """Runs the loop until the condition holds. Returns wall time and this thread's CPU time at each tick."""
        times = []
        deadline = time.monotonic() + fixtures.DEADLINE_SECONDS

        def tick():
            times.append((time.monotonic(), time.thread_time()))
            return condition() or times[-1][0] > deadline

        running.run(tick)
        self.assertTrue(condition(), what)
        return times

    def check_gaps(self, times, what):
        wall, processor = (max(later[n] - earlier[n] for earlier, later in zip(times, times[1:])) for n in range(2))
        print(f"{LOOP}: {what}: worst gap of a {TICK_MILLISECONDS} ms timer {wall * 1000:.1f} ms, of which "
              f"{processor * 1000:.1f} ms were this thread's work", file=sys.stderr)
        self.assertLess(processor, LONGEST_GAP_SECONDS)

    def check_events(self, publication):
        """Expects growing numbers, then one accepted completion. Ends the publication."""
        *progress, completion = publication.events
        self.assertEqual({event[0] for event in progress}, {"ProgressChanged"})
        sent = [event[3] for event in progress]
        self.assertEqual(sent, sorted(sent))
        self.assertEqual(sent[-1], progress[-1][4])
        self.assertEqual((completion[0], completion[2], completion[4]), ("UploadComplete", 1, ""))
        publication.uploader = None

    def test_the_timer_keeps_running_during_an_upload(self):
        with running.attach():
            publication = Recorded(*self.session)
            self.assertNotEqual(publication.start(self.preset({"effect": 40_000_000, "cover_before": 8_000_000})), 0)
            times = self.run_until(lambda: publication.complete, "an upload")
            self.check_gaps(times, "an upload of 48 MB")
            self.assertGreater(len(times), 20)
            self.check_events(publication)
            self.assertIn(publication.events[-1][3], [record["address"] for record in self.standin.presets()])

    def flood(self, work):
        """Queues the commands of many uploads, then attaches. Returns their number and the times of the ticks."""
        publications = [Recorded(*self.session) for _ in range(WAITING_UPLOADS)]
        for publication in publications:
            publication.work = work
            self.assertNotEqual(publication.start(self.small), 0)
        self.wait_for_uploads()
        ran = []
        with mock.patch.object(loop, "pump", lambda limit, pump=loop.pump: ran.append(pump(limit)) or ran[-1]):
            with running.attach():
                times = self.run_until(lambda: all(publication.complete for publication in publications), "all uploads")
                for publication in publications:
                    self.check_events(publication)
        self.assertGreater(sum(ran), WAITING_COMMANDS)
        return sum(ran), times

    def test_queued_events_arrive_in_slices(self):
        count, times = self.flood(busy_work)
        self.check_gaps(times, f"{count} queued commands")

    def test_an_event_may_run_the_loop_itself(self):
        depths = [0]

        def work():
            depths.append(depths[-1] + 1)
            running.run_inside()
            depths.append(depths[-1] - 1)

        self.flood(work)
        self.assertEqual(depths[-1], 0)
        self.assertLess(max(depths), 20)

    def test_an_event_that_detaches_is_the_last(self):
        publications = [Publication(NO_SERVICE) for _ in range(2)]
        events = []
        attachment = running.attach()
        for publication in publications:
            publication.uploader.SetCallback(lambda *event: events.append(event) or attachment.detach())
            publication.start(self.small)
        self.wait_for_uploads()
        ticks = []
        running.run(lambda: ticks.append(1) or len(ticks) >= 20)
        self.assertEqual(len(events), 1)
        for publication in publications:
            publication.uploader = None
        self.assertTrue(loop.release())

    def test_continues_after_a_signal_handler_raises(self):
        def handle(*_):
            raise RuntimeError("from the handler")

        self.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, handle))
        raise_signal = functools.partial(ctypes.CDLL(None)["raise"], int(signal.SIGUSR1))  # runs no Python code
        with running.attach(), contextlib.redirect_stderr(io.StringIO()) as stderr:
            publication = Publication(NO_SERVICE)
            publication.uploader.SetCallback(raise_signal)
            publication.start(self.small)
            self.run_until(lambda: "from the handler" in stderr.getvalue(), "a signal during an event")
            publication.uploader.SetCallback(publication.on_event)
            publication.start(self.small)
            self.run_until(lambda: publication.events, "the next event")
            publication.uploader = None


if __name__ == "__main__":
    LOOP = sys.argv.pop(1)
    running = LOOPS[LOOP]()
    unittest.main()
