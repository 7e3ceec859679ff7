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
