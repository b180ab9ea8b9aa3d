#!/usr/bin/env bash
# The lifecycle tests with the module of SKIFFPORT_TREE, else of build/release. LIFECYCLE_PRELOAD names a
# sanitizer's libraries; there are fewer exits then. LIFECYCLE_SEED, which each run prints, repeats its choices.
set -euo pipefail
cd "$(dirname "$0")/../.."
export SKIFFPORT_TREE=${SKIFFPORT_TREE:-$PWD/build/release/python}
export LIFECYCLE_ROUNDS=${LIFECYCLE_ROUNDS:-$([[ ${LIFECYCLE_PRELOAD-} ]] && echo 6 || echo 24)}
exec timeout -k 10 240 /usr/bin/python3 -B tests/lifecycle/lifecycle_test.py
