#!/usr/bin/env bash
# The CI fuzz leg: builds the libFuzzer targets of tests/fuzz/ with clang
# under AddressSanitizer and UndefinedBehaviorSanitizer, then runs each over
# its seeds for a fixed number of executions. Any finding (crash, sanitizer
# report, broken property, leak, slow input) fails the run; its input is kept
# beside the log. The seeds in the repo are only read.
# Usage: scripts/fuzz-short.sh [executions per target, default 20000]
# Build directory: $QMSYNC_FUZZ_BUILD_DIR, default build-fuzz in the checkout.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/fuzz-common.sh

runs="${1:-20000}"
build_fuzzers "${QMSYNC_FUZZ_BUILD_DIR:-build-fuzz}"

scratch="$(mktemp -d /tmp/qmsync-fuzz-short.XXXXXX)"
failed=0
printf '%-14s %12s %8s %9s\n' target executions seconds findings
for target in "${FUZZ_TARGETS[@]}"; do
  out="$scratch/$target"
  mkdir -p "$out/new"
  # New inputs go to $out/new; the repo's seeds are the second, read-only corpus.
  # A fixed seed keeps the leg deterministic from run to run.
  status=0
  run_fuzzer "$target" "$out" -runs="$runs" -seed=1 "$out/new" "tests/fuzz/corpus/$target" || status=$?
  report_row "$target" "$out" "$status" || failed=1
done

if [ "$failed" -ne 0 ]; then
  echo "fuzz-short: FINDINGS; logs and inputs under $scratch" >&2
  exit 1
fi
rm -rf "$scratch"
echo "fuzz-short: no findings"
