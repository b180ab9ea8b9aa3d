"""An uploader for a ``with`` block, which ends the reference cycle with its callable and frees it on its own thread."""

from __future__ import annotations

import os
import uuid as uuids
from _thread import get_ident
from concurrent.futures import Future
from typing import Any, Callable, Optional, Sequence, Union

from .completion import CANCELLED, NotPublished
from .presetfiles import FILES, Path
from .progress import Tracker

__all__ = ["Uploader"]


class Uploader:
    """A PyPresetUploader that is released at the end of a ``with`` block.

    An uploader and a callable that reaches it keep each other alive, and the garbage collector cannot see that. The end
    of the block takes the callable away and frees the uploader. **An upload that still runs is cancelled, and the call
    waits for its thread**, for 5 s before it closes the connection, without its completion event; so pump until that
    event before you leave the block, unless you give up.

    It has the methods of PyPresetUploader, takes path objects too, and has ``start``, whose upload ``tracker`` follows.
    Everything but CancelUpload after the end raises RuntimeError. It belongs to the thread that creates it.
    """

    def __init__(self, host: str, token: str, version: str, version_type: str, uuid: str) -> None:
        import Skiffport

        self._thread = get_ident()
        self._native: Optional[Any] = Skiffport.PyPresetUploader(host, token, version, version_type, uuid)
        self._callback: Optional[Callable[..., object]] = None
        self._future: Optional["Future[str]"] = None  # of the upload that runs
        self._on_progress: Optional[Callable[[Tracker], object]] = None
        self.tracker: Optional[Tracker] = None

    def SetCallback(self, callback: Optional[Callable[..., object]]) -> int:
        """Sets what is called with each event's arguments; None for nothing. Returns 1."""
        native = self._open()
        self._callback = callback
        return native.SetCallback(callback if self._future is None else self._on_event)  # type: ignore[no-any-return]

    def StartUpload(self, *arguments: Union[Path, int, None]) -> int:
        """Starts an upload: thirteen paths, seven texts and your number. Returns its thread's id, 0 if refused."""
        count = len(FILES)
        paths = [path if path is None else os.fspath(path) for path in arguments[:count]]  # type: ignore[arg-type]
        return self._open().StartUpload(*paths, *arguments[count:])  # type: ignore[no-any-return]

    def start(self, files: Sequence[Path], *, title: str, template_key: Optional[str] = None, category: str = "",
              tags: str = "", description: str = "", collections: str = "", pip_type: str = "", number: int = 0,
              on_progress: Optional[Callable[[Tracker], object]] = None) -> "Future[str]":
        """Starts an upload of the thirteen files, in the order of ``presetfiles.FILES``.

        Returns a future, which is completed on the uploader's own thread, by the upload's last event: with the address
        that the preset was published at, or with NotPublished. So pump, and do not wait for it on that thread.
        ``on_progress`` is called with ``tracker`` after each event, before that. The future cannot be cancelled: call
        CancelUpload. Without a template key the preset gets a new one. Raises ValueError for another number of files,
        and RuntimeError if the upload is refused: a file is missing, or an upload of this object still runs.
        """
        if len(files) != len(FILES):
            raise ValueError(f"a preset has {len(FILES)} files, not {len(files)}")
        if self._future is not None:
            raise RuntimeError("an upload of this object still runs")
        key = str(uuids.uuid4()).upper() if template_key is None else template_key
        texts = (key, title, category, tags, description, collections, pip_type)
        if self.StartUpload(*files, *texts, number) == 0:
            raise RuntimeError("the upload was not started: a file is missing, or an upload of this object still runs")
        self.tracker, self._on_progress, self._future = Tracker(), on_progress, Future()
        self._future.set_running_or_notify_cancel()
        self._open().SetCallback(self._on_event)  # its events arrive when this thread pumps
        return self._future

    def CancelUpload(self) -> None:
        """Asks the upload to stop; its completion event still comes. Does nothing after the end of the block."""
        if self._native is not None:
            self._native.CancelUpload()
            if self.tracker is not None and self._future is not None:
                self.tracker.cancel()

    def GetUploadedFileUrl(self) -> str:
        """Returns the address that the last upload was published at, or an empty text."""
        return self._open().GetUploadedFileUrl()  # type: ignore[no-any-return]

    def close(self) -> None:
        """Does what the end of the block does. Calling it again is harmless, and an event may call it."""
        if get_ident() != self._thread:
            raise RuntimeError("an uploader must be closed on the thread that created it")
        native, self._native = self._native, None
        if native is not None:
            # Cancels, waits and drops the callable, even if the traceback of an exception still refers to the object.
            native.__swig_destroy__(native)
        future, self._future = self._future, None
        if future is not None:
            future.set_exception(NotPublished(CANCELLED, "cancelled"))

    def __enter__(self) -> Uploader:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def _on_event(self, *event: Any) -> None:
        future, tracker, on_progress = self._future, self.tracker, self._on_progress
        if future is None or tracker is None or self._native is None:
            return
        tracker.feed(*event)
        if tracker.completion is not None:
            self._future = None  # before the calls, which may start the next upload
            self._native.SetCallback(self._callback)
        try:
            if self._callback is not None:
                self._callback(*event)
        finally:
            try:
                if on_progress is not None:
                    on_progress(tracker)
            finally:
                if tracker.completion is not None:
                    _complete(future, tracker)

    def _open(self) -> Any:
        if self._native is None:
            raise RuntimeError("the uploader is closed")
        return self._native


def _complete(future: "Future[str]", tracker: Tracker) -> None:
    try:
        future.set_result(tracker.result())
    except NotPublished as error:
        future.set_exception(error)
