#!/usr/bin/env bash
# The sanitizer legs: the whole suite under AddressSanitizer with
# UndefinedBehaviorSanitizer, then the threaded tests under ThreadSanitizer.
# Any report fails the run. Usage: scripts/test-sanitizers.sh [address|thread]...
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/setup-debian.sh

# The tests that run threads: locks, loops, pools and their servers.
threaded='Manager|Coordination|Download|ParallelDownload|WorkerPool|LogCapture|Transport|SyncPass|VerifyRepair|HashCache|ProgressObserver|Qmsync|EraMonitor|Registry|Transition|Cleanup'

legs=("$@")
[ ${#legs[@]} -gt 0 ] || legs=(address thread)
for leg in "${legs[@]}"; do
  build="${QMSYNC_SANITIZER_BUILD_PREFIX:-build}-$leg"
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQMSYNC_SANITIZE="$leg" \
        -DQMSYNC_BUILD_BENCH=OFF
  # The thread leg runs only the GoogleTest suites: it builds nothing else.
  targets=()
  [ "$leg" != thread ] || targets=(--target qmsync_tests qmsync_cli_tests)
  cmake --build "$build" --parallel "$(nproc)" "${targets[@]}"
  case "$leg" in
    address)
      ASAN_OPTIONS=halt_on_error=1:abort_on_error=1:detect_leaks=1 \
      UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
        ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" --timeout 600 ;;
    thread)
      TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp \
        ctest --test-dir "$build" --output-on-failure --parallel "$(nproc)" --timeout 600 -R "^($threaded)" ;;
  esac
done
