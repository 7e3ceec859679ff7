#!/usr/bin/env bash
# What a data directory costs when nothing has changed. A client that syncs
# on a timer spends nearly all its runs finding that it holds the current
# era already, so that pass, not the download, is what its users wait on
# most; this measures it on a tree of many small files, where the per-file
# work shows, against the least any such check can cost: one stat of every
# file.
#
# One era of N files of 256 bytes (bytes from a fixed seed, spread over
# directories) is published and served by `qmsync serve`, API and object
# store, over TLS on loopback. First the mirror itself: `qmsync sync` into an
# empty directory beside curl --parallel (8 at once) fetching the same files
# from the same object store, so the idle figures can be read against what
# the full fetch costs. Then, on the mirrored directory, in each round and in
# an order that turns by one each round:
#   qmsync sync        the idle pass (nothing to fetch; exit 0);
#   qmsync needs-sync  the lightweight check;
#   constructor        bench_construct: opens the directory as every qmsync
#                      command does (manifest, hash cache, vocabularies) and
#                      exits, the fixed cost under the two above;
#   stat floor         find DEST -type f -printf '%s %T@ %C@ %i\n', which
#                      stats every file and reads what a cached digest is
#                      keyed on (size, mtime, ctime, inode), and no more.
# The first idle sync after the mirror is timed apart, as it may still have
# cache entries to write. Page caches are not dropped: what is timed is the
# clients' own work on a warm tree. Prints for each its median, min and max
# wall time, CPU time, peak RSS, microseconds per file and the ratio of its
# median to the stat floor's; then the sizes of the manifest and the hash
# cache the client keeps. Run at two sizes to see how each grows with N.
#
#   bench/idle_bench.sh
#   IDLE_BENCH_FILES=20000 bench/idle_bench.sh
#   IDLE_BENCH_FILES=2000 IDLE_BENCH_ROUNDS=2 bench/idle_bench.sh
#   IDLE_BENCH_QMSYNC_PREFIX="perf record -g -o /tmp/idle-{name}.data --" bench/idle_bench.sh
#
# Environment:
#   QMSYNC_BUILD_DIR          build tree holding cli/qmsync and bench/bench_construct
#                             (default build; built when missing)
#   IDLE_BENCH_FILES          files in the era (default 100000)
#   IDLE_BENCH_DIRS           directories they are spread over (default 100)
#   IDLE_BENCH_FILE_BYTES     bytes per file (default 256)
#   IDLE_BENCH_ROUNDS         rounds of the idle measurements (default 5)
#   IDLE_BENCH_MIRROR_ROUNDS  rounds of the first mirror, qmsync and curl each (default 1)
#   IDLE_BENCH_KEEP           1 keeps the temporary directory
#   IDLE_BENCH_QMSYNC_PREFIX  a command put in front of qmsync and bench_construct, e.g. a
#                             profiler; every {name} in it becomes the step's name (mirror,
#                             first-sync, sync, needs-sync, construct), so that each step
#                             can write a file of its own
#   IDLE_BENCH_DEST_DIR       where the destinations go (default: beside the server root, on
#                             disk); see MIRROR_BENCH_DEST_DIR in bench/mirror_bench.sh for why
#                             /dev/shm steadies the mirror's figures
#   TMPDIR                    where the data set and server root go (default /tmp). Four trees
#                             of N small files are written and removed; on a slow virtual disk,
#                             TMPDIR=/dev/shm saves minutes of untimed flushing and deleting
#
# Run as root on Debian: installs curl and time when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)
# EPOCHREALTIME and awk's numbers must agree on the decimal point.
export LC_ALL=C

build="${QMSYNC_BUILD_DIR:-build}"
files="${IDLE_BENCH_FILES:-100000}"
dirs="${IDLE_BENCH_DIRS:-100}"
file_bytes="${IDLE_BENCH_FILE_BYTES:-256}"
rounds="${IDLE_BENCH_ROUNDS:-5}"
mirror_rounds="${IDLE_BENCH_MIRROR_ROUNDS:-1}"
keep="${IDLE_BENCH_KEEP:-0}"
token="idle-bench-token"
python=/usr/bin/python3

say() { echo "idle_bench: $*" >&2; }
die() { say "$*"; exit 1; }
# shellcheck source=bench/common.sh
source "$repo/bench/common.sh"

for n in "$files" "$dirs" "$file_bytes" "$rounds" "$mirror_rounds"; do
  [[ "$n" =~ ^[1-9][0-9]*$ ]] || die "counts must be positive integers, got '$n'"
done

# --- tools -----------------------------------------------------------------



