#!/bin/sh
# Runs a command against a headless weston of its own, in a private runtime directory.
d=$(mktemp -d) || exit 1
export XDG_RUNTIME_DIR="$d" WAYLAND_DISPLAY=wayland-zrui QT_QPA_PLATFORM=wayland
weston --backend=headless-backend.so --socket=wayland-zrui --idle-time=0 >"$d/weston.log" 2>&1 &
trap 'kill $!; rm -rf "$d"' EXIT
for _ in $(seq 200); do [ -S "$d/wayland-zrui" ] && break; sleep 0.05; done
[ -S "$d/wayland-zrui" ] || { cat "$d/weston.log" >&2; exit 1; }
"$@"
