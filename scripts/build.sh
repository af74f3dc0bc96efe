#!/usr/bin/env bash
# Configures and builds the project into ${ZRUI_BUILD_DIR:-build}. Used by
# run.sh, test.sh and the CI script; extra arguments go to the CMake
# configure step, ZRUI_BUILD_TARGET names one target to build instead of all.
# Every build type gets the same optimised, hardened flags (see
# cmake/ZruiCommon.cmake); None adds no flags of its own.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZRUI_BUILD_DIR:-$here/build}"
jobs="$(nproc 2>/dev/null || echo 2)"

cmake -S "$here" -B "$build" -DCMAKE_BUILD_TYPE="${CMAKE_BUILD_TYPE:-None}" "$@"
cmake --build "$build" -j"$jobs" ${ZRUI_BUILD_TARGET:+--target "$ZRUI_BUILD_TARGET"}