if [ ! -x "$build/cli/qmsync" ] || [ ! -x "$build/bench/bench_construct" ]; then
  if [ ! -f "$build/CMakeCache.txt" ]; then
    scripts/setup-debian.sh
    cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQMSYNC_BUILD_BENCH=ON >/dev/null
  fi
  cmake --build "$build" --target qmsync bench_construct
fi
install_packages curl time python3 coreutils findutils
qmsync="$repo/$build/cli/qmsync"
construct="$repo/$build/bench/bench_construct"
if [ "${build#/}" != "$build" ]; then
  qmsync="$build/cli/qmsync"
  construct="$build/bench/bench_construct"
fi

# --- scratch space and clean-up -------------------------------------------

tmp=$(mktemp -d "${TMPDIR:-/tmp}/qmsync-idle-bench.XXXXXX")
dest_root=""
if [ -n "${IDLE_BENCH_DEST_DIR:-}" ]; then
  dest_root=$(mktemp -d "$IDLE_BENCH_DEST_DIR/qmsync-idle-dest.XXXXXX")
fi
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [ "$keep" = 1 ]; then
    say "kept $tmp${dest_root:+ and $dest_root}"
  else
    rm -rf "$tmp"
    [ -z "$dest_root" ] || rm -rf "$dest_root"
  fi
}
trap cleanup EXIT
trap 'exit 130' INT TERM

printf '%s\n' "$token" >"$tmp/token"
dest="${dest_root:-$tmp}/dest"
curl_dest="${dest_root:-$tmp}/dest-curl"

# --- the data set ------------------------------------------------------------


make_source() {  # dir
  mkdir -p "$1/features/idle"
  vocabulary idle >"$1/features/idle/vocabulary.json"
  # One process writes them all: a process per file would take longer than
  # most of what is measured.
  "$python" - "$1" "$files" "$dirs" "$file_bytes" <<'EOF'
import os, random, sys
root, count, dirs, size = sys.argv[1], int(sys.argv[2]), int(sys.argv[3]), int(sys.argv[4])
rng = random.Random(20240611)
base = os.path.join(root, "features", "idle")
for d in range(min(dirs, count)):
    os.makedirs(os.path.join(base, f"d{d:03d}"), exist_ok=True)
for i in range(count):
    with open(os.path.join(base, f"d{i % dirs:03d}", f"f_{i:07d}.bin"), "wb") as f:
        f.write(rng.randbytes(size))
EOF
}

# --- the server --------------------------------------------------------------

# --- timing ------------------------------------------------------------------

# The prefix for one step's qmsync or bench_construct, {name} filled in.
prefix_for() {  # step -> sets prefix
  prefix=()
  [ -n "${IDLE_BENCH_QMSYNC_PREFIX:-}" ] || return 0
  read -r -a prefix <<<"${IDLE_BENCH_QMSYNC_PREFIX//\{name\}/$1}"
}

# Sets cmd to the command line of one step, and out to where its standard
# output goes. Each runs directly under /usr/bin/time, so that the peak RSS
# is its own.
command_for() {  # step
  local client=(--json --data-dir "$dest" --server "$api_url" --token-file "$tmp/token" --ca-file "$ca_file")
  out="$tmp/$1.out"
  prefix_for "$1"
  case "$1" in
    mirror | first-sync | sync) cmd=("${prefix[@]}" "$qmsync" "${client[@]}" sync) ;;
    needs-sync) cmd=("${prefix[@]}" "$qmsync" "${client[@]}" needs-sync) ;;
    construct)
      cmd=("${prefix[@]}" "$construct" --data-dir "$dest" --server "$api_url" --token-file "$tmp/token"
           --ca-file "$ca_file") ;;
    curl)
      cmd=(curl --parallel --parallel-max 8 --cacert "$ca_file" --no-progress-meter --fail --create-dirs
           --output-dir "$curl_dest" --config "$tmp/curl.cfg") ;;
    stat)
      # Its output is the floor's by-product, not its work.
      cmd=(find "$dest" -type f -printf '%s %T@ %C@ %i\n')
      out=/dev/null ;;
    *) die "no step $1" ;;
  esac
}

# EPOCHREALTIME, not date: a fork on each side would be a sizeable part of
# the smallest figures here.
timed() {  # step; appends "seconds rss_kib cpu_seconds" to the step's results
  local started ended rss user_s sys_s
  command_for "$1"
  # Dirty pages of the step before (a rewritten cache, a mirror) are written
  # out now rather than during this one; nothing is dropped from the cache.
  sync
  started=$EPOCHREALTIME
  /usr/bin/time -f "%M %U %S" -o "$tmp/rss" "${cmd[@]}" >"$out" 2>"$tmp/$1.err" ||
    die "$1 failed: $(tail -5 "$tmp/$1.err")"
  ended=$EPOCHREALTIME
  # time's own line is the last; a prefix (a profiler) may write above it.
  read -r rss user_s sys_s < <(tail -1 "$tmp/rss")
  awk -v a="$started" -v b="$ended" -v rss="$rss" -v u="$user_s" -v s="$sys_s" \
    'BEGIN { printf "%.6f %d %.2f\n", b - a, rss, u + s }' >>"$tmp/$1.results"
}

