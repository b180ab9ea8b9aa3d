"""An argument parser that says in one line what is wrong, and what was probably meant."""

from __future__ import annotations

import argparse
import re
from typing import Any, Iterable, List, Mapping, NoReturn, Sequence, Tuple

from .outcome import EXIT_USAGE, Failure


class Information(Exception):
    """What --help or --version shows."""


class Parser(argparse.ArgumentParser):
    """Raises Failure instead of printing the usage. ``examples`` and ``fields``, the names and meanings of what
    ``--json`` prints, are there for the documents."""

    examples: Tuple[str, ...] = ()
    fields: Mapping[str, str] = {}

    def __init__(self, **how: Any) -> None:
        super().__init__(formatter_class=argparse.RawDescriptionHelpFormatter, **how)

    def short_usage(self) -> str:
        """Names what must be given, and leaves the other options to the list of them."""
        words = ["[OPTION]..."]
        for action in self._actions:
            name = str(action.metavar or action.dest)
            if action.option_strings:
                words += [f"{action.option_strings[0]} {name}"] if action.required else []
            else:
                words.append(f"[{name}]" if action.nargs == "?" else name)
        return " ".join([self.prog, *words])

    def format_help(self) -> str:
        self.usage = self.short_usage()
        return super().format_help()

    def _print_message(self, message: str, _file: Any = None) -> NoReturn:
        raise Information(message.rstrip("\n"))

    def error(self, message: str) -> NoReturn:
        message = re.sub(r"^argument ", "", message)
        message = re.sub(r"^the following arguments are required: ", "missing: ", message)
        if message == "missing: COMMAND":
            message = f"missing a command: {', '.join(command_parsers(self))}"
        raise Failure(EXIT_USAGE, f"{message} (see {self.prog} --help)")

    def parse_known_args(self, args: Any = None, namespace: Any = None) -> Any:
        """Leaves no argument for others. An unknown option is reported first: it may be why another one is missing."""
        if args is not None:
            self._check_options(args)
        known, extra = super().parse_known_args(args, namespace)
        if extra:
            self.error(f"unexpected argument: {extra[0]}; a value with blanks needs quotation marks")
        return known, extra

    def _check_options(self, words: Sequence[str]) -> None:
        names = option_names(self)
        commands = command_parsers(self)
        for word in words:
            if word == "--" or word in commands:  # what follows a command is for its own parser
                return
            name = word.split("=")[0]
            if re.match(r"-[^\d.\s]\S*$", name) and not any(known.startswith(name) for known in names):
                self.error(f"unknown option: {name}{did_you_mean(name, names)}")

    def _check_value(self, action: argparse.Action, value: Any) -> None:
        if action.choices is not None and value not in action.choices:
            choices = [str(choice) for choice in action.choices]
            advice = f"; choose from {', '.join(choices)}"
            if action.option_strings:
                self.error(f"{action.option_strings[0]}: unknown value: {value}{advice}")
            self.error(f"unknown command: {value}{did_you_mean(value, choices) or advice}")


def option_names(parser: argparse.ArgumentParser) -> List[str]:
    return [name for action in parser._actions for name in action.option_strings]


def command_parsers(parser: argparse.ArgumentParser) -> Mapping[str, Parser]:
    """Returns the parsers of the subcommands by name."""
    for action in parser._actions:
        if isinstance(action, argparse._SubParsersAction):
            return action.choices
    return {}


def did_you_mean(word: str, known: Iterable[str]) -> str:
    """Returns advice to append to a message, or an empty text."""
    import difflib  # only needed after a mistake

    found = difflib.get_close_matches(word, list(known), 1)
    return f"; did you mean {found[0]}?" if found else ""
