"""The table of hostile peers: what each does. docs/network-outcomes.md says what a call then answers, and how late.

`test_hostile.py` plays every row and compares the page with what `page` makes of the outcomes. To write it anew:
python3 tests/support/hostile_play.py LIBRARY | python3 tests/support/hostile_peers.py >page
Steps and scenarios are those of peer.py.
"""

import ast
import os
import pathlib
import re
import shlex
import sys
from typing import Any, Dict, Iterator, List, Sequence, Tuple, Union

PAGE_FILE = pathlib.Path(__file__).resolve().parents[2] / "docs" / "network-outcomes.md"
DETECT, HOST, STAGE = "detect.kestrelhub.example", "good.test", "stage.kestrelhub.example"
LOST = "12030/12031"  # which of them it is depends on timing


def number(sentence: str) -> int:
    """Returns the error number that a sentence of SyncSend… stands for on the page."""
    return int(re.search(rf"^\| (\d+) \| {re.escape(sentence)} \|$", PAGE_FILE.read_text("utf-8"), re.MULTILINE)[1])


def normal(outcome: Any) -> Any:
    """Returns an outcome with the two numbers of a lost connection as one."""
    if isinstance(outcome, tuple):
        return tuple(normal(each) for each in outcome)
    return LOST if outcome in (12030, 12031) else outcome


# The calls by letter: name on the page, whether it uses TLS, whether only the trace has its number, MiB of memory.
CALLS = {
    "l": ("login", True, False, 4),
    "r": ("request", False, False, 4),
    "s": ("TLS request", True, False, 4),
    "f": ("form of 8 MB", False, False, 60),
    "u": ("upload", True, True, 4),
    "U": ("upload of 16 MB", True, True, 20),
    "e": ("effect", False, True, 4),
    "v": ("video", False, True, 4),
    "c": ("categories", False, True, 4),
    "d": ("detection", True, True, 4),
    "a": ("detection, login", True, False, 4),
    "b": ("login, page", True, False, 4),
}


class Row:
    """One behaviour of a peer, and the letters of the calls that meet it.

    ``late``: the limit in seconds that passes before a call answers, for all calls or each; measured from when the
    request is out, or with since="connect" from the call's beginning. ``slack``: seconds in which bytes still move.
    ``memory``: the most MiB, if it is not the call's own.
    """

    def __init__(self, what: str, calls: str, script: Any, options: str = "", tls: str = "good", role: str = "service",
                 late: Union[float, Dict[str, float]] = 0, since: str = "reply", slack: float = 0,
                 memory: Union[int, Dict[str, int]] = 0) -> None:
        self.what, self.calls, self.script, self.options, self.tls, self.role = what, calls, script, options, tls, role
        self.late, self.since, self.slack, self.memory = late, since, slack, memory

    def of_call(self, values: Any, call: str) -> Any:
        return values.get(call, 0) if isinstance(values, dict) else values

    def direct(self, network: Any, start: Any, call: str) -> None:
        """Directs the connections of a call to the peer, which `start` starts with its arguments."""
        host = DETECT if call in "da" else HOST
        if self.role == "nobody":
            network.lead(f"{host}::{self.script}")
            return
        arguments = [self.script if isinstance(self.script, str) else repr(self.script),
                     *shlex.split(self.options.replace("CERTS", network.certificates))]
        if call == "d":
            arguments = [each.replace(BODY.decode(), FOUND.decode()) for each in arguments]
        if self.tls and CALLS[call][1] and self.role == "service":
            arguments += ["--tls", self.tls, "--certs", network.certificates]
        port = start(arguments)
        network.lead(f"{host}:{80 if call == 'v' else ''}:127.0.0.1:{port}")
        if self.role == "proxy":
            network.lead(f"{host}::{host}:")
            os.environ["http_proxy"] = os.environ["https_proxy"] = f"http://127.0.0.1:{port}"


