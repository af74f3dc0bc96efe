#!/usr/bin/env bash
# Configures and builds the project into ${ZRUI_BUILD_DIR:-build}. Used by
# run.sh and test.sh; extra arguments go to the CMake configure step.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZRUI_BUILD_DIR:-$here/build}"
jobs="$(nproc 2>/dev/null || echo 2)"

cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-None}" "$@"
cmake --build "$build" -j"$jobs"
