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
