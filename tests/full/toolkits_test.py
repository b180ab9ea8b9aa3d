"""Uploads in a toolkit's real event loop, one a process: ``toolkits_test.py LOOP``, where LOOP is a name in LOOPS; and
the examples as a user runs them: ``toolkits_test.py examples``."""

import asyncio
import contextlib
import ctypes
import functools
import importlib
import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest
from unittest import mock

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "python"))
import common  # noqa: E402
import fixtures  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402
from publication import Publication  # noqa: E402

from skiffhost import loop  # noqa: E402

TICK_MILLISECONDS = 10
LONGEST_GAP_SECONDS = 0.05  # of this thread's CPU time, so that a busy machine makes no difference
WAITING_UPLOADS, WAITING_COMMANDS = 36, 2000
NO_SERVICE = "no-host:1"  # an invalid address: the upload fails at once with one event
EXAMPLES, SUPPORT = fixtures.REPOSITORY / "examples", fixtures.REPOSITORY / "tests" / "support"
WINDOW = """import sys; sys.modules.update(dict.fromkeys(sys.argv[3:]))  # cannot be imported
import interrupted, make_screenshots, qt_publish
def publish(window, _event):
    window.title.setText("Never")
    qt_publish.QtCore.QTimer.singleShot(0, window.publish)
if sys.argv[1] == "states":
    interrupted.signals.clear()
    sys.exit(make_screenshots.main(sys.argv[2]))
qt_publish.PublishWindow.showEvent = publish
del sys.argv[1]
sys.exit(qt_publish.main())"""


# Each function makes a loop: what attaches, calls a function some milliseconds later, runs the loop, ends that, and
# what an event may call to run the loop itself.


def make_asyncio():
    made = asyncio.new_event_loop()
    made.set_exception_handler(lambda *_: None)
    return (functools.partial(loop.attach_asyncio, made), lambda after, call: made.call_later(after / 1000, call),
            made.run_forever, made.stop, lambda: None)


def make_qt(binding):
    application = importlib.import_module(binding + ".QtWidgets").QApplication([])
    later = importlib.import_module(binding + ".QtCore").QTimer.singleShot
    main = getattr(application, "exec", None) or application.exec_
    return loop.attach_qt, later, main, application.quit, application.processEvents


def make_glib(has_own_context):
    from gi.repository import GLib
    context = GLib.MainContext() if has_own_context else GLib.MainContext.default()
    main_loop = GLib.MainLoop(context)

    def later(after, function):
        timer = GLib.timeout_source_new(after)
        timer.set_callback(lambda *_: function())
        timer.attach(context)

    attach = functools.partial(loop.attach_glib, context if has_own_context else None)
    return attach, later, main_loop.run, main_loop.quit, lambda: context.pending() and context.iteration(False)


def make_tk():
    import tkinter
    root = tkinter.Tk()
    return functools.partial(loop.attach_tk, root), root.after, root.mainloop, root.quit, root.update


LOOPS = {"asyncio": make_asyncio, "GLib": lambda: make_glib(False), "GLib-context": lambda: make_glib(True),
         "GLib-timer": lambda: setattr(loop, "HAS_DESCRIPTOR", False) or make_glib(False),  # as on Windows
         "Tk": make_tk, **{binding: functools.partial(make_qt, binding) for binding in ("PyQt6", "PyQt5", "PySide2")}}


def run(tick):
    """Runs the loop and calls ``tick`` every 10 ms until that returns something true."""
    def again():
        if tick():
            done.append(quit_loop())
        else:
            later(TICK_MILLISECONDS, again)

    done = []
    later(TICK_MILLISECONDS, again)
    while not done:
        with contextlib.suppress(RuntimeError):  # the signal handler's
            main()


class Working(Publication):
    """A publication whose events do some work."""
    work = staticmethod(lambda: None)

    def on_event(self, *event):
        super().on_event(*event)
        self.work()

    def completed(self):
        return self.events[-1:] and self.events[-1][0] == "UploadComplete"


