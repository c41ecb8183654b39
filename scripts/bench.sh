#!/usr/bin/env bash
# Side-by-side benchmarks: first the SQL path (our extension against
# SQLite's R*Tree through the same statements, every system in its default
# and its best configuration, interleaved rounds), then the library path
# (libzqrtree's own API against peer spatial indexes).
# Usage: scripts/bench.sh quick|full [BUILD_DIR]
#   quick  a small set (5k-entry workloads, the first 5k Turin roads), all
#          systems, under a minute; its job is the answers check; results go
#          to BUILD_DIR/bench-quick/
#   full   the standard set (1M 2-D boxes, uniform and clustered, 100k
#          uniform, and the Moscow road segments); results go to
#          bench/results/latest.md, latest-sql.svg and latest.svg, plus the
#          micro-benchmarks in micro.txt when built
# Peer runners exist only for the packages installed when the build was
# configured; the configure step is rerun here so packages installed since
# (make bench installs them) are picked up. A hit mismatch or a failed
# runner makes the exit status non-zero. BENCH_ROUNDS sets the rounds of
# both paths (3). BENCH_CLOCK=cpu times the library path's CPU instead of
# wall-clock time (the SQL path reports both).
set -euo pipefail

mode="${1:-}"
build="${2:-build}"
case "$mode" in
  quick | full) ;;
  *) echo "usage: $0 quick|full [BUILD_DIR]" >&2; exit 2 ;;
esac

root="$(cd "$(dirname "$0")/.." && pwd)"
cd "$root"
data="${ZQ_SHARED_DATA:-$root/../shared/data}"
jobs="${JOBS:-2}"
[ "$jobs" -gt 2 ] && jobs=2  # the machine is shared: never more than two compile jobs

cmake -S . -B "$build" >/dev/null
if ! cmake --build "$build" -j "$jobs" --target zq_bench_all >/dev/null; then
  echo "building the benchmarks in $build failed (is it configured with -DZQ_BENCH=OFF?)" >&2
  exit 1
fi
bin="$build/bench"
for runner in sql zq sqlite sidx boost brute; do
  [ -x "$bin/bench_run_$runner" ] || echo "note: bench_run_$runner not built; its rows are skipped" >&2
done

# Every system in the quick set. The full set leaves out what costs minutes
# per 1M entries without telling more: SQLite's R*Tree in memory (the SQL
# path measures it on files in two configurations), libspatialindex on disk
# and by insertion (its memory storage with STR is there), and our :memory:
# variants (the file ones are there).
sql_configs="sqlite-default,sqlite-best,zq-default,zq-best"
rounds="${BENCH_ROUNDS:-3}"
if [ "$mode" = quick ]; then
  out="$build/bench-quick"
  n=5000
  queries="0.00001:500,0.0001:500,0.01:30"
  nearest="1:500,10:500,100:200"
  deletes=0.1
  timeout=60
  systems="sqlite:file,sqlite:memory,zq:bulk-file,zq:incr-file,zq:bulk-memory,zq:incr-memory"
  systems+=",sidx:mem-str,sidx:mem-rstar,sidx:disk-str,sidx:disk-rstar,boost:rstar,boost:pack"
  systems+=",brute:scan"
else
  out="$root/bench/results"
  n=1000000
  queries="0.00001:5000,0.0001:5000,0.01:200"
  nearest="1:5000,10:5000,100:2000"
  deletes=0.02
  timeout=600
  # bulk-file+cache-mb=128: a handle whose buffer holds the whole tree, for
  # the nearest-neighbour target's warm handle.
  systems="sqlite:file,zq:bulk-file,zq:bulk-file+cache-mb=128,zq:incr-file,sidx:mem-str"
  systems+=",boost:rstar,boost:pack,brute:scan"
fi
work="$build/bench-work"
mkdir -p "$out" "$work"

workloads=()
gen() {  # gen NAME ARGS... -> adds $work/NAME.wl, or says why it is skipped
  local file="$work/$1.wl"
  shift
  local rc=0
  "$bin/bench_gen" --out "$file" --queries "$queries" --nearest "$nearest" --deletes "$deletes" \
    "$@" || rc=$?
  if [ "$rc" -eq 0 ]; then
    workloads+=("$file")
  elif [ "$rc" -eq 3 ]; then
    echo "note: $(basename "$file" .wl) skipped (data set not in $data)" >&2
  else
    exit "$rc"
  fi
}

if [ "$mode" = quick ]; then
  gen uniform-boxes-2d --dist uniform --kind boxes --dims 2 --n "$n"
  gen parcel-boxes-2d --dist parcel --kind boxes --dims 2 --n "$n"
  gen diagonal-points-3d --dist diagonal --kind points --dims 3 --n "$n"
  gen turin-roads --csv "$data/osm-turin-roads-mbr.csv.gz" --limit "$n"
else
  gen uniform-boxes-2d --dist uniform --kind boxes --dims 2 --n "$n"
  gen clustered-boxes-2d --dist clustered --kind boxes --dims 2 --n "$n"
  gen uniform-boxes-2d-100k --dist uniform --kind boxes --dims 2 --n 100000
  gen moscow-roads --csv "$data/osm-moscow-road-segments.csv.gz"
fi

status=0
"$bin/bench_compare" --bin "$bin" --dir "$work" --timeout "$timeout" --clock "${BENCH_CLOCK:-wall}" \
  --sql-configs "$sql_configs" --rounds "$rounds" --systems "$systems" --md "$out/latest.md" \
  --sql-svg "$out/latest-sql.svg" --svg "$out/latest.svg" "${workloads[@]}" || status=$?

if [ "$mode" = full ] && [ -x "$bin/zq_micro" ]; then
  ZQ_MICRO_DIR="$work" "$bin/zq_micro" --benchmark_counters_tabular=true \
    >"$out/micro.txt" || status=$?
fi
rm -f "$work"/*.db "$work"/*.db-wal "$work"/*.db-shm "$work"/*.idx "$work"/*.dat

# The PostgreSQL section: our SQL functions against PostGIS GiST in a
# throwaway cluster, where the server can be installed and our extension
# installed into it (as root); skipped with the reason otherwise.
if [ "$mode" = full ]; then
  if ! "$root/scripts/install-deps.sh" pg >/dev/null 2>&1; then
    echo "note: PostgreSQL section skipped: PostgreSQL 15 cannot be installed here" >&2
  elif [ ! -w "$(pg_config --pkglibdir)" ]; then
    echo "note: PostgreSQL section skipped: $(id -un) cannot install into $(pg_config --pkglibdir)" >&2
  else
    # pg/ is configured only where pg_config is found: configure again now.
    cmake -S "$root" -B "$build" >/dev/null &&
      cmake --build "$build" -j "$jobs" --target pg_install >/dev/null &&
      "$root/bench/pg/run.py" >"$out/latest-pg.md" || status=$?
  fi
fi
pg_note=""
[ "$mode" = full ] && [ -s "$out/latest-pg.md" ] && pg_note=", $out/latest-pg.md"
echo "results: $out/latest.md, $out/latest-sql.svg, $out/latest.svg$pg_note" >&2
exit "$status"
