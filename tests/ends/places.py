"""Places where an upload or a login stays until something ends it: a phase, the peer that holds it there, and how to
tell that it has come there. Used by the tests of ends, by scripts/soak and by the cancel benchmark.
"""

import json
import os
import time
from typing import Any, Callable, Dict, List, NamedTuple, Tuple

ACCEPTED = "<uploadTemplate><templateUrl>https%3a%2f%2Fh%2Fp</templateUrl></uploadTemplate>"
LOGIN = ("<info><tokenid>t</tokenid><username>n</username><profileURL>p</profileURL><VideoGallery>v</VideoGallery>"
         "<AdjustmentPreset>a</AdjustmentPreset><Tutorial>t</Tutorial><search>s</search><RevisionAPI>2</RevisionAPI>"
         "</info>")
SYN_SENT, ESTABLISHED = "02", "01"


class Phase(NamedTuple):
    scenario: str
    options: Tuple[str, ...] = ()
    is_silent_tls: bool = False
    effect: int = 100  # bytes of the preset's first file
    seconds: float = 1  # within which a cancelled upload has to end, limits of HttpLimits.h included
    is_reached: Callable[["Place"], bool] = lambda place: ("memLogin" in place.received() or
                                                            place.received().endswith("--\r\n"))


def is_blocked(place: "Place") -> bool:
    """True if the peer's silence has filled every buffer."""
    before = place.connections()
    time.sleep(0.3)
    return before == place.connections() and any(unsent for _, unsent in before)


PHASES: Dict[str, Phase] = {
    "connect": Phase("silent-connect", seconds=62, is_reached=lambda place: place.is_in(SYN_SENT)),
    "tls": Phase("silent-tls", is_silent_tls=True, seconds=62, is_reached=lambda place: place.is_in(ESTABLISHED)),
    "stall": Phase("stall", effect=30_000_000, seconds=32, is_reached=is_blocked),
    # 400 KB/s; of a chunk of 4 MiB at most, since the line's buffers swallow 4 MiB and the chunks before it as fast
    "sip": Phase("sip", ("--pause", "0.01", "--window", "65536"), effect=30_000_000, seconds=30,
                 is_reached=lambda place: any(unsent for _, unsent in place.connections())),
    "silent": Phase("silent-reply", seconds=62),
    "half": Phase("silent-body", ("--body", ACCEPTED), seconds=62),
    "fast": Phase("keep", ("--body", ACCEPTED), effect=40_000_000, is_reached=lambda place: "\r\n\r\n" in
                  place.received()),
    "small": Phase("keep", ("--body", ACCEPTED), effect=100_000),
}


class Place(NamedTuple):
    """A peer that plays one phase. May be passed to another process as text."""

    name: str
    port: int
    process: int
    record: str

    @property
    def host(self) -> str:
        return f"{self.name}.kestrelhub.example"

    @property
    def phase(self) -> Phase:
        return PHASES[self.name]

    def received(self) -> str:
        """Returns the end of what the peer has received."""
        if not os.path.exists(self.record):
            return ""
        with open(self.record, "rb") as record:
            record.seek(max(0, os.path.getsize(self.record) - 4096))
            return record.read().decode("latin-1")

    def connections(self) -> List[Tuple[str, int]]:
        """Returns the state and the unacknowledged bytes of this process's connections to the peer."""
        own = {_link(name) for name in os.listdir("/proc/self/fd")}
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [line.split() for line in table]
        return [(row[3], int(row[4].split(":")[0], 16)) for row in rows
                if row[2].endswith(f":{self.port:04X}") and f"socket:[{row[9]}]" in own]

    def is_in(self, state: str) -> bool:
        return state in [found for found, _ in self.connections()]


def _link(name: str) -> str:
    try:
        return os.readlink(f"/proc/self/fd/{name}")
    except OSError:  # closed meanwhile
        return ""


def open_place(network: Any, name: str) -> Place:
    """Starts the peer of a phase in a scripted.Network, which ends it."""
    phase = PHASES[name]
    peer = network.play(f"{name}.kestrelhub.example", phase.scenario, *phase.options,
                        tls="" if phase.is_silent_tls else "good")
    network.lead(f"{name}.kestrelhub.example:443:127.0.0.1:{peer.port}")
    return Place(name, peer.port, peer._process.pid, peer._record)


def place_from(text: str) -> Place:
    """The inverse of json.dumps."""
    return Place(*json.loads(text))