class LoopTest(common.StandinCase):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.session = cls.log_in()
        run(lambda: True)  # opens the loop's own descriptors

    def setUp(self):
        self.addCleanup(lambda before=os.listdir("/proc/self/fd"):
                        self.assertCountEqual(os.listdir("/proc/self/fd"), before))

    def start(self, count, sizes=None, session=(NO_SERVICE,)):
        """Starts uploads. Those of small files have ended, and their events wait, when it returns."""
        before, files, publications = fixtures.threads(), self.preset(sizes), [Working(*session) for _ in range(count)]
        for publication in publications:
            self.assertNotEqual(publication.start(files), 0)
        if not sizes:
            fixtures.wait_for_threads(before, "end of the uploads' threads")
        return publications

    def run_until(self, condition):
        """Runs the loop until the condition holds. Returns the number of ticks and the longest work between two."""
        times, deadline = [time.thread_time()], time.monotonic() + fixtures.DEADLINE_SECONDS
        run(lambda: times.append(time.thread_time()) or condition() or time.monotonic() > deadline)
        self.assertTrue(condition())
        return len(times), max(end - start for start, end in zip(times, times[1:]))

    def test_events_arrive_in_slices_between_ticks_and_may_run_the_loop(self):
        """The numbers of each upload grow, and one accepted completion follows."""
        depths = [0]

        def nested():
            depths.append(depths[-1] + 1)
            run_inside()
            depths.append(depths[-1] - 1)

        busy, large = (lambda: sum(range(20_000))), {"effect": 40_000_000, "cover_before": 8_000_000}  # some 0.5 ms
        for count, sizes, work, most, least_ticks, least_ran in (
                (1, large, lambda: None, LONGEST_GAP_SECONDS, 20, 0),
                (WAITING_UPLOADS, None, busy, LONGEST_GAP_SECONDS, 0, WAITING_COMMANDS),
                (WAITING_UPLOADS, None, nested, 60, 0, WAITING_COMMANDS)):
            ran, publications = [], self.start(count, sizes, self.session)
            with mock.patch.object(loop, "pump", lambda limit, pump=loop.pump: ran.append(pump(limit)) or ran[-1]), \
                    mock.patch.object(Working, "work", staticmethod(work)), attach():
                ticks, gap = self.run_until(lambda: all(each.completed() for each in publications))
            self.assertTrue(ticks > least_ticks and sum(ran) > least_ran and gap < most, (ticks, sum(ran), gap))
            for publication in publications:
                *progress, completion = publication.events
                sent = [event[3] for event in progress if event[0] == "ProgressChanged"]
                self.assertEqual((len(sent), sent, sent[-1]), (len(progress), sorted(sent), progress[-1][4]))
                self.assertEqual((completion[2], completion[4]), (1, ""))
                publication.uploader = None
            loop.release()
        self.assertTrue(depths[-1] == 0 and max(depths) < 20, depths)

    def test_an_event_may_end_the_attachment_or_raise(self):
        def handle(*_):
            raised.append(1)
            raise RuntimeError("from the handler")

        raised, ticks, (first, second), attachment = [], [], self.start(2), attach()
        first.work = second.work = attachment.detach
        run(lambda: ticks.append(1) or len(ticks) >= 20)
        self.assertEqual(len(first.events + second.events), 1)
        loop.pump()
        first.work = second.work = Working.work
        self.addCleanup(signal.signal, signal.SIGUSR1, signal.signal(signal.SIGUSR1, handle))
        raise_signal = functools.partial(ctypes.CDLL(None)["raise"], int(signal.SIGUSR1))  # runs no Python code
        with attach():
            for callback, has_come in ((raise_signal, lambda: raised), (lambda *_: ticks.clear(), lambda: not ticks)):
                second.uploader.SetCallback(callback)
                second.start(self.preset())
                self.run_until(has_come)
            first.uploader = second.uploader = None


class ExamplesTest(common.StandinCase):
    def test_each_outcome(self):
        small = fixtures.write_preset(self.scratch / "small")
        large = fixtures.write_preset(self.scratch / "large", {"effect": 80_000_000})
        script, cancelled = EXAMPLES / "asyncio_publish.py", "not published: cancelled\n"
        rows = [((script, small, "From asyncio"), 0, "finishing 100 %"),
                ((script, small, " "), 1, "not published: A preset needs a title.\n"),
                ((SUPPORT / "interrupted.py", "asyncio_publish", large, "Never"), 130, cancelled)]
        for others in (), ("PyQt6",):  # with the first binding that is left
            rows += [(("-c", WINDOW, "states", self.scratch, *others), 0, ""),
                     (("-c", WINDOW, "interrupted", large, *others), 0, "")]
        env = {**self.standin.env, "SKIFFHOST_USER": launch.USER, "SKIFFHOST_PASSWORD": launch.PASSWORD,
               "PYTHONPATH": os.pathsep.join((*common.PATH, str(EXAMPLES)))}
        for program, status, end in rows:
            done = subprocess.run([sys.executable, "-B", *map(str, program)], env=env, stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True, timeout=2 * fixtures.DEADLINE_SECONDS)
            self.assertEqual((done.returncode, "Traceback" in done.stderr), (status, False), done.stderr)
            self.assertIn(end, done.stderr)
        self.assertEqual(len(list(self.scratch.glob("*.png"))), 6)
        self.assertNotIn("Never", [record["fields"]["title"] for record in self.standin.presets()])


if __name__ == "__main__":
    chosen = sys.argv.pop(1)
    if chosen != "examples":
        attach, later, main, quit_loop, run_inside = LOOPS[chosen]()
    unittest.main(defaultTest="ExamplesTest" if chosen == "examples" else "LoopTest")
