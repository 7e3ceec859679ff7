#!/usr/bin/env bash
# Several qmsync processes on one data directory: each runs a series of syncs
# while the server publishes new versions, then one moves the directory to a
# new era while the others keep syncing. Prints the syncs run, the fetches,
# the files fetched more than once and every failure; exits 1 when any.
# Usage: bench/many_processes.sh [processes, default 4] [syncs each, default 20] [seed]
# Build directory: $QMSYNC_BUILD_DIR, default build in the checkout.
set -euo pipefail
cd "$(dirname "$0")/.."

build="${QMSYNC_BUILD_DIR:-build}"
scripts/setup-debian.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" --target qmsync qmsync_many_processes --parallel "$(nproc)"
args=(--processes "${1:-4}" --syncs "${2:-20}")
[ $# -lt 3 ] || args+=(--seed "$3")
"$build/tests/qmsync_many_processes" "${args[@]}"
