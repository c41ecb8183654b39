#!/usr/bin/env bash
# The PostgreSQL suite: installs the server where it can, builds and
# installs the extension, starts a throwaway cluster in a temporary
# directory, runs the pg_regress tests and the server tests, and stops it.
# Skipped with a message where PostgreSQL cannot be installed.
#
# usage: pg/test/run.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/../.."
build=${1:-build}

if ! scripts/install-deps.sh pg; then
  echo "PostgreSQL suite skipped: PostgreSQL 15 cannot be installed here (see above)"
  exit 0
fi
if [ ! -w "$(pg_config --pkglibdir)" ] || [ ! -w "$(pg_config --sharedir)/extension" ]; then
  echo "PostgreSQL suite skipped: the extension cannot be installed into $(pg_config --pkglibdir) by $(id -un) (run as root)"
  exit 0
fi
# pg/ is configured only where pg_config is found: configure again now.
cmake -S . -B "$build" >/dev/null
cmake --build "$build" -j "${JOBS:-2}" --target pg_install zqrtree_engine_suite

dir=$(mktemp -d /tmp/zqrtree-pg.XXXXXX)
cleanup() {
  for c in replica primary; do
    [ -f "$dir/$c/data/postmaster.pid" ] && scripts/pg-cluster.sh stop "$dir/$c" immediate || true
  done
  rm -rf "$dir"
}
trap cleanup EXIT
[ "$(id -u)" -eq 0 ] && chmod 755 "$dir"
scripts/pg-cluster.sh start "$dir/primary"

regress="$(pg_config --pkglibdir)/pgxs/src/test/regress/pg_regress"
out="$build/pg/regress"
mkdir -p "$out"
if ! "$regress" --inputdir=pg --outputdir="$out" --host="$dir/primary" --port=5432 \
    --user=postgres --dbname=zqrtree_regress --schedule=pg/test/regress.schedule; then
  cat "$out/regression.diffs"
  exit 1
fi
/usr/bin/python3 pg/test/server_test.py "$dir" "$build/pg/zqrtree_engine_suite.so"
