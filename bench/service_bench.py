"""Compares the module's calls to the service with the same exchanges by requests and by pycurl; see scripts/bench.

Each client runs in its own process, started once, and their calls alternate, so that a busy machine affects all alike.
Every exchange has its own connection, and every client trusts the same file and parses the same replies. The clients'
CPU time is what counts, without their imports and first calls.
"""

from __future__ import annotations

import argparse
import contextlib
import json
import os
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from statistics import median, quantiles
from typing import Any, Callable, Iterator, NamedTuple
from urllib.parse import unquote, urlencode
from xml.etree import ElementTree

from setting import compile_program, prepare

HOST = "www.kestrelhub.example"
VERSION = ["1.0", "bench", "00000000-0000-4000-8000-000000000000"]
LOGIN_PATH = "/servlet/memLogin"
LOGIN_REPLY = {
    **{"firstloginUrl": "", "tokenid": "0123456789abcdef", "username": "Bench", "profileURL": f"https://{HOST}/u"},
    **{"VideoGallery": f"https://{HOST}/v", "AdjustmentPreset": "/p", "Tutorial": "/t", "search": "s"},
    **{"RevisionAPI": "/r", "errMsg": ""},
}
EFFECT_PATH = "/servlet/GetEffectByGUIDForTWR?token=&guid=4d0f2c1e"
EFFECT = f"https://{HOST}/effects/a preset/4d0f2c1e"
BLOCK = 1000  # categories per reply
GROWTH = [10, 50, 100]  # replies accumulated by one object
LONGEST_REPLY = 8 << 20  # bytes of a reply that are read
WORST_SECONDS, WORST_MIB = 2, 150


def category_path(location: str) -> str:
    return f"/servlet/getPresetCategory?ap=TWR&Locid={location}&version=1.0"


def categories(first: int, count: int) -> dict[str, str]:
    return {str(number): f"Category {number}" for number in range(first, first + count)}


def category_reply(first: int, count: int) -> str:
    entries = (f'<category categoryid="{key}">{name}</category>' for key, name in categories(first, count).items())
    return f"<categories>{''.join(entries)}</categories>"


def fill_reply(part: Callable[[int], str]) -> str:
    """Returns a reply of numbered parts, close to the longest that is read."""
    parts, size = [part(0)], 16
    while size + len(parts[-1]) <= LONGEST_REPLY:
        size += len(parts[-1])
        parts.append(part(len(parts)))
    return f"<r>{''.join(parts[:-1])}</r>"


# How far two figures of one run may differ that are meant to be equal: CPU times scatter by that.
TOLERANCE = 0.1

# What costs a parser most, with the number of the root's children, which is 0 if the parser hits a limit; None if that
# depends on the version of expat.
WORST: list[tuple[str, Callable[[], str], int | None]] = [
    ("100,000 attributes", lambda: "<r" + "".join(f" a{number}=''" for number in range(100_000)) + "/>", 0),
    ("500,000 names", lambda: f"<r>{''.join(f'<n{number}/>' for number in range(500_000))}</r>", 500_000),
    ("8 MiB of names", lambda: fill_reply(lambda number: f"<n{number}/>"), None),
    ("8 MiB of elements", lambda: fill_reply(lambda number: "<a/>"), 2_097_148),
    ("8 MiB of open ones", lambda: fill_reply(lambda number: "<a>"), 0),
    ("100,000 categories", lambda: category_reply(0, 100_000), 100_000),
]


def make_replies() -> list[tuple[str, str]]:
    """Returns the peer's replies: starts of request lines and bodies."""
    members = "".join(f"<{name}>{text}</{name}>" for name, text in LOGIN_REPLY.items())
    blocks = [
        (f"POST {category_path(str(number))}", category_reply(number * BLOCK, BLOCK)) for number in range(GROWTH[-1])
    ]
    return [
        (f"POST {LOGIN_PATH}", f"<info>{members}</info>"),
        (f"POST {EFFECT_PATH}", f"<PIP><pipURL>{EFFECT.replace(' ', '%20')}</pipURL></PIP>"),
        (f"POST {category_path('ten')}", category_reply(0, 10)),
        *blocks,
    ]


