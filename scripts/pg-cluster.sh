#!/usr/bin/env bash
# A throwaway PostgreSQL cluster for tests and CI: data, log and Unix socket
# all in DIR, no TCP listener, trust authentication for the user postgres.
# Run as root, the server runs as the unprivileged user postgres; run as any
# other user, as that user.
#
#   scripts/pg-cluster.sh start DIR [PORT]   # initdb on first use, then start
#   scripts/pg-cluster.sh stop DIR [MODE]    # pg_ctl stop -m MODE (fast)
#
# Clients connect with: psql -h DIR -p PORT -U postgres. PORT defaults to
# 5432 (it only names the socket file). Settings beyond the defaults come
# from ZQ_PG_OPTS ("-c name=value ...").
set -euo pipefail

cmd=${1:-}
dir=${2:-}
if [ -z "$cmd" ] || [ -z "$dir" ]; then
  echo "usage: $0 start DIR [PORT] | stop DIR [MODE]" >&2
  exit 2
fi
bindir=$(pg_config --bindir)

as_owner() {
  if [ "$(id -u)" -eq 0 ]; then runuser -u postgres -- "$@"; else "$@"; fi
}

case "$cmd" in
  start)
    port=${3:-5432}
    mkdir -p "$dir"
    dir=$(cd "$dir" && pwd)
    [ "$(id -u)" -eq 0 ] && chown postgres: "$dir" && chmod 700 "$dir"
    if [ ! -f "$dir/data/PG_VERSION" ]; then
      as_owner "$bindir/initdb" -D "$dir/data" -U postgres -A trust --no-instructions >"$dir/initdb.log"
    fi
    as_owner "$bindir/pg_ctl" -D "$dir/data" -l "$dir/server.log" -w -t 60 \
      -o "-k $dir -p $port -c listen_addresses='' ${ZQ_PG_OPTS:-}" start >/dev/null
    ;;
  stop)
    as_owner "$bindir/pg_ctl" -D "$dir/data" -m "${3:-fast}" -w stop >/dev/null
    ;;
  *)
    echo "usage: $0 start DIR [PORT] | stop DIR [MODE]" >&2
    exit 2
    ;;
esac
