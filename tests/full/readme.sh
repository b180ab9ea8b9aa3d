#!/usr/bin/env bash
# The README's commands as a newcomer types them, and the docs' snippets that need a toolkit.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/demo
example=$(mktemp --suffix=.py)
trap 'rm -f "$example"' EXIT
sed -n '/^```python/,/^```/p' README.md | sed '/^```/d' >"$example"
scripts/with-standin /usr/bin/python3 "$example" README.md

export SKIFFPORT_TREE=$PWD/build/release/python SKIFFPORT_TOOLKITS=1 QT_QPA_PLATFORM=offscreen
xvfb-run --auto-servernum /usr/bin/python3 -B -m unittest discover -s tests/python -p test_docs.py
