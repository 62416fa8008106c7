#!/usr/bin/env bash
# Builds the GoogleTest suite and the core it tests with AddressSanitizer (leaks included) and
# UndefinedBehaviorSanitizer into build-sanitize/, and runs it. Any sanitizer report fails the run.
# Usage: sanitize.sh [extra arguments for kv_unit_tests, e.g. --gtest_filter=Smap.*]
set -eu
root="$(cd "$(dirname "$0")/.." && pwd)"
out="$root/build-sanitize"
bash "$root/tools/deps.sh" test
cmake -S "$root" -B "$out" -DKV_BUILD_TESTS=ON -DKV_SANITIZE=address,undefined -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build "$out" --target kv_unit_tests -j"$(nproc)"
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0:strict_string_checks=1:detect_stack_use_after_return=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
"$out/kv_unit_tests" "$@"
