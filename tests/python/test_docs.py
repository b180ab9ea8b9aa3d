"""Runs every Python snippet of README and docs unchanged against a stand-in, in the pages' order and in one folder.

The snippets below one heading make one script. A file name after "python" says that a snippet is to be saved as that
file; another word names a toolkit that the snippet needs: those run only where SKIFFPORT_TOOLKITS is set.
`test_docs.py FOLDER` writes every snippet of the pages, for a type checker.
"""

import os
import pathlib
import re
import subprocess
import sys

REPOSITORY = pathlib.Path(__file__).resolve().parents[2]
PAGES = [REPOSITORY / "README.md", *sorted((REPOSITORY / "docs").glob("*.md"))]
SNIPPET = re.compile(r"^```python *([\w.]*)\n(.*?)^```", re.MULTILINE | re.DOTALL)


def scripts(page):
    """Yields heading, toolkit or file name, and code of each part of a page that has snippets."""
    for part in re.split(r"^#+ ", page.read_text("utf-8"), flags=re.MULTILINE)[1:]:
        heading, snippets = part.split("\n", 1)[0], SNIPPET.findall(part)
        yield from ((heading, kind, code) for kind, code in snippets if "." in kind)
        code = [code for kind, code in snippets if "." not in kind]
        if code:
            yield heading, snippets[0][0], "\n".join(code)


if __name__ == "__main__" and sys.argv[1:] and os.path.isdir(sys.argv[1]):
    for page in PAGES:
        for number, (_, kind, code) in enumerate(scripts(page)):
            name = kind if "." in kind else f"{page.stem.replace('-', '_').lower()}_{number}.py"
            pathlib.Path(sys.argv[1], name).write_text(code, "utf-8")
    sys.exit()

import common  # noqa: E402
import fixtures  # noqa: E402
from kestrelhub_standin import launch  # noqa: E402


class SnippetsTest(common.StandinCase):
    def test_snippets_run(self):
        env = {**self.standin.env, "SKIFFHOST_USER": launch.USER, "SKIFFHOST_PASSWORD": launch.PASSWORD}
        count = 0
        for page in PAGES:
            for heading, kind, code in scripts(page):
                script = self.scratch / (kind if "." in kind else "example.py")
                script.write_text(code, "utf-8")
                if "." in kind or kind and "SKIFFPORT_TOOLKITS" not in os.environ:
                    continue
                published = len(self.standin.presets())
                with self.subTest(f"{page.name}: {heading}"):
                    done = subprocess.run([sys.executable, "-B", str(script), str(PAGES[0])], cwd=self.scratch, env=env,
                                          stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                          timeout=fixtures.DEADLINE_SECONDS)
                    found = (done.returncode, len(self.standin.presets()) - published, b"Traceback" in done.stdout)
                    publishes = "publish(" in code or "uploader" in code
                    self.assertEqual(found, (0, publishes, False), done)
                    count += 1
        self.assertGreaterEqual(count, 6)