last_of() {  # step -> "x.xxx s, y.y MiB RSS" of its last run
  tail -1 "$tmp/$1.results" | awk '{ printf "%.3f s, %.1f MiB RSS", $1, $2 / 1024 }'
}


# --- checks ------------------------------------------------------------------


# The same with what a rewrite would change: an idle pass must leave every
# file where and as it was.
stat_listing() {  # dir
  (cd "$1" && find features -type f -printf '%p %s %T@ %C@ %i\n' | sort)
}

check_mirror() {  # tool dir
  listing "$2" | cmp -s - "$tmp/expected.list" ||
    die "$1 left a different set of files in $2 (diff: $(listing "$2" | diff - "$tmp/expected.list" | head -5))"
  (cd "$2" && sha256sum --quiet --strict -c "$tmp/expected.sha256") || die "$1: digests differ in $2"
}

# What each idle step printed must say it found nothing to do; a step that
# quietly did something else would time the wrong thing.
check_idle() {  # step
  case "$1" in
    first-sync | sync)
      "$python" - "$tmp/$1.out" <<'EOF' || die "$1 was not idle: $(cat "$tmp/$1.out")"
import json, sys
r = json.load(open(sys.argv[1]))
sys.exit(0 if r["bytes_downloaded"] == 0 and not r["vocabulary_downloaded"] and not r["shuffle_seed_downloaded"] else 1)
EOF
      ;;
    needs-sync)
      "$python" -c 'import json, sys; sys.exit(0 if json.load(open(sys.argv[1]))["needs_sync"] is False else 1)' \
        "$tmp/$1.out" || die "needs-sync says a sync is due: $(cat "$tmp/$1.out")" ;;
    construct)
      [ "$(cat "$tmp/$1.out")" = "$count" ] ||
        die "bench_construct read $(cat "$tmp/$1.out") manifest entries, not $count: $(tail -3 "$tmp/$1.err")" ;;
  esac
}

# --- publish and serve ---------------------------------------------------------

say "making $files files of $file_bytes bytes in $dirs directories"
started=$EPOCHREALTIME
make_source "$tmp/source"
say "made in $(awk -v a="$started" -v b="$EPOCHREALTIME" 'BEGIN { printf "%.1f", b - a }') s; publishing"
root="$tmp/root"
# No --base-url: the manifest is served with qmsync serve's own object store
# as its base, the one curl fetches from below.
"$qmsync" publish --source "$tmp/source" --out "$root" --era 1 --version 1 >/dev/null
# The server root holds its own copy; the source is not needed again.
rm -rf "$tmp/source"
"$python" - "$root/era_1/manifest.json" "$tmp/expected.sha256" <<'EOF'
import json, sys
files = json.load(open(sys.argv[1]))["files"]
with open(sys.argv[2], "w") as out:
    for path, entry in sorted(files.items()):
        out.write(f"{entry['sha256']}  {path}\n")
EOF
listing "$root/era_1/files" >"$tmp/expected.list"
count=$(wc -l <"$tmp/expected.list")
bytes=$(awk '{ s += $2 } END { print s }' "$tmp/expected.list")
[ "$(wc -l <"$tmp/expected.sha256")" = "$count" ] || die "the manifest does not list the files published"

start_serve "$root"
files_url=$serve_files_url
era_url="$files_url/era_1"
# The object store must hand back a file byte for byte before anything is timed.
probe=$(awk 'NR == 1 { print $1 }' "$tmp/expected.list")
curl -s -S --fail --cacert "$ca_file" -o "$tmp/probe" "$era_url/$probe"
cmp -s "$tmp/probe" "$root/era_1/files/$probe" || die "the object store served $probe with other bytes"
rm -f "$tmp/probe"
# The API as well: its first answer parses the manifest once for the
# server's life, which is the server's cost and not the first mirror's.
curl -s -S --fail --cacert "$ca_file" -H "Authorization: Bearer $token" -o /dev/null "$api_url/data/manifest/version"
awk -v base="$era_url" '{ printf "url = \"%s/%s\"\noutput = \"%s\"\n", base, $1, $1 }' \
  "$tmp/expected.list" >"$tmp/curl.cfg"

# --- the first mirror -----------------------------------------------------------

