#!/usr/bin/env bash
# A full mirror of a published era by `qmsync sync` against two general
# download tools fetching the very same files from the very same object
# store: curl with --parallel (8 at once) and rclone copy (8 transfers).
#
# The object store is Debian's nginx over TLS 1.3 on loopback, serving the
# era's files straight from the server root that `qmsync publish` wrote; the
# API (era, manifest, seed) is `qmsync serve`. Two data sets:
#   large: 32 files of 32 MiB of random bytes (1 GiB);
#   small: 2000 files of 4 to 64 KiB (sizes and bytes from a fixed seed).
# Each round runs the three tools one after another, in an order that turns
# by one each round, each into a fresh empty destination. Page caches are
# not dropped: the server root stays in memory throughout, so what is timed
# is TLS, HTTP, the clients' own work and writing into the page cache.
# Prints per set each tool's median, min and max wall time, its peak RSS,
# the ratio of qmsync's median to that tool's, and which protocol and cipher
# nginx saw each client use.
#
#   bench/mirror_bench.sh
#   MIRROR_BENCH_ROUNDS=2 MIRROR_BENCH_LARGE_FILES=4 MIRROR_BENCH_SMALL_FILES=200 bench/mirror_bench.sh
#
# Environment:
#   QMSYNC_BUILD_DIR            build tree holding cli/qmsync (default build; built when missing)
#   MIRROR_BENCH_ROUNDS         rounds (default 5)
#   MIRROR_BENCH_SETS           which sets, in order (default "large small")
#   MIRROR_BENCH_LARGE_FILES    files in the large set (default 32)
#   MIRROR_BENCH_LARGE_MIB      MiB per large file (default 32)
#   MIRROR_BENCH_SMALL_FILES    files in the small set (default 2000)
#   MIRROR_BENCH_HTTP2          1 offers HTTP/2 from nginx (default 0, see the nginx config below)
#   MIRROR_BENCH_RCLONE_HEAD    1 lets rclone HEAD every file while listing (default 0)
#   MIRROR_BENCH_CIPHERSUITES   TLS 1.3 suites nginx offers, e.g. TLS_AES_128_GCM_SHA256
#                               (default OpenSSL's; each client then gets the one it prefers)
#   MIRROR_BENCH_KEEP           1 keeps the temporary directory
#   MIRROR_BENCH_QMSYNC_PREFIX  a command put in front of qmsync, e.g. a profiler
#   MIRROR_BENCH_DEST_DIR       where the destinations go (default: beside the data sets, on
#                               disk). On ext4, every new file's inode is found by skipping the
#                               inodes deleted in the last hours, so on a disk that has seen many
#                               deletions (each round's destination goes) file creation costs vary
#                               threefold from run to run; /dev/shm takes that noise out and
#                               leaves the tools' own work
#
# Run as root on Debian: installs nginx, rclone, curl and time when missing.
set -euo pipefail
cd "$(dirname "$0")/.."
repo=$(pwd)

build="${QMSYNC_BUILD_DIR:-build}"
rounds="${MIRROR_BENCH_ROUNDS:-5}"
sets="${MIRROR_BENCH_SETS:-large small}"
large_files="${MIRROR_BENCH_LARGE_FILES:-32}"
large_mib="${MIRROR_BENCH_LARGE_MIB:-32}"
small_files="${MIRROR_BENCH_SMALL_FILES:-2000}"
http2="${MIRROR_BENCH_HTTP2:-0}"
rclone_head="${MIRROR_BENCH_RCLONE_HEAD:-0}"
ciphersuites="${MIRROR_BENCH_CIPHERSUITES:-}"
keep="${MIRROR_BENCH_KEEP:-0}"
token="mirror-bench-token"
python=/usr/bin/python3

say() { echo "mirror_bench: $*" >&2; }
die() { say "$*"; exit 1; }
# shellcheck source=bench/common.sh
source "$repo/bench/common.sh"

# --- tools -----------------------------------------------------------------



if [ ! -x "$build/cli/qmsync" ]; then
  scripts/setup-debian.sh
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" --target qmsync
fi
# Debian's nginx package starts its own service on port 80 where it can; the
# benchmark runs its own master with its own configuration and never uses it.
install_packages nginx rclone curl time python3 coreutils
qmsync="$repo/$build/cli/qmsync"
[ "${build#/}" = "$build" ] || qmsync="$build/cli/qmsync"
nginx=/usr/sbin/nginx

# --- scratch space and clean-up -------------------------------------------

