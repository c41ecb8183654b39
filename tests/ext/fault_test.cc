// A change that fails part way leaves the virtual table as it was: the host's
// nth allocation, or its nth engine call inside a node-table mini-transaction,
// is made to fail, for every n until the change succeeds, in autocommit mode
// and inside an open transaction (where SQLite itself does not undo a failed
// single-row statement).
//
// Each attempt runs in a child process on its own copy of the database: the
// library uses its node buffers without testing them, so a failure landing on
// one of those stops the process, and such attempts are only counted.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

#include "driver/db_dump.h"
#include "tests/ext/ext_harness.h"

namespace zqext_test {
namespace {

enum Outcome {
  kFailedCleanly = 40,  // the change failed and nothing changed
  kSucceeded = 41,      // the nth allocation came after the change's last
  kChanged = 42,        // the change failed but the tables differ
  kUnsound = 43,        // the tree checker found a violation
  kSetup = 44,          // the child could not open or load
};

int in_child(const std::function<int()>& body) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int exec(sqlite3* db, const std::string& sql) {
  return sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
}

// The checker's answer, read without the test harness (the child has none).
bool sound(sqlite3* db) {
  sqlite3_stmt* st = nullptr;
  bool ok = sqlite3_prepare_v2(db, "SELECT zqrtree_check('t')", -1, &st, nullptr) == SQLITE_OK &&
            sqlite3_step(st) == SQLITE_ROW &&
            std::string(reinterpret_cast<const char*>(sqlite3_column_text(st, 0))) == "ok";
  sqlite3_finalize(st);
  return ok;
}

struct Case {
  const char* name;
  const char* prelude;  // null: autocommit; else after BEGIN, before the fault is armed
  const char* change;   // runs with the fault armed; COMMIT writes the listed changes
  bool deferred = false;
};

// What the table holds as its users see it: every row, and the entries a
// search of everything finds. Inside a transaction the tree's changes wait in
// the library's handle until commit, so the node table's bytes say nothing.
std::string contents(sqlite3* db) {
  std::string out;
  for (const char* sql : {"SELECT * FROM t ORDER BY id",
                          "SELECT * FROM t WHERE hi0 >= -1e300 AND lo0 <= 1e300 ORDER BY id"}) {
    sqlite3_stmt* st = nullptr;
    sqlite3_prepare_v2(db, sql, -1, &st, nullptr);
    while (sqlite3_step(st) == SQLITE_ROW)
      for (int c = 0; c < sqlite3_column_count(st); ++c)
        out += zqtest::dump_value(st, c) + (c + 1 < sqlite3_column_count(st) ? "|" : "\n");
    sqlite3_finalize(st);
  }
  return out;
}

// A failed change leaves the tables as they were right before it; a failed
// COMMIT rolls the whole transaction back.
int attempt(const std::string& path, const Case& c, const char* fault, uint64_t n) {
  sqlite3* db = nullptr;
  if (sqlite3_open(path.c_str(), &db) != SQLITE_OK) return kSetup;
  sqlite3_enable_load_extension(db, 1);
  const bool commit = std::string(c.change) == "COMMIT", in_txn = c.prelude != nullptr;
  if (sqlite3_load_extension(db, extension_path().c_str(), nullptr, nullptr) != SQLITE_OK ||
      (c.deferred && exec(db, "SELECT zqrtree_defer('t', 1)") != SQLITE_OK))
    return kSetup;
  const std::string before_txn = zqtest::dump_connection(db);
  if (in_txn && (exec(db, "BEGIN") != SQLITE_OK || exec(db, c.prelude) != SQLITE_OK)) return kSetup;
  const bool inside = in_txn && !commit;
  const std::string before = commit   ? before_txn
                             : inside ? contents(db)
                                      : zqtest::dump_connection(db);
  exec(db, std::string("SELECT ") + fault + "(" + std::to_string(n) + ")");
  const int rc = exec(db, c.change);
  exec(db, std::string("SELECT ") + fault + "(0)");
  if (rc == SQLITE_OK) return kSucceeded;
  if ((inside ? contents(db) : zqtest::dump_connection(db)) != before) return kChanged;
  if (inside && (exec(db, "COMMIT") != SQLITE_OK || contents(db) != before)) return kChanged;
  if (!sound(db)) return kUnsound;
  sqlite3_close(db);
  return kFailedCleanly;
}

TEST(ExtFault, FailedChangesLeaveTheTablesAsTheyWere) {
  const std::string base = temp_path("ext_fault_base.db");
  const std::string work = temp_path("ext_fault_work.db");
  std::remove(base.c_str());
  {
    Db db(base);
    db.exec("CREATE VIRTUAL TABLE t USING zqrtree(id, lo0, hi0, lo1, hi1)");
    std::mt19937 rng(9);
    for (int id = 1; id <= 300; ++id)
      db.exec("INSERT INTO t VALUES (" + std::to_string(id) + ", " +
              box_sql(random_box(rng, 2, 200), 2) + ")");
  }
  const char* insert = "INSERT INTO t VALUES (5000, 10, 12, 10, 12)";
  const char* update = "UPDATE t SET lo0 = 150, hi0 = 160 WHERE id = 7";
  const char* remove = "DELETE FROM t WHERE id = 9";
  const char* several = "INSERT INTO t SELECT id + 1000, lo0, hi0, lo1, hi1 FROM t WHERE id <= 4";
  const Case cases[] = {
      {"insert", nullptr, insert},
      // Changes made earlier in the transaction are in the handle the failure
      // drops, and must come back in the next one.
      {"insert in a transaction",
       "INSERT INTO t VALUES (4000, 1, 2, 1, 2); DELETE FROM t WHERE id = 11", insert},
      {"update", nullptr, update},
      {"update in a transaction", "", update},
      {"delete in a transaction", "", remove},
      {"several rows in a transaction", "", several},
      {"deferred changes applied at commit",
       "INSERT INTO t VALUES (5000, 10, 12, 10, 12); DELETE FROM t WHERE id = 9; "
       "UPDATE t SET lo0 = 150, hi0 = 160 WHERE id = 7",
       "COMMIT", true},
      // The tree takes a transaction's changes at commit: one by one, or by a
      // rebuild of the whole tree once they are a quarter of it.
      {"changes written at commit",
       "INSERT INTO t VALUES (5000, 10, 12, 10, 12); DELETE FROM t WHERE id = 9; "
       "UPDATE t SET lo0 = 150, hi0 = 160 WHERE id = 7",
       "COMMIT"},
      {"a rebuild at commit", "INSERT INTO t SELECT id + 1000, lo0, hi0, lo1, hi1 FROM t", "COMMIT"},
      // A failed search changes nothing and leaves the transaction usable.
      {"nearest rows", nullptr, "SELECT count(*) FROM t('nearest', 90, 90, 90, 90, 60)"},
      {"nearest rows merged with deferred changes",
       "INSERT INTO t VALUES (5000, 10, 12, 10, 12); DELETE FROM t WHERE id = 9",
       "SELECT count(*) FROM t('nearest', 10, 10, 10, 10, 60)", true},
  };
  // Allocations may land on a node buffer and stop the child; engine calls
  // fail cleanly every time.
  for (const char* fault : {"zqrtree_fault_alloc", "zqrtree_fault_engine"}) {
    for (const Case& c : cases) {
      SCOPED_TRACE(std::string(c.name) + " with " + fault);
      int clean = 0, stopped = 0, n = 1;
      for (; n < 1000; ++n) {
        std::filesystem::copy_file(base, work, std::filesystem::copy_options::overwrite_existing);
        const int outcome = in_child([&] { return attempt(work, c, fault, n); });
        if (outcome == kSucceeded) break;
        if (outcome == kFailedCleanly)
          ++clean;
        else if (outcome < kFailedCleanly || outcome > kSetup)
          ++stopped;
        else
          ADD_FAILURE() << "fault " << n << ": outcome " << outcome;
      }
      EXPECT_LT(n, 1000) << "the change never succeeded";
      // A change inside a transaction may touch only nodes its handle holds
      // already, with no engine call to fail.
      if (n > 1) {
        EXPECT_GT(clean, 0) << "no fault was reported as an error";
      }
      if (std::string(fault) == "zqrtree_fault_engine") {
        EXPECT_EQ(stopped, 0);
      }
      RecordProperty(std::string(c.name) + " " + fault + ": stopped", stopped);
    }
  }
  std::remove(base.c_str());
  std::remove(work.c_str());
}

}  // namespace
}  // namespace zqext_test
