#!/usr/bin/env bash
# One command from a fresh Debian 12 machine to a running ZRUIServer on the
# stand-in token stack: installs the packages, builds, starts the server and
# walks through the demo with the command-line client. Without a display it
# says so and uses Qt's offscreen platform.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZRUI_BUILD_DIR:-$here/build}"

"$here/scripts/install-deps.sh"
ZRUI_BUILD_DIR="$build" "$here/scripts/build.sh" -DZRUI_BUILD_TESTS=OFF

bin="$build/bin"
interactive=1
if [ -z "${DISPLAY:-}" ] && [ -z "${WAYLAND_DISPLAY:-}" ]; then
  echo "run: no display found (DISPLAY is not set): using Qt's offscreen platform;"
  echo "run: the dialogs are drawn off screen and only the steps that need no person run."
  export QT_QPA_PLATFORM=offscreen
  interactive=0
fi

name="ZRUIServer"
socket="@${name}$(id -u)"
if grep -q " ${socket}\$" /proc/net/unix 2>/dev/null; then
  echo "run: a ZRUIServer of this user is already listening on ${socket}; stop it first."
  exit 1
fi

cd "$bin"
./ZRUIServer &
server=$!
cleanup() { kill "$server" 2>/dev/null || true; wait "$server" 2>/dev/null || true; }
trap cleanup EXIT INT TERM

for _ in $(seq 1 100); do
  grep -q " ${socket}\$" /proc/net/unix 2>/dev/null && break
  if ! kill -0 "$server" 2>/dev/null; then
    echo "run: ZRUIServer ended during start-up; its log:"
    tail -n 20 /tmp/uilog.txt 2>/dev/null || true
    exit 1
  fi
  sleep 0.1
done
if ! grep -q " ${socket}\$" /proc/net/unix 2>/dev/null; then
  echo "run: ZRUIServer did not start listening within 10 s; its log:"
  tail -n 20 /tmp/uilog.txt 2>/dev/null || true
  exit 1
fi
echo "run: ZRUIServer (pid $server) is listening on the abstract socket ${socket}"
echo "run: log: /tmp/uilog.txt, stand-in token libraries: $build/tokenlib/"

if [ -x "$bin/zrui-cli" ]; then
  if [ "$interactive" = 1 ]; then
    "$bin/zrui-cli" demo || true
  else
    "$bin/zrui-cli" demo --unattended || true
  fi
fi
# The server keeps serving after the demo: drive it from another terminal.
echo "run: ZRUIServer keeps serving on ${socket}; from another terminal, try:"
echo "run:   $bin/zrui-cli pin verify"
echo "run:   $bin/zrui-cli message --title Title_Warning --text PIN_Locked"
echo "run:   $bin/zrui-cli list \"Signing key\" \"Encryption key\""
echo "run: press Ctrl+C to stop the server."
wait "$server" || true