tmp=$(mktemp -d "${TMPDIR:-/tmp}/qmsync-mirror-bench.XXXXXX")
dest_root=""
if [ -n "${MIRROR_BENCH_DEST_DIR:-}" ]; then
  dest_root=$(mktemp -d "$MIRROR_BENCH_DEST_DIR/qmsync-mirror-dest.XXXXXX")
fi
# nginx's workers drop root (to nobody) and must reach the server root.
chmod 0755 "$tmp"
pids=()
cleanup() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  if [ "$keep" = 1 ]; then say "kept $tmp"; else rm -rf "$tmp"; fi
  [ -z "$dest_root" ] || rm -rf "$dest_root"
}
trap cleanup EXIT
trap 'exit 130' INT TERM

printf '%s\n' "$token" >"$tmp/token"
: >"$tmp/rclone.conf"  # keeps rclone from looking for, or warning about, a user's config

free_port() {
  "$python" -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}

now() { date +%s.%N; }

# --- data sets ---------------------------------------------------------------


make_large() {  # dir
  mkdir -p "$1/features/u"
  vocabulary u >"$1/features/u/vocabulary.json"
  local i
  for ((i = 0; i < large_files; i++)); do
    head -c "$((large_mib << 20))" /dev/urandom >"$(printf '%s/features/u/large_%02d.bin' "$1" "$i")"
  done
}

make_small() {  # dir
  mkdir -p "$1/features/s"
  vocabulary s >"$1/features/s/vocabulary.json"
  # Spread over 20 directories, so that listing a tree is part of the job.
  "$python" - "$1" "$small_files" <<'EOF'
import os, random, sys
root, count = sys.argv[1], int(sys.argv[2])
rng = random.Random(20240611)
for i in range(count):
    path = os.path.join(root, "features", "s", f"d{i % 20:02d}", f"small_{i:05d}.bin")
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(rng.randbytes(rng.randint(4 * 1024, 64 * 1024)))
EOF
}

# --- servers -----------------------------------------------------------------

# The server block of the README's nginx example, on loopback and with
# autoindex (rclone lists directories), plus what a benchmark needs around
# it: no daemon, logs and temp files in the scratch directory, and a log line
# that names each request's TLS cipher and HTTP version, so that the report
# can say what every client negotiated.
write_nginx_conf() {  # conf root port
  local listen_extra=""
  # Off by default: HTTP/2 lets curl put all eight transfers on one
  # connection, one TLS stream that one nginx worker encrypts, which is
  # slower here than eight connections over both cores.
  [ "$http2" = 1 ] && listen_extra=" http2"
  local suites=""
  # Go clients ask for AES-128-GCM first and OpenSSL ones for AES-256-GCM;
  # pinning one suite takes that difference out of the comparison.
  [ -z "$ciphersuites" ] || suites="ssl_conf_command Ciphersuites $ciphersuites;"
  mkdir -p "$tmp/nginx"
  cat >"$1" <<EOF
worker_processes auto;
pid $tmp/nginx/nginx.pid;
error_log $tmp/nginx/error.log warn;
daemon off;

events {
    worker_connections 1024;
}

http {
    log_format bench '\$connection \$connection_requests \$status \$body_bytes_sent \$server_protocol '
                     '\$ssl_protocol \$ssl_cipher \$request_method \$request_uri "\$http_user_agent"';
    access_log $tmp/nginx/access.log bench;
    client_body_temp_path $tmp/nginx/client_body;
    proxy_temp_path $tmp/nginx/proxy;
    fastcgi_temp_path $tmp/nginx/fastcgi;
    uwsgi_temp_path $tmp/nginx/uwsgi;
    scgi_temp_path $tmp/nginx/scgi;

    default_type application/octet-stream;
    sendfile on;
    tcp_nopush on;
    keepalive_requests 100000;

    server {
        listen 127.0.0.1:$3 ssl$listen_extra;
        ssl_certificate     $2/tls/server.pem;
        ssl_certificate_key $2/tls/server-key.pem;
        ssl_protocols TLSv1.3;
        ssl_session_cache shared:SSL:1m;
        $suites

        root $2;

        location / {
            return 404;
        }
        location ~ ^/era_[0-9]+/files/ {
            autoindex on;
        }
    }
}
EOF
}

