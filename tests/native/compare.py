#!/usr/bin/python3
"""Runs each case of the driver on both systems and compares what it printed and what went over the wire.

Usage: compare.py HERE THERE FOLDER BUNDLE [CASE...]   (by scripts/native, in a network namespace of its own)
  HERE, THERE  the driver's command on this system and under Wine
  FOLDER       for the preset's files and certificates; BUNDLE is the file of trusted roots that both systems read
Prints a line per case. Exits with 1 if a case differs in another way than EXPECTED says, or an entry no longer differs.
"""

from __future__ import annotations

import argparse
import contextlib
import difflib
import os
import re
import shlex
import socket
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Iterator, NamedTuple
from unittest import mock

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "standin")]
import peer  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402

LIMIT_SECONDS = 60
SIZES = {0: 100_000, 1: 32_768, 2: 32_769, 3: 0, 4: 1}

UPLOAD = "upload https://good.test/servlet/uploadTemplate TOKEN FOLDER "
WHOLE = UPLOAD + "- -1"
ACCEPTED = "--body '<uploadTemplate><templateUrl>https%3A%2F%2Fh%2F1</templateUrl></uploadTemplate>'"
INFO = "--body '<info><tokenid>t</tokenid><videoId>7</videoId></info>'"


class Case(NamedTuple):
    arguments: str
    play: str = ""  # the scripted peer's scenario and options; "standin" for the stand-in, empty for no peer
    tls: str = "good"  # its certificate; empty for port 80
    is_partial: bool = False  # the request breaks off, not necessarily at the same byte
    is_racing: bool = False  # nor after the same calls


def exchange(kind: int, host: str = "good.test", target: str = "/x?a=1", form: str = "a=b") -> str:
    return shlex.join(["exchange", str(kind), host, target, form])


CASES = {
    "stand-in: addresses": Case(exchange(0, "detect.kestrelhub.example", "khserver.jsp?ap=tintwright&version=1"), "standin"),
    "stand-in: login": Case(exchange(1, "www.kestrelhub.example", "/servlet/memLogin", f"account={launch.USER}&pwd="
                            f"{launch.PASSWORD}&AP=TWR&Version=1&versionType=&uuid=u"), "standin"),
    "stand-in: upload": Case(WHOLE.replace("good.test", "www.kestrelhub.example"), "standin"),
    "stand-in: categories": Case(exchange(2, "www.kestrelhub.example", "/servlet/getPresetCategory?ap=TWR&Locid=de"), "standin"),
    "stand-in: effect": Case(exchange(3, "www.kestrelhub.example", "/servlet/GetEffectByGUIDForTWR?token=TOKEN&guid=key-1"), "standin"),
    "stand-in: video": Case(exchange(4, "www.kestrelhub.example", "/servlet/setRelateVideo?tokenid=TOKEN"), "standin"),
    "upload: whole": Case(WHOLE, "reply " + ACCEPTED),
    **{f"upload: status {status}": Case(WHOLE, f"reply --status {status} --body no") for status in (404, 500, 503)},
    **{f"upload: reply {length}": Case(WHOLE, f"reply --length {length} --body abcdef") for length in ("chunked", "none", "short")},
    "upload: reply empty": Case(WHOLE, "reply"),
    "upload: reply interim": Case(WHOLE, "interim " + ACCEPTED),
    "upload: reply redirects": Case(WHOLE, "reply --status 302 --header 'Location: https://no-such.test/' --body no"),
    "upload: refused early": Case(WHOLE, "early-keep --after 1000 --status 404 --body no", is_partial=True),
    "upload: reset while sending": Case(WHOLE, "reset-send --after 1000", is_partial=True, is_racing=True),
    "upload: no reply": Case(WHOLE, "close"),
    "upload: garbage": Case(WHOLE, "garbage", is_partial=True, is_racing=True),
    "upload: missing file": Case(UPLOAD + "no.bin -1", "reply", is_partial=True),
    "upload: missing folder": Case(UPLOAD + "no/0.bin -1", "reply", is_partial=True),
    "upload: folder": Case(UPLOAD + ". -1", "reply", is_partial=True),
    "upload: cancelled at once": Case(UPLOAD + "- 0", "reply", is_partial=True),
    "upload: cancelled later": Case(UPLOAD + "- 5", "reply", is_partial=True),
    "upload: connection refused": Case(WHOLE),
    "upload: unresolved": Case(WHOLE.replace("good", "no-such")),
    "upload: no address": Case(WHOLE.replace("https:", "http:")),
    **{f"upload: {certificate}": Case(WHOLE, "reply", certificate) for certificate in ("wrong-name", "expired", "unknown-issuer")},
    **{f"exchange: kind {kind}": Case(exchange(kind), "reply " + INFO, "good" if kind in (0, 1, 6) else "") for kind in range(8)},
    **{f"exchange: kind {kind}, reply {length}": Case(exchange(kind), f"reply --length {length} --body abcdef", "")
       for kind in (2, 4, 7) for length in ("none", "chunked", "short", "negative", "garbage")},
    "exchange: reply in pieces": Case(exchange(7), "pieces " + INFO, ""),
    "exchange: long reply": Case(exchange(4), "reply --body " + "a" * 30_000, ""),
    "exchange: status 500": Case(exchange(2), "reply --status 500 " + INFO, ""),
    "exchange: redirects": Case(exchange(7), "reply --status 302 --header 'Location: http://no-such.test/' --body no", ""),
    "exchange: no reply": Case(exchange(2), "close", ""),
    "exchange: garbage": Case(exchange(2), "garbage", ""),
    "exchange: object without slash": Case(exchange(2, target="x y"), "reply", ""),
    "exchange: object empty": Case(exchange(2, target=""), "reply", ""),
    "exchange: object too long": Case(exchange(2, target="/" * 255), "reply", ""),
    "exchange: line end in object": Case(exchange(2, target="/x\r\nX: y"), "reply", ""),
    "exchange: line end in host": Case(exchange(2, "good.test\nX: y"), "reply", ""),
    "exchange: empty host": Case(exchange(2, ""), "reply", ""),
    "exchange: connection refused": Case(exchange(2)),
    "exchange: unresolved": Case(exchange(2, "no-such.test")),
    **{f"exchange: {certificate}": Case(exchange(1), "reply " + INFO, certificate) for certificate in peer.CERTIFICATES[1:]},
    "probe": Case("probe https://good.test https://no-such.test http://good.test", "reply --status 500"),
    "probe: wrong name": Case("probe https://good.test", "reply", "wrong-name"),
    "windows": Case("windows"),
    "texts": Case("texts"),
    "files": Case("files FOLDER"),
    "trace": Case("trace"),
}


