"""Runs every Python snippet of README and docs unchanged against a stand-in.

The snippets below one heading make one script. A word after "python" names a toolkit that the snippet needs; those run
only where SKIFFPORT_TOOLKITS is set.
"""

import os
import re
import subprocess
import sys
import unittest

import common
import fixtures
from kestrelhub_standin import launch

PAGES = [fixtures.REPOSITORY / "README.md", *sorted((fixtures.REPOSITORY / "docs").glob("*.md"))]
SNIPPET = re.compile(r"^```python *(\w*)\n(.*?)^```", re.MULTILINE | re.DOTALL)


def scripts(page):
    """Yields heading, toolkit and script of each part of a page that has snippets."""
    for part in re.split(r"^#+ ", page.read_text("utf-8"), flags=re.MULTILINE)[1:]:
        snippets = SNIPPET.findall(part)
        if snippets:
            yield part.split("\n", 1)[0], snippets[0][0], "\n".join(code for _, code in snippets)


class SnippetsTest(common.StandinCase):
    def test_snippets_run(self):
        fixtures.write_preset(self.scratch / "preset")
        env = {**self.standin.env, "SKIFFHOST_USER": launch.USER, "SKIFFHOST_PASSWORD": launch.PASSWORD}
        count = 0
        for page in PAGES:
            for heading, toolkit, script in scripts(page):
                if toolkit and "SKIFFPORT_TOOLKITS" not in os.environ:
                    continue
                with self.subTest(f"{page.name}: {heading}"):
                    done = subprocess.run([sys.executable, "-B", "-c", script, "preset/effect.bin"], cwd=self.scratch,
                                          env=env, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                          timeout=fixtures.DEADLINE_SECONDS)
                    self.assertEqual(done.returncode, 0, done.stdout.decode())
                    count += 1
        self.assertGreaterEqual(count, 4)


if __name__ == "__main__":
    unittest.main()
