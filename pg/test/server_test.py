#!/usr/bin/python3
"""The index inside a running PostgreSQL server: sessions beside each other,
rollback, writers serialised by the index's lock, crashes (pg_ctl stop -m
immediate) during a bulk load and an insert batch, and a streaming replica.
Every answer is compared with brute force over the table the index follows.

usage: server_test.py DIR [ENGINE_SUITE_SO]    (a cluster started by
scripts/pg-cluster.sh in DIR/primary; the replica is made in DIR/replica;
with the test module's path, the engine-interface suite runs first)"""
import os
import subprocess
import sys
import threading
import time

import psycopg2
import psycopg2.errors

ROOT = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
CLUSTER = os.path.join(ROOT, "scripts", "pg-cluster.sh")
DIR = os.path.abspath(sys.argv[1])
PRIMARY, REPLICA = os.path.join(DIR, "primary"), os.path.join(DIR, "replica")
DB = "zqrtree_server"
WINDOWS = [[0, 0, 100, 100], [200, 300, 260, 380], [0, 0, 1000, 1000], [500, 500, 500, 500]]
results = {"passed": 0, "failed": 0}
START = time.monotonic()


def connect(where=PRIMARY, port=5432, db=DB, autocommit=True):
    conn = psycopg2.connect(host=where, port=port, user="postgres", dbname=db)
    conn.autocommit = autocommit
    return conn


def rows(conn, sql, *args):
    with conn.cursor() as cur:
        cur.execute(sql, args or None)
        return cur.fetchall() if cur.description else None


def answers(conn, index, table):
    """Per window: the index's (id, box) hits and brute force's, same snapshot."""
    out = []
    for q in WINDOWS:
        got = sorted(rows(conn, "SELECT id, box FROM zqrtree_query(%s, 'intersect', %s::float8[])",
                          index, q))
        want = sorted(rows(conn, f"SELECT id, box FROM {table} WHERE box IS NOT NULL AND "
                                 "box[1] <= %s AND box[3] >= %s AND box[2] <= %s AND box[4] >= %s",
                           q[2], q[0], q[3], q[1]))
        out.append((got, want))
    return out


def agrees(conn, index, table):
    return all(got == want for got, want in answers(conn, index, table))


def check(name, ok, note=""):
    results["passed" if ok else "failed"] += 1
    print(("ok   " if ok else "FAIL ") + name + (f" ({note})" if note else "") +
          f" [{time.monotonic() - START:.1f} s]", flush=True)


def fill(conn, table, first, count):
    rows(conn, f"INSERT INTO {table} SELECT g, ARRAY[x, y, x + g %% 9, y + g %% 5]::float8[] FROM "
               "(SELECT g, (g * 7919) %% 1000 AS x, (g * 104729) %% 1000 AS y "
               "FROM generate_series(%s::bigint, %s::bigint) g) s", first, first + count - 1)


def make_indexed_table(conn, name):
    rows(conn, f"CREATE TABLE {name} (id bigint PRIMARY KEY, box float8[])")
    rows(conn, "SELECT zqrtree_create(%s, 2)", name)
    rows(conn, f"CREATE TRIGGER {name}_zq AFTER INSERT OR UPDATE OR DELETE ON {name} FOR EACH ROW "
               f"EXECUTE FUNCTION zqrtree_trigger('{name}', 'id', 'box')")


def sound(conn, index, table):
    n = rows(conn, "SELECT zqrtree_check(%s)", index)[0][0]
    m = rows(conn, f"SELECT count(*) FROM {table} WHERE box IS NOT NULL")[0][0]
    return n == m and agrees(conn, index, table)


def test_snapshot_reads(setup):
    make_indexed_table(setup, "pts")
    fill(setup, "pts", 1, 3000)
    reader = connect(autocommit=False)
    rows(reader, "SET TRANSACTION ISOLATION LEVEL REPEATABLE READ")
    before = answers(reader, "pts", "pts")
    writer = connect()
    fill(writer, "pts", 3001, 800)
    rows(writer, "DELETE FROM pts WHERE id % 10 = 0")
    rows(writer, "UPDATE pts SET box = ARRAY[box[1] + 7, box[2], box[3] + 7, box[4]] WHERE id % 3 = 0")
    after_in_snapshot = answers(reader, "pts", "pts")
    check("a repeatable-read reader keeps its snapshot while a writer commits",
          after_in_snapshot == before and all(g == w for g, w in before))
    fresh = connect()
    check("a new reader sees the committed changes", agrees(fresh, "pts", "pts") and
          answers(fresh, "pts", "pts") != before)
    reader.rollback()
    open_writer = connect(autocommit=False)
    fill(open_writer, "pts", 9001, 300)
    rows(open_writer, "DELETE FROM pts WHERE id % 7 = 0")
    check("a read-committed reader does not see a writer's uncommitted changes",
          agrees(fresh, "pts", "pts") and
          rows(fresh, "SELECT count(*) FROM zqrtree_query('pts', 'intersect', '{0,0,2000,2000}')")[0][0]
          == rows(fresh, "SELECT count(*) FROM pts")[0][0])
    open_writer.commit()
    check("after the commit it does", agrees(fresh, "pts", "pts"))
    for c in (reader, writer, fresh, open_writer):
        c.close()


