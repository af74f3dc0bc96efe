#!/bin/sh
# Runs a command against a headless weston of its own (private runtime
# directory, Wayland socket waited for with a deadline), then stops it.
d=$(mktemp -d) || exit 1
export XDG_RUNTIME_DIR="$d" WAYLAND_DISPLAY=wayland-zrui QT_QPA_PLATFORM=wayland
weston --backend=headless-backend.so --socket=wayland-zrui --idle-time=0 >"$d/weston.log" 2>&1 &
weston=$!
tries=0
while [ ! -S "$d/wayland-zrui" ] && [ $tries -lt 200 ]; do
  tries=$((tries + 1))
  sleep 0.05
done
[ -S "$d/wayland-zrui" ] || { cat "$d/weston.log" >&2; kill $weston; rm -rf "$d"; exit 1; }
"$@"
rc=$?
kill $weston
wait $weston 2>/dev/null
rm -rf "$d"
exit $rc
