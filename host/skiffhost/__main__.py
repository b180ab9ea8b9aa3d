"""The command line, ``python3 -m skiffhost``: parses it, runs one subcommand and prints its result or its failure."""

from __future__ import annotations

import argparse
import os
import sys
from typing import List, Optional

from . import __version__
from .commands import GROUPS
from .commands.options import DEFAULTS, add_common_options
from .outcome import EXIT_CANCELLED, EXIT_CODES, Failure, print_failure, print_result


def make_parser() -> argparse.ArgumentParser:
    codes = "; ".join(f"{code} {meaning}" for code, meaning in EXIT_CODES.items())
    parser = argparse.ArgumentParser(prog="skiffhost", description="Use Kestrelhub from the command line.",
                                     epilog="exit codes: " + codes)
    parser.set_defaults(**DEFAULTS)
    parser.add_argument("--version", action="version", version=f"skiffhost {__version__}")
    add_common_options(parser)
    subparsers = parser.add_subparsers(metavar="COMMAND", required=True)
    for group in GROUPS:
        group.register(subparsers)
    return parser


def main(argv: Optional[List[str]] = None) -> int:
    for stream in (sys.stdout, sys.stderr):
        stream.reconfigure(errors="backslashreplace")  # type: ignore[attr-defined]
    arguments = make_parser().parse_args(argv)
    try:
        return print_result(arguments.run(arguments), arguments.json)
    except Failure as failure:
        return print_failure(failure, arguments.json)
    except KeyboardInterrupt:
        return print_failure(Failure(EXIT_CANCELLED, "cancelled"), arguments.json)
    except BrokenPipeError:  # the reader is gone: nothing can be printed, nor flushed at exit
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
        return 1


if __name__ == "__main__":
    sys.exit(main())
