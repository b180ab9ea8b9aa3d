"""The table of hostile peers: what each does, and how each call that meets it ends. hostile_play.py plays it.

A row names its outcomes by the letters of the calls. For all of them 1 stands for what a good peer leads to, 0 for what
an empty answer leads to, and a number over 12000 for the error; a set says that timing decides.
"""

from types import SimpleNamespace
from typing import Any, Dict, List, NamedTuple, Tuple

OK, END = b"HTTP/1.1 200 OK\r\n", b"\r\n\r\n"
BODY, PIP = b"<info><tokenid></tokenid></info>", b"<PIP><pipURL>u</pipURL></PIP>"
FOUND = b"<INFO><APIUrl>ho</APIUrl></INFO>"  # replaces BODY in detection
LENGTH = b"Content-Length: 32"
GOOD = OK + LENGTH + END + BODY
CHUNKED = OK + b"Transfer-Encoding: chunked" + END
HINT = b"HTTP/1.1 103 Hints" + END
TUNNEL = ("read", b"HTTP/1.1 200 Go" + END)
BLOCK = b"x" * 65536
REPLY, UPLOADED = f"--body '{BODY.decode()}'", "https://h/p+1"
ACCEPTED = "--body <uploadTemplate><templateUrl>https%3A%2f%2Fh%2Fp+1</templateUrl></uploadTemplate>"
REFUSAL = "<uploadTemplate><errMsg>Too large.</errMsg></uploadTemplate>"
REFUSED, REASON = f"--body '{REFUSAL}' --status ", "Too large."
LOST = frozenset((12030, 12031))


class Late(NamedTuple):
    """The outcome of a call that waits for a time limit, which counts from when the request is out, or if it is
    ``early`` from the call's beginning. Bytes may still move for some seconds, the ``slack``."""

    seconds: float
    outcome: Any = 12002
    early: bool = False
    slack: float = 0


def row(what: str, script: Any, options: str = "", tls: str = "good", role: str = "service", memory: int = 0,
        **outcomes: Any) -> Any:
    """The script is a scenario or steps of peer.py; the memory is the most MiB, or 0 for the call's own limit."""
    each = {call: outcome for calls, outcome in outcomes.items() for call in calls}
    return SimpleNamespace(what=what, script=script, options=options, tls=tls, role=role, memory=memory, outcomes=each)


def early(seconds: float, outcome: Any = 12002, slack: float = 0) -> Late:
    return Late(seconds, outcome, True, slack)


def lines(*extra: bytes, body: bytes = BODY, then: Tuple[Any, ...] = ()) -> Tuple[Any, ...]:
    return ("read", OK + b"\r\n".join(extra) + END + body, *then)


def length(size: int, *then: Any) -> Tuple[Any, ...]:
    return lines(b"Content-Length: %d" % size, body=b"", then=then)


def starts(line: bytes) -> Tuple[Any, ...]:
    return ("read", line + b"\r\n" + LENGTH + END + BODY)


def chunks(data: bytes, *then: Any) -> Tuple[Any, ...]:
    return ("read", CHUNKED + data, *then)


def proxy(what: str, script: Any, options: str = "", **outcomes: Any) -> Any:
    return row(what, script, options, role="proxy", **outcomes)