OK, END = b"HTTP/1.1 200 OK\r\n", b"\r\n\r\n"
BODY, PIP = b"<info><tokenid></tokenid></info>", b"<PIP><pipURL>u</pipURL></PIP>"
FOUND = b"<INFO><APIUrl>ho</APIUrl></INFO>"  # takes the place of BODY in detection
LENGTH = b"Content-Length: 32"
GOOD = OK + LENGTH + END + BODY
CHUNKED = OK + b"Transfer-Encoding: chunked" + END
REPLY = f"--body '{BODY.decode()}'"
ACCEPTED = "<uploadTemplate><templateUrl>https%3A%2f%2Fh%2Fp+1</templateUrl></uploadTemplate>"
REFUSAL = "--body '<uploadTemplate><errMsg>Too large.</errMsg></uploadTemplate>'"


def answers(*parts: bytes, then: Sequence[Any] = ()) -> Tuple[Any, ...]:
    return ("read", b"".join(parts), *then)


def lines(*extra: bytes, body: bytes = BODY) -> Tuple[Any, ...]:
    return answers(OK, b"\r\n".join(extra), END, body)


def document(form: bytes, text: bytes) -> Tuple[Any, ...]:
    """Steps that answer with the document; a long text is repeated by the peer."""
    size, (start, end) = len(form % text), form.split(b"%s")
    head = OK + b"Content-Length: %d" % size + END + start
    return ("read", head, ("repeat", text[:1], len(text)), end) if len(text) > 100000 else ("read", head + text + end)


def shown(text: str) -> str:
    """A text as the page shows it."""
    name = ascii(text)[1:-1].replace("\\udc", "\\x")
    name = name if len(name) < 60 else f"{name[:20]}…{name[-6:]} of {len(name)} characters"
    return f"`{name}`" + ("" if text.strip() else " (empty)")


BYTES = ("utf-8", "surrogateescape")
DOCUMENT = b"<INFO><APIUrl>%s</APIUrl></INFO>"
PAGE = b"<info><tokenid>t</tokenid><firstloginUrl>%s</firstloginUrl></info>"
ADDRESSES = (
    "good.test", "", " ", " good.test ", "\n good.test\n", "GOOD.TEST", "good.test.", "good.test:443", "good.test:80",
    "good.test:8443", "good.test:", "good.test:x", "https://good.test", "http://good.test", "https:good.test",
    "//good.test", "good.test/", "good.test/path", "good.test?a=b", "good.test#a", "good.test\\a", "user@good.test",
    "user:pw@good.test", "127.0.0.1", "127.1", "0x7f000001", "2130706433", "[::1]", "::1", "[::1", "::1]",
    "[::1%25lo]", "good .test", "good%2etest", "good&#46;test", "&#103;ood.test", "good.test&#10;X: y",
    "good.test&#13;&#10;X: y", "good.test&#9;", "good.test&#127;", "good.test&#0;", "good.test\x00", "good.test\x01",
    "<![CDATA[good.test]]>", "<![CDATA[]]>good.test", "<a>good</a>.test", "<APIUrl>good.test</APIUrl>",
    "good<!-- c -->.test", "good<?pi?>.test", "&good;", "&lt;good.test", "good.test</APIUrl><APIUrl>other.test",
    "</APIUrl><APIUrl>good.test", "\uff47ood.test", "good\u3002test", "g\xf6\xf6d.test", "good.test\xad",
    "\u200bgood.test", "good.test\u2028", "\u202egood.test", "xn--good.test", "-good.test", "good..test", ".good.test",
    "*.test", "good_.test", "\udcff\udcfegood.test", "file:///etc/passwd", "javascript:x", "g" * 63 + ".test",
    "g" * 64 + ".test", "g." * 126 + "test", "g." * 2000 + "test",
)
PAGES = (
    "https://h/first?a=1&amp;b='$(x)", "https://h/a b", "http://u@[::1]:80", "HTTPS://h?@",
    "https://h/\xe9\u200a\u2027\u202f\u2065", "https://h/%00%0a", "https://h/&quot;;reboot", "https://h/" + "x" * 249,
    "", " ", "file:///etc/passwd", "FILE:///etc/passwd", "javascript://x", "javascript:alert(1)", "data:text/html,x",
    "mailto:a@b", "ftp://h/", "--help", "-https://h/", "/usr/bin/true", "true", "h/page", "//h/page", "http:h",
    "http:/h", "https//h", " https://h", "x https://h", "https://h/" + "x" * 250, "https://", "https://#", "https://?",
    "https://@", "https:///h", "https://\\h", "https://u@", "https://u@:80", "https:// /", "https://h/\tx",
    "https://h/\nx", "https://h/\x7fx", "https://h/\x9fx", "https://h/\u061cx", "https://h/\u200bx",
    "https://h/\u200fx", "https://h/\u2028x", "https://h/\u202ex", "https://h/\u2060x", "https://h/\u2066x",
    "https://h/\u2069x", "https://h/\ufeffx", "https://h/&#10;x", "https://h/&#9;x", "https://h/\x00x",
)

