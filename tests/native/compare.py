#!/usr/bin/python3
"""Runs each case of the driver on both systems and compares what it printed and what went over the wire.

Usage: compare.py HERE THERE FOLDER [CASE...]   (by scripts/native, in a network namespace of its own)
  HERE, THERE  the driver's command on this system and under Wine
  FOLDER       holds certificates that both systems trust, and gets the preset's files
Prints a line per case. Exits with 1 if a case differs in another way than EXPECTED says, or an entry no longer differs.
"""

import contextlib
import difflib
import re
import shlex
import socket
import subprocess
import sys
import threading
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "support"))
import peer  # noqa: E402

LIMIT_SECONDS = 60
SIZES = {0: 100_000, 1: 32_768, 2: 32_769, 3: 0, 4: 1}  # of files that are not as small as the others
# A case is the driver's arguments; the scripted peer's scenario and options, or nothing for no peer; and its
# certificate, or nothing for port 80.


def upload(play="", file="-", cancel=-1, url="https://good.test", tls="good"):
    return f"upload {url}/servlet/uploadTemplate token FOLDER {file} {cancel}", play, tls


def exchange(kind, play="", target="/x?a=1", host="good.test", tls="", form="a=b"):
    return shlex.join(["exchange", str(kind), host, target, form]), play, tls


INFO = "reply --body '<info><tokenid>t</tokenid><videoId>7</videoId></info>'"
ANSWER = "--body '<uploadTemplate><templateUrl>https%3A%2F%2Fh%2F1</templateUrl></uploadTemplate>'"
CASES = {
    **{f"upload: {name}": upload(play) for name, play in {
        "whole": "reply " + ANSWER, "reply empty": "reply", "reply interim": "interim " + ANSWER,
        "reply redirects": "reply --status 302 --header 'Location: http://no-such.test/' --body no",
        "refused early": "early-keep --after 1000 --status 404 --body no", "connection refused": ""}.items()},
    **{f"upload: status {status}": upload(f"reply --status {status} --body no") for status in (404, 500, 503)},
    **{f"upload: reply {length}": upload(f"reply --length {length} --body abcdef")
       for length in ("chunked", "none", "short")},
    **{f"upload: missing {file}": upload("reply", file) for file in ("no.bin", "no/0.bin", ".")},
    **{f"upload: cancelled at {query}": upload("reply", cancel=query) for query in (0, 5)},
    "upload: unresolved": upload(url="https://no-such.test"),
    "upload: no address": upload(url="http://good.test"),
    **{f"upload: {certificate}": upload("reply", tls=certificate)
       for certificate in ("wrong-name", "expired", "unknown-issuer")},
    **{f"exchange: kind {kind}": exchange(kind, INFO, tls="good" if kind in (0, 1, 6) else "") for kind in range(8)},
    **{f"exchange: kind {kind}, reply {length}": exchange(kind, f"reply --length {length} --body abcdef")
       for kind in (2, 4, 7) for length in ("none", "chunked", "negative", "garbage")},
    **{f"exchange: {name}": exchange(kind, play) for name, kind, play in (
        ("reply in pieces", 7, INFO.replace("reply", "pieces")), ("long reply", 4, "reply --body " + "a" * 30_000),
        ("status 500", 2, INFO + " --status 500"), ("no reply", 2, "close"), ("connection refused", 2, ""))},
    **{f"exchange: object {target[:9]!r}": exchange(2, "reply", target)
       for target in ("x y", "", "/" * 255, "/x\r\nX: y")},
    **{f"exchange: host {host!r}": exchange(2, "reply", host=host) for host in ("good.test\nX: y", "no-such.test")},
    **{f"exchange: {certificate}": exchange(1, INFO, tls=certificate)
       for certificate in ("expired", "wrong-name", "expired-wrong-name", "unknown-issuer")}}
PARTIAL = "upload: (refused early|missing .*|cancelled .*)"  # the request breaks off, not always at the same byte

# An entry: the cases that differ in this way; expressions for the lines that only this side has, and only the other, or
# nothing; and whose difference it is.
ANSWERED = "upload: (whole|status .*|reply .*|refused early)"
EXPECTED = [
    (ANSWERED, r"received \d+", "received (22|42)", "ours: a head's size, there its status line's and one more"),
    (ANSWERED, "closing|closed", "", "ours: one request, one connection; there it is kept"),
    ("upload: reply short", "end .* abc ", "end .* abcdef ", "Wine: reads beyond the declared length"),
    ("exchange: kind [24], reply (negative|garbage)", "exchange 0  ", "exchange 0 abcdef ",
     "ours: a bad length is no body; there it ends with the connection"),
    ("upload: reply interim", "end .* 200 <.*", "end .* 103 HTTP.*", "Wine: takes 103 for the final reply"),
    ("upload: reply redirects", "upload complete 0|end 0 0 302 no ",
     "resolving no-such.test|upload complete 0x80072EE7|end 0x80072EE7 .*", "ours: never follows"),
    ("exchange: no reply", "exchange 12152  |trace: .* 12152", "sent 1 |exchange 0  ",
     "Wine: takes it for an empty reply"),
    ("upload: no address", ".* 0x80072EE5.*", ".* 0x80070057.*", "ours: one number for every bad address")]


