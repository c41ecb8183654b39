#!/usr/bin/python3
"""PostgreSQL section of the benchmark: zqrtree through its SQL functions
against PostGIS GiST (CREATE INDEX ... USING gist on box geometries, &&
window queries), on the same boxes in one throwaway cluster, with the same
client: build, 0.01% and 1% windows, deletes, index size. Every window's
answer and a post-delete check must be the same for both, or the run fails.
Each measurement runs --rounds times, GiST and ours alternating (A B A B ...),
and the table gives medians; figures are ratios measured in the same run.

usage: bench/pg/run.py [--count 1000000] [--fill 0.9] [--rounds 3]
Needs: scripts/install-deps.sh pg, and the extension installed (make test-pg
or cmake --build BUILD --target pg_install), run as root or the cluster's
owner."""
import argparse
import os
import random
import statistics
import subprocess
import sys
import tempfile
import time

import psycopg2

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CLUSTER = os.path.join(ROOT, "scripts", "pg-cluster.sh")
EXTENT = 1_000_000  # coordinates are whole numbers: exact as PostGIS's float4 boxes too


def timed(fn):
    began = time.perf_counter()
    out = fn()
    return time.perf_counter() - began, out


def windows(rng, n, fraction):
    side = int(EXTENT * fraction ** 0.5)
    out = []
    for _ in range(n):
        x, y = rng.randrange(EXTENT - side), rng.randrange(EXTENT - side)
        out.append((x, y, x + side, y + side))
    return out


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--count", type=int, default=1_000_000)
    ap.add_argument("--fill", type=float, default=0.9)
    ap.add_argument("--small", type=int, default=2000, help="0.01%% windows")
    ap.add_argument("--large", type=int, default=200, help="1%% windows")
    ap.add_argument("--deletes", type=int, default=2000)
    ap.add_argument("--rounds", type=int, default=3)
    args = ap.parse_args()

    work = tempfile.mkdtemp(prefix="zqrtree-pgbench.")
    os.chmod(work, 0o755)
    env = dict(os.environ, ZQ_PG_OPTS="-c shared_buffers=256MB -c work_mem=64MB "
                                      "-c maintenance_work_mem=64MB -c max_wal_size=4GB")
    subprocess.run([CLUSTER, "start", os.path.join(work, "c")], check=True, env=env)
    try:
        return run(args, os.path.join(work, "c"))
    finally:
        subprocess.run([CLUSTER, "stop", os.path.join(work, "c"), "immediate"], check=False)
        subprocess.run(["rm", "-rf", work], check=False)


