#!/usr/bin/env bash
# Builds every build type a user may pick (Debug, Release, RelWithDebInfo,
# MinSizeRel) with g++ and clang++, one after the other, as a user would:
# no test hooks, benchmarks included, warnings as errors. After each build
# the extension must answer the test-only functions with "no such function".
#
# Usage: scripts/build-types.sh [JOBS]     (default 2; build dirs go to
# build-types/<compiler>-<type>; TYPES and COMPILERS narrow the set)
set -euo pipefail
cd "$(dirname "$0")/.."
jobs=${1:-2}
types=${TYPES:-"Debug Release RelWithDebInfo MinSizeRel"}
compilers=${COMPILERS:-"g++ clang++"}

mkdir -p build-types
for cxx in $compilers; do
  cc=gcc
  [ "$cxx" = clang++ ] && cc=clang
  for type in $types; do
    dir="build-types/$cxx-$type"
    echo "== $cxx $type"
    CC=$cc CXX=$cxx cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE="$type" >"$dir.log" 2>&1 ||
      { tail -20 "$dir.log"; exit 1; }
    cmake --build "$dir" -j "$jobs" >>"$dir.log" 2>&1 || { grep -m20 -A5 "error" "$dir.log"; exit 1; }
    if grep -q "warning:" "$dir.log"; then grep -m20 "warning:" "$dir.log"; exit 1; fi
    for fn in zqrtree_fault_alloc zqrtree_fault_engine; do
      out=$(sqlite3 :memory: ".load $dir/sqlite_ext/zqrtree_ext" "SELECT $fn(1);" 2>&1 || true)
      case "$out" in
        *"no such function: $fn"*) ;;
        *) echo "$cxx $type: $fn answered: $out"; exit 1 ;;
      esac
    done
    echo "   warning-free, no test hooks"
  done
done