class Module:
    """The module's calls, on one object per row with a fixed host, as an application would keep it."""

    def __init__(self) -> None:
        sys.path.insert(0, os.environ["SKIFFPORT_TREE"])
        import Skiffport

        self.make = Skiffport.KHLoginData
        self.sessions: dict[str, Any] = {}

    def session(self, use: str) -> Any:
        if use not in self.sessions:
            self.sessions[use] = self.make(*VERSION)
            self.sessions[use].SetKHURLAsReg(HOST)
        return self.sessions[use]

    def login(self) -> tuple[str, str]:
        session = self.session("login")
        if session.LoginKestrelhub("member", "password") != 1:
            sys.exit("the login failed")
        return session.GetLoginTokenID(), session.GetRevisionAPI()

    def categories(self, location: str) -> dict[str, str]:
        return self.session(location).GetPresetCategory(location)

    def effect(self) -> str:
        return self.session("effect").GetEffectByGUID("4d0f2c1e")

    def grow(self) -> list[dict[str, float]]:
        """Returns CPU seconds for each number of accumulated replies: of one more call, and of building a similar
        dictionary in Python."""
        session, costs = self.session("growth"), []
        for number in range(GROWTH[-1]):
            session.GetPresetCategory(str(number))
            if number + 1 in GROWTH:
                expected = categories(0, (number + 1) * BLOCK)
                call = time_result(lambda: session.GetPresetCategory(str(number)), expected)
                costs.append({"call": call, "python": time_result(lambda: categories(0, len(expected)), expected)})
        return costs


def time_result(make: Callable[[], Any], expected: Any) -> float:
    """Returns the median CPU seconds of making the result, which must be the expected one."""
    costs = []
    for _ in range(7):
        cpu = time.process_time()
        result = make()
        costs.append(time.process_time() - cpu)
        if result != expected:
            sys.exit(f"{len(result)} entries instead of {len(expected)}")
    return median(costs)


class PythonClient:
    """The same calls, over HTTP requests that a subclass sends."""

    def __init__(self) -> None:
        self.roots = os.environ["SSL_CERT_FILE"]
        self.secure = f"https://127.0.0.1:{os.environ['SECURE_PORT']}"
        self.plain = f"http://127.0.0.1:{os.environ['PLAIN_PORT']}"

    def get(self, url: str) -> bytes:
        raise NotImplementedError

    def post(self, url: str, body: str) -> bytes:
        raise NotImplementedError

    def login(self) -> tuple[str, str]:
        self.get(self.secure + "/")
        form = {"account": "member", "pwd": "password", "AP": "TWR"}
        form.update(zip(("Version", "versionType", "uuid"), VERSION))
        root = ElementTree.fromstring(self.post(self.secure + LOGIN_PATH, urlencode(form)))
        member = {name: root.findtext(name) for name in LOGIN_REPLY}
        return member["tokenid"], member["RevisionAPI"]

    def categories(self, location: str) -> dict[str, str]:
        root = ElementTree.fromstring(self.post(self.plain + category_path(location), ""))
        return {entry.get("categoryid"): entry.text for entry in root.iterfind("category")}

    def effect(self) -> str:
        return unquote(ElementTree.fromstring(self.post(self.plain + EFFECT_PATH, "")).findtext("pipURL"))


class Requests(PythonClient):
    """One session, which saves most of a call's setup; the peer closes every connection."""

    def __init__(self) -> None:
        super().__init__()
        import requests

        self.http = requests.Session()

    def get(self, url: str) -> bytes:
        return self.http.get(url, verify=self.roots, allow_redirects=False).content

    def post(self, url: str, body: str) -> bytes:
        headers = {"Content-Type": "application/x-www-form-urlencoded"} if body else None
        return self.http.post(url, body, headers=headers, verify=self.roots, allow_redirects=False).content


