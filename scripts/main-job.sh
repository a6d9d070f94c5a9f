#!/usr/bin/env bash
# Installs what is missing, builds brickdisk and runs the main job end to end:
# a buffer stored through the local file system and read back byte for byte.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/install-deps.sh

cmake -S . -B build/release -G Ninja -DCMAKE_BUILD_TYPE=Release -DBRICKDISK_BUILD_TESTS=OFF >/dev/null
cmake --build build/release -j "$(nproc)"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
build/release/examples/store_and_read "$work"