GROUPS: Dict[str, List[Row]] = {
    "Connecting": [
        Row("refuses the connection", "lrud", "127.0.0.1:1", role="nobody"),
        Row("has a name that leads nowhere", "lru", "nowhere.invalid:443", role="nobody"),
        Row("never takes the connection", "lrud", "silent-connect", late={"l": 60, "r": 5, "u": 60, "d": 5.5},
            since="connect"),
        Row("closes the connection at once", "lrud", (("pause", 0),), tls=""),
        Row("resets the connection at once", "lrud", (("pause", 0.1), "reset"), tls=""),
        Row("ends its sending at once, and reads nothing", "lru", ("shut", "hold"), tls=""),
        Row("takes the connection and stays silent", "lrud", "silent-tls", tls="",
            late={**dict.fromkeys("lru", 60), "d": 5.5}, since="connect"),
    ],
    "TLS": [
        Row("stops within its first handshake record", "lu", ("receive",
            b"\x16\x03\x03\x00\x7a\x02\x00\x00\x76\x03\x03", "hold"), tls="", late=60, since="connect"),
        Row("sends its handshake byte by byte, too slowly to finish", "lu", (("tls-slowly", 1, 0.05), "read", GOOD),
            late=60, since="connect"),
        Row("sends its handshake and its reply in small pieces", "lu", (("tls-slowly", 16, 0.001), "read", GOOD)),
        Row("sends its reply byte by byte in records of their own", "lu", ("read", OK + LENGTH, ("drip", END + BODY)),
            "--pause 0.001"),
        Row("answers with bytes that are no TLS", "lu", ("receive", b"\0\1\2 this is no reply"), tls=""),
        Row("speaks plain HTTP on port 443", "lud", ("receive", GOOD), tls=""),
        Row("speaks HTTP/2 on port 443", "lu", ("read",
            b"\0\0\x12\4\0\0\0\0\0\0\3\0\0\0\x64\0\4\0\0\xff\xff\0\5\0\xff\xff\xff", "hold")),
        Row("speaks TLS on port 80", "re", "reply", "--tls good --certs CERTS"),
        Row("sends an alert in place of a handshake", "lu", ("receive", b"\x15\3\3\0\2\2\x28"), tls=""),
        Row("announces the end of TLS in place of a handshake", "lu", ("receive", b"\x15\3\3\0\2\1\0"), tls=""),
        Row("sends warning alerts without end", "lu", ("receive", ("flood", b"\x15\3\3\0\2\1\x5a")), tls=""),
        Row("sends a record that is too large", "lu", ("receive", b"\x16\3\3\xff\xff" + b"x" * 65535), tls=""),
        Row("speaks TLS 1.2 at most", "lu", "reply", REPLY + " --tls12"),
        Row("asks for a client's certificate", "lu", "reply", REPLY + " --ask"),
        Row("requests new keys without end", "lu", "update-keys", late=300),
        Row("sends session tickets without end", "lu", ("read", ("flood-messages", "SSL_new_session_ticket", 0)),
            late=300),
        Row("announces the end of TLS in place of a reply", "lu", ("read", "end-tls", "drain")),
        Row("announces the end of TLS within the reply's body", "lu", ("read", OK + b"Content-Length: 99" + END + BODY,
            "end-tls", "drain")),
        Row("closes within the body without announcing the end of TLS", "lu", lines(b"Content-Length: 99")),
    ],
    "Reply head": [
        Row("closes in place of a reply", "lruecvd", "close"),
        Row("resets in place of a reply", "lru", ("read", "reset")),
        Row("never replies", "lrued", "silent-reply", late={**dict.fromkeys("lrue", 60), "d": 5.5}),
        Row("replies after a pause", "lru", ("read", ("pause", 0.3), GOOD)),
        Row("replies with garbage", "lruedc", "garbage"),
        Row("replies without a head (HTTP/0.9)", "ru", answers(BODY)),
        Row("replies as HTTP/1.0 and closes", "rue", answers(b"HTTP/1.0 200 OK", END, BODY)),
        *(Row(f"begins its reply with {line!r}", "ru", answers(line.encode(), b"\r\n", LENGTH, END, BODY)) for line in (
            "HTTP/1.0 200 OK", "HTTP/1.2 200 OK", "HTTP/2 200 OK", "HTTP/9.9 200 OK", "HTTP/1.1 2000 OK",
            "HTTP/1.1 20 OK", "HTTP/1.1 -20 OK", "HTTP/1.1 abc OK", "HTTP/1.1 999 OK", "HTTP/1.1 200 O\0K", "HTTP/1.1",
            "http/1.1 200 ok", "ICY 200 OK", " HTTP/1.1 200 OK")),
        *(Row(f"has the header line {line!r}", "lru", lines(line.encode(), LENGTH)) for line in (
            "X: a\0b", "X\0: a", " X: y", "X: y\r\n z", "nonsense", ": y", "X: y\rz", "Content-Encoding: gzip",
            "Transfer-Encoding: knots", "Connection: Upgrade")),
        Row("ends its lines with LF alone", "ru", answers(b"HTTP/1.1 200 OK\nContent-Length: 32\n\n", BODY)),
        Row("sends header lines without end", "lrue", "flood-headers"),
        Row("sends one header line without end", "lru", ("read", OK + b"X: ", ("flood", b"x" * 4096))),
        Row("sends a status line without end", "lru", ("read", b"HTTP/1.1 200 ", ("flood", b"x" * 4096))),
        Row("has a head of 99 KiB", "ru", lines(*[b"X: " + b"x" * 1019] * 98, LENGTH)),
        Row("has a head of 101 KiB", "ru", lines(*[b"X: " + b"x" * 1019] * 101, LENGTH)),
        Row("sends its head byte by byte without end", "lru", ("read", OK + b"X: ", ("flood", b"x", 0.01)), late=300),
        Row("stops within the head", "lru", answers(OK, b"Content-", then=["hold"]), late=60),
        Row("closes within the head", "lru", answers(OK, b"Content-")),
        Row("resets within the head", "ru", answers(OK, b"Content-", then=[("pause", 0.1), "reset"])),
        Row("sends an interim reply first", "lru", answers(b"HTTP/1.1 100 Continue", END, GOOD)),
        Row("sends interim replies with a length first", "lru", "interim", REPLY),
        Row("sends 500 interim replies first", "ru", answers((b"HTTP/1.1 103 Hints" + END) * 500, GOOD)),
        Row("sends interim replies without end", "ru", ("read", ("flood", (b"HTTP/1.1 103 Hints" + END) * 64))),
        Row("sends an interim reply now and then without end", "ru", ("read", ("flood", b"HTTP/1.1 103 Hints" + END,
            0.02)), late=300),
        Row("changes the protocol (101)", "ru", answers(b"HTTP/1.1 101 Switching\r\nUpgrade: x", END, BODY)),
        Row("redirects (302), which is not followed", "lrud", "reply",
            REPLY + " --status 302 --header 'Location: http://good.test/'"),
        *(Row(f"replies with status {status}", "lrud", "reply", f"{REPLY} --status {status}") for status in (401, 404,
            500)),
        Row("replies with status 204 and a body", "lru", "reply", REPLY + " --status 204"),
        Row("replies with status 304 and a length", "lru", "reply", REPLY + " --status 304"),
    ],
    "Reply body": [
        Row("gives no length and closes", "lrued", "reply", REPLY + " --length none"),
        Row("gives a length that is too short", "lrud", lines(b"Content-Length: 31")),
        Row("gives a length that is too long, and closes", "lrud", lines(b"Content-Length: 33")),
        Row("gives a length that is too long, and resets", "lru", (*lines(b"Content-Length: 33"), ("pause", 0.1),
            "reset")),
        *(Row(f"gives the length {text!r}", "lrucd", lines(b"Content-Length: " + text.encode())) for text in (
            "-32", "abc", "", "+32", "0x20", "32 bytes", "32, 32", "2147483647", "4294967328",
            "99999999999999999999")),
        Row("gives its length twice", "ru", lines(LENGTH, LENGTH)),
        Row("gives two lengths", "ru", lines(LENGTH, b"Content-Length: 5")),
        Row("gives a length and chunks", "rue", answers(OK, LENGTH, b"\r\nTransfer-Encoding: chunked", END, b"20\r\n",
            BODY, b"\r\n0", END)),
        Row("sends the document in chunks", "lrud", answers(CHUNKED, b"20\r\n", BODY, b"\r\n0", END)),
        Row("gives no length and resets", "v", "reset-reply", "--body abcdefgh --length none"),
        *(Row(f"sends {size} bytes", "ldr", ("read", OK + b"Content-Length: %d" % size + END, ("repeat", b"x", size)),
              memory=60) for size in (8388608, 8388609)),
        Row("sends 8388609 bytes without a length", "v", ("read", OK + END, ("repeat", b"x", 8388609)), memory=60),
        Row("sends chunks", "reu", answers(CHUNKED, b"8\r\n<PIP><pi\r\n15\r\npURL>u</pipURL></PIP>\r\n0", END)),
        Row("sends chunks with extensions and good trailers", "eu", answers(CHUNKED, b"1d;a=b\r\n", PIP,
            b"\r\n0;c\r\nX: y", END)),
        Row("ends its chunks with trailers without end", "euv", ("read", CHUNKED + b"1d\r\n" + PIP + b"\r\n0\r\n",
            ("flood", b"X: y\r\n" * 64))),
        Row("ends its chunks with one trailer without end", "uv", ("read", CHUNKED + b"1d\r\n" + PIP + b"\r\n0\r\nX: ",
            ("flood", b"y" * 4096))),
        Row("ends its chunks with a NUL in a trailer", "euv", answers(CHUNKED, b"1d\r\n", PIP, b"\r\n0\r\nX: \0y",
            END)),
        *(Row(f"gives a chunk the size {size!r}, and closes", "euv", answers(CHUNKED, size.encode(), b"\r\n", PIP))
          for size in ("zz", "", "-1d", "7fffffffffffffff", "1000000000000001d")),
        Row("gives a chunk a size of digits without end", "eu", ("read", CHUNKED, ("flood", b"0" * 4096))),
        Row("gives a chunk an extension without end", "eu", ("read", CHUNKED + b"1d;", ("flood", b"x" * 65536)),
            late=300),
        Row("gives a chunk an extension without end, byte by byte", "eu", ("read", CHUNKED + b"1d;", ("flood", b"x",
            0.01)), late=300),
        Row("ends a chunk without a line end", "euv", answers(CHUNKED, b"1d\r\n", PIP, b"0", END)),
        Row("sends no last chunk, and closes", "euv", answers(CHUNKED, b"1d\r\n", PIP, b"\r\n")),
        Row("sends no last chunk, and stays silent", "euv", answers(CHUNKED, b"1d\r\n", PIP, b"\r\n", then=["hold"]),
            late={"u": 60, "v": 60}),
        Row("sends half of the body and stays silent", "lruev", "silent-body", REPLY, late={"l": 60, "r": 60, "u": 60,
            "v": 60}),
        Row("sends half of the body and resets", "lru", "reset-reply", REPLY),
        Row("sends the body in two pieces", "lru", "pieces", REPLY),
        Row("sends the body byte by byte, too slowly to finish", "lru", ("read", OK + b"Content-Length: 999999" + END,
            ("flood", b"x", 0.02)), late=300),
        Row("sends a body without end and gives no length", "uvr", "flood-body", memory=160),
        Row("sends a body without end and gives a length of 2 GiB", "lrud", ("read",
            OK + b"Content-Length: 2147483647" + END, ("flood", b"x" * 65536)), memory=160),
        Row("sends more after the body", "lru", lines(LENGTH, body=BODY + b"HTTP/1.1 500 No" + END)),
        Row("has NULs in the body", "lru", lines(b"Content-Length: 3", body=b"a\0b")),
        Row("has a body that is no UTF-8", "lru", lines(b"Content-Length: 4", body=b"a\xff\xe4b")),
    ],
    "Uploading": [
        Row("reads all and accepts with an address", "u", "reply", f"--body {ACCEPTED}"),
        Row("accepts in two chunks", "u", "pieces", f"--body {ACCEPTED} --length chunked"),
        Row("accepts with status 299", "u", "reply", f"--body {ACCEPTED} --status 299"),
        Row("accepts without a length", "u", "reply", f"--body {ACCEPTED} --length none"),
        Row("accepts after interim replies", "u", "interim", f"--body {ACCEPTED}"),
        Row("accepts without a document", "u", "reply"),
        Row("accepts with text that is no markup", "u", "reply", "--body text"),
        Row("accepts with half of a document", "u", "reply", f"--body {ACCEPTED[:50]}"),
        Row("accepts with a document of another root", "u", "reply", f"--body {ACCEPTED.replace('T', 't')}"),
        Row("accepts, but resets within the document", "u", "reset-reply", f"--body {ACCEPTED}"),
        Row("accepts with a document that declares an entity", "u", "reply",
            f"--body '<!DOCTYPE a [<!ENTITY e SYSTEM \"file:///etc/passwd\">]>{ACCEPTED}'"),
        Row("accepts with a document that uses an unknown entity", "u", "reply",
            "--body '<uploadTemplate><errMsg>&lol;</errMsg></uploadTemplate>'"),
        Row("accepts with an error text of 300 characters", "u", "reply",
            f"--body '<uploadTemplate><errMsg>{'x' * 300}</errMsg></uploadTemplate>'"),
        Row("accepts with an address of 3000 characters", "u", "reply", f"--body {ACCEPTED.replace('+1', 'x' * 3000)}"),
        Row("refuses after reading all", "u", "reply", REFUSAL + " --status 413"),
        Row("fails with an address all the same", "u", "reply", f"--body {ACCEPTED} --status 500"),
        *(Row(f"answers {status} before it reads the body, and drains it", "U", "early-keep",
            f"{REFUSAL} --status {status}")
          for status in (200, 302, 401, 413, 500, 503)),
        Row("answers 413 before it reads the form, and drains it", "f", "early-keep", f"{REFUSAL} --status 413"),
        *(Row(f"answers {status} before it reads the body, and reads no more", "U", "early-hold",
              f"{REFUSAL} --status {status}") for status in (401, 413, 503)),
        *(Row(f"answers {status} after a megabyte of the body, and drains it", "U", "early-keep",
              f"{REFUSAL} --status {status} --after 1000000") for status in (200, 401, 413, 503)),
        *(Row(f"answers {status} with \"Connection: close\" before it reads the body, and drains it", "Uf",
            "early-keep",
              f"{REFUSAL} --status {status} --header 'Connection: close'") for status in (200, 413, 500)),
        Row("answers 204 before it reads the body, and drains it", "U", "early-keep", "--status 204"),
        Row("answers 204 with \"Connection: close\" early, and drains the body", "U", "early-keep",
            "--status 204 --header 'Connection: close'"),
        Row("answers 413 in chunks early, and drains the body", "U", "early-keep",
            REFUSAL + " --status 413 --length chunked"),
        Row("answers 413 without a length early, and drains the body", "U", "early-keep",
            REFUSAL + " --status 413 --length none"),
        Row("answers 200 as HTTP/1.0 early, and drains the body", "U", ("read-some",
            b"HTTP/1.0 200 OK\r\n" + LENGTH + END + BODY, "drain")),
        Row("answers 413 early and never ends the reply", "U", ("read-some", b"HTTP/1.1 413 No" + END + b"x", "hold"),
            late=60, slack=40),
        Row("answers 200 early, and stops reading", "U", ("read-some", GOOD, "hold"), "--window 4096", late=30,
            slack=130, since="connect"),
        Row("answers 413 early in the middle of its head, and stops", "U", ("read-some", b"HTTP/1.1 413 No\r\nCont",
            "hold"), "--window 4096", late=30, slack=130, since="connect"),
        Row("answers before the request comes", "ul", ("tls", GOOD, "read", "drain")),
        Row("sends interim replies without end and reads nothing", "U", ("read-some", ("flood",
            (b"HTTP/1.1 103 Hints" + END) * 64))),
        *(Row(f"resets after {size} bytes of the body", "U", "reset-send", f"--after {size}")
          for size in (0, 4096, 8192, 12288, 20480, 32768, 65536, 262144, 1048576, 4194304)),
        Row("closes after a megabyte of the body", "Uf", ("read-some",), "--after 1000000"),
        Row("ends its sending, and reads nothing", "Uf", ("read-some", "shut", "hold"), "--window 4096", late={"U": 30,
            "f": 5}, slack=130, since="connect"),
        Row("ends its sending, and drains the body", "Uf", ("read-some", "shut", "drain")),
        Row("stops reading at once", "Uf", "stall", "--window 4096", late={"U": 30, "f": 5}, slack=130,
            since="connect"),
        Row("stops reading after a megabyte", "U", "stall", "--window 4096 --after 1000000", late=30, slack=220,
            since="connect"),
        Row("reads all and never answers", "U", "silent-reply", late=60),
    ],
    "Certificates": [
        Row(what, "lud", "reply", REPLY, tls=kind) for kind, what in {
            "good": "is good", "expired": "has expired", "not-yet-valid": "is not valid yet",
            "wrong-name": "was issued for another name",
                "expired-wrong-name": "has expired and was issued for another name",
            "unknown-issuer": "comes from an unknown issuer", "self-signed": "is its own issuer",
            "no-issuer-right": "comes from an issuer that may not issue any", "client-only": "is for clients only",
            "no-signing": "may not sign", "weak-key": "has an RSA key of 1024 bits",
            "common-name-only": "has the name of the upload's host as its common name alone",
            "public-suffix": "is for *.test",
            "zero-in-name": "has a NUL after the name"}.items()
    ],
    "Proxies": [
        Row("forwards plain requests", "re", answers(GOOD), role="proxy"),
        Row("opens the tunnel", "su", ("read", b"HTTP/1.1 200 Go" + END, "tls", "read", GOOD),
            "--tls good --certs CERTS", role="proxy"),
        Row("opens the tunnel to a stranger", "su", ("read", b"HTTP/1.1 200 Go" + END, "tls", "read", GOOD),
            "--tls unknown-issuer --certs CERTS", role="proxy"),
        Row("wants a password (407)", "rsu", "reply", REPLY + " --status 407", role="proxy"),
        Row("answers 503", "rsu", "reply", REPLY + " --status 503", role="proxy"),
        Row("redirects (302)", "su", "reply", REPLY + " --status 302 --header 'Location: http://h/'", role="proxy"),
        Row("answers with garbage", "rsu", "garbage", role="proxy"),
        Row("closes", "rsu", "close", role="proxy"),
        Row("resets", "rsu", ("read", "reset"), role="proxy"),
        Row("never answers", "rsu", "silent-reply", role="proxy", late={"r": 60, "s": 5, "u": 60}, since="connect"),
        Row("sends header lines without end", "rsu", "flood-headers", role="proxy"),
        Row("refuses the tunnel with a body without end", "su", ("read", b"HTTP/1.1 403 No" + END, ("flood",
            b"x" * 4096)), role="proxy"),
        Row("refuses the tunnel with a long body that never comes", "su", ("read",
            b"HTTP/1.1 403 No\r\nContent-Length: 99" + END, "hold"), role="proxy"),
        Row("opens the tunnel and stays silent", "su", ("read", b"HTTP/1.1 200 Go" + END, "hold"), role="proxy",
            late={"s": 5, "u": 60}, since="connect"),
        Row("opens the tunnel and sends garbage", "su", ("read", b"HTTP/1.1 200 Go" + END + b"garbage", "hold"),
            role="proxy"),
    ],
    "Addresses": [
        *(Row(shown(text), "a", document(DOCUMENT, text.encode(*BYTES))) for text in ADDRESSES),
        Row("a million letters", "a", document(DOCUMENT, b"g" * 1000000), memory=40),
        Row("in a document with another root", "a", document(b"<info><APIUrl>%s</APIUrl></info>", b"good.test")),
        Row("in a document that defines it as an entity", "a",
            document(b"<!DOCTYPE INFO [<!ENTITY h 'good.test'>]><INFO><APIUrl>%s</APIUrl></INFO>", b"&h;")),
    ],
    "Browser": [
        Row(shown(text), "b", document(PAGE, text.encode(*BYTES))) for text in PAGES
    ],
}


