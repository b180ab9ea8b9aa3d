"""One uploader under test that records its events. Needs the built tree on sys.path."""

from typing import Any, List, Sequence, Tuple

from fixtures import DEADLINE_SECONDS, wait_until

import Skiffport
from skiffhost import loop

TEXTS = ("key", "Title", "Category", "tag", "Description", "", "colour")  # template key to PIP type, in order


class Publication:
    """An uploader on the calling thread. ``events`` holds the arguments of each event after the first."""

    def __init__(self, host: str = "www.kestrelhub.example", token: str = "") -> None:
        self.events: List[Tuple[Any, ...]] = []
        self.uploader: Any = Skiffport.PyPresetUploader(host, token, "10.5", "retail", "uuid-1")
        self.uploader.SetCallback(self.on_event)

    def on_event(self, *arguments: Any) -> None:
        assert arguments[0] == "PROGRESS", arguments
        self.events.append(arguments[1:])

    def start(self, paths: Sequence[Any], texts: Sequence[Any] = TEXTS, number: int = 7) -> int:
        return self.uploader.StartUpload(*paths, *texts, number)

    def pump_until(self, condition: Any, seconds: float = DEADLINE_SECONDS) -> None:
        """Pumps events until the condition holds. Fails when the time is up."""
        wait_until(lambda: loop.pump() < 0 or condition(), "the events of the upload", seconds, loop.wait)

    def completion(self, seconds: float = DEADLINE_SECONDS) -> Tuple[Any, ...]:
        """Pumps until the upload ends. Returns the arguments that follow the completion's name."""
        self.pump_until(lambda: self.events and self.events[-1][0] == "UploadComplete", seconds)
        return self.events[-1][1:]
