"""The message loop that an uploader's events arrive through, for whatever event loop the program has.

An uploader belongs to the thread that makes it, and its events run when that thread calls ``pump``. A program without
a loop of its own alternates ``wait`` and ``pump``; one with a loop attaches it: asyncio, Qt, GLib and Tk have a function
each, any other loop makes an ``Attachment``. Every function speaks of the calling thread. Needs the standard library
alone; a toolkit is looked for when it is attached.

What an uploader's callable raises is printed and dropped, also what a signal handler raises inside it: no loop sees that
KeyboardInterrupt, so let the handler of SIGINT raise nothing and call ``CancelUpload`` or set a flag. SystemExit in the
callable ends the process at once, without a ``finally`` of its callers.
"""

from __future__ import annotations

import asyncio
import contextlib
import os
import sys
import threading
import time
from types import ModuleType
from typing import Any, Callable, Optional, Set

from ._messageloop import fileno, pump, wait
from ._messageloop import release as _release

__all__ = ["Attachment", "attach_asyncio", "attach_glib", "attach_qt", "attach_tk", "fileno", "pump", "release", "wait"]

# How long a loop is kept from its timers and its windows, however many events wait.
SLICE_SECONDS = 0.01
# How many events may be under way at a time, each inside the one before because that runs the loop itself.
MOST_NESTED = 8

QT_BINDINGS = ("PyQt6", "PySide6", "PyQt5", "PySide2")

# Takes a descriptor, and what is to be called while it is readable. Returns what ends the watch.
Watch = Callable[[int, Callable[[], None]], Callable[[], object]]


class _Thread(threading.local):
    def __init__(self) -> None:
        self.attachments: Set[Attachment] = set()  # held, so that a watch lasts even if its maker drops it


_thread = _Thread()


def release() -> bool:
    """Gives up the calling thread's queue and its descriptor if no object and no attachment needs it any more.

    Returns whether it is gone.
    """
    return not _thread.attachments and _release()


class Attachment:
    """A loop's watch of the thread's queue: events run on the loop's thread, also those that waited before.

    There may be several. It lasts until ``detach``, or to the end of a ``with`` block, whether or not it is kept. What a
    signal handler raises goes where the loop sends such things, and the watch goes on; inside an uploader's callable it is
    printed and dropped. An event may run the loop itself, for a dialog or to draw: the next events then run inside it.
    """

    def __init__(self, watch: Watch) -> None:
        self._thread = threading.get_ident()
        self._descriptor = os.dup(fileno())  # the queue's own may be watched but once, and is not ours to close
        self._watch = watch
        self._nested = 0
        try:
            self._unwatch = watch(self._descriptor, self._pump)
        except BaseException:
            os.close(self._descriptor)
            release()
            raise
        _thread.attachments.add(self)

    def detach(self) -> None:
        """Ends the watch, and gives the thread's queue up if nothing needs it: delete the uploaders before.

        Doing it again is harmless; an event may do it. Must be called on the thread that attached.
        """
        if threading.get_ident() != self._thread:
            raise RuntimeError("an attachment ends on the thread that made it")
        if self._attached():
            _thread.attachments.remove(self)
            try:
                self._unwatch()
            finally:
                os.close(self._descriptor)
        release()

    def __enter__(self) -> Attachment:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.detach()

    def _pump(self) -> None:
        """Runs events for a short while. What is left keeps the descriptor readable, and the loop calls again."""
        deadline = time.monotonic() + SLICE_SECONDS
        self._nested += 1
        deepest = self._nested == MOST_NESTED
        try:
            if deepest:
                self._unwatch()
            while self._attached() and pump(1) and time.monotonic() < deadline:
                pass
        finally:
            self._nested -= 1
            if deepest and self._attached():
                self._unwatch = self._watch(self._descriptor, self._pump)

    def _attached(self) -> bool:
        return self in _thread.attachments


def attach_asyncio(loop: Optional[asyncio.AbstractEventLoop] = None) -> Attachment:
    """Lets an asyncio loop, by default the running one, bring the calling thread's events. Must be that loop's thread."""
    target = loop or asyncio.get_running_loop()

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        target.add_reader(descriptor, run)
        return lambda: target.remove_reader(descriptor)

    return Attachment(watch)


def attach_qt(core: Optional[ModuleType] = None) -> Attachment:
    """Lets the calling thread's Qt event loop bring its events. Make the QCoreApplication first.

    ``core`` is the binding's QtCore module, by default the one that the program has imported.
    """
    qt: Any = core or _imported_qt()
    if qt.QAbstractEventDispatcher.instance() is None:
        raise RuntimeError("this thread has no Qt event dispatcher: make the QCoreApplication first")
    kinds = qt.QSocketNotifier.Type if hasattr(qt.QSocketNotifier.Type, "Read") else qt.QSocketNotifier

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        notifier = qt.QSocketNotifier(descriptor, kinds.Read)
        notifier.activated.connect(lambda *_: _report_raised(run))

        def unwatch() -> None:
            with contextlib.suppress(RuntimeError):  # the application has gone and taken it along
                notifier.setEnabled(False)
                notifier.deleteLater()  # it may be what calls

        return unwatch

    return Attachment(watch)


def attach_glib(context: Any = None) -> Attachment:
    """Lets a GLib main context bring the calling thread's events; by default the one that is the thread's default.

    As with GLib's own sources, no further event runs inside one that runs the loop itself: they wait.
    """
    from gi.repository import GLib  # type: ignore[import]

    class QueueSource(GLib.Source):  # type: ignore[misc]
        def __init__(self, descriptor: int, run: Callable[[], None]) -> None:
            super().__init__()
            self._poll = GLib.PollFD(descriptor, GLib.IOCondition.IN)
            self._run = run
            self.add_poll(self._poll)

        def prepare(self) -> Any:
            return False, -1

        def check(self) -> bool:
            return bool(self._poll.revents & GLib.IOCondition.IN)

        def dispatch(self, _callback: object, _arguments: object) -> bool:
            _report_raised(self._run)
            return True  # goes on

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        source = QueueSource(descriptor, run)
        source.set_callback(run)  # one without a callback is not dispatched
        source.attach(context or GLib.MainContext.ref_thread_default())
        return source.destroy  # type: ignore[no-any-return]

    return Attachment(watch)


def attach_tk(widget: Any) -> Attachment:
    """Lets a Tk main loop bring the calling thread's events; any widget of the application does."""
    from tkinter import READABLE

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        widget.tk.createfilehandler(descriptor, READABLE, lambda *_: run())
        return lambda: widget.tk.deletefilehandler(descriptor)

    return Attachment(watch)


def _imported_qt() -> ModuleType:
    """Returns the QtCore module that the program uses."""
    found = [sys.modules[f"{name}.QtCore"] for name in QT_BINDINGS if f"{name}.QtCore" in sys.modules]
    if not found:
        raise RuntimeError("no Qt binding is imported: import one, or pass its QtCore module")
    with_application: Any = [core for core in found if core.QCoreApplication.instance() is not None]
    return (with_application or found)[0]


def _report_raised(run: Callable[[], None]) -> None:
    """Runs something for a loop that drops a watch, or ends the process, when its callable raises."""
    try:
        run()
    except SystemExit:
        raise
    except BaseException:
        sys.excepthook(*sys.exc_info())