def select(groups: Sequence[str]) -> Iterator[Tuple[str, Row, str]]:
    """Yields group, row and call of all rows, or of those whose group and text hold one of the words."""
    for group, rows in GROUPS.items():
        for row in rows:
            if not groups or any(word in f"{group}: {row.what}" for word in groups):
                for call in row.calls:
                    yield group, row, call


# How the page shows outcomes.


def told(value: Any) -> str:
    """A number or a text as the page shows it."""
    if not isinstance(value, str) or value == LOST:
        return str(value).replace("/", " or ")
    text = ascii(value)[1:-1] if len(value) < 60 else f"{ascii(value[:20])[1:-1]}… of {len(value)} characters"
    return f"`{text}`" if value else "an empty text"


def blocking(sent: int, result: Any) -> str:
    return ("sent, " if sent else "") + told(result)


def uploaded(accepted: int, address: str, error: str, number: Any) -> str:
    parts = ["accepted" if accepted else "refused", address and "address " + told(address), error and told(error)]
    return told(number) if number else ", ".join(part for part in parts if part)


def traced(result: Any, number: Any) -> str:
    return told(number) if number else "the staging host" if result == STAGE else told(result)


FORMS = {
    "l": told, "r": blocking, "s": blocking, "f": blocking, "u": uploaded, "U": uploaded, "e": traced, "v": traced,
    "c": traced, "d": traced,
    "a": lambda host, login: f"{'the staging host' if host == STAGE else told(host)}, {login}",
    "b": lambda login, opened: f"{login}, opens {told(opened[:-1]) if opened else 'nothing'}",
}


