#!/bin/sh
# Installs the client kit into a staging prefix and builds the example
# against it through pkg-config and through CMake find_package; the public
# headers must also compile alone in C and in C++.
# Usage: client-kit.sh <build dir> <source dir> <work dir>
set -eu
build=$1 src=$2 work=$3
rm -rf "$work" && mkdir -p "$work"
stage=$work/stage
cmake --install "$build" --prefix "$stage" --component client >/dev/null
cmake --install "$build" --prefix "$stage" --component client-dev >/dev/null
lib=$(ls -d "$stage"/lib*/ | head -n 1)
test -f "$stage/include/zrui/client.h"
for h in client protocol; do
    printf '#include <zrui/%s.h>\nint main(void){return ZRUI_OK*0+UI_OK+REQ_MessageBox*0;}\n' "$h" \
        | sed 's/ZRUI_OK\*0+//' >"$work/alone_$h.c"
    cc -std=c99 -Wall -Werror -pedantic -c -I"$stage/include" "$work/alone_$h.c" -o "$work/a.o"
    c++ -std=c++17 -Wall -Werror -x c++ -c -I"$stage/include" "$work/alone_$h.c" -o "$work/b.o"
done
PKG_CONFIG_PATH=$lib/pkgconfig
export PKG_CONFIG_PATH
# The .pc names the configured prefix; point it at the staging copy.
flags=$(pkg-config --define-variable=prefix="$stage" --define-variable=libdir="$lib" \
        --define-variable=includedir="$stage/include" --cflags --libs zrui-client)
cc -Wall -Werror "$src/examples/verify-pin/verify_pin.c" $flags -o "$work/verify_pin_pc"
cmake -S "$src/examples/verify-pin" -B "$work/example" -DCMAKE_PREFIX_PATH="$stage" >/dev/null
cmake --build "$work/example" >/dev/null
for exe in "$work/verify_pin_pc" "$work/example/verify_pin"; do
    # No server under this name: the example must run and report just that.
    if LD_LIBRARY_PATH=$lib "$exe" zrui-kit-nosuch-server 2>"$work/err"; then exit 1; fi
    grep -q "ZRUI_E_NOSERVER" "$work/err" || { cat "$work/err"; exit 1; }
done
echo "client kit: pkg-config and find_package builds run"
