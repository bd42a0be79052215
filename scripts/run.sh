#!/usr/bin/env bash
# The main job: installs what is missing, builds the library and the quillon
# tool, and runs the tool on the files in examples/.
set -euo pipefail
ROOT=$(cd "$(dirname "$0")/.." && pwd)
cd "$ROOT"
bash scripts/setup.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build --target quillon
Q=build/tools/quillon
echo "\$ quillon --version"; "$Q" --version
echo "\$ quillon --help";    "$Q" --help

# The example CA certificates: a fresh CA list in a temporary directory,
# filled from the PEM list file and the DER certificates taken from trusted
# lists, then listed.
CADIR=$(mktemp -d)
trap 'rm -rf "$CADIR"' EXIT
echo "\$ quillon --dir \$CADIR ca import examples/ca/quillon-example-cas.pem"
"$Q" --dir "$CADIR" ca import examples/ca/quillon-example-cas.pem
echo "\$ quillon --dir \$CADIR ca add examples/ca/from-trusted-lists/*.cer"
"$Q" --dir "$CADIR" ca add examples/ca/from-trusted-lists/*.cer
echo "\$ quillon --dir \$CADIR ca list"
"$Q" --dir "$CADIR" ca list
