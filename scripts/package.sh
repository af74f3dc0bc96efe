#!/usr/bin/env bash
# Builds the Debian packages (zruiserver, libzrui-client0, libzrui-client-dev,
# zrui-cli, zruiserver-tokensim and their -dbgsym) from a copy of the source
# tree in ${ZRUI_BUILD_DIR:-build}/package/, then runs lintian on them.
# Packages: build/package/*.deb. Extra arguments go to dpkg-buildpackage.
set -euo pipefail
here="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"
build="${ZRUI_BUILD_DIR:-$here/build}"
out="$build/package"
version="$(dpkg-parsechangelog -l "$here/debian/changelog" -S Version)"
src="$out/zruiserver-$version"

"$here/scripts/install-deps.sh"

rm -rf "$out"
mkdir -p "$src"
# The tree as it is, without build output or version control.
tar -C "$here" --exclude=./build --exclude=./.git --exclude='./obj-*' -cf - . | tar -C "$src" -xf -

(cd "$src" && dpkg-buildpackage -b -uc -us -j"$(nproc 2>/dev/null || echo 2)" "$@")

echo "package: built in $out:"
ls -1 "$out"/*.deb
lintian --fail-on error,warning --suppress-tags-from-file /dev/null "$out"/*.changes
echo "package: lintian found no errors or warnings"
