#!/usr/bin/env bash
# Fails allocations and platform calls for at most four minutes: every call, and of the allocations' stacks those that
# matter most; which others fit changes from day to day. scripts/torture runs them all.
set -euo pipefail
cd "$(dirname "$0")/../.."
scripts/build --tests release >/dev/null
exec scripts/torture --seconds 200
