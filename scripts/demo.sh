#!/usr/bin/env bash
# The whole job on one machine: generate 1M boxes (or take DEMO_INPUT, a CSV
# or GeoJSON file), bulk load them into demo-out/demo.db, check the tree,
# run a batch of window queries of every operator verified against a
# brute-force scan, and write demo-out/demo.svg. Exits non-zero on any
# failure or mismatch.
#
# Usage: scripts/demo.sh [BUILD_DIR]     (make demo passes "build")
# Environment: DEMO_COUNT (boxes, default 1000000), DEMO_QUERIES (per
# operator, default 100), DEMO_INPUT (a file to load instead of generating).
set -euo pipefail

build=${1:-build}
tool="$build/tools/zqrtree"
out=demo-out
count=${DEMO_COUNT:-1000000}
queries=${DEMO_QUERIES:-100}
input=${DEMO_INPUT:-}

if [ ! -x "$tool" ]; then
  echo "demo: $tool not found; build first (make build)" >&2
  exit 1
fi

now() { echo "${EPOCHREALTIME/,/.}"; }
since() { awk -v a="$1" -v b="$(now)" 'BEGIN { printf "%.2f", b - a }'; }

mkdir -p "$out"
rm -f "$out/demo.db" "$out/demo.db-wal" "$out/demo.db-shm" "$out/demo.svg"
start=$(now)

if [ -z "$input" ]; then
  input="$out/boxes.csv"
  t=$(now)
  "$tool" -q gen "$input" --count "$count" --seed 42 --extent 1000 --max-size 10
  gen_time=$(since "$t")
  source_line="$count random boxes, 2 axes (generated in $gen_time s)"
else
  source_line="boxes of $input"
fi

"$tool" -q create "$out/demo.db" demo --dims 2
t=$(now)
"$tool" load "$out/demo.db" demo "$input"
load_time=$(since "$t")

t=$(now)
"$tool" -q check "$out/demo.db" demo
check_time=$(since "$t")

stats=$("$tool" stats "$out/demo.db" demo)
entries=$(sed -n "s/.* axes, \([0-9]*\) entries/\1/p" <<<"$stats")
height=$(sed -n 's/^height \([0-9]*\),.*/\1/p' <<<"$stats")
nodes=$(sed -n 's/^height [0-9]*, \([0-9]*\) nodes.*/\1/p' <<<"$stats")
size=$(sed -n 's/.*(\([0-9.]*\) MB).*/\1/p' <<<"$stats")

# bench exits 1 when any answer differs from the brute-force scan.
bench=$("$tool" bench "$out/demo.db" demo --queries "$queries" --seed 7 --verify)

"$tool" -q render "$out/demo.db" demo -o "$out/demo.svg" --max-entries 20000

rate=$(awk -v n="$entries" -v s="$load_time" 'BEGIN { printf "%.0f", (s > 0 ? n / s : 0) }')
cat <<EOF

zqrtree demo
  input        $source_line
  bulk load    $entries entries in $load_time s ($rate entries/s)
  tree         height $height, $nodes nodes, database $size MB
  check        sound ($check_time s)
  queries      $queries per operator, each verified against a brute-force scan:
$(sed 's/^/    /' <<<"$bench")
  picture      $out/demo.svg
  total        $(since "$start") s
EOF
