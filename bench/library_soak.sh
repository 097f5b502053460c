#!/bin/sh
# Longer run of the random-kill crash test of library files: a child process
# does random operations on a library and is killed at a random moment; the
# library must then pass verify and hold the contents after the operations
# the child finished (or the one after). Not part of ctest.
#   bench/library_soak.sh BUILD_DIR [ROUNDS]     (default 500 rounds)
set -eu
build=${1:?usage: $0 BUILD_DIR [ROUNDS]}
rounds=${2:-500}
prog="$build/tests/test_library"
[ -x "$prog" ] || { echo "$prog not found: build the test_library target first" >&2; exit 2; }
ZBSHR_CRASH_ROUNDS=$rounds ZBSHR_MSGBOX=cancel \
  exec "$prog" --gtest_filter='Crash.RandomKillsLeaveAStateTheOperationsPassedThrough'