class Pycurl(PythonClient):
    """One handle for all calls, which reuses everything but connections and TLS sessions."""

    def __init__(self) -> None:
        super().__init__()
        import pycurl

        self.handle = pycurl.Curl()
        for option in (pycurl.FRESH_CONNECT, pycurl.FORBID_REUSE, pycurl.NOSIGNAL):
            self.handle.setopt(option, 1)
        self.handle.setopt(pycurl.SSL_SESSIONID_CACHE, 0)
        self.handle.setopt(pycurl.CAINFO, self.roots)
        self.handle.unsetopt(pycurl.CAPATH)
        self.options = pycurl

    def get(self, url: str) -> bytes:
        self.handle.setopt(self.options.HTTPGET, 1)
        self.handle.setopt(self.options.URL, url)
        return self.handle.perform_rb()

    def post(self, url: str, body: str) -> bytes:
        self.handle.setopt(self.options.POSTFIELDS, body)
        self.handle.setopt(self.options.URL, url)
        return self.handle.perform_rb()


CLIENTS = {"module": Module, "requests": Requests, "pycurl": Pycurl}
BARE = "bare loop"  # of libcurl, which only logs in


class Row(NamedTuple):
    """A call that every client makes."""

    name: str
    count: int  # calls per round
    call: Callable[[Any], Any]
    expected: Any


ROWS = [
    Row("login", 50, lambda client: client.login(), (LOGIN_REPLY["tokenid"], LOGIN_REPLY["RevisionAPI"])),
    Row("10 categories", 300, lambda client: client.categories("ten"), categories(0, 10)),
    Row("1,000 categories", 100, lambda client: client.categories("0"), categories(0, BLOCK)),
    Row("effect", 300, lambda client: client.effect(), EFFECT),
]


def run_client(name: str) -> None:
    """Serves the measuring process: answers each line, a row's number or "grow", with figures in JSON."""
    client = CLIENTS[name]()
    for line in sys.stdin:
        if line == "grow\n":
            print(json.dumps(client.grow()), flush=True)
            continue
        row = ROWS[int(line)]
        wall, cpu = time.perf_counter(), time.process_time()
        for _ in range(row.count):
            result = row.call(client)
        wall, cpu = time.perf_counter() - wall, time.process_time() - cpu
        if result != row.expected:
            sys.exit(f"{name}: a wrong result of {row.name}")
        print(json.dumps({"wall": wall / row.count, "cpu": cpu / row.count}), flush=True)


class Client:
    """A client's process."""

    def __init__(self, command: list[str], environment: dict[str, str]) -> None:
        self.process = subprocess.Popen(
            command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True, env=environment
        )

    def ask(self, line: str) -> Any:
        """Returns the client's answer."""
        self.process.stdin.write(line + "\n")
        self.process.stdin.flush()
        answer = self.process.stdout.readline()
        return json.loads(answer) if answer else sys.exit(1)  # the client printed why


@contextlib.contextmanager
def start_clients(tree: Path) -> Iterator[dict[str, Client]]:
    """Runs the peer and the clients for the duration of the block."""
    with prepare(tree, make_replies()) as setting, contextlib.ExitStack() as stack:
        environment = {
            **setting.environment,
            "SECURE_PORT": str(setting.secure),
            "PLAIN_PORT": str(setting.plain),
        }
        loop = compile_program(setting.folder, "login_loop", "-lcurl")
        bare = [loop, f"https://{setting.address}:{setting.secure}", environment["SSL_CERT_FILE"]]
        commands = {name: [sys.executable, "-B", __file__, "--client", name] for name in CLIENTS}
        clients = {name: Client(command, environment) for name, command in {**commands, BARE: bare}.items()}
        for client in clients.values():
            stack.enter_context(client.process)
        yield clients


def measure(clients: dict[str, Client], rounds: int) -> list[dict[str, list[dict[str, float]]]]:
    """Returns one round's figures after the other, for each row and each client that takes part in it."""
    figures: list[dict[str, list[dict[str, float]]]] = [
        {name: [] for name in clients if name != BARE or row.name == "login"} for row in ROWS
    ]
    for number in range(rounds + 1):
        for row, made in enumerate(figures):
            names = list(made)
            for name in names[number % len(names) :] + names[: number % len(names)]:
                figure = clients[name].ask(str(row))
                if number > 0:  # the first round warms up
                    made[name].append(figure)
    return figures


def spread(values: list[float]) -> float:
    """Returns half the interquartile range, in percent of the median."""
    lower, middle, upper = quantiles(values, n=4)
    return (upper - lower) / 2 / middle * 100