class Difference(NamedTuple):
    cases: str  # an expression; each case that it matches differs in this way
    here: str  # expressions for lines that are on one side only; empty for none
    there: str
    whose: str
    reason: str


ANSWERED = "upload: (whole|status .*|reply .*|refused early)"
EXPECTED = [
    Difference(ANSWERED, r"received \d+", r"received \d+", "ours", "the size of the head, there of its first line"),
    Difference("stand-in: upload", r"received \d+", r"receiving|received \d+", "ours", "the same, and there for each read"),
    Difference(ANSWERED + "|stand-in: upload", "closing|closed", "", "ours", "one request, one connection; there it is kept"),
    Difference("upload: reply short", "end .* abc ", "end .* abcdef ", "Wine", "reads beyond the declared length"),
    Difference("exchange: kind [24], reply short", "exchange 0 abc ", "exchange 0 abcdef ", "Wine",
               "reads beyond the declared length"),
    Difference("exchange: kind [24], reply (negative|garbage)", "exchange 0  ", "exchange 0 abcdef ", "ours",
               "a bad length is no body; there it ends with the connection"),
    Difference("upload: reply interim", "end .* 200 <.*", "end .* 103 HTTP.*", "Wine", "takes 103 for the final reply"),
    Difference("upload: reply redirects", "upload complete 0|end 0 0 302 no ",
               "resolving no-such.test|upload complete 0x80072EE7|end 0x80072EE7 .*", "ours", "never follows"),
    Difference("exchange: redirects", "sent 1 |exchange 0 no ", "exchange 12007 .*|trace: .* 12007", "ours", "never follows"),
    Difference("upload: no reply", "upload complete 0x80072F78|end 0x80072F78 .*",
               "received 0|upload complete 0|end 0 0 0  ", "Wine", "takes it for an empty reply"),
    Difference("exchange: no reply", "exchange 12152  |trace: .* 12152", "sent 1 |exchange 0  ", "Wine",
               "takes it for an empty reply"),
    Difference("exchange: garbage", "exchange 12152  |trace: .* 12152", r"sent 1 |exchange 0 \\0D\\0A ", "Wine",
               "takes what is no HTTP for a reply without a head"),
    Difference("upload: (garbage|reset while sending)", ".* 0x80072(EFE|EFF|F78).*", ".* 0x80072F7D.*", "Wine",
               "12157 for a connection that is lost"),
    Difference("upload: no address", ".* 0x80072EE5.*", ".* 0x80070057.*", "ours", "one number for every bad address"),
    Difference("exchange: empty host", ".* 12005 *", ".* 87 *", "ours", "one number for every bad address"),
    Difference("(upload|exchange): unknown-issuer", ".* (0x80072F0D|12045)\\b.*", ".* (0x80072F19|12057)\\b.*", "Wine",
               "reports the revocation that it could not check"),
    Difference("probe", "", r"wire: Accept: \*/\*", "Wine", "a header of its own"),
    Difference("texts", "reply .* encoding='(GB2312|no)'.* 0 x ", "reply .* encoding='(GB2312|no)'.* 1  ", "Wine",
               "heeds the declared encoding of a text that is wide"),
    Difference("texts", "reply <!DOCTYPE .* 1  ", "reply <!DOCTYPE .* 0 [xz] ", "ours", "no document types"),
    Difference("texts", "reply <p:a>.* 1  ", "reply <p:a>.* 0 x ", "Wine", "takes a prefix that is not declared"),
    Difference("texts", r"wide \\ED.*", r"wide \\ED.*", "open", "how many U+FFFD stand for three bytes"),
    Difference("files", "file /0.BIN 0 .*", "file /0.BIN 1 .*", "file system", "case"),
]


