// The driver against a brute-force model on real database files: every
// operator after bulk loads, inserts, deletes and reloads in 1, 2 and 3
// axes; every engine and allocation failure of an operation leaving the
// database exactly as it was. Bad input that the tool and the extension can
// express is the hostile suite's; here only what the API alone can say.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <random>

#include "check/check.h"
#include "driver/db_dump.h"
#include "driver/index.h"
#include "host/host.h"
#include "tools/model.h"

namespace {

using zq::Box;
using zq::Entry;
using zq::Status;
using Model = std::map<int64_t, Box>;

// Integer corners on a small grid, so touching, equal and nested boxes are
// common rather than rare.
std::vector<Entry> random_entries(int dims, int64_t first_id, size_t n, uint64_t seed) {
  std::mt19937_64 rng(seed);
  std::uniform_int_distribution<int> pos(0, 60), len(0, 8);
  std::vector<Entry> out;
  for (size_t i = 0; i < n; ++i) {
    Entry e;
    e.id = first_id + static_cast<int64_t>(i);
    for (int k = 0; k < dims; ++k) {
      e.box.min[k] = pos(rng);
      e.box.max[k] = e.box.min[k] + len(rng);
    }
    out.push_back(e);
  }
  return out;
}

const uint32_t kOps[] = {
    0,
    RTR_OP_INTERSECT,
    RTR_OP_CONTAINS,
    RTR_OP_WITHIN,
    RTR_OP_EQUAL,
    RTR_OP_ANY,
    RTR_OP_WITHIN | RTR_OP_INTERSECT,
    RTR_OP_CONTAINS | RTR_OP_INTERSECT,
    RTR_OP_INTERSECT | RTR_OP_EQUAL,
    RTR_OP_OR,
    RTR_OP_OR | RTR_OP_ANY,
    RTR_OP_OR | RTR_OP_EQUAL,
    RTR_OP_OR | RTR_OP_WITHIN | RTR_OP_EQUAL,
    RTR_OP_OR | RTR_OP_INTERSECT | RTR_OP_CONTAINS,
};

std::vector<int64_t> search(const zq::Index& index, uint32_t op, const Box& q) {
  std::vector<int64_t> ids;
  Status s = index.query(op, q, [&](const Entry& e) {
    ids.push_back(e.id);
    return true;
  });
  EXPECT_TRUE(s) << s.message();
  std::sort(ids.begin(), ids.end());
  return ids;
}

std::vector<int64_t> expected(const Model& model, uint32_t op, const Box& q, int dims) {
  std::vector<int64_t> ids;
  for (const auto& [id, box] : model)
    if (zqtool::model_matches(op, box, q, dims)) ids.push_back(id);
  return ids;
}

using Near = std::vector<std::pair<int64_t, double>>;

Near nearest_model(const Model& model, const Box& q, int dims, const zq::NearestOptions& o) {
  return zqtool::model_nearest(model, q, dims, o.k, o.max_distance);
}

Near nearest(const zq::Index& index, const Box& q, const zq::NearestOptions& o) {
  Near out;
  Status s = index.nearest(q, o, [&](const zq::Neighbour& n) {
    out.push_back({n.entry.id, n.distance});
    return true;
  });
  EXPECT_TRUE(s) << s.message();
  return out;
}

class DriverTest : public ::testing::Test {
 protected:
  void SetUp() override { open(); }

  void open() {
    db_.reset();
    Status s = zq::Database::open(path_, true, &db_);
    ASSERT_TRUE(s) << s.message();
  }

  zq::Index create(int dims, const std::string& name = "t") {
    zq::Index index;
    Status s = zq::Index::create(*db_, name, dims, &index);
    EXPECT_TRUE(s) << s.message();
    return index;
  }

