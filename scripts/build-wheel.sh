#!/usr/bin/env bash
# Builds the Python wheel from a clean copy of the working tree (tracked and
# new files, no build directories), offline, for Debian's python3, installs
# it into a fresh venv and imports it there. Prints the wheel's path.
#   scripts/build-wheel.sh [OUT_DIR]     (default: dist/)
set -euo pipefail
cd "$(dirname "$0")/.."
root="$PWD"
out="$(realpath -m "${1:-dist}")"
python=/usr/bin/python3

work="$(mktemp -d /tmp/qmsync-wheel.XXXXXX)"
trap 'rm -rf "$work"' EXIT

# What a checkout would hold, plus files not yet committed.
mkdir -p "$work/src"
git ls-files --cached --others --exclude-standard -z |
  tar --null --files-from=- --ignore-failed-read -cf - 2>/dev/null | tar -xf - -C "$work/src"

(cd "$work/src" && "$python" -m build --wheel --no-isolation --outdir "$work/dist" .)
wheel="$(ls "$work"/dist/*.whl)"

"$python" -m venv "$work/venv"
"$work/venv/bin/pip" install --no-index --quiet "$wheel"
# Outside the source tree, so that only the installed package can be found.
(cd "$work" && "$work/venv/bin/python" -c '
import quillmarsh_sync
print("imported quillmarsh_sync", quillmarsh_sync.__version__, "from", quillmarsh_sync.__file__)
')

mkdir -p "$out"
cp "$wheel" "$out/"
echo "$out/$(basename "$wheel")"
