"""How a command ends: a result to print, or a failure with its exit code. Knows nothing of the service."""

from __future__ import annotations

import json
import sys
import unicodedata
from typing import Any, Dict, List, NamedTuple

EXIT_OK = 0
EXIT_REFUSED = 1  # the service answered and said no
EXIT_USAGE = 2  # arguments or files are wrong; nothing was sent
EXIT_NO_ANSWER = 3  # no answer that counts came back
EXIT_CANCELLED = 130  # as after Ctrl-C


class Failure(Exception):
    """Ends a command with a text for the user and an exit code."""

    def __init__(self, exit_code: int, text: str) -> None:
        super().__init__(text)
        self.exit_code = exit_code
        self.text = text


class Result(NamedTuple):
    """What a command found out: lines for a reader, values for a program."""

    lines: List[str]
    values: Dict[str, Any]


def printable(text: str) -> str:
    """The text with nothing in it that could steer a terminal."""
    return "".join("?" if unicodedata.category(character) in ("Cc", "Cs") else character for character in text)


def print_result(result: Result, as_json: bool) -> int:
    """Writes the result to standard output. Returns the exit code."""
    if as_json:
        print(json.dumps({"ok": True, **result.values}))
    else:
        for line in result.lines:
            print(printable(line))
    return EXIT_OK


def print_failure(failure: Failure, as_json: bool) -> int:
    """Writes the failure to standard error, and for a program to standard output. Returns the exit code."""
    print(f"skiffhost: {printable(failure.text)}", file=sys.stderr)
    if as_json:
        print(json.dumps({"ok": False, "error": failure.text, "exit_code": failure.exit_code}))
    return failure.exit_code
