"""The man page and the shells' completions that the build makes of the command line's parser."""

import os
import pathlib
import shlex
import shutil
import subprocess

import common

from skiffhost.__main__ import make_parser
from skiffhost.parser import command_parsers

FOLDER = pathlib.Path(os.environ["SKIFFPORT_TREE"]).parent / "host"
# Asks bash what may follow a line.
BASH = """source $0; COMP_WORDS=(${1/=/ = }) COMP_CWORD=$((${#COMP_WORDS[@]} - 1))
          compopt() { :; }; _skiffhost; echo "${COMPREPLY[*]}" """


class DocumentsTest(common.Case):
    def test_every_example_in_the_man_page_parses(self):
        page = (FOLDER / "skiffhost.1").read_text("utf-8").replace("\\-", "-")
        for command in command_parsers(make_parser()).values():
            for example in command.examples:
                self.assertIn(example, page)
                make_parser().parse_args([word for word in shlex.split(example)[1:] if not word.startswith("<")])
        if shutil.which("groff"):
            page = subprocess.check_output(["groff", "-man", "-Tutf8", "-ww", str(FOLDER / "skiffhost.1")],
                                           stderr=subprocess.STDOUT, env={**os.environ, "LD_PRELOAD": ""})
            self.assertNotIn(b"warning", page)

    def test_the_completions_work(self):
        for line, expected in [
                ("skiffhost ca", "categories"), ("skiffhost --vers", "--version --version-name --version-type"),
                ("skiffhost --json publish --ti", "--title"), ("skiffhost login --ho", "--host"),
                ("skiffhost addresses --ho", ""), ("skiffhost publish --progress l", "lines"),
                ("skiffhost publish --progress=", "auto bar lines none"), ("skiffhost publish --user x /et", "/etc"),
                ("skiffhost --ca-file /etc/hostn", "/etc/hostname")]:
            found = subprocess.check_output(["bash", "-c", BASH, str(FOLDER / "skiffhost.bash"), line]).decode()
            self.assertEqual(sorted(found.split()), expected.split(), line)
        if shutil.which("zsh"):
            subprocess.run(["zsh", "-n", str(FOLDER / "_skiffhost")], check=True)
