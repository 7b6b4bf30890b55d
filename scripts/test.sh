#!/usr/bin/env bash
# Installs what is needed, builds from scratch and runs every test.
#   scripts/test.sh                 the whole suite
#   BUILD_DIR=... scripts/test.sh   another build folder
#   CTEST_ARGS="-R vpn" scripts/test.sh
set -euo pipefail
cd "$(dirname "$0")/.."
bash scripts/setup-deps.sh
BUILD_DIR=${BUILD_DIR:-build/ci}
rm -rf "$BUILD_DIR"
cmake -S . -B "$BUILD_DIR" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPELORIN_WERROR=ON ${CMAKE_ARGS:-}
cmake --build "$BUILD_DIR" -j "$(nproc)"
cd "$BUILD_DIR"
ctest --output-on-failure -j "$(nproc)" ${CTEST_ARGS:-}