start_nginx() {  # root port
  write_nginx_conf "$tmp/nginx.conf" "$1" "$2"
  : >"$tmp/nginx/access.log"
  "$nginx" -p "$tmp/nginx" -e "$tmp/nginx/error.log" -c "$tmp/nginx.conf" &
  pids+=($!)
  local i
  for ((i = 0; i < 200; i++)); do
    curl -s -o /dev/null --cacert "$ca_file" "https://127.0.0.1:$2/" && return 0
    kill -0 "${pids[-1]}" 2>/dev/null || die "nginx ended: $(cat "$tmp/nginx/error.log")"
    sleep 0.05
  done
  die "nginx did not answer on port $2"
}

stop_servers() {
  local pid
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  for pid in "${pids[@]}"; do wait "$pid" 2>/dev/null || true; done
  pids=()
}

# --- the three clients ---------------------------------------------------------

# Sets cmd to the command line of one client mirroring into dest. Each is
# run directly under /usr/bin/time, so that the peak RSS is the client's own.
command_for() {  # tool dest
  case "$1" in
    qmsync)
      cmd=("$qmsync" --json --data-dir "$2" --server "$api_url" --token-file "$tmp/token" --ca-file "$ca_file" sync)
      # A profiler in front, when asked: MIRROR_BENCH_QMSYNC_PREFIX="perf record -g -o /tmp/qm.data --"
      if [ -n "${MIRROR_BENCH_QMSYNC_PREFIX:-}" ]; then
        read -r -a prefix <<<"$MIRROR_BENCH_QMSYNC_PREFIX"
        cmd=("${prefix[@]}" "${cmd[@]}")
      fi ;;
    curl)
      cmd=(curl --parallel --parallel-max 8 --cacert "$ca_file" --no-progress-meter --fail --create-dirs
           --output-dir "$2" --config "$set_dir/curl.cfg") ;;
    rclone)
      # rclone's http backend lists nginx's autoindex pages; by default it
      # also sends a HEAD for every file listed, to learn sizes and times.
      cmd=(rclone --config "$tmp/rclone.conf" copy --ca-cert "$ca_file" --http-url "$files_url/"
           --transfers 8 --checkers 16 -q)
      [ "$rclone_head" = 1 ] || cmd+=(--http-no-head)
      cmd+=(:http: "$2") ;;
  esac
}

timed() {  # tool dest; appends "seconds rss_kib cpu_seconds" to the tool's results
  local started ended cmd
  mkdir -p "$2"
  command_for "$1" "$2"
  started=$(now)
  /usr/bin/time -f "%M %U %S" -o "$set_dir/rss" "${cmd[@]}" >"$set_dir/$1.out" 2>"$set_dir/$1.err" ||
    die "$1 failed: $(tail -5 "$set_dir/$1.err")"
  ended=$(now)
  read -r rss user_s sys_s <"$set_dir/rss"
  awk -v a="$started" -v b="$ended" -v rss="$rss" -v cpu="$(awk -v u="$user_s" -v s="$sys_s" 'BEGIN { print u + s }')" \
    'BEGIN { printf "%.6f %d %.2f\n", b - a, rss, cpu }' \
    >>"$set_dir/$1.results"
}


check_mirror() {  # tool dest first_round
  local tool=$1 dest=$2
  listing "$dest" | cmp -s - "$set_dir/expected.list" ||
    die "$tool left a different set of files in $dest (diff: $(listing "$dest" | diff - "$set_dir/expected.list" | head -5))"
  [ "$3" = 1 ] || return 0
  # The first round also checks every byte, by qmsync's own verify for
  # qmsync and by the manifest's digests for the others.
  if [ "$tool" = qmsync ]; then
    "$qmsync" --data-dir "$dest" --server "$api_url" --token-file "$tmp/token" --ca-file "$ca_file" verify >/dev/null ||
      die "qmsync verify failed on $dest"
  fi
  (cd "$dest" && sha256sum --quiet --strict -c "$set_dir/expected.sha256") || die "$tool: digests differ in $dest"
}

# --- one set -----------------------------------------------------------------

declare -A label=([qmsync]="qmsync sync" [curl]="curl --parallel 8" [rclone]="rclone copy")
tools=(qmsync curl rclone)


