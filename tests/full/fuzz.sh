#!/usr/bin/env bash
# Replays the corpus of each fuzz target, and then fuzzes each for 20 s, under the address, undefined and leak checks.
set -euo pipefail
cd "$(dirname "$0")/../.."
scripts/fuzz
scripts/fuzz --no-install --jobs 2 all 20
