"""Options that several subcommands share."""

from __future__ import annotations

import argparse
from typing import Any, Callable, Dict

from ..outcome import Result

Command = Callable[[argparse.Namespace], Result]

DEFAULTS: Dict[str, Any] = {
    "host": None,
    "connect_to": None,
    "ca_file": None,
    "version_name": "1.0.0",
    "version_type": "Retail",
    "uuid": None,
    "json": False,
}


def add_common_options(parser: argparse.ArgumentParser) -> None:
    """Adds the options that stand before or behind the subcommand; their defaults are DEFAULTS."""
    group = parser.add_argument_group("common options", argument_default=argparse.SUPPRESS)
    group.add_argument("--host", help="the service's host, in place of the one that detection finds")
    group.add_argument("--connect-to", metavar="LIST", help="host:port:address:port, comma-separated: connect there")
    group.add_argument("--ca-file", metavar="FILE", help="trusted certificate issuers, in place of the system's")
    group.add_argument("--version-name", metavar="TEXT", help="product version (%s)" % DEFAULTS["version_name"])
    group.add_argument("--version-type", metavar="TEXT", help="version type (%s)" % DEFAULTS["version_type"])
    group.add_argument("--uuid", help="installation uuid (default: derived from this machine's name)")
    group.add_argument("--json", action="store_true", help="write the result as one JSON object")


def add_command(subparsers: Any, name: str, run: Command, text: str) -> argparse.ArgumentParser:
    """Adds a subcommand. Returns its parser, for its own options."""
    parser: argparse.ArgumentParser = subparsers.add_parser(name, help=text, description=text)
    parser.set_defaults(run=run)
    add_common_options(parser)
    return parser


def add_login_options(parser: argparse.ArgumentParser, user: str = "user", **how: Any) -> None:
    """Adds what a login needs: the user as an argument, or as that option; the password is never an argument."""
    parser.add_argument(user, help="the member's account", **how)
    parser.add_argument("--password-file", metavar="FILE", help="file whose first line is the password "
                        "(else $SKIFFHOST_PASSWORD, else a prompt)")
