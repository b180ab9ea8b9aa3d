#!/usr/bin/env bash
# The Windows build, compared with this system under Wine.
exec "$(dirname "$0")/../../scripts/native"
