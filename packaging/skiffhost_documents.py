#!/usr/bin/env python3
"""Writes the man page of skiffhost and its completions for bash, zsh and fish, all made of the command's own parser.

Usage: skiffhost_documents.py FOLDER
    Writes skiffhost.1, skiffhost.bash, _skiffhost and skiffhost.fish. The package skiffhost must be on PYTHONPATH,
    with its version; it takes no extension module.
"""

import argparse
import pathlib
import re
import shlex
import sys
from typing import Any, Iterator, List, Mapping, Sequence

from skiffhost import __version__
from skiffhost.__main__ import make_parser
from skiffhost.outcome import EXIT_CODES
from skiffhost.parser import Parser, command_parsers, option_names

COMMON = "common options"  # the group of options that every parser has
ENVIRONMENT = {
    "SKIFFHOST_USER": "The member's account, if no argument and no --user names it.",
    "SKIFFHOST_PASSWORD": "The member's password, if no --password-file is given.",
    "SSL_CERT_FILE": "PEM file of trusted CAs; --ca-file replaces it.",
    "SKIFFPORT_CONNECT_TO": "Redirections of connections; --connect-to replaces it.",
    "SKIFFPORT_REGISTRY": "The file that switches the module's trace on; --verbose replaces it.",
    "http_proxy, https_proxy, all_proxy, no_proxy": "Proxies for plain and TLS requests, and hosts that need none.",
    "TERM": "If it is dumb or unset, progress is printed as lines.",
}
FILES = {"/etc/skiffport/registry.reg": "Switches the module's trace on, unless SKIFFPORT_REGISTRY names another."}
SIGNALS = """\
The first Ctrl-C (SIGINT), or SIGTERM, cancels a running upload, and a second one ends the process at once. At any
other time the first one ends it. If all bytes had been sent, the message says that the service may have the preset.
No command has a time limit; timeout(1) gives it one: timeout -k 10 60 skiffhost ... sends SIGTERM after a minute, and
ends the process ten seconds later if a cancelled upload still runs then."""
JSON = """\
With --json every command prints one object. Its field ok is true after success, and the fields named above follow.
After a failure, wrong arguments included, ok is false, error is the message and exit_code the exit code; addresses
adds its fields even then. What was not found is an empty text. A Ctrl-C that ends the process during a request other
than an upload leaves no object."""
PASSWORDS = """\
A password comes from --password-file, else from SKIFFHOST_PASSWORD, else from a prompt on the terminal. It is never an
argument, which other users of the machine could see."""


def main() -> int:
    if len(sys.argv) != 2 or sys.argv[1] in ("--help", "-h"):
        print(__doc__)
        return 0 if sys.argv[1:] in (["--help"], ["-h"]) else 2
    parser = make_parser()
    writers = {"skiffhost.1": man_page, "skiffhost.bash": bash, "_skiffhost": zsh, "skiffhost.fish": fish}
    for name, write in writers.items():
        pathlib.Path(sys.argv[1], name).write_text("\n".join(write(parser)) + "\n", "utf-8")
    return 0


def options_of(parser: Parser, common: bool) -> List[argparse.Action]:
    """Returns the parser's common options, or its own ones, without --help."""
    return [action for group in parser._action_groups if (group.title == COMMON) == common
            for action in group._group_actions if action.option_strings and action.dest != "help"]


def positionals_of(parser: Parser) -> List[argparse.Action]:
    return [action for action in parser._actions if not action.option_strings]


def value_name(action: argparse.Action) -> str:
    """Returns how the option's value is shown; empty if it takes none."""
    if action.nargs == 0:
        return ""
    if action.choices is not None:
        return "|".join(map(str, action.choices))
    return str(action.metavar or (action.dest.upper() if action.option_strings else action.dest))


def help_of(action: argparse.Action) -> str:
    return (action.help or "").replace("%%", "%")


# --- the man page

def roff(text: str) -> str:
    """Escapes a text: what roff would interpret, and hyphens that must stay what was typed."""
    return re.sub(r"^(?=[.'])", r"\\&", text.replace("\\", r"\e").replace("-", r"\-"), flags=re.MULTILINE)


def man_entries(entries: Mapping[str, str]) -> Iterator[str]:
    for name, text in entries.items():
        yield from (".TP", rf"\fB{roff(name)}\fR", roff(text))


