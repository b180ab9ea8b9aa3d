"""Uploads in a real event loop: ``loops_test.py LOOP [TEST]...``, where LOOP is a name in LOOPS. One loop a process.

Each test runs the loop with a timer of 10 ms of its own, and checks that the uploads' events do not keep it waiting. What
was measured is printed.
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
import tempfile
import threading
import time
import unittest
from unittest import mock

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "support"))
sys.path.insert(0, os.environ["SKIFFPORT_TREE"])
import service  # noqa: E402
from publication import Publication  # noqa: E402

import Skiffport  # noqa: E402
from skiffhost import loop  # noqa: E402

TICK_MILLISECONDS = 10
LONGEST_GAP_SECONDS = 0.05  # of this thread's processor time, so that a busy machine makes no difference
WAITING_UPLOADS = 36
WAITING_COMMANDS = 2000
EVENT_SECONDS = 0.0005  # what a window may spend on an event
NO_SERVICE = "no-host:1"  # no address, so the upload fails at once, with one event


def print_error(error):
    print(repr(error), file=sys.stderr)


class AsyncioLoop:
    def __init__(self):
        self._loop = asyncio.new_event_loop()
        self._loop.set_exception_handler(lambda _loop, context: print_error(context["exception"]))

    def attach(self):
        return loop.attach_asyncio(self._loop)

    def run_inside(self):
        """What an event does that runs the loop itself, if it can."""

    def end(self):
        self._loop.close()

    def run(self, tick):
        """Runs the loop and calls ``tick`` every 10 ms, until it returns something true."""

        async def ticking():
            while not tick():
                await asyncio.sleep(TICK_MILLISECONDS / 1000)

        self._loop.run_until_complete(ticking())


class QtLoop:
    def __init__(self, binding):
        self._core = importlib.import_module(binding + ".QtCore")
        widgets = importlib.import_module(binding + ".QtWidgets")
        self._application = widgets.QApplication([])
        dispatcher = self._core.QAbstractEventDispatcher.instance()
        print(binding, "on", dispatcher.metaObject().className(), file=sys.stderr)

    def attach(self):
        return loop.attach_qt()

    def run_inside(self):
        self._application.processEvents()

    def end(self):
        self._application = None

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

    def attach(self):
        return loop.attach_glib(self._context)

    def run_inside(self):
        context = self._context or self._glib.MainContext.default()
        while context.pending():
            context.iteration(False)

    def end(self):
        self._context = None

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
        self._label = tkinter.Label(self._root)

    def attach(self):
        return loop.attach_tk(self._label)

    def run_inside(self):
        self._root.update()

    def end(self):
        self._root.destroy()

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
            except RuntimeError as error:  # what a signal handler raised
                print_error(error)
        self._root.after_cancel(timer[0])


LOOPS = {
    "asyncio": AsyncioLoop,
    "PyQt6": functools.partial(QtLoop, "PyQt6"),
    "PyQt5": functools.partial(QtLoop, "PyQt5"),
    "PySide6": functools.partial(QtLoop, "PySide6"),
    "PySide2": functools.partial(QtLoop, "PySide2"),
    "GLib": GLibLoop,
    "GLib-context": functools.partial(GLibLoop, True),
    "Tk": TkLoop,
}


class Recorded(Publication):
    """A publication that notes the threads of its events, and does some work in each."""

    def __init__(self, *arguments, work=lambda: None):
        super().__init__(*arguments)
        self.threads = set()
        self._work = work

    def on_event(self, *arguments):
        super().on_event(*arguments)
        self.threads.add(threading.get_ident())
        self._work()

    @property
    def complete(self):
        return bool(self.events) and self.events[-1][0] == "UploadComplete"


class Gaps:
    """The longest times between two ticks, by the clock and by this thread's use of the processor."""

    def __init__(self):
        self.ticks, self.wall, self.processor = 0, 0.0, 0.0
        self._last = None

    def tick(self):
        now = time.monotonic(), time.thread_time()
        if self._last:
            self.wall = max(self.wall, now[0] - self._last[0])
            self.processor = max(self.processor, now[1] - self._last[1])
        self._last = now
        self.ticks += 1


def busy_work():
    deadline = time.thread_time() + EVENT_SECONDS
    while time.thread_time() < deadline:
        pass


def descriptors():
    return sorted(os.listdir("/proc/self/fd"))


def count_threads():
    return len(os.listdir("/proc/self/task"))


class LoopTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.standin = service.Standin().__enter__()
        cls.addClassCleanup(cls.standin.__exit__, None, None, None)
        patch = mock.patch.dict(os.environ, cls.standin.env)
        patch.start()
        cls.addClassCleanup(patch.stop)
        session = Skiffport.KHLoginData("10.5", "retail", "uuid-1")
        assert session.LoginKestrelhub(service.USER, service.PASSWORD) == 1
        cls.session = session.GetServerUrl(), session.GetLoginTokenID()
        scratch = tempfile.TemporaryDirectory()
        cls.addClassCleanup(scratch.cleanup)
        cls.small = cls.preset(pathlib.Path(scratch.name, "small"))
        cls.large = cls.preset(pathlib.Path(scratch.name, "large"), {"effect": 40_000_000, "cover_before": 8_000_000})
        running.run(lambda: True)  # so that what the loop opens for itself is open

    @staticmethod
    def preset(folder, sizes=None):
        service.write_preset(folder, sizes)
        return [str(folder / f"{name}.bin") for name in service.FILES]

    def setUp(self):
        self.before = descriptors()
        self.threads = count_threads()

    def wait_for_uploads(self):
        """Waits, without the loop, until all uploads have ended: their events wait then."""
        service.wait_until(lambda: count_threads() <= self.threads, "end of the uploads' threads")

    def run_until(self, condition, what):
        """Runs the loop until the condition holds. Returns the gaps between its ticks."""
        gaps = Gaps()
        deadline = time.monotonic() + service.DEADLINE_SECONDS

        def tick():
            gaps.tick()
            return condition() or time.monotonic() > deadline

        running.run(tick)
        self.assertTrue(condition(), what)
        return gaps

    def check_gaps(self, gaps, what):
        print(f"{LOOP}: {what}: worst gap of a {TICK_MILLISECONDS} ms timer {gaps.wall * 1000:.1f} ms, of which "
              f"{gaps.processor * 1000:.1f} ms were this thread's work", file=sys.stderr)
        self.assertLess(gaps.processor, LONGEST_GAP_SECONDS)

    def check_events(self, publication):
        """All on this thread, numbers that only grow, one completion, which is accepted and comes last."""
        self.assertEqual(publication.threads, {threading.get_ident()})
        *progress, completion = publication.events
        self.assertEqual({event[0] for event in progress}, {"ProgressChanged"})
        sent = [event[3] for event in progress]
        self.assertEqual(sent, sorted(sent))
        self.assertEqual(sent[-1], progress[-1][4])
        self.assertEqual((completion[0], completion[2], completion[4]), ("UploadComplete", 1, ""))

    def test_a_whole_upload_arrives_while_the_timer_goes_on(self):
        with running.attach():
            publication = Recorded(*self.session)
            self.assertNotEqual(publication.start(self.large), 0)
            gaps = self.run_until(lambda: publication.complete, "an upload")
            self.check_gaps(gaps, "an upload of 48 MB")
            self.assertGreater(gaps.ticks, 20)
            self.check_events(publication)
            self.assertIn(publication.events[-1][3], [record["address"] for record in self.standin.presets()])
            publication.uploader.SetCallback(None)
            publication = None
        self.assertEqual(descriptors(), self.before)

    def flood(self, work):
        """Lets the commands of many uploads wait, then attaches. Returns how many there were, and the gaps meanwhile."""
        publications = [Recorded(*self.session, work=work) for _ in range(WAITING_UPLOADS)]
        for publication in publications:
            self.assertNotEqual(publication.start(self.small), 0)
        self.wait_for_uploads()
        ran = []
        with mock.patch.object(loop, "pump", lambda limit, pump=loop.pump: ran.append(pump(limit)) or ran[-1]):
            with running.attach():
                gaps = self.run_until(lambda: all(publication.complete for publication in publications), "all uploads")
                for publication in publications:
                    self.check_events(publication)
                    publication.uploader.SetCallback(None)
                publication = publications = None
        self.assertEqual(descriptors(), self.before)
        self.assertGreater(sum(ran), WAITING_COMMANDS)
        return sum(ran), gaps

    def test_what_waited_arrives_in_slices(self):
        count, gaps = self.flood(busy_work)
        self.check_gaps(gaps, f"{count} commands that waited")

    def test_an_event_may_run_the_loop_itself(self):
        depths = [0]

        def work():
            depths.append(depths[-1] + 1)
            running.run_inside()
            depths.append(depths[-1] - 1)

        self.flood(work)
        self.assertEqual(depths[-1], 0)
        self.assertLess(max(depths), 20)

    def test_ends_when_told_from_an_event_and_beside_another(self):
        attachments = [running.attach(), running.attach()]
        publications = [Publication(NO_SERVICE) for _ in range(2)]
        events = []

        def on_event(*_):
            events.append(_)
            attachments[0].detach()

        def start(*numbers):
            for number in numbers:
                publications[number].uploader.SetCallback(on_event)
                publications[number].start(self.small)
            self.wait_for_uploads()

        start(0)
        self.run_until(lambda: len(events) == 1, "an event that detaches")
        start(1)
        self.run_until(lambda: len(events) == 2, "an event for the other attachment")
        attachments.pop(0)
        start(0, 1)
        ticks = []
        running.run(lambda: ticks.append(1) or len(ticks) >= 10)
        self.assertEqual(len(events), 3, "the event that detaches is the last")
        for publication in publications:
            publication.uploader.SetCallback(None)
        publication = publications = None
        attachments[0].detach()
        self.assertEqual(descriptors(), self.before)

    def test_goes_on_when_a_signal_handler_raises(self):
        def handle(*_):
            raise RuntimeError("from the handler")

        self.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, handle))
        raise_signal = functools.partial(ctypes.CDLL(None)["raise"], int(signal.SIGUSR1))  # runs no Python code
        publication = Publication(NO_SERVICE)
        with running.attach(), contextlib.redirect_stderr(io.StringIO()) as stderr:
            publication.uploader.SetCallback(raise_signal)
            publication.start(self.small)
            self.run_until(lambda: "from the handler" in stderr.getvalue(), "a signal during an event")
            publication.uploader.SetCallback(publication.on_event)
            publication.start(self.small)
            self.run_until(lambda: publication.events, "the next event")
            publication.uploader.SetCallback(None)
            publication = None
        self.assertEqual(descriptors(), self.before)


class TheLoopsEnd(unittest.TestCase):
    """Comes last, by its name."""

    def test_detaches_from_a_loop_that_has_gone(self):
        attachment = running.attach()
        running.end()
        with_attachment = descriptors()
        attachment.detach()
        self.assertEqual(len(descriptors()), len(with_attachment) - 2)
        self.assertTrue(loop.release())


if __name__ == "__main__":
    LOOP = sys.argv.pop(1)
    running = LOOPS[LOOP]()
    unittest.main()