def run(args, host):
    conn = psycopg2.connect(host=host, user="postgres", dbname="postgres")
    conn.autocommit = True
    cur = conn.cursor()
    cur.execute("CREATE EXTENSION postgis")
    cur.execute("CREATE EXTENSION zqrtree")
    # Uniform boxes: whole-number corners, sides up to 1/1000 of the extent.
    cur.execute("SELECT setseed(0.25)")
    cur.execute(
        "CREATE TABLE boxes AS SELECT id, x0, y0, x0 + w AS x1, y0 + h AS y1 FROM ("
        " SELECT g AS id, floor(random() * %s)::float8 AS x0, floor(random() * %s)::float8 AS y0,"
        " floor(random() * 1000)::float8 AS w, floor(random() * 1000)::float8 AS h"
        " FROM generate_series(1, %s) g) s", (EXTENT, EXTENT, args.count))
    cur.execute("ALTER TABLE boxes ADD PRIMARY KEY (id), ADD COLUMN geom geometry")
    cur.execute("UPDATE boxes SET geom = ST_MakeEnvelope(x0, y0, x1, y1)")
    cur.execute("VACUUM ANALYZE boxes")

    # Builds: each round drops both indexes and builds them again.
    t_gist, t_zq = [], []
    for rnd in range(args.rounds):
        if rnd > 0:
            cur.execute("DROP INDEX boxes_gist")
            cur.execute("SELECT zqrtree_drop('b')")
        t_gist.append(timed(lambda: cur.execute(
            "CREATE INDEX boxes_gist ON boxes USING gist (geom)"))[0])
        cur.execute("SELECT zqrtree_create('b', 2)")
        t_zq.append(timed(lambda: cur.execute(
            "SELECT zqrtree_load('b', 'SELECT id, x0, y0, x1, y1 FROM boxes', %s)",
            (args.fill,)))[0])
    t_gist, t_zq = statistics.median(t_gist), statistics.median(t_zq)
    cur.execute("CHECKPOINT")
    cur.execute("SELECT pg_relation_size('boxes_gist'), pg_total_relation_size('\"MDRT$b\"')")
    size_gist, size_zq = cur.fetchone()

    cur.execute("PREPARE g(float8, float8, float8, float8) AS SELECT id FROM boxes"
                " WHERE geom && ST_MakeEnvelope($1, $2, $3, $4)")
    cur.execute("PREPARE z(float8, float8, float8, float8) AS SELECT id FROM"
                " zqrtree_query('b', 'intersect', ARRAY[$1, $2, $3, $4])")

    def answers(name, qs):
        out = []
        for q in qs:
            cur.execute(f"EXECUTE {name}(%s, %s, %s, %s)", q)
            out.append(sorted(r[0] for r in cur.fetchall()))
        return out

    rng = random.Random(7)
    results = []
    mismatches = 0
    for label, fraction, n in (("0.01% windows", 1e-4, args.small), ("1% windows", 1e-2, args.large)):
        qs = windows(rng, n, fraction)
        answers("g", qs[: min(20, n)])  # warm both the same
        answers("z", qs[: min(20, n)])
        tg, tz = [], []
        for _ in range(args.rounds):
            d, ag = timed(lambda: answers("g", qs))
            tg.append(d)
            d, az = timed(lambda: answers("z", qs))
            tz.append(d)
            mismatches += sum(1 for a, b in zip(ag, az) if a != b)
        hits = sum(len(a) for a in az) / max(1, n)
        results.append((f"{label} (queries/s, {hits:.0f} hits each)", n / statistics.median(tg),
                        n / statistics.median(tz), "higher"))

    # Deletes: other entries every round, the same ones from both.
    ids = rng.sample(range(1, args.count + 1), args.deletes * args.rounds)
    tg, tz, count = [], [], 0
    for rnd in range(args.rounds):
        part = ids[rnd * args.deletes:(rnd + 1) * args.deletes]
        cur.execute("SELECT id, ARRAY[x0, y0, x1, y1] FROM boxes WHERE id = ANY(%s)", (part,))
        victims = cur.fetchall()
        count = len(victims)

        def delete_all(sql):
            cur.execute("BEGIN")
            for v in victims:
                cur.execute(sql, v)
            cur.execute("COMMIT")

        tg.append(timed(lambda: delete_all("DELETE FROM boxes WHERE id = %s AND %s IS NOT NULL"))[0])
        tz.append(timed(lambda: delete_all("SELECT zqrtree_delete('b', %s, %s)"))[0])
    results.append((f"{count} deletes, one transaction (deletes/s)", count / statistics.median(tg),
                    count / statistics.median(tz), "higher"))
    after = windows(rng, 50, 1e-2)
    mismatches += sum(1 for a, b in zip(answers("g", after), answers("z", after)) if a != b)

    print(f"\nPostgreSQL: libzqrtree (SQL functions) against PostGIS GiST, {args.count} uniform 2-D boxes")
    cur.execute("SELECT version(), extversion FROM pg_extension WHERE extname = 'postgis'")
    version, postgis = cur.fetchone()
    print(f"{version.split(' on ')[0]}, PostGIS {postgis}, shared_buffers 256MB, one client, "
          f"prepared statements, autocommit; zqrtree fill {args.fill}; medians of "
          f"{args.rounds} rounds, GiST and zqrtree alternating\n")
    print(f"| {'measure':<52} | {'GiST':>12} | {'zqrtree':>12} | {'ratio':>7} |")
    print(f"|{'-' * 54}|{'-' * 14}:|{'-' * 14}:|{'-' * 8}:|")
    print(f"| {'build (s; GiST: CREATE INDEX, zqrtree: zqrtree_load)':<52} | {t_gist:12.2f} | "
          f"{t_zq:12.2f} | {t_gist / t_zq:6.2f}x |")
    for label, g, z, _ in results:
        print(f"| {label:<52} | {g:12.0f} | {z:12.0f} | {z / g:6.2f}x |")
    print(f"| {'index size (MB; zqrtree: node table and its key)':<52} | {size_gist / 2**20:12.1f} | "
          f"{size_zq / 2**20:12.1f} | {size_zq / size_gist:6.2f}x |")
    print("\nratio: zqrtree's speed-up (build, queries, deletes) or size relative to GiST's")
    print(f"answers compared: {(args.small + args.large) * args.rounds + 50} windows, "
          f"{'all the same' if mismatches == 0 else f'{mismatches} DIFFERENT'}")
    return 1 if mismatches else 0


if __name__ == "__main__":
    sys.exit(main())
