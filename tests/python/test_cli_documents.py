"""The man page and the shells' completions that the build makes of the command line's parser."""

import os
import pathlib
import shlex
import shutil
import subprocess

import common

from skiffhost.__main__ import make_parser
from skiffhost.parser import command_parsers, option_names

FOLDER = pathlib.Path(os.environ["SKIFFPORT_TREE"]).parent / "host"
# How each shell is asked what may follow a line.
SHELLS = {
    "bash": ("skiffhost.bash", """source $0; COMP_WORDS=($1) COMP_CWORD=$((${#COMP_WORDS[@]} - 1)); compopt() { :; }
                                  _skiffhost; echo "${COMPREPLY[*]}" """),
    "fish": ("skiffhost.fish", "source $argv[1]; complete -C $argv[2] | cut -f 1"),
}


class DocumentsTest(common.Case):
    def test_they_name_everything_and_every_example_parses(self):
        parser = make_parser()
        commands = command_parsers(parser)
        words = {*commands, *(name for each in (parser, *commands.values()) for name in option_names(each))}
        words -= {"-h", "--help"}
        for name in ("skiffhost.1", "skiffhost.bash", "_skiffhost", "skiffhost.fish"):
            text = (FOLDER / name).read_text("utf-8").replace("\\-", "-").replace(" -l ", " --")
            self.assertEqual([word for word in words if word not in text], [], name)
        for command in commands.values():
            self.assertTrue(command.examples and command.fields, command.prog)
            for example in command.examples:
                parser.parse_args([word for word in shlex.split(example)[1:] if not word.startswith("<")])
            self.assertEqual([action.dest for action in command._actions
                              if action.nargs != 0 and not action.choices and "e.g. " not in action.help], [])

    def test_the_man_page_and_completions_work(self):
        page = subprocess.run(["groff", "-man", "-Tutf8", "-ww", str(FOLDER / "skiffhost.1")], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT) if shutil.which("groff") else None
        self.assertNotIn("warning", page.stdout.decode() if page else "")
        cases = [("skiffhost ca", "categories"), ("skiffhost --vers", "--version --version-name --version-type"),
                 ("skiffhost --json publish --ti", "--timeout --title"), ("skiffhost login --sh", "--show-token"),
                 ("skiffhost publish --progress l", "lines"), ("skiffhost --ca-file /etc/hostn", "/etc/hostname")]
        for shell, (file, script) in SHELLS.items():
            for line, expected in cases if shutil.which(shell) else ():
                found = subprocess.check_output([shell, "-c", script, str(FOLDER / file), line]).decode()
                self.assertEqual(sorted(found.split()), expected.split(), (shell, line))
        if shutil.which("zsh"):
            subprocess.run(["zsh", "-n", str(FOLDER / "_skiffhost")], check=True)
