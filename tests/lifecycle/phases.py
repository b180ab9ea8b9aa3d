"""Phases in which an upload or a login stays until something ends it: the peer that holds it there, and how to tell
that it has come there. Used by the lifecycle tests and by the cancel benchmark.
"""

import contextlib
import os
import time
from typing import Any, Callable, Dict, List, NamedTuple, Tuple

ACCEPTED = "<uploadTemplate><templateUrl>https%3a%2f%2Fh%2Fp</templateUrl></uploadTemplate>"
LOGIN = ("<info><tokenid>t</tokenid><username>n</username><profileURL>p</profileURL><VideoGallery>v</VideoGallery>"
         "<AdjustmentPreset>a</AdjustmentPreset><Tutorial>t</Tutorial><search>s</search><RevisionAPI>2</RevisionAPI>"
         "</info>")
SYN_SENT, ESTABLISHED = "02", "01"  # as in /proc/net/tcp


class Place(NamedTuple):
    host: str
    port: int
    process: int
    record: str

    def received(self) -> str:
        """Returns the end of what the peer has received."""
        with open(self.record, "rb") as record:
            record.seek(max(0, os.path.getsize(self.record) - 4096))
            return record.read().decode("latin-1")

    def connections(self) -> List[Tuple[str, int]]:
        """Returns the state and the unacknowledged bytes of this process's connections to the peer."""
        own = set()
        for name in os.listdir("/proc/self/fd"):
            with contextlib.suppress(FileNotFoundError):  # closed in the meantime
                own.add(os.readlink(f"/proc/self/fd/{name}"))
        with open("/proc/net/tcp", encoding="ascii") as table:
            rows = [line.split() for line in table]
        return [(row[3], int(row[4].split(":")[0], 16)) for row in rows
                if row[2].endswith(f":{self.port:04X}") and f"socket:[{row[9]}]" in own]


def is_in(state: str) -> Callable[[Place], bool]:
    return lambda place: state in [found for found, _ in place.connections()]


def is_sent(place: Place) -> bool:
    return "memLogin" in place.received() or place.received().endswith("--\r\n")


def is_sending(place: Place) -> bool:
    return any(unsent for _, unsent in place.connections())


def is_blocked(place: Place) -> bool:
    """True if the peer's silence has filled every buffer."""
    before = place.connections()
    time.sleep(0.3)
    return before == place.connections() and is_sending(place)


class Phase(NamedTuple):
    scenario: str
    is_reached: Callable[[Place], bool]
    seconds: float  # a cancelled upload ends within that: the limit that applies, and what a busy machine adds
    effect: int = 100  # bytes of the preset's first file
    options: Tuple[str, ...] = ()
    tls: str = "good"


PHASES: Dict[str, Phase] = {
    "connect": Phase("silent-connect", is_in(SYN_SENT), 62),
    "tls": Phase("silent-tls", is_in(ESTABLISHED), 62, tls=""),
    "stall": Phase("stall", is_blocked, 32, 30_000_000),
    # 400 KB a second; no limit applies, only the chunk's size
    "sip": Phase("sip", is_sending, 30, 30_000_000, ("--pause", "0.01", "--window", "65536")),
    "silent": Phase("silent-reply", is_sent, 62),
    "half": Phase("silent-body", is_sent, 62, options=("--body", ACCEPTED)),
    "fast": Phase("keep", lambda place: place.received() != "", 1, 40_000_000, ("--body", ACCEPTED)),
}


def open_place(network: Any, name: str) -> Place:
    """Starts the peer of a phase in a scripted.Network, which ends it."""
    phase, host = PHASES[name], f"{name}.kestrelhub.example"
    peer = network.play(host, phase.scenario, *phase.options, tls=phase.tls)
    network.lead(f"{host}:443:127.0.0.1:{peer.port}")
    return Place(host, peer.port, peer.process.pid, str(peer.record))
