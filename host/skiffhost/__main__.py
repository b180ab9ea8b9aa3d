"""The command line, ``python3 -m skiffhost``: parses it, runs one subcommand and prints its result or its failure."""

from __future__ import annotations

import _signal  # type: ignore[import]

_on_interrupt = _signal.getsignal(_signal.SIGINT)
if callable(_on_interrupt):
    _signal.signal(_signal.SIGINT, _signal.SIG_DFL)  # a Ctrl-C during the imports ends the process without a traceback

import argparse
import signal
import sys
import time
from typing import List, Optional

from . import __version__
from .commands import GROUPS
from .commands.options import DEFAULTS, add_common_options
from .completion import SAFE, UNSAFE
from .outcome import (EXIT_CANCELLED, EXIT_CODES, EXIT_OK, EXIT_USAGE, Failure, Result, complain, discard_unwritten,
                      open_standard_streams, print_failure, print_lines, print_result)
from .parser import Information, Parser

if callable(_on_interrupt):
    _signal.signal(_signal.SIGINT, _on_interrupt)

LONGEST_PAUSE_SECONDS = 60


def make_parser() -> Parser:
    codes = "".join(f"\n  {code:<3} {meaning}" for code, meaning in EXIT_CODES.items())
    parser = Parser(prog="skiffhost", description="Use Kestrelhub from the command line.",
                    epilog=f"exit codes:{codes}\n\n'skiffhost COMMAND --help' shows a command's options and examples.")
    parser.set_defaults(**DEFAULTS)
    parser.add_argument("--version", action="version", version=f"skiffhost {__version__}",
                        help="show the version, e.g. 'skiffhost --version', and exit")
    add_common_options(parser)
    subparsers = parser.add_subparsers(metavar="COMMAND", required=True)
    for group in GROUPS:
        group.register(subparsers)
    return parser


def main(argv: Optional[List[str]] = None) -> int:
    """Runs the command and returns its exit code, with which the process must end."""
    words = sys.argv[1:] if argv is None else argv
    as_json = any(len(word) > 2 and "--json".startswith(word) for word in words)  # holds for faulty arguments, too
    try:
        open_standard_streams()
        arguments = make_parser().parse_args(words)
        if arguments.quiet and arguments.verbose:
            raise Failure(EXIT_USAGE, "--quiet and --verbose cannot be combined")
        if arguments.host is not None and not arguments.takes_host:
            raise Failure(EXIT_USAGE, "this command has no use for --host")
        return print_result(_run(arguments), arguments.json)
    except Information as information:
        return print_lines([str(information)], EXIT_OK)
    except Failure as failure:
        return print_failure(failure, as_json)
    except KeyboardInterrupt:
        return print_failure(Failure(EXIT_CANCELLED, "cancelled"), as_json)
    finally:
        discard_unwritten()
        if signal.getsignal(signal.SIGINT) == signal.default_int_handler:
            signal.signal(signal.SIGINT, signal.SIG_DFL)  # nothing is left that a Ctrl-C would leave behind


def _run(arguments: argparse.Namespace) -> Result:
    """Runs the command until it succeeds or may not be tried again."""
    allowed = (SAFE, UNSAFE) if arguments.retry_sent else (SAFE,)
    for attempt in range(arguments.retries):
        result = _attempt(arguments)
        if result.failure is None or result.failure.retry not in allowed:
            return result
        seconds = min(2**attempt, LONGEST_PAUSE_SECONDS)
        complain(f"{result.failure.text}; trying again in {seconds} s")
        time.sleep(seconds)
    return _attempt(arguments)


def _attempt(arguments: argparse.Namespace) -> Result:
    try:
        return arguments.run(arguments)  # type: ignore[no-any-return]
    except Failure as failure:
        return Result([], {}, failure)


if __name__ == "__main__":
    sys.exit(main())