say "mirroring $count files, $bytes bytes; $mirror_rounds round(s)"
: >"$tmp/mirror.results"
: >"$tmp/curl.results"
mirror_tools=(mirror curl)
for ((round = 0; round < mirror_rounds; round++)); do
  for ((i = 0; i < 2; i++)); do
    tool=${mirror_tools[$(((i + round) % 2))]}
    [ "$tool" = mirror ] && dir=$dest || dir=$curl_dest
    rm -rf "$dir"
    mkdir -p "$dir"
    timed "$tool"
    check_mirror "$tool" "$dir"
    say "mirror round $((round + 1)): $tool $(last_of "$tool")"
  done
done
# The last qmsync mirror stays: it is the directory the idle steps open.
rm -rf "$curl_dest"

# --- idle ---------------------------------------------------------------------

before=$(stat_listing "$dest")
steps=(sync needs-sync construct stat)
declare -A label=([first-sync]="sync, first after mirror" [sync]="qmsync sync (idle)"
                  [needs-sync]="qmsync needs-sync" [construct]="constructor only"
                  [stat]="stat floor (find)")
for step in first-sync "${steps[@]}"; do : >"$tmp/$step.results"; done
timed first-sync
check_idle first-sync
say "first idle sync: $(last_of first-sync)"
for ((round = 0; round < rounds; round++)); do
  for ((i = 0; i < ${#steps[@]}; i++)); do
    step=${steps[$(((i + round) % ${#steps[@]}))]}
    timed "$step"
    check_idle "$step"
    say "idle round $((round + 1)): $step $(last_of "$step")"
  done
done
[ "$(stat_listing "$dest")" = "$before" ] || die "an idle step changed files under $dest/features"

# --- report -------------------------------------------------------------------

echo
printf 'first mirror: %d files, %.1f MiB, from qmsync serve over TLS on loopback; %d round(s), fresh destination each run\n' \
  "$count" "$(awk -v b="$bytes" 'BEGIN { print b / 1048576 }')" "$mirror_rounds"
# The ratios hold up on a busy machine better than the seconds do.
printf '%d cores, load average now %s\n' "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-19s %9s %9s %9s %9s %9s %12s %12s\n' tool "median s" "min s" "max s" "files/s" "CPU s" "peak RSS MiB" \
  "qmsync/tool"
q_med=$(awk '{ print $1 }' "$tmp/mirror.results" | median_of)
for tool in mirror curl; do
  [ "$tool" = mirror ] && name="qmsync sync" || name="curl --parallel 8"
  med=$(awk '{ print $1 }' "$tmp/$tool.results" | median_of)
  cpu=$(awk '{ print $3 }' "$tmp/$tool.results" | median_of)
  awk -v name="$name" -v med="$med" -v cpu="$cpu" -v q="$q_med" -v n="$count" '
    { t = $1; if (NR == 1 || t < lo) lo = t; if (NR == 1 || t > hi) hi = t; if ($2 > rss) rss = $2 }
    END { printf "%-19s %9.3f %9.3f %9.3f %9.0f %9.2f %12.1f %12.3f\n", name, med, lo, hi, n / med, cpu,
                 rss / 1024, q / med }' "$tmp/$tool.results"
done

echo
printf 'idle: %d files (%d bytes each, %d directories) already mirrored; %d rounds, turning order, page cache warm\n' \
  "$count" "$file_bytes" "$dirs" "$rounds"
printf '%d cores, load average now %s\n' "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
printf '%-25s %9s %9s %9s %9s %12s %9s %11s\n' step "median s" "min s" "max s" "CPU s" "peak RSS MiB" "us/file" \
  "/stat floor"
floor=$(awk '{ print $1 }' "$tmp/stat.results" | median_of)
for step in "${steps[@]}" first-sync; do
  med=$(awk '{ print $1 }' "$tmp/$step.results" | median_of)
  cpu=$(awk '{ print $3 }' "$tmp/$step.results" | median_of)
  awk -v name="${label[$step]}" -v med="$med" -v cpu="$cpu" -v floor="$floor" -v n="$count" '
    { t = $1; if (NR == 1 || t < lo) lo = t; if (NR == 1 || t > hi) hi = t; if ($2 > rss) rss = $2 }
    END { printf "%-25s %9.4f %9.4f %9.4f %9.2f %12.1f %9.2f %11.2f\n", name, med, lo, hi, cpu, rss / 1024,
                 med / n * 1e6, med / floor }' "$tmp/$step.results"
done

echo
for f in manifest.json .sync_hash_cache.json; do
  if [ -f "$dest/$f" ]; then
    size=$(stat -c %s "$dest/$f")
    printf '%-22s %12d bytes, %.1f MiB, %.0f bytes per file\n' "$f" "$size" \
      "$(awk -v s="$size" 'BEGIN { print s / 1048576 }')" "$(awk -v s="$size" -v n="$count" 'BEGIN { print s / n }')"
  else
    printf '%-22s absent\n' "$f"
  fi
done