def man_options(actions: Sequence[argparse.Action]) -> Iterator[str]:
    for action in actions:
        value = rf"\fI{roff(value_name(action))}\fR"
        name = rf"\fB{roff(action.option_strings[0])}\fR " if action.option_strings else ""
        yield from (".TP", name + (value if action.nargs != 0 else ""), roff(help_of(action)))


def man_command(name: str, parser: Parser) -> Iterator[str]:
    yield from (f'.SS "{name}"', roff(parser.description or ""), ".PP", roff(parser.short_usage()))
    yield from man_options(positionals_of(parser) + options_of(parser, common=False))
    yield from (".PP", "JSON fields:", ".PD 0")
    yield from man_entries(parser.fields)
    yield ".PD"


def man_page(parser: Parser) -> Iterator[str]:
    commands = command_parsers(parser)
    yield '.\\" Generated by skiffhost_documents.py.'
    yield from (f'.TH SKIFFHOST 1 "" "skiffhost {__version__}" "User Commands"', ".SH NAME",
                r"skiffhost \- use Kestrelhub from the command line", ".SH SYNOPSIS",
                r"\fBskiffhost\fR [\fIOPTION\fR]... \fICOMMAND\fR [\fIARGUMENT\fR]...", ".SH DESCRIPTION",
                "Logs members of Kestrelhub in, publishes their presets and makes the service's other requests.",
                "Common options may stand before or after the command.", ".PP", roff(PASSWORDS), ".SH COMMANDS")
    for name, command in commands.items():
        yield from man_command(name, command)
    yield ".SH OPTIONS"
    yield from man_options(options_of(parser, common=True) + options_of(parser, common=False))
    yield from (".SH JSON", roff(JSON), ".SH SIGNALS", roff(SIGNALS), ".SH EXIT STATUS")
    yield from man_entries({str(code): f"{text[0].upper()}{text[1:]}." for code, text in EXIT_CODES.items()})
    yield ".SH ENVIRONMENT"
    yield from man_entries(ENVIRONMENT)
    yield ".SH FILES"
    yield from man_entries(FILES)
    yield from (".SH EXAMPLES", ".nf")
    for command in commands.values():
        yield from map(roff, command.examples)
    yield ".fi"


# --- completions

def bash(parser: Parser) -> Iterator[str]:
    commands = command_parsers(parser)
    common = options_of(parser, common=True)
    every = common + [action for command in commands.values() for action in options_of(command, common=False)]
    files = sorted({name for action in every if value_name(action) == "FILE" for name in action.option_strings})
    texts = sorted({name for action in every if action.nargs != 0 and action.choices is None
                    for name in action.option_strings} - set(files))
    yield "# bash completion for skiffhost. Generated by skiffhost_documents.py."
    yield "_skiffhost() {"
    yield "  local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]} command= words= word"
    yield "  [[ $cur != = ]] || { prev== cur=; COMP_CWORD=$((COMP_CWORD + 1)); }"
    yield "  [[ $prev != = ]] || prev=${COMP_WORDS[COMP_CWORD-2]}"  # --option=value is three words
    yield '  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do'
    yield f"    case $word in {'|'.join(commands)}) command=$word; break ;; esac"
    yield "  done"
    yield "  case $prev in"
    yield f"    {'|'.join(files)})"
    yield "      compopt -o filenames; mapfile -t COMPREPLY < <(compgen -f -- \"$cur\"); return ;;"
    for action in every:
        if action.choices is not None:
            yield f"    {action.option_strings[0]}) words={shlex.quote(' '.join(map(str, action.choices)))} ;;"
    yield f"    {'|'.join(texts)}) return ;;"
    yield "  esac"
    yield "  [[ $words ]] || case $command:$cur in"
    yield f"    :-*) words={shlex.quote(_names(common + options_of(parser, common=False)))} ;;"
    yield f"    :*) words={shlex.quote(' '.join(commands))} ;;"
    for name, command in commands.items():
        options = options_of(command, common=True) + options_of(command, common=False)
        yield f"    {name}:-*) words={shlex.quote(_names(options))} ;;"
        if any(action.dest == "folder" for action in positionals_of(command)):
            yield f"    {name}:*)"
            yield "      compopt -o filenames; mapfile -t COMPREPLY < <(compgen -d -- \"$cur\"); return ;;"
    yield "  esac"
    yield '  mapfile -t COMPREPLY < <(compgen -W "$words" -- "$cur")'
    yield "}"
    yield "complete -F _skiffhost skiffhost"


