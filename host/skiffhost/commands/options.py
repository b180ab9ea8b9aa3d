"""Options that several subcommands share, and what a value must look like."""

from __future__ import annotations

import argparse
import os
import re
import shlex
import sys
from typing import Any, Callable, Dict, Mapping, NoReturn, Sequence

from ..outcome import Result
from ..parser import Parser

Command = Callable[[argparse.Namespace], Result]

DEFAULTS: Dict[str, Any] = {
    "host": None,
    "connect_to": None,
    "ca_file": None,
    "version_name": "1.0.0",
    "version_type": "Retail",
    "uuid": None,
    "json": False,
    "quiet": False,
    "verbose": False,
    "retries": 0,
    "retry_sent": False,
}


# host:port:address:port; each may be empty, and an IPv6 address stands in brackets.
_NAME = r"(?:\[[0-9A-Fa-f:.]+\]|[^\s:\[\]/]*)"
RULE = re.compile(f"{_NAME}:([0-9]{{0,5}}):{_NAME}:([0-9]{{0,5}})")


REFUSED_ON_WINDOWS = {
    "--connect-to": "not available on Windows, which connects to a host's own address",
    "--ca-file": "not available on Windows, which has its own store of trusted CAs",
    "--verbose": "not available on Windows, where the registry switches the trace on (see docs/tracing.md)",
}


class Refusal(argparse.Action):
    """Refuses an option, with or without a value, for the reason in ``const``."""

    def __call__(self, *_arguments: Any) -> NoReturn:
        raise argparse.ArgumentError(self, self.const)


def add_common_options(parser: argparse.ArgumentParser, takes_host: bool = True) -> None:
    """Adds the options that may come before or after the subcommand; DEFAULTS holds their defaults."""
    group = parser.add_argument_group("common options", argument_default=argparse.SUPPRESS)
    if takes_host:
        group.add_argument("--host", type=host_name,
                           help="host of the service, e.g. www.kestrelhub.example (default: found by detection)")
    if sys.platform == "win32":
        for name, reason in REFUSED_ON_WINDOWS.items():
            group.add_argument(name, action=Refusal, const=reason, nargs="?", help=argparse.SUPPRESS)
    else:
        group.add_argument("--connect-to", metavar="LIST", type=connect_rules,
                           help="redirect connections: comma-separated rules host:port:address:port, "
                           "e.g. www.kestrelhub.example:443:127.0.0.1:8443")
        group.add_argument("--ca-file", metavar="FILE", type=certificates_file,
                           help="PEM file of trusted CAs, e.g. company-ca.pem (default: the system's)")
        group.add_argument("--verbose", action="store_true", help="print the module's trace on standard error")
    group.add_argument("--version-name", metavar="TEXT",
                       help=f"product version to report, e.g. 10.5 (default: {DEFAULTS['version_name']})")
    group.add_argument("--version-type", metavar="TEXT",
                       help=f"version type to report, e.g. Trial (default: {DEFAULTS['version_type']})")
    group.add_argument("--uuid", help="installation UUID to report, e.g. 4d0f2c1e-6a55-4a0e-9d7e-0c5b8f6f7a10 "
                       "(default: derived from the host name)")
    group.add_argument("--json", action="store_true", help="print the result, or the failure, as one JSON object")
    group.add_argument("--retries", metavar="N", type=_count, help="try again up to N times, after 1, 2, 4... s, if "
                       "that can do nothing twice, e.g. --retries 5 (default: 0)")
    group.add_argument("--quiet", action="store_true", help="print no progress on standard error, only failures")


def add_command(subparsers: Any, name: str, run: Command, text: str, examples: Sequence[str],
                fields: Mapping[str, str], takes_host: bool = True) -> Parser:
    """Adds a subcommand with examples of its arguments, and the meaning of each field that it prints as JSON. Returns
    its parser, for further options."""
    lines = tuple(f"skiffhost {name} {example}".rstrip() for example in examples)
    parser: Parser = subparsers.add_parser(name, help=text, description=text[0].upper() + text[1:] + ".",
                                           epilog="examples:\n  " + "\n  ".join(lines))
    parser.examples = lines
    parser.fields = fields
    parser.set_defaults(run=run, takes_host=takes_host)
    add_common_options(parser, takes_host)
    return parser


def add_login_options(parser: argparse.ArgumentParser, positional: bool = False) -> None:
    """Adds what a login needs: the user, as an option and perhaps as an argument too, and a source of the password."""
    if positional:
        parser.add_argument("named", metavar="user", nargs="?", help="the same as --user, e.g. mika")
    parser.add_argument("--user", help="account of the member, e.g. mika (default: $SKIFFHOST_USER)")
    parser.add_argument("--password-file", metavar="FILE", help="file whose first line is the password, e.g. "
                        "~/.skiffhost-password; - is standard input (default: $SKIFFHOST_PASSWORD, or a prompt)")


def _count(text: str) -> int:
    if not re.fullmatch("[0-9]{1,6}", text):
        raise argparse.ArgumentTypeError(f"not a number of times: {shlex.quote(text)}")
    return int(text)


def host_name(text: str) -> str:
    if not re.fullmatch(r"[^\s/@]+", text):
        raise argparse.ArgumentTypeError(f"not the name of a host: {shlex.quote(text)}")
    return text


def connect_rules(text: str) -> str:
    for rule in text.split(","):
        match = RULE.fullmatch(rule)
        if match is None or any(int(port or 0) > 65535 for port in match.groups()):
            raise argparse.ArgumentTypeError(f"not a rule host:port:address:port: {shlex.quote(rule)}")
    return text


def certificates_file(path: str) -> str:
    if not os.path.isfile(path):
        raise argparse.ArgumentTypeError(f"no such file: {path}" if not os.path.exists(path) else f"not a file: {path}")
    import ssl  # takes long, and only this option needs it

    try:
        ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT).load_verify_locations(path)
    except ssl.SSLError as error:
        raise argparse.ArgumentTypeError(f"no PEM certificate in {path}") from error
    except OSError as error:
        raise argparse.ArgumentTypeError(f"cannot read {path}: {error.strerror}") from error
    return path
