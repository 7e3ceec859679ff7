# Sourced by scripts/fuzz-short.sh and bench/fuzz_long.sh, from the repo's
# top: builds the libFuzzer targets, runs one, and reports on the run.

FUZZ_TARGETS=(manifest_path json_text era_response vocabulary integer_repr)

# build_fuzzers BUILD_DIR: configures (clang, QMSYNC_BUILD_FUZZERS) and builds
# the library and the fuzz targets only. -O1 with line tables and assertions
# on: quick to build, fast enough to fuzz, and findings come with traces.
build_fuzzers() {
  FUZZ_BUILD="$1"
  local cxx="${QMSYNC_FUZZ_CXX:-$(command -v clang++ || command -v clang++-14 || true)}"
  if [ -z "$cxx" ]; then
    echo "fuzz: clang++ not found (Debian packages: clang, libclang-rt-14-dev)" >&2
    return 1
  fi
  local start=$SECONDS
  # Another compiler in an old tree would make CMake drop every -D below.
  if [ -f "$FUZZ_BUILD/CMakeCache.txt" ] &&
     [ "$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$FUZZ_BUILD/CMakeCache.txt")" != "$cxx" ]; then
    rm -rf "$FUZZ_BUILD/CMakeCache.txt" "$FUZZ_BUILD/CMakeFiles"
  fi
  cmake -S . -B "$FUZZ_BUILD" -G Ninja --log-level=WARNING -DCMAKE_CXX_COMPILER="$cxx" \
        -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -gline-tables-only" \
        -DQMSYNC_BUILD_FUZZERS=ON -DQMSYNC_BUILD_TESTS=ON -DQMSYNC_BUILD_BENCH=OFF
  cmake --build "$FUZZ_BUILD" --target qmsync_fuzzers --parallel "$(nproc)"
  echo "fuzz: built in $((SECONDS - start)) s ($FUZZ_BUILD)"
}

# run_fuzzer TARGET OUT_DIR LIBFUZZER_ARGS...: runs one target, leaving its
# log, wall time and any finding's input in OUT_DIR; returns its status.
run_fuzzer() {
  local target="$1" out="$2"
  shift 2
  local start status=0
  start=$(date +%s.%N)
  ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1}" UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1}" \
    "$FUZZ_BUILD/tests/fuzz/${target}_fuzz" -artifact_prefix="$out/" -timeout="${QMSYNC_FUZZ_TIMEOUT_S:-10}" \
    -print_final_stats=1 "$@" >"$out/log" 2>&1 || status=$?
  awk -v a="$start" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f\n", b - a }' >"$out/seconds"
  return "$status"
}

# The figure libFuzzer printed for stat NAME in OUT_DIR's log, or "?".
fuzz_stat() {
  local value
  value=$(sed -n "s/^stat::$2: *//p" "$1/log" | tail -n 1)
  echo "${value:-?}"
}

# The number of inputs a run kept as findings, counting a failure that left
# none (the target did not start, say) as one.
fuzz_findings() {
  local out="$1" status="$2" n
  n=$(find "$out" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
          -o -name 'oom-*' \) | wc -l)
  if [ "$status" -ne 0 ] && [ "$n" -eq 0 ]; then n=1; fi
  echo "$n"
}

# report_row TARGET OUT_DIR STATUS: prints TARGET's row (executions, wall
# seconds, findings) and, for a finding, its report; fails on a finding.
report_row() {
  local target="$1" out="$2" status="$3" findings
  findings=$(fuzz_findings "$out" "$status")
  printf '%-14s %12s %8.1f %9s\n' "$target" "$(fuzz_stat "$out" number_of_executed_units)" \
    "$(cat "$out/seconds")" "$findings"
  if [ "$findings" -ne 0 ]; then
    echo "---- $target: status $status; log $out/log; kept inputs:" >&2
    find "$out" -maxdepth 1 -type f \( -name 'crash-*' -o -name 'leak-*' -o -name 'timeout-*' \
         -o -name 'oom-*' \) >&2
    local pattern='ERROR|property broken|terminate called|runtime error'
    if grep -qE "$pattern" "$out/log"; then
      grep -E -A 30 "$pattern" "$out/log" | head -n 60 >&2 || true
    else
      tail -n 30 "$out/log" >&2
    fi
    return 1
  fi
}
