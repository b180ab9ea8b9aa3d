#!/usr/bin/env bash
# Uploads in the event loops of real toolkits, on a display of their own: the attachments, one process a loop; the
# snippets of the docs; and the examples. SKIFFPORT_TREE names a tree other than build/release/python.
set -euo pipefail
cd "$(dirname "$0")/../.."
scripts/setup --for full
work=$(mktemp -d) failed=0
trap 'rm -rf "$work"' EXIT
export SKIFFPORT_TREE=${SKIFFPORT_TREE:-$PWD/build/release/python} QT_QPA_PLATFORM=offscreen XDG_RUNTIME_DIR=$work
export PYTHONPATH=$SKIFFPORT_TREE SKIFFPORT_TOOLKITS=1
for part in toolkits_test.py\ {asyncio,PyQt6,PyQt5,PySide2,GLib,GLib-context,Tk,examples} ../python/test_docs.py; do
  echo "== $part"
  # shellcheck disable=SC2086
  timeout -k 10 300 xvfb-run -a /usr/bin/python3 -B -X faulthandler tests/full/$part || failed=1
done
QT_NO_GLIB=1 timeout -k 10 300 /usr/bin/python3 -B tests/full/toolkits_test.py PyQt6 || failed=1
exit "$failed"
