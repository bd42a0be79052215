#!/usr/bin/env bash
# Installs the built library into a temporary prefix, builds the example
# consumer against it with find_package, and runs it on a certificate and a CRL.
set -euo pipefail
BUILD=$1
SOURCE=$2
CERT=$3
CRL=$4
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
cmake --install "$BUILD" --prefix "$WORK/prefix" >/dev/null
test -f "$WORK/prefix/lib/pkgconfig/quillon32.pc" || test -f "$WORK/prefix/lib/x86_64-linux-gnu/pkgconfig/quillon32.pc"
cmake -S "$SOURCE/examples/consumer" -B "$WORK/build" -G Ninja \
  -DCMAKE_PREFIX_PATH="$WORK/prefix" -DCMAKE_BUILD_TYPE=Release >/dev/null
cmake --build "$WORK/build"
LIBDIR=$(dirname "$(find "$WORK/prefix" -name 'libquillon32.so.1' | head -1)")
LD_LIBRARY_PATH="$LIBDIR" "$WORK/build/inspect" "$CERT"
LD_LIBRARY_PATH="$LIBDIR" "$WORK/build/inspect" "$CRL"
