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
import re
import shlex
import socket
import subprocess
import sys
import threading
from pathlib import Path
from typing import Any, Iterator, NamedTuple

ROOT = Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / "tests/support"), str(ROOT / "standin")]
import peer  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402

LIMIT_SECONDS = 60
BAD_CERTIFICATES = ("expired", "wrong-name", "expired-wrong-name", "unknown-issuer")
SIZES = {0: 100_000, 1: 32_768, 2: 32_769, 3: 0, 4: 1}  # of files that are not as small as the others
# Replies as the driver reads them.
REPLIES = """<a><b>x</b></a>|<a><b/></a>|<a/>||junk|<a><b>x</b>|<A><b>x</b></A>|<a><b> x  y </b></a>|\n <a><b>x</b></a>|
<?xml version='1.0'?><a><b>x</b></a>|<?xml version='1.1'?><a><b>x</b></a>|<a><b>1</b><b>2</b></a>|<a><b>x\1y</b></a>|\
<?xml version='1.0' encoding='GB2312'?><a><b>x</b></a>|<?xml version='1.0' encoding='no'?><a><b>x</b></a>|\
<!DOCTYPE a><a><b>x</b></a>|<!DOCTYPE a [<!ENTITY e 'z'>]><a><b>&e;</b></a>|<a><b>l1\r\nl2\rl3</b></a>|\
<a><b>p<![CDATA[<q>]]>r<c>s</c><!--t--></b></a>|<a><b>&amp;&#65;&#x42;&#160;&#32;</b></a>|<a><b>&nbsp;</b></a>|\
<a><b>a&b</b></a>|<a><b>x</b></a> junk|<a><b>x</b></a><a/>|<a><b>x</b></a><!-- c -->\n|<p:a><b>x</b></p:a>|\
<a><b>lead <i> </i> tail</b></a>|<a><b><i> </i></b></a>|<a><b>\n<i>1</i>\n<i>2</i></b></a>|<a><b>tab\tin</b></a>|\
<a><b xml:space='preserve'> x </b></a>|<a><b c='1' c='2'>x</b></a>|<n:a xmlns:n='u'><n:b>x</n:b></n:a>"""


class Case(NamedTuple):
    arguments: str
    play: str = ""  # the scripted peer's scenario and options; "standin" for the stand-in, empty for no peer
    tls: str = "good"  # its certificate; empty for port 80
    is_partial: bool = False  # the request breaks off, not necessarily at the same byte
    is_racing: bool = False  # nor after the same calls


def upload(play: str = "", file: str = "-", cancel: int = -1, url: str = "https://good.test", **how: Any) -> Case:
    return Case(f"upload {url}/servlet/uploadTemplate TOKEN FOLDER {file} {cancel}", play, **how)


def exchange(kind: int, play: str = "", target: str = "/x?a=1", host: str = "good.test", tls: str = "",
             form: str = "a=b") -> Case:
    return Case(shlex.join(["exchange", str(kind), host, target, form]), play, tls)


def serve(kind: int, target: str, form: str = "", host: str = "www.kestrelhub.example") -> Case:
    return exchange(kind, "standin", "/servlet/" + target if form or kind else target, host, form=form)


