#!/usr/bin/env bash
# Proves the packages on a clean system (not part of CI; needs root and
# network): debootstraps Debian 12 into DIR, installs build/package/*.deb
# there with apt, starts the server on the stand-in token stack under Xvfb
# and completes a PIN round trip with the installed zrui-cli.
# Usage: scripts/try-on-clean-debian.sh [DIR]   (default build/clean-debian)
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
dir="${1:-$here/build/clean-debian}"
debs=("$here"/build/package/*.deb)
[ -e "${debs[0]}" ] || { echo "try: run scripts/package.sh first"; exit 1; }

if [ ! -x "$dir/usr/bin/apt-get" ]; then
  debootstrap --variant=minbase bookworm "$dir" http://deb.debian.org/debian
fi
mkdir -p "$dir/debs"
cp "${debs[@]}" "$dir/debs/"
for fs in proc sys dev; do mountpoint -q "$dir/$fs" || mount --bind "/$fs" "$dir/$fs"; done
trap 'for fs in dev sys proc; do umount -l "$dir/$fs" 2>/dev/null || true; done' EXIT

chroot "$dir" /bin/sh -ec '
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -q
  apt-get install -y -q --reinstall --no-install-recommends xvfb xauth xdotool \
    $(ls /debs/*.deb | grep -v dbgsym)
  useradd -m tryer 2>/dev/null || true
'
# As an ordinary user: the server under Xvfb, then a PIN typed with xdotool
# into the dialog while zrui-cli waits for it.
chroot "$dir" su - tryer -c '
  set -e
  xvfb-run -a -s "-screen 0 1024x768x24" sh -ec "
    zruiserver-tokensim >/tmp/server.out 2>&1 &
    for i in \$(seq 100); do grep -q \"@ZRUIServer\$(id -u)\\\$\" /proc/net/unix && break; sleep 0.1; done
    (for i in \$(seq 100); do
       w=\$(xdotool search --name \"Verify USBKey password\" 2>/dev/null | head -n1)
       [ -n \"\$w\" ] && break; sleep 0.1; done
     xdotool windowfocus --sync \$w; xdotool type --delay 30 123456; xdotool key Return) &
    zrui-cli --timeout 30 --json pin verify
  "
'
echo "try: PIN round trip on a clean Debian 12 completed"
