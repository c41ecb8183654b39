#!/usr/bin/env bash
# Installs the Debian packages the build, tests and benchmarks need, and only
# those that are missing. Usage: scripts/install-deps.sh [core|bench|fuzz|pg|all]
set -euo pipefail

core=(cmake make g++ pkg-config libsqlite3-dev sqlite3 libgtest-dev libgmock-dev
      libcli11-dev libfmt-dev python3 libgdal-dev gdal-bin zlib1g-dev
      python3-venv python3-setuptools python3-wheel python3-pip)
bench=(libbenchmark-dev libspatialindex-dev libboost-dev)
fuzz=(clang libclang-rt-14-dev)
# The PostgreSQL extension, its server tests (psycopg2) and the PostGIS peer.
pg=(postgresql-15 postgresql-server-dev-15 postgresql-15-postgis-3 python3-psycopg2)

case "${1:-core}" in
  core) want=("${core[@]}") ;;
  bench) want=("${core[@]}" "${bench[@]}") ;;
  fuzz) want=("${core[@]}" "${fuzz[@]}") ;;
  pg) want=("${core[@]}" "${pg[@]}") ;;
  all) want=("${core[@]}" "${bench[@]}" "${fuzz[@]}" "${pg[@]}") ;;
  *) echo "usage: $0 [core|bench|fuzz|pg|all]" >&2; exit 2 ;;
esac

missing=()
for p in "${want[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

if [ "$(id -u)" -ne 0 ]; then
  sudo=""
  command -v sudo >/dev/null 2>&1 && sudo="sudo"
  if [ -z "$sudo" ]; then
    echo "These Debian packages are needed and missing: ${missing[*]}" >&2
    echo "Run as root: apt-get install -y ${missing[*]}" >&2
    exit 1
  fi
else
  sudo=""
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
