#!/usr/bin/env bash
# Runs the README's commands as a newcomer would type them.
set -euo pipefail
cd "$(dirname "$0")/../.."

scripts/demo
example=$(mktemp --suffix=.py)
trap 'rm -f "$example"' EXIT
sed -n '/^```python/,/^```/p' README.md | sed '/^```/d' >"$example"
scripts/with-standin /usr/bin/python3 "$example" README.md