  // Every operator against windows, entries' own boxes and points.
  void expect_matches_model(const zq::Index& index, const Model& model, uint64_t seed) {
    const int dims = index.dims();
    std::vector<Box> queries = {Box{}};
    for (const Entry& e : random_entries(dims, 0, 6, seed)) queries.push_back(e.box);
    size_t step = std::max<size_t>(1, model.size() / 4);
    size_t i = 0;
    for (const auto& [id, box] : model)
      if (i++ % step == 0) queries.push_back(box);
    for (const Box& q : queries) {
      for (uint32_t op : kOps)
        ASSERT_EQ(search(index, op, q), expected(model, op, q, dims))
            << "op " << zq::op_name(op) << " dims " << dims;
      // Nearest neighbours on every axis; the limit of 5 falls on grid
      // distances, so entries at exactly the limit are common.
      for (const zq::NearestOptions& o :
           {zq::NearestOptions{1}, zq::NearestOptions{25}, zq::NearestOptions{0, 5.0}}) {
        ASSERT_EQ(nearest(index, q, o), nearest_model(model, q, dims, o))
            << "k " << o.k << " max " << o.max_distance << " dims " << dims;
      }
    }
  }

  void expect_sound(const zq::Index& index) {
    std::string problem;
    ASSERT_TRUE(index.verify_rowids(&problem));
    EXPECT_EQ(problem, "");
    zqcheck::CheckResult r;
    Status s = index.with_read_handle([&](rtr_mem* rtr) {
      r = zqcheck::check_search(db_->env(), rtr, "main", index.name().c_str());
      return Status::ok();
    });
    ASSERT_TRUE(s) << s.message();
    EXPECT_TRUE(r.ok) << "node " << r.node_id << ": " << r.message;
  }