def test_rollback(conn):
    everything = "SELECT id, box FROM zqrtree_query('pts', 'or(any)', '{0,0,0,0}') ORDER BY id"
    before = rows(conn, everything)
    writer = connect(autocommit=False)
    fill(writer, "pts", 20001, 2000)
    rows(writer, "DELETE FROM pts WHERE id % 4 = 1")
    rows(writer, "UPDATE pts SET box = NULL WHERE id % 5 = 2")
    rows(writer, "SELECT zqrtree_load('pts', 'SELECT g + 50000, 0, 0, 1, 1 FROM generate_series(1, 3000) g')")
    writer.rollback()
    writer.close()
    check("a rolled-back writer leaves no trace", rows(conn, everything) == before and
          sound(conn, "pts", "pts"))


def test_writers_serialised(conn):
    first = connect(autocommit=False)
    fill(first, "pts", 30001, 10)
    done = threading.Event()

    def second_writer():
        c = connect()
        fill(c, "pts", 30011, 10)
        c.close()
        done.set()

    t = threading.Thread(target=second_writer)
    t.start()
    time.sleep(0.5)
    waiting = rows(conn, "SELECT count(*) FROM pg_locks WHERE NOT granted AND mode = 'ExclusiveLock' "
                         "AND relation = '\"MDRT$pts\"'::regclass")[0][0]
    check("a second writer waits for the first one's lock", not done.is_set() and waiting == 1)
    first.commit()
    t.join(30)
    first.close()
    check("then goes on and both writes are in a sound tree",
          done.is_set() and rows(conn, "SELECT count(*) FROM pts WHERE id > 30000")[0][0] == 20 and
          sound(conn, "pts", "pts"))
    # Under repeatable read a writer whose snapshot predates another
    # writer's commit meets rows it cannot see: a serialization failure.
    make_indexed_table(conn, "one")
    fill(conn, "one", 1, 5)
    old = connect(autocommit=False)
    rows(old, "SET TRANSACTION ISOLATION LEVEL REPEATABLE READ")
    rows(old, "SELECT count(*) FROM one")
    fill(conn, "one", 6, 1)
    try:
        fill(old, "one", 7, 1)
        outcome = "no error"
    except psycopg2.errors.SerializationFailure:
        outcome = "40001"
    old.rollback()
    old.close()
    check("a repeatable-read writer behind a commit fails with 40001", outcome == "40001", outcome)
    check("and leaves the tree sound", sound(conn, "one", "one"))


def crash_during(name, work_sql, delay, index, states):
    """Runs work_sql, stops the server at once after `delay`, restarts it
    and checks the tree is sound and holds one of `states`: entry counts,
    each with the table (or subquery) the index must then agree with."""
    errors = []

    def work():
        try:
            c = connect()
            rows(c, work_sql)
        except psycopg2.Error as e:
            errors.append(e)

    t = threading.Thread(target=work)
    t.start()
    time.sleep(delay)
    killed_midway = t.is_alive()
    subprocess.run([CLUSTER, "stop", PRIMARY, "immediate"], check=True)
    t.join(30)
    subprocess.run([CLUSTER, "start", PRIMARY], check=True)
    c = connect()
    n = rows(c, "SELECT zqrtree_check(%s)", index)[0][0]
    check(name, n in states and agrees(c, index, states[n]),
          f"{n} entries of {sorted(states)}" + ("" if killed_midway else "; the work had ended first"))
    return c


