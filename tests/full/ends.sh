#!/usr/bin/env bash
# Ends of threads, processes and peers at every moment (tests/ends) with the module of the release build, beside a short
# soak, then with that of the ASan and the TSan build. Takes some three minutes, without the builds.
#
# Usage: tests/full/ends.sh [release|asan|tsan]...
# ENDS_SEED, which each run prints, repeats its choices.
set -euo pipefail
[[ ${1-} != -* ]] || { sed -n '2,/^[^#]/s/^# \{0,1\}//p' "$0" && exit; }
cd "$(dirname "$0")/../.."
scripts/setup --for test
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

build() { # PRESET
  scripts/build "$1" -DSKIFFPORT_PYTHONS=/usr/bin/python3 >"$work/log" 2>&1 || { cat "$work/log" && exit 1; }
}
# ends PRESET ROUNDS [VARIABLE=VALUE]...: runs the tests with that build.
ends() {
  echo "== $1"
  env SKIFFPORT_TREE="$PWD/build/$1/python" ENDS_ROUNDS="$2" "${@:3}" \
    timeout -k 10 240 /usr/bin/python3 -B tests/ends/ends_test.py
}
library() { g++ -print-file-name="lib$1.so"; }

run_release() { # the soak mostly waits, so both run at once
  local soak
  scripts/soak 1 --build build/release >"$work/soak" 2>&1 &
  soak=$!
  ends release 24 || failed=1
  echo '== soak'
  wait "$soak" || failed=1
  tail -n 8 "$work/soak"
}
run_asan() {
  ends asan 6 ENDS_PRELOAD="$(library asan) $(library ubsan)" PYTHONMALLOC=malloc \
    ASAN_OPTIONS=detect_stack_use_after_return=1:leak_check_at_exit=0 UBSAN_OPTIONS=halt_on_error=1 || failed=1
}
# Debian's interpreter is not instrumented, but its locks go through the preloaded library, the GIL among them: what the
# module does is checked, and what the interpreter does is in order with it.
run_tsan() {
  ends tsan 6 ENDS_PRELOAD="$(library tsan)" \
    TSAN_OPTIONS="die_after_fork=0:second_deadlock_stack=1:suppressions=$PWD/tests/ends/tsan.supp" || failed=1
}

runs=("$@")
((${#runs[@]})) || runs=(release asan tsan)
for run in "${runs[@]}"; do
  build "$run"
  "run_$run"
done
exit "$failed"
