#!/usr/bin/env bash
# Builds the library and runs the whole test suite (GoogleTest, JUnit in real JVMs, checks).
set -eu
cd "$(dirname "$0")"
bash tools/deps.sh test
cmake -S . -B build -DKV_BUILD_TESTS=ON | grep -E '^-- Virtual-thread tests' || true
cmake --build build -j"$(nproc)"
cd build
ctest --output-on-failure -j2 -LE long