GROUPS: Dict[str, List[Any]] = {
    "Connecting": [
        row("refuses the connection", "127.0.0.1:1", role="nobody", lru=12029, d=0),
        row("has a name that leads nowhere", "nowhere.invalid:443", role="nobody", lru=12007),
        row("never takes the connection", "silent-connect", lu=early(60), r=early(5), d=early(5.5, 0)),
        row("closes the connection at once", (("pause", 0),), tls="", lu=LOST, r=LOST | {12152}, d=0),
        row("takes the connection and stays silent", "silent-tls", tls="", lru=early(60), d=early(5.5, 0)),
        row("trickles a handshake", ("receive", b"\x16\3\3\x40\0", ("flood", b"x", 0.01)), tls="", lu=early(60)),
        row("speaks plain HTTP on port 443", ("receive", GOOD), tls="", lu=12157, d=0),
        row("sends warning alerts without end", ("receive", ("flood", b"\x15\3\3\0\2\1\x5a")), tls="", lu=12157),
        row("ends TLS instead of a reply", ("read", "end-tls", "drain"), lu=12152),
        row("closes within the body without an end of TLS", lines(b"Content-Length: 99"), lu=1),
    ],
    "Certificates": [row(kind, "reply", REPLY, kind, l=login, u=upload, d=found) for kind, login, upload, found in (
        ("good", 1, 1, 1), ("expired", 1, 12037, 0), ("not-yet-valid", 1, 12037, 0), ("wrong-name", 1, 12038, 0),
        ("unknown-issuer", 12045, 12045, 0), ("self-signed", 12045, 12045, 0), ("no-issuer-right", 12045, 12045, 0),
        ("client-only", 12045, 12045, 0), ("weak-key", 12045, 12045, 0), ("common-name-only", 1, 1, 0))],
    "Reply head": [
        row("closes instead of a reply", "close", lruecv=12152, d=0),
        row("resets instead of a reply", ("read", "reset"), lru=LOST),
        row("never replies", "silent-reply", lrue=Late(60), d=Late(5.5, 0)),
        row("replies with garbage", "garbage", lruec=12152, d=0),
        *(row(f"begins with {line!r}", starts(line), ru=12152) for line in (b"HTTP/1.1 2000 OK", b"HTTP/1.1 200 O\0K")),
        row("replies with status 999", starts(b"HTTP/1.1 999 OK"), r=1, u=0),
        *(row(f"has the line {line!r}", lines(line, LENGTH), lru=12152) for line in (b"X: a\0b", b"nonsense")),
        row("claims to be compressed", lines(b"Content-Encoding: gzip", LENGTH), lru=1),
        row("has an unknown coding", lines(b"Transfer-Encoding: knots", LENGTH), l=12175, r=(1, 12175), u=1),
        row("sends header lines without end", ("read", OK, ("flood", b"X-Line: flood\r\n" * 64)), lrue=12152),
        row("has a head of 99 KiB", lines(*[b"X: " + b"x" * 1019] * 98, LENGTH), ru=1),
        row("has a head of 101 KiB", lines(*[b"X: " + b"x" * 1019] * 101, LENGTH), ru=12152),
        row("trickles its head", ("read", OK + b"X: ", ("flood", b"x", 0.01)), lru=Late(300)),
        row("closes within the head", ("read", OK + b"Content-"), lru=LOST),
        row("sends interim replies with a length", "interim", REPLY, lru=1),
        row("sends interim replies without end", ("read", ("flood", HINT * 64)), ru=12152),
        row("sends an interim reply now and then", ("read", ("flood", HINT, 0.02)), ru=Late(300)),
        row("changes the protocol", starts(b"HTTP/1.1 101 Switching\r\nUpgrade: x"), r=1, u=0),
        row("redirects", "reply", REPLY + " --status 302 --header 'Location: http://good.test/'", lrd=1, u=0),
        row("replies with status 204 and a body", "reply", REPLY + " --status 204", lr=0, u=1),
    ],
    "Reply body": [
        row("gives no length and closes", "reply", REPLY + " --length none", lred=0, u=1),
        row("gives a length that is too short", lines(b"Content-Length: 31"), ld=0, r=(1, BODY[:31].decode()), u=1),
        row("is reset", (*lines(b"Content-Length: 33"), ("pause", 0.1), "reset"), l=LOST, r=(1, LOST), u=1),
        *(row(f"gives the length {text}", lines(b"Content-Length: " + text.encode()), lrd=1, u=1, c=0) for text in (
            "33", "+32", "32 bytes", "32, 32", "2147483647", "4294967328")),
        row("gives a negative length", lines(b"Content-Length: -32"), lrcd=0, u=1),
        row("gives a huge length", length(10**20), lcd=12152, r=(1, 12152), u=1),
        row("sends the document in chunks", chunks(b"20\r\n" + BODY + b"\r\n0" + END), lrd=0, u=1),
        row("gives no length and resets", "reset-reply", "--body abcdefgh --length none", v=LOST),
        row("sends 8 MiB", length(8 << 20, ("repeat", b"x", 8 << 20)), memory=60, ld=0, r=(1, "x" * (8 << 20))),
        row("sends 2 bytes more", length(2 + (8 << 20), ("repeat", b"xx", 1 + (4 << 20))), memory=60, ld=12152),
        row("sends it without a length", lines(body=b"", then=(("repeat", b"xx", 1 + (4 << 20)),)), memory=60, v=12152),
        row("sends chunks", chunks(b"8;a\r\n<PIP><pi\r\n15\r\npURL>u</pipURL></PIP>\r\n0" + END), eu=1, r=0),
        row("sends trailers", chunks(b"1d\r\n" + PIP + b"\r\n0\r\n", ("flood", b"X: y\r\n" * 64)), eu=1, v=12152),
        row("gives a chunk a huge size", chunks(b"1000000000000001d\r\n" + PIP), u=1, ev=12152),
        row("sends no last chunk", chunks(b"1d\r\n" + PIP + b"\r\n"), eu=1, v=" "),
        row("extends a chunk's size", chunks(b"1d;", ("flood", BLOCK)), u=Late(300, 1), e=Late(300)),
        row("stops halfway", "silent-body", REPLY, lv=Late(60), r=Late(60, (1, 12002)), u=Late(60, 1), e=0),
        row("trickles it", length(9999, ("flood", b"x", 0.02)), l=Late(300), r=Late(300, (1, 12002)), u=Late(300, 1)),
        row("sends it without end", lines(body=b"", then=(("flood", BLOCK),)), memory=160, u=1, v=12152, r=0),
        row("sends 2 GiB", length(2147483647, ("flood", BLOCK)), memory=160, ld=12152, r=(1, 12152), u=1),
        row("has NULs in it", length(3, b"a\0b"), l=0, r=(1, "a"), u=1),
        row("is no UTF-8", length(4, b"a\xff\xe4b"), l=0, r=(1, "a\ufffd\ufffdb"), u=1),
    ],
    "Uploading": [
        row("accepts with status 299", "reply", ACCEPTED + " --status 299", u=(1, UPLOADED, "")),
        row("accepts, but resets within the document", "reset-reply", ACCEPTED, u=1),
        row("has an entity", "reply", ACCEPTED.replace(" ", " '<!DOCTYPE a [<!ENTITY e SYSTEM \"/e\">]>") + "'", u=1),
        row("has a long error", "reply", REFUSED.replace(".", "x" * 300) + "200", u=(1, "", "Too large" + "x" * 250)),
        row("fails with an address all the same", "reply", ACCEPTED + " --status 500", u=(0, UPLOADED, "")),
        row("answers 200 early, and drains the body", "early-keep", REFUSED + "200", U=(1, "", REASON)),
        row("answers 413 early, and drains the body", "early-keep", REFUSED + "413", U=(0, "", REASON), f=(1, REFUSAL)),
        row("answers 413 early, and reads no more", "early-hold", REFUSED + "413 --window 4096", U=(0, "", REASON)),
        row("ends early", "early-keep", REFUSED + "200 --header Connection:close", U=(1, "", REASON), f=(1, REFUSAL)),
        row("answers 302 without an end", ("read-some", b"HTTP/1.1 302 No" + END, "hold"), U=Late(60, 0, slack=40)),
        row("answers 302 early, and says why when the data ends", ("read-some", b"HTTP/1.1 302 No" + END, "drain",
            REFUSAL.encode()), U=(0, "", REASON)),
        row("answers early with a header line without end", ("read-some", OK + b"X: ", ("flood", BLOCK)), U=12152),
        row("answers and stops", ("read-some", GOOD, "hold"), "--window 4096", U=early(30, slack=130)),
        row("answers before the request comes", ("tls", GOOD, "read", "drain"), ul=1),
        row("sends interim replies and reads nothing", ("read-some", ("flood", HINT * 64)), U=12152),
        *(row(f"resets after {size} bytes", "reset-send", f"--after {size}", U=LOST) for size in (0, 65536, 4194304)),
        row("closes after a megabyte", ("read-some",), "--after 1000000", Uf=LOST),
        row("ends its sending, and drains the body", ("read-some", "shut", "drain"), Uf=12152),
        *(row(what, script, "--window 4096", U=early(30, slack=130), f=early(5, slack=130)) for what, script in (
            ("ends its sending, and reads nothing", ("read-some", "shut", "hold")), ("stops reading", "stall"))),
    ],
    "Proxies": [
        proxy("forwards plain requests", ("read", GOOD), r=1, e=0),
        proxy("opens the tunnel", (*TUNNEL, "tls", "read", GOOD), "--tls good", su=1),
        proxy("opens it to a stranger", (*TUNNEL, "tls"), "--tls unknown-issuer", su=12045),
        proxy("wants a password", "reply", REPLY + " --status 407", r=1, su=12029),
        proxy("answers with garbage", "garbage", r=12152, su=LOST),
        proxy("never answers", "silent-reply", r=early(60), s=early(5), u=early(60)),
        proxy("refuses with a body without end", ("read", b"HTTP/1.1 403 No" + END, ("flood", BLOCK)), su=12029),
        proxy("opens the tunnel and stays silent", (*TUNNEL, "hold"), s=early(5), u=early(60)),
    ],
}
