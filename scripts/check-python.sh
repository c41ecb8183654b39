#!/usr/bin/env bash
# The Python package as a user gets it: pip install --no-build-isolation
# ./python into a fresh venv of Debian's python3 (whose sqlite3 module can
# load extensions; its setuptools builds the package, no index is asked),
# with the extension taken from BUILD_DIR, then its tests against the
# installed copy. Usage: scripts/check-python.sh BUILD_DIR   (ctest runs it)
set -euo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT

/usr/bin/python3 -m venv --system-site-packages "$tmp/venv"
# pip builds in a copy of its own, so the source tree gets no build folders.
cp -r "$src/python" "$tmp/src-python"
ZQRTREE_BUILD_DIR=$build ZQRTREE_SOURCE_DIR=$src "$tmp/venv/bin/python" -m pip install --quiet --no-index \
  --no-build-isolation "$tmp/src-python" >"$tmp/pip.log" 2>&1 || { cat "$tmp/pip.log"; exit 1; }
cd "$tmp"
"$tmp/venv/bin/python" -m unittest discover -s "$src/python/tests" -t "$src/python/tests" -v