def table(group: str, outcomes: Dict[Tuple[str, str], Any]) -> List[str]:
    """The lines of a group's table, for the outcomes of its rows' calls."""
    calls = [call for call in CALLS if any(call in row.calls for row in GROUPS[group])]
    rows = [["Text" if group in ("Addresses", "Browser") else "The peer …", *(CALLS[call][0] for call in calls)],
        ["---"] * (len(calls) + 1)]
    for row in GROUPS[group]:
        cells = [""] * len(calls)
        for call in row.calls:
            outcome = outcomes.get((row.what, call), "?")
            late = row.of_call(row.late, call)
            text = FORMS[call](*(outcome if isinstance(outcome, tuple) else (outcome,))) if outcome != "?" else "?"
            cells[calls.index(call)] = text + (f", after {late:g} s" if late else "")
        rows.append([row.what, *cells])
    return ["| " + " | ".join(cell.replace("|", "\\|") for cell in row) + " |" for row in rows]


def sections(page: str) -> List[str]:
    """The page's text in parts, each from one heading to the next."""
    return re.split(r"^(?=## )", page, flags=re.MULTILINE)


def tables(page: str) -> Dict[str, List[str]]:
    """The lines of the page's tables by their headings."""
    return {part[3:].split("\n", 1)[0]: re.findall(r"^\|.*", part, re.MULTILINE) for part in sections(page)}


def main() -> None:
    outcomes: Dict[str, Dict[Tuple[str, str], Any]] = {group: {} for group in GROUPS}
    for line in sys.stdin:
        group, what, call, outcome, *_ = ast.literal_eval(line)
        outcomes[group][what, call] = outcome
    for part in sections(PAGE_FILE.read_text("utf-8")):
        group = part[3:].split("\n", 1)[0]
        if group not in GROUPS:
            print(part.rstrip("\n") + "\n")
            continue
        prose = re.sub(r"^\|.*\n", "", part, flags=re.MULTILINE).rstrip("\n")
        print(prose, "", *table(group, outcomes[group]), "", sep="\n")


if __name__ == "__main__":
    main()