@contextlib.contextmanager
def scripted(case: Case, certificates: Path, record: Path) -> Iterator[None]:
    """Plays the case's peer on its real port."""
    words = [*shlex.split(case.play), "--record", str(record), "--certs", str(certificates)]
    with mock.patch.object(sys, "argv", ["peer.py", *words, *(["--tls", case.tls] if case.tls else [])]):
        options = peer.parse()
    stop = threading.Event()
    with socket.socket() as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", 443 if case.tls else 80))
        listener.listen(64)
        threading.Thread(target=peer.accept, args=(listener, options, stop), daemon=True).start()
        yield
        stop.set()
        listener.shutdown(socket.SHUT_RDWR)  # ends the accepting thread


@contextlib.contextmanager
def standin(folder: Path, bundle: Path) -> Iterator[None]:
    """Runs the stand-in on its real ports, with its issuer trusted."""
    command = [launch.PYTHON, "-B", "-m", "kestrelhub_standin", "--until-stdin-closes", "--https-port", "443",
               "--http-port", "80", "--folder", str(folder / "presets"), "--cert-folder", str(folder / "standin")]
    with subprocess.Popen(command, env=launch.standin_environment(), stdin=subprocess.PIPE,
                          stdout=subprocess.PIPE) as process:
        process.stdout.readline()
        with open(bundle, "ab") as roots:
            roots.write((folder / "standin" / "ca.pem").read_bytes())
        yield
        process.stdin.close()


def wire_lines(received: bytes) -> Iterator[str]:
    """The requests: head lines in alphabetical order, and the body in hexadecimal digits."""
    boundaries = set(re.findall(rb"boundary=(-{27}[0-9A-F]{12})", received))
    for boundary in boundaries:
        received = received.replace(boundary, b"-" * 27 + b"BOUNDARY....")
    while received:
        head, _, rest = received.partition(b"\r\n\r\n")
        line, *headers = head.decode("latin-1").split("\r\n")
        declared = re.search(rb"(?im)^content-length: *(\d+)", head)
        size = int(declared[1]) if declared else 0
        yield "wire: " + line
        yield from sorted("wire: " + header for header in headers)
        yield "body: " + rest[:size].hex()
        received = rest[size:]


def is_between(calls: list[str], position: int) -> bool:
    """Whether this call is a progress report of a file, but neither its first nor its last."""
    reports = [other for other, call in enumerate(calls) if call.split(" ")[:2] == calls[position].split(" ")[:2]]
    return calls[position].startswith("progress ") and reports[0] < position < reports[-1]


def result_lines(output: str) -> Iterator[str]:
    """The driver's output, a line per call, without what depends on time or chance."""
    for line in output.replace("\r\n", "\n").split("\n"):
        calls = line[6:].split("; ") if line.startswith("calls ") else [line]
        for call in (call for position, call in enumerate(calls) if not is_between(calls, position)):
            call = re.sub(r"(progress .*) (\d+) (\d+) \d+ (\d+) (\d+) \d+ \d+$", r"\1 \2/\3 \4/\5", call)
            call = re.sub(r"-?\b\d{10}\b", lambda match: f"0x{int(match[0]) & 0xFFFFFFFF:08X}", call)
            call = re.sub(r"\b[0-9a-f]{32}\b", "TOKEN", call)
            yield re.sub(r"(presets%2F|videoId>|videoId 0 )(?:[0-9a-f]{8}){1,2}\b", r"\1ID", call)