bench_set() {  # name
  local name=$1
  set_dir="$tmp/$name"
  mkdir -p "$set_dir"
  local src="$set_dir/source" root="$set_dir/root"
  say "$name: making the data set"
  "make_$name" "$src"

  local port
  port=$(free_port)
  files_url="https://127.0.0.1:$port/era_1/files"
  "$qmsync" publish --source "$src" --out "$root" --era 1 --version 1 --base-url "$files_url" >/dev/null
  # The server root holds its own copy; the source is not needed again.
  rm -rf "$src"
  "$python" - "$root/era_1/manifest.json" "$set_dir/expected.sha256" <<'EOF'
import json, sys
files = json.load(open(sys.argv[1]))["files"]
with open(sys.argv[2], "w") as out:
    for path, entry in sorted(files.items()):
        out.write(f"{entry['sha256']}  {path}\n")
EOF
  listing "$root/era_1/files" >"$set_dir/expected.list"
  local count bytes
  count=$(wc -l <"$set_dir/expected.list")
  bytes=$(awk '{ s += $2 } END { print s }' "$set_dir/expected.list")

  start_serve "$root"
  start_nginx "$root" "$port"

  # nginx must hand back a file byte for byte before anything is timed.
  local probe
  probe=$(awk 'NR == 1 { print $1 }' "$set_dir/expected.list")
  curl -s -S --fail --cacert "$ca_file" -o "$set_dir/probe" "$files_url/$probe"
  cmp -s "$set_dir/probe" "$root/era_1/files/$probe" || die "nginx served $probe with other bytes"
  rm -f "$set_dir/probe"

  awk -v base="$files_url" '{ printf "url = \"%s/%s\"\noutput = \"%s\"\n", base, $1, $1 }' \
    "$set_dir/expected.list" >"$set_dir/curl.cfg"
  local tool
  for tool in "${tools[@]}"; do : >"$set_dir/$tool.results"; done
  # The log from here on holds only the timed runs.
  : >"$tmp/nginx/access.log"

  say "$name: $count files, $bytes bytes; $rounds rounds"
  local round i dest
  for ((round = 0; round < rounds; round++)); do
    for ((i = 0; i < ${#tools[@]}; i++)); do
      tool=${tools[$(((i + round) % ${#tools[@]}))]}
      dest="${dest_root:-$set_dir}/dest-$tool"
      rm -rf "$dest"
      # Dirty pages of the run before are written out now rather than
      # during the next timed run; nothing is dropped from the cache.
      sync
      timed "$tool" "$dest"
      check_mirror "$tool" "$dest" "$((round == 0))"
      say "$name round $((round + 1)): $tool $(tail -1 "$set_dir/$tool.results" | awk '{ printf "%.3f s, %.1f MiB RSS", $1, $2 / 1024 }')"
      rm -rf "$dest"
    done
  done

  report "$name" "$count" "$bytes"
  stop_servers
  rm -rf "$root"
}

report() {  # name count bytes
  local name=$1 q_med tool med cpu
  q_med=$(awk '{ print $1 }' "$set_dir/qmsync.results" | median_of)
  echo
  printf '%s: %d files, %.1f MiB; %d rounds, fresh destination each run, page cache not dropped\n' \
    "$name" "$2" "$(echo "$3" | awk '{ print $1 / 1048576 }')" "$rounds"
  # The ratios hold up on a busy machine better than the seconds do.
  printf '%d cores, load average now %s\n' "$(nproc)" "$(cut -d' ' -f1-3 /proc/loadavg)"
  printf '%-19s %9s %9s %9s %9s %9s %11s %14s\n' tool "median s" "min s" "max s" "MiB/s" "CPU s" "peak RSS MiB" \
    "qmsync/tool"
  for tool in "${tools[@]}"; do
    med=$(awk '{ print $1 }' "$set_dir/$tool.results" | median_of)
    cpu=$(awk '{ print $3 }' "$set_dir/$tool.results" | median_of)
    awk -v name="${label[$tool]}" -v med="$med" -v cpu="$cpu" -v q="$q_med" -v bytes="$3" '
      { t = $1; if (NR == 1 || t < lo) lo = t; if (NR == 1 || t > hi) hi = t; if ($2 > rss) rss = $2 }
      END { printf "%-19s %9.3f %9.3f %9.3f %9.1f %9.2f %11.1f %14.3f\n", name, med, lo, hi, bytes / 1048576 / med, cpu,
                   rss / 1024, q / med }' \
      "$set_dir/$tool.results"
  done
  echo "what nginx saw of the timed runs (user agent: HTTP, TLS, cipher: requests, connections):"
  awk '{
      ua = $0; sub(/^[^"]*"/, "", ua); sub(/"$/, "", ua)
      key = ua ": " $5 " " $6 " " $7
      requests[key]++; if (!seen[key, $1]++) conns[key]++
    }
    END { for (k in requests) printf "  %s: %d requests, %d connections\n", k, requests[k], conns[k] }' \
    "$tmp/nginx/access.log" | sort
}

for set in $sets; do
  case "$set" in
    large | small) bench_set "$set" ;;
    *) die "unknown set $set (large, small)" ;;
  esac
done
