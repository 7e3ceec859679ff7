#!/usr/bin/env bash
# The long fuzz run: the same build as scripts/fuzz-short.sh, then each target
# for many executions (default 10^7) from a scratch copy of its seeds, with a
# fresh random seed. Prints a table; the grown corpora and any finding stay in
# the scratch directory it names.
# Usage: bench/fuzz_long.sh [executions per target] [target...]
# Build directory: $QMSYNC_FUZZ_BUILD_DIR, default build-fuzz in the checkout.
# One input may take QMSYNC_FUZZ_TIMEOUT_S seconds (default 120 here: a long
# run shares the machine, and a starved process is not a hang).
set -euo pipefail
export QMSYNC_FUZZ_TIMEOUT_S="${QMSYNC_FUZZ_TIMEOUT_S:-120}"
cd "$(dirname "$0")/.."
source scripts/fuzz-common.sh

runs="${1:-10000000}"
shift || true
targets=("$@")
[ ${#targets[@]} -gt 0 ] || targets=("${FUZZ_TARGETS[@]}")
build_fuzzers "${QMSYNC_FUZZ_BUILD_DIR:-build-fuzz}"

scratch="$(mktemp -d /tmp/qmsync-fuzz-long.XXXXXX)"
echo "fuzz_long: $runs executions per target; corpora and findings under $scratch"
rows=()
failed=0
for target in "${targets[@]}"; do
  out="$scratch/$target"
  mkdir -p "$out"
  cp -r "tests/fuzz/corpus/$target" "$out/corpus"
  status=0
  run_fuzzer "$target" "$out" -runs="$runs" "$out/corpus" || status=$?
  findings=$(fuzz_findings "$out" "$status")
  [ "$findings" -eq 0 ] || failed=1
  rows+=("$(printf '%-14s %12s %8s %9s %9s' "$target" "$(fuzz_stat "$out" number_of_executed_units)" \
            "$(fuzz_stat "$out" average_exec_per_sec)" "$(cat "$out/seconds")" "$findings")")
  report_row "$target" "$out" "$status" >/dev/null || true
done

printf '%-14s %12s %8s %9s %9s\n' target executions exec/s seconds findings
printf '%s\n' "${rows[@]}"
exit "$failed"
