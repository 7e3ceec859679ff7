#!/usr/bin/env bash
# The main job, from a fresh Debian machine as root: installs what is
# missing, builds qmsync, publishes a sample era into a temporary directory,
# serves it on loopback, mirrors it, checks it, corrupts one file, repairs
# it, then lets `qmsync watch` follow the server into a new era, and stops
# the server. Every step says in words what happens.
#
#   scripts/demo.sh            # QMSYNC_BUILD_DIR=... to build elsewhere,
#                              # QMSYNC_DEMO_KEEP=1 to keep the directory
set -euo pipefail
cd "$(dirname "$0")/.."

say() { printf '\n==> %s\n' "$*"; }
fail() { printf '\ndemo FAILED: %s\n' "$*" >&2; exit 1; }

scripts/setup-debian.sh
build="${QMSYNC_BUILD_DIR:-build}"
case "$build" in /*) ;; *) build="$PWD/$build" ;; esac
say "Building the qmsync command in $build"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" --target qmsync --parallel "$(nproc)"
qmsync_bin="$build/cli/qmsync"

demo="$(mktemp -d "${TMPDIR:-/tmp}/qmsync-demo.XXXXXX")"
server_pid=""
watch_pid=""
cleanup() {
  if [ -n "$watch_pid" ] && kill -0 "$watch_pid" 2>/dev/null; then
    kill "$watch_pid" 2>/dev/null || true
    wait "$watch_pid" 2>/dev/null || true
  fi
  if [ -n "$server_pid" ] && kill -0 "$server_pid" 2>/dev/null; then
    kill "$server_pid" 2>/dev/null || true
    wait "$server_pid" 2>/dev/null || true
  fi
  if [ "${QMSYNC_DEMO_KEEP:-0}" = 1 ]; then echo "(kept $demo)"; else rm -rf "$demo"; fi
}
trap cleanup EXIT
cd "$demo"

# Shows the command, then runs it.
qmsync() {
  printf '$ qmsync %s\n' "$*"
  "$qmsync_bin" "$@"
}

say "Making a sample data set in $demo/source: two universes, each with its vocabulary and feature files"
vocabulary() {  # era universe instruments
  printf '{"era_id": %s, "named_universe": "%s", "rotations": [], "filtrations": [], "reductions": {}, ' "$1" "$2"
  printf '"features": ["close", "volume"], "metadata": {"named_universe": "%s", "t_signal_is": 250, ' "$2"
  printf '"t_strategy_is": 120, "n_instruments": %s}}' "$3"
}
mkdir -p source/features/equities source/features/futures source/docs
vocabulary 1 equities 500 >source/features/equities/vocabulary.json
vocabulary 1 futures 40 >source/features/futures/vocabulary.json
head -c $((20 * 1024 * 1024)) /dev/urandom >source/features/equities/prices.arrow
head -c $((4 * 1024 * 1024)) /dev/urandom >source/features/equities/volumes.arrow
head -c $((2 * 1024 * 1024)) /dev/urandom >source/features/futures/rolls.arrow
head -c $((512 * 1024)) /dev/urandom >source/features/futures/curves.arrow
echo "Sample era for the qmsync demo." >source/docs/README.txt
(cd source && find . -type f -printf '  %-40P %10s bytes\n' | sort)

say "Publishing it as era 1, version 1: a manifest with sizes and SHA-256 digests, vocabularies checked, a shuffle seed"
qmsync publish --source source --out server-root --era 1 --version 1

say "Starting the reference server on loopback (API and object store over HTTPS, with a bearer token)"
head -c 24 /dev/urandom | od -An -tx1 | tr -d ' \n' >token
"$qmsync_bin" serve --root server-root --token-file token >serve.log 2>&1 &
server_pid=$!
for _ in $(seq 100); do
  grep -q '^qmsync serve: serving' serve.log 2>/dev/null && break
  kill -0 "$server_pid" 2>/dev/null || { cat serve.log; fail "the server did not start"; }
  sleep 0.1
done
grep -q '^qmsync serve: serving' serve.log || fail "the server did not start in 10 seconds"
sed 's/^/  /' serve.log
api_url="$(awk '/API server/ {print $NF}' serve.log)"
ca_file="$(awk '/CA file/ {print $NF}' serve.log)"
mkdir data
client=(--data-dir data --server "$api_url" --token-file token --ca-file "$ca_file")

say "Does the empty data directory need a sync? (asks the server for the manifest's version)"
qmsync needs-sync "${client[@]}"

say "First sync: the manifest is fetched, every file is downloaded (the big one in ranged chunks), hashed and renamed into place"
qmsync sync "${client[@]}"

say "Second sync: the version matches and the local files pass, so nothing is downloaded"
qmsync sync "${client[@]}"

say "Verify: every file is hashed afresh and compared with the manifest"
qmsync verify --data-dir data

say "Corrupting one byte in the middle of features/equities/prices.arrow, as a failing disk might"
printf 'X' | dd of=data/features/equities/prices.arrow bs=1 seek=$((10 * 1024 * 1024)) conv=notrunc status=none

say "Verify again: it must fail (exit code 1) and name the corrupted file"
set +e
qmsync verify --data-dir data
rc=$?
set -e
echo "verify exited with $rc"
[ "$rc" -eq 1 ] || fail "verify should have found the corruption"

say "Repair: that one file is downloaded again from the object store and checked against its digest"
qmsync repair features/equities/prices.arrow "${client[@]}"

say "Verify once more: the data directory is whole again"
qmsync verify --data-dir data

say "Status: the manifest in force and whether a sync is due"
qmsync status "${client[@]}"

say "Watching: qmsync watch acquires the shared manager, which polls the manifest version and the era every second"
"$qmsync_bin" watch --poll-interval 1 "${client[@]}" >watch.log 2>watch.err &
watch_pid=$!
wait_for_line() {  # text: waits up to 30 s for watch to print a line holding it
  for _ in $(seq 300); do
    grep -qF "$1" watch.log 2>/dev/null && return 0
    kill -0 "$watch_pid" 2>/dev/null || { cat watch.log watch.err; fail "qmsync watch ended early"; }
    sleep 0.1
  done
  cat watch.log watch.err
  fail "qmsync watch never said: $1"
}
wait_for_line "Watching"
sed 's/^/  watch | /' watch.log

say "Preparing era 2: futures gone, equities prices replaced, a new universe of rates, vocabularies of era 2"
rm -rf source/features/futures
head -c $((20 * 1024 * 1024)) /dev/urandom >source/features/equities/prices.arrow
vocabulary 2 equities 520 >source/features/equities/vocabulary.json
mkdir -p source/features/rates
vocabulary 2 rates 12 >source/features/rates/vocabulary.json
head -c $((3 * 1024 * 1024)) /dev/urandom >source/features/rates/curves.arrow
qmsync publish --source source --out server-root --era 2 --version 1

say "The server announces that era 1 closes: watch stops work on the data and confirms era 1 is still whole"
printf '{"era": {"era_id": 1, "next_closing_at": "%s"}, "state": "closing"}' "$(date -u -d '+1 min' '+%Y-%m-%d %H:%M UTC')" >server-root/current.json
wait_for_line "Work on the data resumed on era 1"
sed 's/^/  watch | /' watch.log | tail -n +2

say "Era 2 becomes the active era: watch stages its changed files beside the live data, then swaps them in"
echo '{"era": {"era_id": 2, "min_library_version": "0.0.1"}, "state": "active"}' >server-root/current.json
wait_for_line "Now in force: era 2"
sed 's/^/  watch | /' watch.log | grep -v -e "Watching" -e "announced" -e "resumed on era 1" -e "paused" | tail -n +1

say "Stopping watch with SIGTERM: it releases the manager and waits for work in progress"
kill -TERM "$watch_pid"
wait "$watch_pid"
watch_pid=""
tail -n 2 watch.log | sed 's/^/  watch | /'

say "The data directory is on era 2: the futures files of era 1 are gone, the rates files of era 2 are in"
(cd data && find . -path ./.git -prune -o -type f -printf '  %-40P %10s bytes\n' | sort)
[ ! -e data/features/futures/rolls.arrow ] || fail "an era 1 file survived the era change"
[ -e data/features/rates/curves.arrow ] || fail "an era 2 file is missing"
qmsync verify --data-dir data
qmsync status "${client[@]}"

say "Stopping the server"
kill "$server_pid"
wait "$server_pid" || true
server_pid=""
tail -n 1 serve.log | sed 's/^/  /'

say "Done. The data directory mirrored era 1 exactly, a corrupted file was found by verify and put right by repair, and watch moved it to era 2 by itself when the server changed eras."