INFO = "reply --body '<info><tokenid>t</tokenid><videoId>7</videoId></info>'"
ANSWER = "--body '<uploadTemplate><templateUrl>https%3A%2F%2Fh%2F1</templateUrl></uploadTemplate>'"
ELSEWHERE = "reply --status 302 --header 'Location: http://no-such.test/' --body no"
LOGIN = f"account={launch.USER}&pwd={launch.PASSWORD}&AP=TWR&Version=1&versionType=&uuid=u"
CASES = {
    "stand-in: addresses": serve(0, "khserver.jsp?ap=tintwright&version=1", host="detect.kestrelhub.example"),
    "stand-in: login": serve(1, "memLogin", LOGIN),
    "stand-in: upload": upload("standin", url="https://www.kestrelhub.example"),
    "stand-in: categories": serve(2, "getPresetCategory?ap=TWR&Locid=de"),
    "stand-in: effect": serve(3, "GetEffectByGUIDForTWR?token=TOKEN&guid=key-1"),
    "stand-in: video": serve(4, "setRelateVideo?tokenid=TOKEN"),
    "upload: whole": upload("reply " + ANSWER),
    **{f"upload: status {status}": upload(f"reply --status {status} --body no") for status in (404, 500, 503)},
    **{f"upload: reply {length}": upload(f"reply --length {length} --body abcdef")
       for length in ("chunked", "none", "short")},
    "upload: reply empty": upload("reply"),
    "upload: reply interim": upload("interim " + ANSWER),
    "upload: reply redirects": upload(ELSEWHERE),
    "upload: refused early": upload("early-keep --after 1000 --status 404 --body no", is_partial=True),
    "upload: reset while sending": upload("reset-send --after 1000", is_partial=True, is_racing=True),
    "upload: no reply": upload("close"),
    "upload: garbage": upload("garbage", is_partial=True, is_racing=True),
    "upload: missing file": upload("reply", "no.bin", is_partial=True),
    "upload: missing folder": upload("reply", "no/0.bin", is_partial=True),
    "upload: folder": upload("reply", ".", is_partial=True),
    "upload: cancelled at once": upload("reply", cancel=0, is_partial=True),
    "upload: cancelled later": upload("reply", cancel=5, is_partial=True),
    "upload: connection refused": upload(),
    "upload: unresolved": upload(url="https://no-such.test"),
    "upload: no address": upload(url="http://good.test"),
    **{f"upload: {certificate}": upload("reply", tls=certificate)
       for certificate in ("wrong-name", "expired", "unknown-issuer")},
    **{f"exchange: kind {kind}": exchange(kind, INFO, tls="good" if kind in (0, 1, 6) else "") for kind in range(8)},
    **{f"exchange: kind {kind}, reply {length}": exchange(kind, f"reply --length {length} --body abcdef")
       for kind in (2, 4, 7) for length in ("none", "chunked", "short", "negative", "garbage")},
    "exchange: reply in pieces": exchange(7, INFO.replace("reply", "pieces")),
    "exchange: long reply": exchange(4, "reply --body " + "a" * 30_000),
    "exchange: status 500": exchange(2, INFO + " --status 500"),
    "exchange: redirects": exchange(7, ELSEWHERE),
    "exchange: no reply": exchange(2, "close"),
    "exchange: garbage": exchange(2, "garbage"),
    "exchange: object without slash": exchange(2, "reply", "x y"),
    "exchange: object empty": exchange(2, "reply", ""),
    "exchange: object too long": exchange(2, "reply", "/" * 255),
    "exchange: line end in object": exchange(2, "reply", "/x\r\nX: y"),
    "exchange: line end in host": exchange(2, "reply", host="good.test\nX: y"),
    "exchange: empty host": exchange(2, "reply", host=""),
    "exchange: connection refused": exchange(2),
    "exchange: unresolved": exchange(2, host="no-such.test"),
    **{f"exchange: {certificate}": exchange(1, INFO, tls=certificate) for certificate in BAD_CERTIFICATES},
    "probe": Case("probe https://good.test https://no-such.test http://good.test", "reply --status 500"),
    "probe: wrong name": Case("probe https://good.test", "reply", "wrong-name"),
    **{name: Case(arguments) for name, arguments in (("windows", "windows"), ("texts", "texts FOLDER/replies"),
                                                     ("files", "files FOLDER"), ("trace", "trace"))},
}


class Difference(NamedTuple):
    cases: str  # an expression; each case that it matches differs in this way
    here: str  # expressions for lines that are on one side only; empty for none
    there: str
    whose: str
    reason: str