def write_files(folder: Path) -> None:
    """Writes the thirteen files of a preset; one has a name that is not ASCII."""
    for number in range(13):
        name = f"{number}Größe 中 \U0001F600.bin" if number == 6 else f"{number}.bin"
        data = b"\r\n--" + bytes(range(number, 251))
        (folder / name).write_bytes((data * 500)[:SIZES.get(number, 100 + number)])


class Side:
    """One of the two systems: runs the driver there."""

    def __init__(self, command: str, options: argparse.Namespace) -> None:
        self._command = shlex.split(command)
        self._options = options
        self._token = "t"

    def run(self, name: str) -> list[str]:
        """Returns what one case prints and sends."""
        case, folder = CASES[name], self._options.folder
        record = folder / "received"
        record.write_bytes(b"")
        token = self._token if case.play == "standin" else "t"
        words = shlex.split(case.arguments.replace("TOKEN", token).replace("FOLDER", str(folder)))
        scene = contextlib.nullcontext() if case.play in ("", "standin") else scripted(case, folder, record)
        # To files: helpers of Wine that live on would keep a pipe open.
        with scene, open(folder / "out", "w+b") as out, open(folder / "err", "w+b") as err:
            status = subprocess.run([*self._command, *words], stdin=subprocess.DEVNULL, stdout=out, stderr=err,
                                    timeout=LIMIT_SECONDS).returncode
        output = (folder / "out").read_text("utf-8", "replace")
        self._token = (re.findall(r"info/tokenid 0 (\w{32})\b", output) or [self._token])[0]
        trace = (folder / "err").read_text("utf-8", "replace").splitlines()
        return [f"status {status}", *result_lines(output), *("trace: " + line for line in trace),
                *wire_lines(record.read_bytes())]


def cut_to_same(here: list[str], there: list[str]) -> None:
    """Cuts the bodies of two requests that broke off to the length of the shorter one."""
    size = min(len(line) for side in (here, there) for line in side if line.startswith("body: "))
    for side in (here, there):
        side[:] = [line[:size] if line.startswith("body: ") else line for line in side]


def compare(name: str, here: list[str], there: list[str]) -> list[str]:
    """Returns what is different: lines of this system with "<", of the other with ">", if no entry expects them; and
    entries that expect a difference that is not there."""
    case = CASES[name]
    if case.is_partial:
        cut_to_same(here, there)
    if case.is_racing:
        calls = re.compile("sending|sent|begin|progress|complete|body:")
        here, there = ([line for line in side if not calls.match(line)] for side in (here, there))
    lines = []
    for kind, a, b, c, d in difflib.SequenceMatcher(None, here, there, autojunk=False).get_opcodes():
        if kind != "equal":
            lines += ["<" + line for line in here[a:b]] + [">" + line for line in there[c:d]]
    for entry in (entry for entry in EXPECTED if re.fullmatch(entry.cases, name)):
        pattern = re.compile(f"<({entry.here})" if not entry.there else f"<({entry.here})|>({entry.there})")
        remaining = [line for line in lines if not pattern.fullmatch(line)]
        if len(remaining) == len(lines):
            remaining.append(f"no longer different: {entry.reason}")
        lines = remaining
    return lines


def show(name: str, sides: list[Side]) -> bool:
    """Runs a case on both sides and prints its line of the table. Returns whether it is as expected."""
    here, there = (side.run(name) for side in sides)
    lines = compare(name, here, there)
    entries = [entry for entry in EXPECTED if re.fullmatch(entry.cases, name)]
    verdict = "; ".join(f"{entry.whose}: {entry.reason}" for entry in entries) or "equal"
    print(f"{name:34} {'DIFFERENT' if lines else verdict}", flush=True)
    for line in lines:
        print(f"    {line[:200]}")
    return not lines


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("here")
    parser.add_argument("there")
    parser.add_argument("folder", type=Path)
    parser.add_argument("bundle", type=Path)
    parser.add_argument("cases", nargs="*", default=list(CASES))
    options = parser.parse_args()
    threading.excepthook = lambda arguments: None  # the accepting threads end with their sockets
    peer.make_certificates(str(options.folder))
    write_files(options.folder)
    options.bundle.write_bytes((options.folder / "ca.pem").read_bytes())
    sides = [Side(options.here, options), Side(options.there, options)]
    served = [name for name in options.cases if CASES[name].play == "standin"]
    failed = 0
    with standin(options.folder, options.bundle) if served else contextlib.nullcontext():
        failed += sum(not show(name, sides) for name in served)
    failed += sum(not show(name, sides) for name in options.cases if name not in served)
    print(f"{len(options.cases) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
