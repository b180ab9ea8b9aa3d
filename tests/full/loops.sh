#!/usr/bin/env bash
# Uploads in the event loops of real toolkits, without a screen: the attachments, one process per loop; the snippets of
# the docs; and the examples, with the window in each state that has a screenshot. Prints unittest's output.
# SKIFFPORT_TREE names a tree other than build/release/python.
set -euo pipefail
cd "$(dirname "$0")/../.."
scripts/setup --for full
export SKIFFPORT_TREE=${SKIFFPORT_TREE:-$PWD/build/release/python} QT_QPA_PLATFORM=offscreen
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export XDG_RUNTIME_DIR=$work
failed=0

# part NAME COMMAND...: runs a part on its own display, and continues with the next one if it fails.
part() {
  echo "== $1"
  timeout -k 10 300 xvfb-run -a "${@:2}" || { echo "FAILED: $1" && failed=1; }
}

for loop in asyncio PyQt6 PyQt5 PySide2 GLib GLib-context Tk; do
  part "$loop" /usr/bin/python3 -B -X faulthandler tests/full/loops_test.py "$loop"
done
part 'PyQt6 without GLib' env QT_NO_GLIB=1 /usr/bin/python3 -B -X faulthandler tests/full/loops_test.py PyQt6
part 'snippets of the docs' env SKIFFPORT_TOOLKITS=1 PYTHONPATH="$SKIFFPORT_TREE" /usr/bin/python3 -B tests/python/test_docs.py
part 'examples' env PYTHONPATH="$SKIFFPORT_TREE" /usr/bin/python3 -B tests/full/examples_test.py
exit "$failed"
