# shellcheck shell=bash
# Pieces the benchmark scripts share; sourced after each defines say and die.

missing_packages() {
  local pkg
  for pkg in "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed' || echo "$pkg"
  done
}

install_packages() {
  local missing
  mapfile -t missing < <(missing_packages "$@")
  [ ${#missing[@]} -gt 0 ] || return 0
  local sudo=""
  [ "$(id -u)" -eq 0 ] || sudo="sudo"
  say "installing ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  # A fresh machine may have no package lists yet, an old one stale ones.
  $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null ||
    { $sudo apt-get update -qq && $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null; }
}

vocabulary() {  # universe -> the smallest vocabulary publish accepts
  printf '{"era_id": 1, "named_universe": "%s", "rotations": [], "filtrations": [], "reductions": {}, ' "$1"
  printf '"features": ["close"], "metadata": {"named_universe": "%s", "t_signal_is": 1, "n_instruments": 1}}\n' "$1"
}

median_of() { sort -g | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

listing() {  # dir -> "path size" of every published file below it, sorted
  (cd "$1" && find features -type f -printf '%p %s\n' | LC_ALL=C sort)
}

# `qmsync serve` of a published root in the background, its pid added to
# pids, once it has said where it listens. Uses the caller's qmsync, python,
# tmp (holding "token") and die.
start_serve() {  # root -> sets api_url, serve_files_url (its object store), ca_file
  local out="$tmp/serve.json"
  "$qmsync" serve --root "$1" --token-file "$tmp/token" --json >"$out" 2>"$tmp/serve.err" &
  pids+=($!)
  local i
  for ((i = 0; i < 200; i++)); do
    if [ -s "$out" ] && [ -s "$1/tls/ca.pem" ] && [ -s "$1/tls/server.pem" ] && [ -s "$1/tls/server-key.pem" ]; then
      break
    fi
    kill -0 "${pids[-1]}" 2>/dev/null || die "qmsync serve ended: $(cat "$tmp/serve.err")"
    sleep 0.05
  done
  [ -s "$out" ] || die "qmsync serve printed nothing"
  api_url=$("$python" -c 'import json, sys; print(json.load(open(sys.argv[1]))["api_url"])' "$out")
  serve_files_url=$("$python" -c 'import json, sys; print(json.load(open(sys.argv[1]))["files_url"])' "$out")
  ca_file=$("$python" -c 'import json, sys; print(json.load(open(sys.argv[1]))["ca_file"])' "$out")
}