@contextlib.contextmanager
def scripted(play, tls, folder):
    """Plays a peer on its real port."""
    options = peer.parse([*shlex.split(play), "--record", str(folder / "received"), "--certs", str(folder),
                          *(["--tls", tls] if tls else [])])
    stop = threading.Event()
    with socket.socket() as listener:
        listener.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        listener.bind(("127.0.0.1", 443 if tls else 80))
        listener.listen(64)
        threading.Thread(target=peer.accept, args=(listener, options, stop), daemon=True).start()
        yield
        stop.set()
        listener.shutdown(socket.SHUT_RDWR)  # ends the accepting thread


def wire_lines(received):
    """The requests: head lines in alphabetical order, and the body in hexadecimal digits."""
    received = re.sub(rb"-{27}[0-9A-F]{12}", b"-" * 27 + b"BOUNDARY....", received)
    while received:
        head, _, rest = received.partition(b"\r\n\r\n")
        line, *headers = head.decode("latin-1").split("\r\n")
        size = int((re.search(rb"(?im)^content-length: *(\d+)", head) or [0, 0])[1])
        yield from ["wire: " + line, *sorted("wire: " + header for header in headers), "body: " + rest[:size].hex()]
        received = rest[size:]


def result_lines(output):
    """The driver's output, a line per call, without the reports of progress, which depend on time."""
    lines = re.sub(r"(?m)^calls (.*)", lambda match: match[1].replace("; ", "\n"), output.replace("\r\n", "\n"))
    lines = re.sub(r"-?\b\d{10}\b", lambda match: f"0x{int(match[0]) & 0xFFFFFFFF:08X}", lines)
    return [line for line in lines.split("\n") if not line.startswith("progress ")]


def run(name, command, folder):
    """Runs a case on one of the systems. Returns what it prints and sends."""
    arguments, play, tls = CASES[name]
    (folder / "received").write_bytes(b"")
    words = shlex.split(f"{command} {arguments.replace('FOLDER', str(folder))}")
    # To files: helpers of Wine that live on would keep a pipe open.
    with scripted(play, tls, folder) if play else contextlib.nullcontext(), \
            open(folder / "out", "wb") as out, open(folder / "err", "wb") as err:
        done = subprocess.run(words, stdin=subprocess.DEVNULL, stdout=out, stderr=err, timeout=LIMIT_SECONDS)
    trace = [line for line in (folder / "err").read_text("utf-8", "replace").splitlines()
             if not line.startswith("wine client error")]  # about one of its helpers that ends
    return [f"status {done.returncode}", *result_lines((folder / "out").read_text("utf-8", "replace")),
            *("trace: " + line for line in trace), *wire_lines((folder / "received").read_bytes())]


def compare(name, sides):
    """Returns what is different: lines of this system with "<", of the other with ">", if no entry expects them; and
    entries that expect a difference that is not there."""
    if re.fullmatch(PARTIAL, name):
        sides = [[line for line in side if not line.startswith("body: ")] for side in sides]
    lines = []
    for kind, a, b, c, d in difflib.SequenceMatcher(None, *sides, autojunk=False).get_opcodes():
        if kind != "equal":
            lines += ["<" + line for line in sides[0][a:b]] + [">" + line for line in sides[1][c:d]]
    for cases, here, there, reason in EXPECTED:
        if re.fullmatch(cases, name):
            remaining = [line for line in lines if not re.fullmatch(f"<({here})" + f"|>({there})" * bool(there), line)]
            lines = remaining if len(remaining) < len(lines) else [*lines, f"no longer different: {reason}"]
    return lines


def main():
    here, there, folder, *names = sys.argv[1:]
    folder, failed = Path(folder), 0
    threading.excepthook = lambda arguments: None  # the accepting threads end with their sockets
    for number in range(13):
        name = f"{number}Größe 中 \U0001F600.bin" if number == 6 else f"{number}.bin"
        (folder / name).write_bytes(((b"\r\n--" + bytes(range(number, 251))) * 500)[:SIZES.get(number, 100 + number)])
    for name in names or CASES:
        for _ in range(3):  # a process of Wine now and then starts without the trusted roots
            lines = compare(name, [run(name, command, folder) for command in (here, there)])
            if not any(re.search(r"^>.*\b(12045|0x80072F0D)\b", line) for line in lines):
                break
        reasons = "; ".join(entry[3] for entry in EXPECTED if re.fullmatch(entry[0], name))
        print(f"{name:34} {'DIFFERENT' if lines else reasons or 'equal'}", flush=True)
        print(*(f"    {line[:200]}\n" for line in lines), sep="", end="")
        failed += bool(lines)
    print(f"{len(names or CASES) - failed} passed, {failed} failed")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
