"""Delivers an uploader's events through the program's own event loop, whichever it is.

An uploader belongs to the thread that creates it, and its events run when that thread calls ``pump``. A program without
an event loop alternates ``wait`` and ``pump``; one with a loop attaches to it: there is a function each for asyncio,
Qt, GLib and Tk, and ``Attachment`` for any other. Every function acts on the calling thread. Needs the standard library
only; a toolkit is imported when it is attached.

An uploader and a callable that reaches it keep each other alive: use ``skiffhost.Uploader`` in a ``with`` block, or
call SetCallback(None) when you are done.

An exception in an uploader's callable is printed and dropped, even one that a signal handler raises inside it. No loop
sees that KeyboardInterrupt, so a SIGINT handler should not raise but call ``CancelUpload`` or set a flag; in asyncio,
``on_interrupt`` installs one. SystemExit in the callable ends the process at once and skips every ``finally`` of its
callers.

Where a queue has no descriptor (Windows), Qt and Tk run its messages by themselves, and asyncio and GLib poll it; their
attachments are used as elsewhere. ``fileno`` raises OSError there.

Apart from events, every thread that makes a service request calls ``initialize_thread`` before its first one.
"""

from __future__ import annotations

import os
import sys
import time
# What threading, which takes long to import, has from there too.
from _thread import _local, get_ident  # type: ignore[attr-defined]

from ._messageloop import fileno, initialize_thread, pump, wait
from ._messageloop import release as _release

__all__ = ["Attachment", "attach_asyncio", "attach_glib", "attach_qt", "attach_tk", "fileno", "initialize_thread",
           "on_interrupt", "pump", "release", "wait"]

# How long events may keep the loop from its timers and windows, however many are waiting.
SLICE_SECONDS = 0.01
# How deeply events may nest, which they do when an event runs the loop itself.
MOST_NESTED = 8
# How often asyncio and GLib look for events where they cannot be told of them.
POLL_SECONDS = 0.02
# Whether a queue has a descriptor.
HAS_DESCRIPTOR = sys.platform != "win32"

QT_BINDINGS = ("PyQt6", "PySide6", "PyQt5", "PySide2")

TYPE_CHECKING = False  # as typing's, whose import takes longer than that of this module
if TYPE_CHECKING:
    import asyncio
    from types import ModuleType
    from typing import Any, Callable, ContextManager, List, Optional, Set

    # Takes a descriptor, -1 if the queue has none, and the function to call while it is readable. Returns the function
    # that ends the watch.
    Watch = Callable[[int, Callable[[], None]], Callable[[], object]]


class _Thread(_local):  # type: ignore[misc]
    def __init__(self) -> None:
        self.attachments: Set[Attachment] = set()  # keeps a watch alive even if its creator drops it


_thread = _Thread()


def release() -> bool:
    """Releases the calling thread's queue and its descriptor if no object or attachment needs it any more.

    Returns whether it was released.
    """
    return not _thread.attachments and _release()


class Attachment:
    """A loop's watch on the thread's queue. Events run on the loop's thread, including those already waiting.

    A thread may have several. One lasts until ``detach`` or the end of a ``with`` block, even if nothing references it.
    If a signal handler raises, the loop treats that as usual and the watch goes on; inside an uploader's callable the
    exception is printed and dropped. An event may run the loop itself, for a dialog or to redraw: further events then
    run nested inside it.
    """

    def __init__(self, watch: Watch) -> None:
        self._thread = get_ident()
        # A duplicate: the queue's own can be watched only once and is not ours to close.
        self._descriptor = os.dup(fileno()) if HAS_DESCRIPTOR else -1
        self._watch = watch
        self._nested = 0
        try:
            self._unwatch = watch(self._descriptor, self._pump)
        except BaseException:
            self._close()
            release()
            raise
        _thread.attachments.add(self)

    def detach(self) -> None:
        """Ends the watch and releases the thread's queue unless it is still needed, so delete the uploaders first.

        Calling it again is harmless, and an event may call it. Must be called on the thread that attached.
        """
        if get_ident() != self._thread:
            raise RuntimeError("an attachment must be detached on the thread that created it")
        if self._attached():
            _thread.attachments.remove(self)
            try:
                self._unwatch()
            finally:
                self._close()
        release()

    def __enter__(self) -> Attachment:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.detach()

    def _pump(self) -> None:
        """Runs events for a short while. Any that are left keep the descriptor readable, so the loop calls again."""
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

    def _close(self) -> None:
        if self._descriptor >= 0:
            os.close(self._descriptor)


