#!/usr/bin/env bash
# Installs the Debian packages the project builds and tests with, when any is
# missing. Idempotent; apt-get only. Run as root (or with sudo available).
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config git ca-certificates openssl
  libcurl4-openssl-dev nlohmann-json3-dev libsimdjson-dev libssl-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libcpp-httplib-dev libcli11-dev help2man
  clang libclang-rt-14-dev
  pybind11-dev python3-dev python3-build python3-venv python3-setuptools python3-wheel mypy
)

missing=()
for pkg in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$pkg")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "setup: all ${#packages[@]} packages present"
  exit 0
fi

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "setup: installing ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
