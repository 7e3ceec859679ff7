#!/usr/bin/env bash
# The long crash run: qmsync killed with SIGKILL at random moments of syncs,
# repairs and era transitions, the data directory checked after each kill
# (ctest runs 20 such trials). Prints the trials, the kill points reached and
# the violations; exits 1 when there is any.
# Usage: bench/crash_long.sh [trials, default 200] [seed]
# Build directory: $QMSYNC_BUILD_DIR, default build in the checkout.
set -euo pipefail
cd "$(dirname "$0")/.."

trials="${1:-200}"
build="${QMSYNC_BUILD_DIR:-build}"
scripts/setup-debian.sh
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo > /dev/null
cmake --build "$build" --target qmsync qmsync_crash_trials --parallel "$(nproc)"
args=(--trials "$trials")
[ $# -lt 2 ] || args+=(--seed "$2")
"$build/tests/qmsync_crash_trials" "${args[@]}"
