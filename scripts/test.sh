#!/usr/bin/env bash
# Everything the test suite needs, from a fresh Debian machine: packages,
# configure, build, and every test under ctest.
set -euo pipefail
cd "$(dirname "$0")/.."

scripts/setup-debian.sh
build="${QMSYNC_BUILD_DIR:-build}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
cmake --build "$build" --parallel "$(nproc)"
ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" --timeout 300
