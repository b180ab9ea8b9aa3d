"""An uploader for a ``with`` block, which ends the reference cycle with its callable and frees it on its own thread."""

from __future__ import annotations

import os
import uuid as uuids
from _thread import get_ident
from typing import Any, Callable, Optional, Sequence, Union

from .presetfiles import FILES, Path

__all__ = ["Uploader"]


class Uploader:
    """A PyPresetUploader that is released at the end of a ``with`` block.

    An uploader and a callable that reaches it keep each other alive, and the garbage collector cannot see that. The end
    of the block takes the callable away and frees the uploader. **An upload that still runs is cancelled, and the call
    waits for its thread**, for 5 s before it closes the connection, without its completion event; so pump until that
    event before you leave the block, unless you give up.

    It has the methods of PyPresetUploader, takes path objects too, and has ``start``. Everything but CancelUpload after
    the end raises RuntimeError. It belongs to the thread that creates it.
    """

    def __init__(self, host: str, token: str, version: str, version_type: str, uuid: str) -> None:
        import Skiffport

        self._thread = get_ident()
        self._native: Optional[Any] = Skiffport.PyPresetUploader(host, token, version, version_type, uuid)

    def SetCallback(self, callback: Optional[Callable[..., object]]) -> int:
        """Sets what is called with each event's arguments; None for nothing. Returns 1."""
        return self._open().SetCallback(callback)  # type: ignore[no-any-return]

    def StartUpload(self, *arguments: Union[Path, int, None]) -> int:
        """Starts an upload: thirteen paths, seven texts and your number. Returns its thread's id, 0 if refused."""
        count = len(FILES)
        paths = [path if path is None else os.fspath(path) for path in arguments[:count]]  # type: ignore[arg-type]
        return self._open().StartUpload(*paths, *arguments[count:])  # type: ignore[no-any-return]

    def start(self, files: Sequence[Path], *, title: str, template_key: Optional[str] = None, category: str = "",
              tags: str = "", description: str = "", collections: str = "", pip_type: str = "",
              number: int = 0) -> int:
        """Starts an upload of the thirteen files, in the order of ``presetfiles.FILES``. Returns its thread's id.

        Without a template key the preset gets a new one. Raises ValueError for another number of files, and
        RuntimeError if the upload is refused: a file is missing, or an upload of this object still runs.
        """
        if len(files) != len(FILES):
            raise ValueError(f"a preset has {len(FILES)} files, not {len(files)}")
        key = str(uuids.uuid4()).upper() if template_key is None else template_key
        texts = (key, title, category, tags, description, collections, pip_type)
        thread = self.StartUpload(*files, *texts, number)
        if thread == 0:
            raise RuntimeError("the upload was not started: a file is missing, or an upload of this object still runs")
        return thread

    def CancelUpload(self) -> None:
        """Asks the upload to stop; its completion event still comes. Does nothing after the end of the block."""
        if self._native is not None:
            self._native.CancelUpload()

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

    def __enter__(self) -> Uploader:
        return self

    def __exit__(self, *_exception: object) -> None:
        self.close()

    def _open(self) -> Any:
        if self._native is None:
            raise RuntimeError("the uploader is closed")
        return self._native
