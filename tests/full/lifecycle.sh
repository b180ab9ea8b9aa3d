#!/usr/bin/env bash
# Ends of threads, processes and peers at every moment (tests/lifecycle) with the module of SKIFFPORT_TREE. CTest runs it
# in each build: ctest --test-dir build/asan -R lifecycle. LIFECYCLE_SEED, which each run prints, repeats its choices.
set -euo pipefail
export LIFECYCLE_ROUNDS=${LIFECYCLE_ROUNDS:-$([[ ${LIFECYCLE_PRELOAD-} ]] && echo 6 || echo 24)}
exec timeout -k 10 240 /usr/bin/python3 -B "$(dirname "$0")/../lifecycle/lifecycle_test.py"
