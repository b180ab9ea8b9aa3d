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
    """Adds the options that may come before or after the subcommand; DEFAULTS holds their defaults."""
    group = parser.add_argument_group("common options", argument_default=argparse.SUPPRESS)
    group.add_argument("--host", help="host of the service (default: found by detection)")
    group.add_argument("--connect-to", metavar="LIST",
                       help="redirect connections: comma-separated rules host:port:address:port")
    group.add_argument("--ca-file", metavar="FILE", help="PEM file of trusted CAs (default: the system's)")
    group.add_argument("--version-name", metavar="TEXT", help=f"product version (default: {DEFAULTS['version_name']})")
    group.add_argument("--version-type", metavar="TEXT", help=f"version type (default: {DEFAULTS['version_type']})")
    group.add_argument("--uuid", help="installation UUID (default: derived from the host name)")
    group.add_argument("--json", action="store_true", help="print the result as one JSON object")


def add_command(subparsers: Any, name: str, run: Command, text: str) -> argparse.ArgumentParser:
    """Adds a subcommand. Returns its parser, for further options."""
    parser: argparse.ArgumentParser = subparsers.add_parser(name, help=text, description=text)
    parser.set_defaults(run=run)
    add_common_options(parser)
    return parser


def add_login_options(parser: argparse.ArgumentParser, user: str = "user", **how: Any) -> None:
    """Adds what a login needs: the user, as an argument or the named option, and a source of the password."""
    parser.add_argument(user, help="account of the member", **how)
    parser.add_argument("--password-file", metavar="FILE", help="file whose first line is the password "
                        "(default: $SKIFFHOST_PASSWORD, or a prompt)")