def _names(actions: Sequence[argparse.Action]) -> str:
    return " ".join([name for action in actions for name in action.option_strings] + ["--help"])


def zsh(parser: Parser) -> Iterator[str]:
    commands = command_parsers(parser)
    yield "#compdef skiffhost"
    yield "# Generated by skiffhost_documents.py."
    yield "local curcontext=$curcontext state line"
    yield "local -a common commands"
    yield "common=("
    yield from _zsh_specs(options_of(parser, common=True))
    yield "  '(- *)--help[show the help]'"
    yield ")"
    yield "commands=("
    for name, command in commands.items():
        yield "  " + shlex.quote(f"{name}:{command.description}")
    yield ")"
    yield "_arguments -C $common \\"
    yield from (f"{line} \\" for line in _zsh_specs(options_of(parser, common=False)))
    yield "  '1:command:->command' '*::argument:->argument'"
    yield "case $state in"
    yield "  command) _describe command commands ;;"
    yield "  argument)"
    yield "    case $words[1] in"
    for name, command in commands.items():
        specs = [*_zsh_specs(options_of(command, common=False)), *_zsh_specs(positionals_of(command))]
        pattern = "|".join(f"{option}=*" for option in _refused(parser, command))
        common = f"${{common:#({pattern})}}" if pattern else "$common"
        yield f"      {name}) _arguments {common}{''.join(specs).replace('  ', ' ')} ;;"
    yield "    esac ;;"
    yield "esac"


def _refused(parser: Parser, command: Parser) -> List[str]:
    """Returns the names of the common options that the command does not take."""
    return [action.option_strings[0] for action in options_of(parser, common=True)
            if action.option_strings[0] not in option_names(command)]


def _zsh_specs(actions: Sequence[argparse.Action]) -> Iterator[str]:
    for action in actions:
        kind = {"FILE": "_files", "folder": "_files -/"}.get(value_name(action), " ")
        if action.dest == "folder":
            kind = "_files -/"
        if action.choices is not None:
            kind = f"({' '.join(map(str, action.choices))})"
        label = value_name(action).replace("|", " or ")
        text = re.sub(r"([\[\]:])", r"\\\1", help_of(action))
        if not action.option_strings:
            yield "  " + shlex.quote(f"{':' if action.nargs == '?' else ''}:{label}:{kind}")
        else:
            value = f"=:{label}:{kind}" if action.nargs != 0 else ""
            yield "  " + shlex.quote(f"{action.option_strings[0]}{value[:1]}[{text}]{value[1:]}")


def fish(parser: Parser) -> Iterator[str]:
    yield "# fish completion for skiffhost. Generated by skiffhost_documents.py."
    yield "complete -c skiffhost -f"
    commands = command_parsers(parser)
    for action in options_of(parser, common=True):
        others = [name for name, command in commands.items() if action.option_strings[0] in _refused(parser, command)]
        yield _fish_option(action, f"not __fish_seen_subcommand_from {' '.join(others)}" if others else "")
    yield "complete -c skiffhost -l help -d 'show the help'"
    yield from (_fish_option(action, "__fish_use_subcommand") for action in options_of(parser, common=False))
    for name, command in commands.items():
        yield f"complete -c skiffhost -n __fish_use_subcommand -a {name} -d {_fish_quote(command.description)}"
        condition = f"__fish_seen_subcommand_from {name}"
        yield from (_fish_option(action, condition) for action in options_of(command, common=False))
        if any(action.dest == "folder" for action in positionals_of(command)):
            yield f"complete -c skiffhost -n {_fish_quote(condition)} -a '(__fish_complete_directories)'"


def _fish_option(action: argparse.Action, condition: str) -> str:
    words = ["complete -c skiffhost"]
    if condition:
        words.append(f"-n {_fish_quote(condition)}")
    words.append(f"-l {action.option_strings[0].lstrip('-')}")
    if action.choices is not None:
        words.append(f"-x -a {_fish_quote(' '.join(map(str, action.choices)))}")
    elif action.nargs != 0:
        words.append("-r -F" if value_name(action) == "FILE" else "-x")
    return " ".join([*words, f"-d {_fish_quote(help_of(action))}"])


def _fish_quote(text: Any) -> str:
    return "'" + str(text).replace("\\", "\\\\").replace("'", "\\'") + "'"


if __name__ == "__main__":
    sys.exit(main())
