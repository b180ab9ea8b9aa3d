"""How a command ends: a result to print, or a failure with its exit code. Knows nothing of the service."""

from __future__ import annotations

import contextlib
import json
import os
import signal
import sys
import unicodedata
from typing import Any, Dict, List, NamedTuple, NoReturn, Optional

EXIT_OK, EXIT_REFUSED, EXIT_USAGE, EXIT_NO_ANSWER, EXIT_NOT_WRITTEN = range(5)
EXIT_CANCELLED = 130  # as a shell reports a Ctrl-C
EXIT_CODES = {
    EXIT_OK: "success",
    EXIT_REFUSED: "the service refused",
    EXIT_USAGE: "wrong arguments or files, nothing was sent",
    EXIT_NO_ANSWER: "no valid answer",
    EXIT_NOT_WRITTEN: "done, but the output could not be written",
    EXIT_CANCELLED: "cancelled",
}


class Failure(Exception):
    """Ends a command with a message for the user and an exit code.

    ``retry`` is completion.SAFE, or UNSAFE if the service may have done what was asked; None if it is of no use.
    """

    def __init__(self, exit_code: int, text: str, retry: Optional[str] = None,
                 error_number: Optional[int] = None) -> None:
        super().__init__(text)
        self.exit_code = exit_code
        self.text = text
        self.retry = retry
        self.error_number = error_number

    def values(self) -> Dict[str, Any]:
        further = {"retry": self.retry, "error_number": self.error_number}
        return {"ok": False, "error": self.text, "exit_code": self.exit_code,
                **{name: value for name, value in further.items() if value is not None}}


class Result(NamedTuple):
    """What a command found out: lines for people, values for programs. A failure says what is wrong with them."""

    lines: List[str]
    values: Dict[str, Any]
    failure: Optional[Failure] = None


def open_standard_streams() -> None:
    """Opens the standard streams that the process was started without. Each gets the lowest number that is free, its
    own, which no connection can get then. Lets them write any text."""
    for name, mode in (("stdin", "r"), ("stdout", "w"), ("stderr", "w")):
        if getattr(sys, name) is None:
            setattr(sys, name, open(os.devnull, mode, encoding="utf-8"))
    for stream in (sys.stdout, sys.stderr):
        stream.reconfigure(errors="backslashreplace")  # type: ignore[attr-defined]


def discard_unwritten() -> None:
    """Drops what the standard streams hold and cannot write: the interpreter would try again at its exit, complain, and
    end with a code of its own."""
    for stream in (sys.stdout, sys.stderr):
        try:
            stream.flush()
        except OSError:
            with open(os.devnull, "w", encoding="utf-8") as nowhere:
                os.dup2(nowhere.fileno(), stream.fileno())


def printable(text: str) -> str:
    """Returns the text without anything that could control a terminal, start a line or turn the text's direction."""
    return "".join("?" if _is_control(character) else character for character in text)


def _is_control(character: str) -> bool:
    if unicodedata.category(character) in ("Cc", "Cf", "Cs", "Zl", "Zp"):
        return character not in "\u200c\u200d"  # which join letters and emoji
    return False


def print_result(result: Result, as_json: bool) -> int:
    """Writes the result to standard output, and what is wrong with it to standard error. Returns the exit code."""
    if result.failure is not None:
        complain(result.failure.text)
    state: Dict[str, Any] = {"ok": True} if result.failure is None else result.failure.values()
    lines = [json.dumps({**state, **result.values})] if as_json else [printable(line) for line in result.lines]
    return print_lines(lines, EXIT_OK if result.failure is None else result.failure.exit_code)


def print_failure(failure: Failure, as_json: bool) -> int:
    """Writes the failure to standard error and, as JSON, to standard output. Returns the exit code."""
    complain(failure.text)
    return print_lines([json.dumps(failure.values())] if as_json else [], failure.exit_code)


def print_lines(lines: List[str], exit_code: int) -> int:
    """Writes the lines, and what was printed before, to standard output. Returns the exit code to end with."""
    try:
        for line in lines:
            print(line)
        sys.stdout.flush()
    except BrokenPipeError:  # a reader that has seen enough is no news
        if exit_code == EXIT_OK and hasattr(signal, "SIGPIPE"):
            signal.signal(signal.SIGPIPE, signal.SIG_DFL)
            os.kill(os.getpid(), signal.SIGPIPE)  # ends the process as it would have ended one that is not Python's
        return exit_code or EXIT_NOT_WRITTEN
    except OSError as error:
        complain(f"cannot write the output: {error.strerror}")
        return exit_code or EXIT_NOT_WRITTEN
    return exit_code


def end_at_once(failure: Failure, as_json: bool, terminal_reset: str) -> NoReturn:
    """Reports the failure and ends the process. For a signal handler: it may interrupt a write, so it bypasses the
    streams."""
    report = [(2, f"{terminal_reset}skiffhost: {failure.text}\n")]
    if as_json:
        report.append((1, json.dumps(failure.values()) + "\n"))
    for descriptor, text in report:
        with contextlib.suppress(OSError):
            os.write(descriptor, text.encode("utf-8", "backslashreplace"))
    os._exit(failure.exit_code)


def complain(text: str) -> None:
    """Writes the text to standard error, if that can be written."""
    with contextlib.suppress(OSError):
        print(f"skiffhost: {printable(text)}", file=sys.stderr, flush=True)