def report(figures: list[dict[str, list[dict[str, float]]]]) -> bool:
    """Prints a line per row and client. Returns whether the module's CPU time is within the limits."""
    print("ms per call        client         wall     CPU    +-   module's CPU to it")
    holds = True
    for row, made in zip(ROWS, figures):
        cpu = {name: median(f["cpu"] for f in made[name]) for name in made}
        for name in made:
            wall = median(f["wall"] for f in made[name])
            cells = f"{wall * 1000:9.3f} {cpu[name] * 1000:7.3f} {spread([f['cpu'] for f in made[name]]):4.0f}%"
            print(f"{row.name:18} {name:10}{cells}   {cpu['module'] / cpu[name]:6.2f}")
        # A login is two TLS handshakes. Another client's may use another TLS library, so the loop sets its limit.
        limit = 1.3 if BARE in made else 1 + TOLERANCE
        ratio = cpu["module"] / (cpu[BARE] if BARE in made else min(cpu["requests"], cpu["pycurl"]))
        holds &= ratio <= limit
        print(f"{row.name:18} {ratio:.2f} of {limit}   {'holds' if ratio <= limit else 'FAILS'}")
    return holds


def report_growth(costs: list[dict[str, float]]) -> bool:
    """Prints the cost of the whole cache as it grows. Returns whether an entry's cost grows no faster than Python's."""
    print("\ncategories gathered   CPU of a call, ms   an entry, ns   in Python, ns")
    each = [{who: cost[who] / (blocks * BLOCK) for who in cost} for cost, blocks in zip(costs, GROWTH)]
    for blocks, cost, share in zip(GROWTH, costs, each):
        call, own = share["call"] * 1e9, share["python"] * 1e9
        print(f"{blocks * BLOCK:19,} {cost['call'] * 1000:19.2f} {call:14.0f} {own:15.0f}")
    # Memory that outgrows the CPU's caches makes an entry dearer in both; a quadratic step would multiply it by ten.
    module, python = (each[-1][who] / each[0][who] for who in ("call", "python"))
    holds = module <= python * (1 + TOLERANCE)
    verdict = "holds" if holds else "FAILS"
    print(f"growth of an entry's cost, first line to last: {module:.2f} of Python's {python:.2f}   {verdict}")
    return holds


def report_worst(build: Path) -> bool:
    """Prints what the worst replies cost to parse. Returns whether all stay within the limits."""
    print("\nworst replies         CPU of parsing, s      growth, MiB")
    holds = True
    with tempfile.TemporaryDirectory(prefix="skiffport-bench-") as name:
        libraries = [build / "framework" / "libskiffport_framework.a", build / "python" / "libskiffport_platform.so"]
        program = compile_program(Path(name), "xml_bench", *map(str, libraries), f"-Wl,-rpath,{build / 'python'}")
        reply = Path(name, "reply")
        for what, make, children in WORST:
            reply.write_text(make(), encoding="ascii")
            output = subprocess.run([program, reply], check=True, stdout=subprocess.PIPE).stdout
            cpu, growth, found = (float(figure) for figure in output.split())
            if children is not None and found != children:
                sys.exit(f"{what}: {found:.0f} children instead of {children}")
            held = cpu <= WORST_SECONDS and growth <= WORST_MIB
            holds &= held
            print(f"{what:19} {cpu:22.2f} {growth:13.0f}   {'holds' if held else 'FAILS'}")
    return holds


def main() -> int:
    """Runs everything. Returns 1 if a target does not hold."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=Path, help="the build folder to measure")
    parser.add_argument("--quick", action="store_true", help="5 rounds instead of 25")
    parser.add_argument("--client", choices=CLIENTS, help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.client:
        run_client(options.client)
        return 0
    if not options.build:
        parser.error("--build is needed")
    with start_clients(options.build.resolve() / "python") as clients:
        rows_hold = report(measure(clients, 5 if options.quick else 25))
        growth_holds = report_growth(clients["module"].ask("grow"))
    worst_hold = report_worst(options.build.resolve())
    return 0 if rows_hold and growth_holds and worst_hold else 1


if __name__ == "__main__":
    sys.exit(main())