ANSWERED = "upload: (whole|status .*|reply .*|refused early)|stand-in: upload"
EXPECTED = [
    Difference(ANSWERED, r"received \d+", r"receiving|received \d+", "ours", "a head's size, there that of each read"),
    Difference(ANSWERED, "closing|closed", "", "ours", "one request, one connection; there it is kept"),
    Difference("upload: reply short", "end .* abc ", "end .* abcdef ", "Wine", "reads beyond the declared length"),
    Difference("exchange: kind [24], reply short", "exchange 0 abc ", "exchange 0 abcdef ", "Wine",
               "reads beyond the declared length"),
    Difference("exchange: kind [24], reply (negative|garbage)", "exchange 0  ", "exchange 0 abcdef ", "ours",
               "a bad length is no body; there it ends with the connection"),
    Difference("upload: reply interim", "end .* 200 <.*", "end .* 103 HTTP.*", "Wine", "takes 103 for the final reply"),
    Difference("upload: reply redirects", "upload complete 0|end 0 0 302 no ",
               "resolving no-such.test|upload complete 0x80072EE7|end 0x80072EE7 .*", "ours", "never follows"),
    Difference("exchange: redirects", "sent 1 |exchange 0 no ", "exchange 12007 .*|trace: .* 12007", "ours",
               "never follows"),
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
    Difference("probe", "", r"wire: Accept: \*/\*", "Wine", "a header of its own"),
    Difference("texts", "reply .* encoding='(GB2312|no)'.* 0 x ", "reply .* encoding='(GB2312|no)'.* 1  ", "Wine",
               "heeds the declared encoding of a text that is wide"),
    Difference("texts", "reply <!DOCTYPE .* 1  ", "reply <!DOCTYPE .* 0 [xz] ", "ours", "no document types"),
    Difference("texts", "reply <p:a>.* 1  ", "reply <p:a>.* 0 x ", "Wine", "takes a prefix that is not declared"),
    Difference("texts", r"wide \\ED.*", r"wide \\ED.*", "open", "how many U+FFFD stand for three bytes"),
    Difference("files", "file /(0.bin/|a<b) 0 0 [23] .*", "file /(0.bin/|a<b) 0 0 123 .*", "file system", "names"),
    Difference("files", "file /0.BIN 0 .*", "file /0.BIN 1 .*", "file system", "case"),
]


@contextlib.contextmanager
def scripted(case: Case, certificates: Path, record: Path) -> Iterator[None]:
    """Plays the case's peer on its real port."""
    words = [*shlex.split(case.play), "--record", str(record), "--certs", str(certificates)]
    options = peer.parse([*words, *(["--tls", case.tls] if case.tls else [])])
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


def is_timed(calls: list[str], position: int) -> bool:
    """Whether this call is a progress report that depends on the clock: neither a file's first nor the last of one that
    was sent completely."""
    if not calls[position].startswith("progress "):
        return False
    path = calls[position].split(" ")[1]
    reports = [other for other, call in enumerate(calls) if call.startswith("progress " + path)]
    is_complete = any(call.startswith("complete " + path) and call.endswith(".bin0") for call in calls)
    return position != reports[0] and not (is_complete and position == reports[-1])


def result_lines(output: str) -> Iterator[str]:
    """The driver's output, a line per call, without what depends on time or chance."""
    for line in output.replace("\r\n", "\n").split("\n"):
        calls = line[6:].split("; ") if line.startswith("calls ") else [line]
        for call in (call for position, call in enumerate(calls) if not is_timed(calls, position)):
            call = re.sub(r"(progress .*) (\d+) (\d+) \d+ (\d+) (\d+) \d+ \d+$", r"\1 \2/\3 \4/\5", call)
            call = re.sub(r"-?\b\d{10}\b", lambda match: f"0x{int(match[0]) & 0xFFFFFFFF:08X}", call)
            call = re.sub(r"\b[0-9a-f]{32}\b", "TOKEN", call)
            yield re.sub(r"(presets%2F|videoId>|videoId 0 )(?:[0-9a-f]{8}){1,2}\b", r"\1ID", call)


def write_files(folder: Path) -> None:
    """Writes the thirteen files of a preset, one with a name that is not ASCII, and the replies to read."""
    (folder / "replies").write_text(REPLIES, "utf-8", newline="")
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
        trace = [line for line in (folder / "err").read_text("utf-8", "replace").splitlines()
                 if not line.startswith("wine client error")]  # about one of its helpers that ends
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