def attach_asyncio(loop: Optional[asyncio.AbstractEventLoop] = None) -> Attachment:
    """Lets an asyncio loop, by default the running one, deliver the events. Must be called on the loop's thread."""
    import asyncio

    target = loop or asyncio.get_running_loop()

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        if descriptor < 0:
            return _poll(target, run)
        target.add_reader(descriptor, run)
        return lambda: target.remove_reader(descriptor)

    return Attachment(watch)


def on_interrupt(call: Callable[[], object]) -> ContextManager[None]:
    """Lets the running asyncio loop call the function for each Ctrl-C during a ``with`` block, on any system.

    It is called between events, never inside an uploader's callable, and there is no KeyboardInterrupt. Main thread
    only. On Windows a Ctrl-C does not wake every loop, but an attachment does.
    """
    import asyncio

    from .signals import interrupts_for

    return interrupts_for(asyncio.get_running_loop(), call)


def attach_qt(core: Optional[ModuleType] = None) -> Attachment:
    """Lets the calling thread's Qt event loop deliver its events. Create the QCoreApplication first.

    ``core`` is the binding's QtCore module, by default the one that the program has imported.
    """
    if not HAS_DESCRIPTOR:
        return Attachment(_watch_nothing)
    qt: Any = core or _imported_qt()
    if qt.QAbstractEventDispatcher.instance() is None:
        raise RuntimeError("this thread has no Qt event dispatcher: create the QCoreApplication first")
    kinds = qt.QSocketNotifier.Type if hasattr(qt.QSocketNotifier.Type, "Read") else qt.QSocketNotifier

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        notifier = qt.QSocketNotifier(descriptor, kinds.Read)
        notifier.activated.connect(lambda *_: _report_raised(run))

        def unwatch() -> None:
            try:
                notifier.setEnabled(False)
                notifier.deleteLater()  # this may run inside its signal
            except RuntimeError:
                pass  # the application is gone, and the notifier with it

        return unwatch

    return Attachment(watch)


def attach_glib(context: Any = None) -> Attachment:
    """Lets a GLib main context, by default the thread's default one, deliver the calling thread's events.

    As with GLib's own sources, an event that runs the loop itself does not nest others: they wait until it returns.
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
            return True  # keep the source

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        def run_again(*_: object) -> bool:
            _report_raised(run)
            return True

        if descriptor < 0:
            source = GLib.timeout_source_new(round(POLL_SECONDS * 1000))
            source.set_callback(run_again)
        else:
            source = QueueSource(descriptor, run)
            source.set_callback(run)  # GLib does not dispatch a source without a callback
        source.attach(context or GLib.MainContext.ref_thread_default())
        return source.destroy  # type: ignore[no-any-return]

    return Attachment(watch)


def attach_tk(widget: Any) -> Attachment:
    """Lets a Tk main loop deliver the calling thread's events. Any widget of the application will do."""
    if not HAS_DESCRIPTOR:
        return Attachment(_watch_nothing)
    from tkinter import READABLE

    def watch(descriptor: int, run: Callable[[], None]) -> Callable[[], object]:
        widget.tk.createfilehandler(descriptor, READABLE, lambda *_: run())
        return lambda: widget.tk.deletefilehandler(descriptor)

    return Attachment(watch)


def _watch_nothing(_descriptor: int, _run: Callable[[], None]) -> Callable[[], object]:
    """For a loop that runs the messages of its thread by itself."""
    return lambda: None


def _poll(target: asyncio.AbstractEventLoop, run: Callable[[], None]) -> Callable[[], object]:
    """Calls the function again and again. Schedules the next call first, since an event may run the loop itself."""

    timers: List[asyncio.Handle] = []

    def call() -> None:
        timers[:] = [target.call_later(POLL_SECONDS, call)]
        run()

    timers.append(target.call_soon(call))
    return lambda: timers[0].cancel()


def _imported_qt() -> ModuleType:
    """Returns the QtCore module that the program uses."""
    found = [sys.modules[f"{name}.QtCore"] for name in QT_BINDINGS if f"{name}.QtCore" in sys.modules]
    if not found:
        raise RuntimeError("no Qt binding is imported: import one, or pass its QtCore module")
    with_application: Any = [core for core in found if core.QCoreApplication.instance() is not None]
    return (with_application or found)[0]


def _report_raised(run: Callable[[], None]) -> None:
    """Reports exceptions itself, for a loop that would drop the watch or end the process when its callable raises."""
    try:
        run()
    except SystemExit:
        raise
    except BaseException:
        sys.excepthook(*sys.exc_info())
