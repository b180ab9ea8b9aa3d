"""How a command ends: a result to print, or a failure with its exit code. Knows nothing of the service."""

from __future__ import annotations

import json
import sys
import unicodedata
from typing import Any, Dict, List, NamedTuple

EXIT_OK, EXIT_REFUSED, EXIT_USAGE, EXIT_NO_ANSWER, EXIT_CANCELLED = 0, 1, 2, 3, 130  # 130 as after Ctrl-C
EXIT_CODES = {
    EXIT_OK: "success",
    EXIT_REFUSED: "the service refused",
    EXIT_USAGE: "wrong arguments or files, nothing was sent",
    EXIT_NO_ANSWER: "no valid answer",
    EXIT_CANCELLED: "cancelled",
}


class Failure(Exception):
    """Ends a command with a message for the user and an exit code."""

    def __init__(self, exit_code: int, text: str) -> None:
        super().__init__(text)
        self.exit_code = exit_code
        self.text = text


class Result(NamedTuple):
    """What a command found out: lines for people, values for programs."""

    lines: List[str]
    values: Dict[str, Any]


def printable(text: str) -> str:
    """Returns the text without anything that could control a terminal."""
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
    """Writes the failure to standard error and, as JSON, to standard output. Returns the exit code."""
    print(f"skiffhost: {printable(failure.text)}", file=sys.stderr)
    if as_json:
        print(json.dumps({"ok": False, "error": failure.text, "exit_code": failure.exit_code}))
    return failure.exit_code
