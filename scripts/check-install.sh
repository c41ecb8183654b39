#!/usr/bin/env bash
# Installs a build tree into a throwaway prefix and uses it as a user would:
# the example consumer built with find_package(zqrtree) and with
# pkg-config, then run; the installed tool and its man page; the installed
# SQLite extension loaded by the sqlite3 shell. Exits non-zero on the first
# failure. Usage: scripts/check-install.sh BUILD_DIR   (ctest runs it)
set -euo pipefail
build=$(cd "$1" && pwd)
src=$(cd "$(dirname "$0")/.." && pwd)
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
prefix=$tmp/prefix

cmake --install "$build" --prefix "$prefix" >"$tmp/install.log"
lib=$(dirname "$(find "$prefix" -name libzqrtree.so)")

step() { echo "install check: $*"; }

step "consumer through find_package(zqrtree)"
cmake -S "$src/examples/consumer" -B "$tmp/cmake" -DCMAKE_PREFIX_PATH="$prefix" >"$tmp/cmake.log"
cmake --build "$tmp/cmake" >>"$tmp/cmake.log"
"$tmp/cmake/consumer"

step "consumer through pkg-config"
export PKG_CONFIG_PATH=$lib/pkgconfig
# shellcheck disable=SC2046  # pkg-config's flags are words on purpose
cc -std=c11 -Wall -Wextra -Werror "$src/examples/consumer/main.c" \
  $(pkg-config --cflags --libs zqrtree) -o "$tmp/pc-consumer"
LD_LIBRARY_PATH=$lib "$tmp/pc-consumer"
[ "$(pkg-config --modversion zqrtree)" = "$(sed -n 's/^project(libzqrtree VERSION \([0-9.]*\).*/\1/p' "$src/CMakeLists.txt")" ]

step "installed tool, man page and extension"
"$prefix/bin/zqrtree" --help >/dev/null
test -s "$prefix/share/man/man1/zqrtree.1"
printf '1,0,0,1,1\n2,5,5,6,6\n' >"$tmp/b.csv"
"$prefix/bin/zqrtree" -q create "$tmp/t.db" t
"$prefix/bin/zqrtree" -q load "$tmp/t.db" t "$tmp/b.csv"
[ "$(sqlite3 "$tmp/t.db" ".load $lib/zqrtree_ext" \
      "CREATE VIRTUAL TABLE v USING zqrtree(id, a, b, c, d)" \
      "INSERT INTO v VALUES (7, 0, 2, 0, 2)" \
      "SELECT group_concat(id) FROM v WHERE b >= 1 AND a <= 1")" = 7 ]
step "done"
