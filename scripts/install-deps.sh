#!/usr/bin/env bash
# Installs every Debian 12 package the build, the tests and the demo need.
# Safe to run again: apt-get skips what is already there.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config git
  qtbase5-dev qtbase5-dev-tools qttools5-dev qttools5-dev-tools qt5-gtk-platformtheme
  libqt5svg5
  libssl-dev openssl
  xvfb xauth xdotool x11-utils openbox libxcb1-dev
  dbus-daemon at-spi2-core python3-pyatspi
  fonts-noto-cjk fonts-dejavu-core
  util-linux
  libsystemd-dev systemd
  debhelper dpkg-dev lintian fakeroot debootstrap
  strace
  clang libclang-rt-14-dev
)

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi

missing=()
for p in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$p")
  fi
done

if [ "${#missing[@]}" -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -q
$SUDO apt-get install -y -q --no-install-recommends "${missing[@]}"