  zqtest::TempDir dir_;
  std::string path_ = dir_.file("t.db");
  std::unique_ptr<zq::Database> db_;
};

class DriverDims : public DriverTest, public ::testing::WithParamInterface<int> {};

// One index through its whole life, checked against the model after each step.
TEST_P(DriverDims, LifecycleMatchesModel) {
  const int dims = GetParam();
  zq::Index index = create(dims);
  Model model;
  expect_matches_model(index, model, 1);  // the empty root leaf

  // Sparse nodes, hundreds of them: the checker's search of every entry
  // reads more rows through one handle than the node guard's table first holds.
  std::vector<Entry> first = random_entries(dims, 1, 2500, 11);
  zq::VectorSource src(first);
  ASSERT_TRUE(index.load(src, zq::LoadOptions{0.1, false, {}}));
  for (const Entry& e : first) model[e.id] = e.box;
  expect_sound(index);
  expect_matches_model(index, model, 2);

  std::vector<Entry> more = random_entries(dims, 5001, 400, 12);
  ASSERT_TRUE(index.insert(more));
  for (const Entry& e : more) model[e.id] = e.box;
  expect_sound(index);

  int64_t n = 0;
  for (auto it = model.begin(); it != model.end() && n < 300; ++n) {
    Status s = n % 2 == 0 ? index.remove(it->first) : index.remove(it->first, it->second);
    ASSERT_TRUE(s) << s.message();
    it = model.erase(it);
    std::advance(it, 3);
  }
  expect_sound(index);
  expect_matches_model(index, model, 3);

  // A load without --replace rebuilds from the current entries plus the new.
  std::vector<Entry> extra = random_entries(dims, 9001, 700, 13);
  zq::VectorSource extra_src(extra);
  ASSERT_TRUE(index.load(extra_src, zq::LoadOptions{1.0, false, {}}));
  for (const Entry& e : extra) model[e.id] = e.box;
  expect_sound(index);
  expect_matches_model(index, model, 4);

  std::vector<Entry> fresh = random_entries(dims, 1, 300, 14);
  zq::VectorSource fresh_src(fresh);
  ASSERT_TRUE(index.load(fresh_src, zq::LoadOptions{0.3, true, {}}));
  model.clear();
  for (const Entry& e : fresh) model[e.id] = e.box;
  expect_sound(index);
  uint64_t count = 0;
  ASSERT_TRUE(index.count(&count));
  EXPECT_EQ(count, 300u);
  int seen = 0;
  ASSERT_TRUE(
      index.query(RTR_OP_OR | RTR_OP_ANY, Box{}, [&](const Entry&) { return ++seen < 10; }));
  EXPECT_EQ(seen, 10) << "the visitor asked to stop";

  // Everything is on disk: a new session sees the same index.
  open();
  zq::Index again;
  ASSERT_TRUE(zq::Index::open(*db_, "t", &again));
  EXPECT_EQ(again.dims(), dims);
  expect_matches_model(again, model, 5);
}

INSTANTIATE_TEST_SUITE_P(Axes, DriverDims, ::testing::Values(1, 2, 3));

// What only the API can get wrong, with the kind the tool and the extension
// map to exit status and SQLite code; not a byte written.
TEST_F(DriverTest, BadInputIsRefusedAndChangesNothing) {
  zq::Index index = create(2);
  std::vector<Entry> base = random_entries(2, 1, 50, 21);
  ASSERT_TRUE(index.insert(base));
  const std::string before = zqtest::dump_database(path_);
  ASSERT_NE(before, "");
  zq::VectorSource src(base);
  zq::Index other;
  const struct {
    Status status;
    Status::Kind kind;
    const char* message;
  } cases[] = {
      {index.insert(Entry{100, Box{{0, 0, 1}, {1, 1, 2}}}), Status::Kind::kInvalid,
       "axis 2 is set but the index has 2 axes"},
      {index.load(src, zq::LoadOptions{1.5, true, {}}), Status::Kind::kInvalid, "fill factor 1.5"},
      {index.remove(999), Status::Kind::kNotFound, "rowid 999 is not in index 't'"},
      {zq::Index::create(*db_, "u", 0, &other), Status::Kind::kInvalid,
       "dimension count 0 is not 1, 2 or 3"},
      {zq::Index::create(*db_, "t", 2, &other), Status::Kind::kExists, "index 't' already exists"},
      {index.nearest(Box{{0, 0, 1}, {1, 1, 2}}, {}, [](const zq::Neighbour&) { return true; }),
       Status::Kind::kInvalid, "query box: axis 2 is set"},
      {index.nearest(Box{}, zq::NearestOptions{3, -1}, [](const zq::Neighbour&) { return true; }),
       Status::Kind::kInvalid, "max distance -1 is not a number of 0 or more"},
      {index.nearest(Box{}, zq::NearestOptions{3, NAN}, [](const zq::Neighbour&) { return true; }),
       Status::Kind::kInvalid, "max distance nan is not"},
      {index.nearest(Box{}, zq::NearestOptions{50, INFINITY, 20},
                     [](const zq::Neighbour&) { return true; }),
       Status::Kind::kEngine, "needs more than 20 nodes and entries queued at once"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(c.status.kind(), c.kind) << c.status.message();
    EXPECT_NE(c.status.message().find(c.message), std::string::npos) << c.status.message();
  }
  EXPECT_EQ(zqtest::dump_database(path_), before);
  expect_sound(index);
}

// Many operations in one transaction of the program's own: a failed one takes
// back only its own work, a rollback all of them, and nothing is on disk
// before the commit.
TEST_F(DriverTest, AProgramGroupsOperationsInItsOwnTransaction) {
  zq::Index index = create(2);
  const std::vector<Entry> entries = random_entries(2, 1, 300, 5);
  const std::string empty = zqtest::dump_database(path_);
  Model model;
  ASSERT_TRUE(db_->begin());
  for (const Entry& e : entries) {
    ASSERT_TRUE(index.insert(e));
    model[e.id] = e.box;
  }
  for (int64_t id = 1; id <= 100; id += 3) {
    ASSERT_TRUE(index.remove(id));
    model.erase(id);
  }
  EXPECT_EQ(index.insert(entries[200]).kind(), Status::Kind::kInvalid);  // a taken rowid
  EXPECT_EQ(index.remove(999999).kind(), Status::Kind::kNotFound);  // fails inside its savepoint
  EXPECT_EQ(zqtest::dump_database(path_), empty);
  expect_matches_model(index, model, 6);
  uint64_t n = 0;
  ASSERT_TRUE(index.count(&n));
  EXPECT_EQ(n, model.size());
  ASSERT_TRUE(db_->commit());
  expect_matches_model(index, model, 7);
  expect_sound(index);
  const std::string committed = zqtest::dump_database(path_);
  ASSERT_TRUE(db_->begin());
  ASSERT_TRUE(index.remove(200));
  ASSERT_TRUE(index.count(&n));
  EXPECT_EQ(n, model.size() - 1);
  db_->rollback();
  EXPECT_EQ(zqtest::dump_database(path_), committed);
  expect_matches_model(index, model, 8);
}

// A tree inserts left sparse is repacked with every entry; a damaged one is
// repaired from the leaf rows that decode, and says what it left out: a row
// that does not decode (its entries lost), a copy of a leaf no parent names
// (a rowid twice), a stray entry the rowid table does not list.
TEST_F(DriverTest, RepackAndRepairRebuildFromTheIndexsOwnEntries) {
  zq::Index index = create(2);
  const std::vector<Entry> entries = random_entries(2, 1, 2000, 31);
  ASSERT_TRUE(index.insert(entries));
  Model model;
  for (const Entry& e : entries) model[e.id] = e.box;
  zq::RebuildReport r;
  ASSERT_TRUE(index.repack(zq::kDefaultFill, &r));
  EXPECT_EQ(r.kept, 2000u);
  expect_matches_model(index, model, 41);

  sqlite3* db = db_->db();
  auto one = [&](const std::string& sql) {
    sqlite3_stmt* st = nullptr;
    EXPECT_EQ(sqlite3_prepare_v2(db, sql.c_str(), -1, &st, nullptr), SQLITE_OK) << sql;
    const int64_t v = sqlite3_step(st) == SQLITE_ROW ? sqlite3_column_int64(st, 0) : -1;
    sqlite3_finalize(st);
    return v;
  };
  const std::string nodes = "\"MDRT$t\"";
  const int64_t broken = one("SELECT min(rowid) FROM " + nodes + " WHERE level = 0");
  const int64_t copied = one("SELECT max(rowid) FROM " + nodes + " WHERE level = 0");
  const int64_t lost = one("SELECT (length(cells) - 4) / 40 FROM " + nodes +
                           " WHERE rowid = " + std::to_string(broken));
  const int64_t twice = one("SELECT (length(cells) - 4) / 40 FROM " + nodes +
                            " WHERE rowid = " + std::to_string(copied));
  ASSERT_EQ(sqlite3_exec(db,
                         ("UPDATE " + nodes + " SET cells = x'ffffff7f' WHERE rowid = " +
                          std::to_string(broken) + "; INSERT INTO " + nodes +
                          " (rowid, level, parent_id, cells) SELECT 900000, 0, 1, cells FROM " +
                          nodes + " WHERE rowid = " + std::to_string(copied))
                             .c_str(),
                         nullptr, nullptr, nullptr),
            SQLITE_OK)
      << sqlite3_errmsg(db);
  // A stray leaf holding rowid 999999, with the box of the copied leaf's first entry.
  sqlite3_stmt* st = nullptr;
  ASSERT_EQ(sqlite3_prepare_v2(db,
                               ("INSERT INTO " + nodes +
                                " (rowid, level, parent_id, cells) SELECT 900001, 0, 1, ?1 || "
                                "substr(cells, 13, 32) FROM " +
                                nodes + " WHERE rowid = " + std::to_string(copied))
                                   .c_str(),
                               -1, &st, nullptr),
            SQLITE_OK);
  const uint8_t head[12] = {1, 0, 0, 0, 0x3f, 0x42, 0x0f, 0, 0, 0, 0, 0};
  sqlite3_bind_blob(st, 1, head, sizeof head, SQLITE_STATIC);
  EXPECT_EQ(sqlite3_step(st), SQLITE_DONE);
  sqlite3_finalize(st);
  ASSERT_EQ(
      sqlite3_exec(db, "UPDATE \"MDRT$t\" SET cells = CAST(cells AS BLOB) WHERE rowid = 900001",
                   nullptr, nullptr, nullptr),
      SQLITE_OK);
  ASSERT_TRUE(index.repair(&r));
  EXPECT_EQ(r.damaged_rows, 1u);
  EXPECT_EQ(r.lost, static_cast<uint64_t>(lost));
  EXPECT_EQ(r.duplicates, static_cast<uint64_t>(twice));
  EXPECT_EQ(r.unlisted, 1u);
  EXPECT_EQ(r.kept + r.lost, 2000u);
  Model kept;
  ASSERT_TRUE(index.entries([&](const Entry& e) { return kept.emplace(e.id, e.box).second; }));
  EXPECT_EQ(kept.size(), r.kept);
  for (const auto& [id, box] : kept) EXPECT_EQ(model.at(id), box) << id;
  expect_matches_model(index, kept, 42);
  expect_sound(index);
}

// "For each place, its 3 nearest": many searches on one handle the caller
// keeps, each answer the model's, the queue's memory given back at the end.
TEST_F(DriverTest, NearestSearchesOnAKeptHandle) {
  zq::Index index = create(3);
  const std::vector<Entry> parks = random_entries(3, 1, 3000, 61);
  zq::VectorSource src(parks);
  ASSERT_TRUE(index.load(src, {}));
  Model model;
  for (const Entry& e : parks) model[e.id] = e.box;
  const uint64_t live = zqenv_live_allocs(db_->env());
  Status s = index.with_read_handle([&](rtr_mem* rtr) {
    zq::NearestScan scan(index);
    for (const Entry& place : random_entries(3, 0, 40, 62)) {
      Near got;
      Status st = scan.open(place.box, zq::NearestOptions{3}, rtr);
      for (; st && !scan.at_end(); st = scan.next())
        got.push_back({scan.neighbour().entry.id, scan.neighbour().distance});
      if (!st) return st;
      EXPECT_EQ(got, nearest_model(model, place.box, 3, zq::NearestOptions{3}));
    }
    return Status::ok();
  });
  ASSERT_TRUE(s) << s.message();
  EXPECT_EQ(zqenv_live_allocs(db_->env()), live);

  // A search is a read: it runs while another connection holds the write lock.
  sqlite3* writer = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &writer), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(writer, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_busy_timeout(db_->db(), 0);
  Near got;
  s = index.nearest(parks[0].box, zq::NearestOptions{3}, [&](const zq::Neighbour& n) {
    got.push_back({n.entry.id, n.distance});
    return true;
  });
  EXPECT_TRUE(s) << s.message();
  EXPECT_EQ(got, nearest_model(model, parks[0].box, 3, zq::NearestOptions{3}));
  sqlite3_exec(writer, "ROLLBACK", nullptr, nullptr, nullptr);
  sqlite3_close(writer);
}

TEST_F(DriverTest, NamesAtTheLimitAndQuotesWork) {
  const std::string longest(123, 'x');
  zq::Index a = create(1, longest);
  zq::Index b = create(2, "we\"ird name");
  ASSERT_TRUE(a.insert(Entry{1, Box{{2}, {3}}}));
  ASSERT_TRUE(b.insert(Entry{1, Box{{2, 2}, {3, 3}}}));
  EXPECT_EQ(search(a, RTR_OP_CONTAINS, Box{{2.5}, {2.5}}), std::vector<int64_t>{1});
  EXPECT_EQ(search(b, RTR_OP_EQUAL, Box{{2, 2}, {3, 3}}), std::vector<int64_t>{1});
  std::vector<std::pair<std::string, int>> all;
  ASSERT_TRUE(db_->list(&all));
  EXPECT_EQ(all.size(), 2u);
}

// The operations every fault loop runs, each with the model's view of its
// success.
struct FaultOp {
  const char* what;
  std::function<Status(zq::Database&, zq::Index&)> run;
  std::function<void(Model&)> apply;
};

std::vector<FaultOp> fault_ops() {
  static const std::vector<Entry> batch = random_entries(2, 1001, 60, 52);
  static const std::vector<Entry> reload = random_entries(2, 2001, 120, 53);
  return {
      {"insert", [](zq::Database&, zq::Index& i) { return i.insert(batch); },
       [](Model& m) {
         for (const Entry& e : batch) m[e.id] = e.box;
       }},
      {"delete", [](zq::Database&, zq::Index& i) { return i.remove(17); },
       [](Model& m) { m.erase(17); }},
      {"load",
       [](zq::Database&, zq::Index& i) {
         zq::VectorSource src(reload);
         return i.load(src, {});
       },
       [](Model& m) {
         for (const Entry& e : reload) m[e.id] = e.box;
       }},
      {"reload with replace",
       [](zq::Database&, zq::Index& i) {
         zq::VectorSource src(reload);
         return i.load(src, zq::LoadOptions{0.7, true, {}});
       },
       [](Model& m) {
         m.clear();
         for (const Entry& e : reload) m[e.id] = e.box;
       }},
      {"create",
       [](zq::Database& db, zq::Index&) {
         zq::Index other;
         return zq::Index::create(db, "other", 3, &other);
       },
       [](Model&) {}},
  };
}

class FaultTest : public DriverTest {
 protected:
  void SetUp() override {
    DriverTest::SetUp();
    index_ = create(2);
    std::vector<Entry> v = random_entries(2, 1, 400, 51);
    for (const Entry& e : v) model_[e.id] = e.box;
    zq::VectorSource src(v);
    ASSERT_TRUE(index_.load(src, {}));
  }

  // After a fault loop: the operation done once for real, and the index
  // answering as the model says.
  void expect_index_intact(const FaultOp& op) {
    op.apply(model_);
    expect_sound(index_);
    expect_matches_model(index_, model_, 54);
  }

  zq::Index index_;
  Model model_;
};

// Every engine call of an operation inside a node-table mini-transaction
// fails in turn: the operation reports the engine's trace and the file is
// byte for byte as before. One connection takes all the attempts, so state
// a failed operation leaves behind (an open transaction, stale host caches)
// fails the next one.
TEST_F(FaultTest, EveryEngineFailureLeavesTheDatabaseAsItWas) {
  for (const FaultOp& op : fault_ops()) {
    int failures = 0;
    for (uint64_t nth = 1; nth < 100000; ++nth) {
      const std::string before = zqtest::dump_database(path_);
      db_->fail_engine_nth(nth);
      Status s = op.run(*db_, index_);
      db_->fail_engine_nth(0);
      if (s) break;
      ++failures;
      ASSERT_EQ(s.kind(), Status::Kind::kEngine) << op.what << ": " << s.message();
      ASSERT_NE(s.message().find("error stack, innermost first:\n  code "), std::string::npos)
          << s.message();
      ASSERT_EQ(zqtest::dump_database(path_), before) << op.what << " failing at call " << nth;
    }
    EXPECT_GT(failures, 0) << op.what << " made no engine call";
    expect_index_intact(op);
  }
}

// Every allocation of an operation fails in turn, each in a child process:
// the library uses a few allocations untested on purpose and then stops the
// process, so the child either fails the operation cleanly (with a trace) or
// dies; either way the file must be byte for byte as before.
TEST_F(FaultTest, EveryAllocationFailureLeavesTheDatabaseAsItWas) {
  constexpr int kFailedCleanly = 10, kFailedUnclearly = 11, kCannotOpen = 12;
  for (const FaultOp& op : fault_ops()) {
    db_.reset();  // a forked child must not share the parent's connection
    int clean = 0, died = 0;
    for (uint64_t nth = 1; nth < 100000; ++nth) {
      const std::string before = zqtest::dump_database(path_);
      const pid_t pid = fork();
      ASSERT_GE(pid, 0);
      if (pid == 0) {
        std::unique_ptr<zq::Database> db;
        zq::Index index;
        if (!zq::Database::open(path_, false, &db) || !zq::Index::open(*db, "t", &index))
          _exit(kCannotOpen);
        db->fail_alloc_nth(nth);
        Status s = op.run(*db, index);
        if (s) _exit(0);
        _exit(s.message().find("failed (code -") != std::string::npos ? kFailedCleanly
                                                                      : kFailedUnclearly);
      }
      int status = 0;
      ASSERT_EQ(waitpid(pid, &status, 0), pid);
      const int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
      if (code == 0) break;
      ASSERT_NE(code, kCannotOpen) << op.what << " at allocation " << nth;
      ASSERT_NE(code, kFailedUnclearly) << op.what << " at allocation " << nth;
      // Any other ending is a stop: a signal, or a sanitizer's exit.
      (code == kFailedCleanly ? clean : died)++;
      ASSERT_EQ(zqtest::dump_database(path_), before) << op.what << " failing at " << nth;
    }
    EXPECT_GT(clean, 0) << op.what;
    std::printf("%s: %d allocation failures handled, %d stopped the process\n", op.what, clean,
                died);
    open();
    ASSERT_TRUE(zq::Index::open(*db_, "t", &index_));
    expect_index_intact(op);
  }
}

}  // namespace
