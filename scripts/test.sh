#!/usr/bin/env bash
# One command from a fresh Debian 12 machine to a full test run:
# installs the packages, builds everything and runs the whole suite
# (the real-window tests run under xvfb-run).
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZRUI_BUILD_DIR:-$here/build}"

"$here/scripts/install-deps.sh"
ZRUI_BUILD_DIR="$build" "$here/scripts/build.sh" -DZRUI_BUILD_TESTS=ON

cd "$build"
if [ -n "${ZRUI_FORMAT_CHECK:-}" ]; then
  cmake --build . --target format-check
fi
ctest --output-on-failure -j"${ZRUI_TEST_JOBS:-2}" "$@"