def test_crashes(conn):
    rows(conn, "CREATE TABLE big AS SELECT g AS id, ARRAY[x, y, x + g % 9, y + g % 5]::float8[] AS box "
               "FROM (SELECT g, (g * 7919) % 1000 AS x, (g * 104729) % 1000 AS y "
               "FROM generate_series(1::bigint, 400000) g) s")
    rows(conn, "SELECT zqrtree_create('big', 2)")
    rows(conn, "SELECT zqrtree_load('big', 'SELECT id, box FROM big WHERE id <= 1000')")
    rows(conn, "DELETE FROM big WHERE id > 1000 AND id % 2 = 0")
    # The same load timed on a scratch index: the crash comes at three
    # quarters of it, while node rows are being written.
    load = "SELECT zqrtree_load('{}', 'SELECT id, box FROM big WHERE id > 1000')"
    rows(conn, "SELECT zqrtree_create('scratch', 2)")
    began = time.monotonic()
    rows(conn, load.format("scratch"))
    took = time.monotonic() - began
    rows(conn, "SELECT zqrtree_drop('scratch')")
    rows(conn, "CHECKPOINT")
    conn.close()
    conn = crash_during("a crash during a bulk load leaves the before or the after tree",
                        load.format("big"), 0.75 * took, "big",
                        {1000: "(SELECT * FROM big WHERE id <= 1000) b",
                         rows(connect(), "SELECT count(*) FROM big")[0][0]: "big"})
    count = rows(conn, "SELECT count(*) FROM pts WHERE box IS NOT NULL")[0][0]
    conn.close()
    conn = crash_during("a crash during an insert batch leaves the before or the after tree",
                        "INSERT INTO pts SELECT g, ARRAY[g % 1000, g % 997, g % 1000 + 2, g % 997 + 2] "
                        "FROM generate_series(100001, 140000) g",
                        1.0, "pts", {count: "pts", count + 40000: "pts"})
    return conn


def test_replica(conn):
    os.makedirs(REPLICA, exist_ok=True)
    base = [os.path.join(pg_bindir(), "pg_basebackup"), "-h", PRIMARY, "-p", "5432", "-U", "postgres",
            "-D", os.path.join(REPLICA, "data"), "-R", "-X", "stream", "-c", "fast"]
    if os.getuid() == 0:
        subprocess.run(["chown", "postgres:", REPLICA], check=True)
        base = ["runuser", "-u", "postgres", "--"] + base
    subprocess.run(base, check=True)
    subprocess.run([CLUSTER, "start", REPLICA, "5433"], check=True)
    fill(conn, "pts", 200001, 1500)
    rows(conn, "DELETE FROM pts WHERE id % 13 = 0")
    lsn = rows(conn, "SELECT pg_current_wal_lsn()")[0][0]
    standby = connect(REPLICA, 5433)
    for _ in range(300):
        if rows(standby, "SELECT pg_last_wal_replay_lsn() >= %s::pg_lsn", lsn)[0][0]:
            break
        time.sleep(0.1)
    primary_answers = [want for _, want in answers(conn, "pts", "pts")]
    replica_answers = [got for got, _ in answers(standby, "pts", "pts")]
    check("a streaming replica answers with the primary's committed entries",
          replica_answers == primary_answers and
          rows(standby, "SELECT zqrtree_check('pts')")[0][0] ==
          rows(conn, "SELECT count(*) FROM pts WHERE box IS NOT NULL")[0][0])
    try:
        rows(standby, "SELECT zqrtree_insert('pts', 1, '{0,0,1,1}')")
        refused = False
    except psycopg2.Error:
        refused = True
    check("and refuses writes", refused)
    standby.close()
    subprocess.run([CLUSTER, "stop", REPLICA], check=True)


def test_engine_suite(module):
    """The cases of tests/engine/ inside a backend, in a database of their own
    (the test module carries the host too, so the extension is not loaded)."""
    admin = connect(db="postgres")
    rows(admin, "DROP DATABASE IF EXISTS zqrtree_engine")
    rows(admin, "CREATE DATABASE zqrtree_engine")
    admin.close()
    c = connect(db="zqrtree_engine")
    rows(c, "CREATE FUNCTION zqrtree_engine_suite() RETURNS text AS %s LANGUAGE C", module)
    for line in rows(c, "SELECT zqrtree_engine_suite()")[0][0].splitlines():
        status, _, rest = line.partition(" ")
        name, _, why = rest.partition(": ")
        check(f"engine suite on PostgreSQL: {name}", status == "ok", why)
    c.close()


def pg_bindir():
    return subprocess.run(["pg_config", "--bindir"], capture_output=True, text=True,
                          check=True).stdout.strip()


def main():
    if len(sys.argv) > 2:
        test_engine_suite(os.path.abspath(sys.argv[2]))
    admin = connect(db="postgres")
    rows(admin, f"DROP DATABASE IF EXISTS {DB}")
    rows(admin, f"CREATE DATABASE {DB}")
    admin.close()
    conn = connect()
    rows(conn, "CREATE EXTENSION zqrtree")
    test_snapshot_reads(conn)
    test_rollback(conn)
    test_writers_serialised(conn)
    conn = test_crashes(conn)
    test_replica(conn)
    conn.close()
    print(f"{results['passed']} passed, {results['failed']} failed")
    return 1 if results["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
