// Readers beside one writer on one WAL database file, each thread with its
// own environment, session and handles. The writer applies a fixed plan of
// insert/delete batches, each committed together with the batch count in a
// side table; a reader reads that count inside its transaction, so it knows
// which model state its snapshot must show, and every window query it runs
// there must answer exactly as the model does. Nothing but the callback
// table and the global buffer counter is shared, and the counter must come
// back to zero.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <map>
#include <random>
#include <thread>

#include "check/check.h"
#include "common/fixture.h"
#include "driver/db_dump.h"
#include "driver/index.h"
#include "tools/model.h"
#include "zqrtree/cursor.h"
#include "zqrtree/tree.h"

namespace {

constexpr uint16_t kDims = 2;
using State = std::map<int64_t, rtr_rect>;

struct Batch {
  std::vector<rtr_cell> inserts;
  std::vector<rtr_cell> deletes;
};

// The writer's batches and the model state after each count of them.
struct Plan {
  std::vector<Batch> batches;
  std::vector<State> states;  // states[k]: after k batches
};

rtr_rect random_rect(std::mt19937_64& rng, int max_len) {
  std::uniform_int_distribution<int> pos(0, 4000), len(0, max_len);
  rtr_rect r{};
  r.min0 = pos(rng) / 4.0;
  r.min1 = pos(rng) / 4.0;
  r.max0 = r.min0 + len(rng) / 4.0;
  r.max1 = r.min1 + len(rng) / 4.0;
  return r;
}

Plan make_plan(int n_batches, uint64_t seed) {
  std::mt19937_64 rng(seed);
  Plan plan;
  State s;
  int64_t next_id = 1;
  plan.states.push_back(s);
  for (int b = 0; b < n_batches; ++b) {
    Batch batch;
    const int n_ins = std::uniform_int_distribution<int>(40, 120)(rng);
    for (int i = 0; i < n_ins; ++i) {
      const rtr_cell c{next_id++, random_rect(rng, 60)};
      batch.inserts.push_back(c);
      s[c.id] = c.rect;
    }
    const int n_del = std::uniform_int_distribution<int>(0, 60)(rng);
    for (int i = 0; i < n_del && !s.empty(); ++i) {
      auto it = std::next(s.begin(), std::uniform_int_distribution<size_t>(0, s.size() - 1)(rng));
      batch.deletes.push_back(rtr_cell{it->first, it->second});
      s.erase(it);
    }
    plan.batches.push_back(std::move(batch));
    plan.states.push_back(s);
  }
  return plan;
}

zq::Box to_box(const rtr_rect& r) {
  zq::Box b;
  b.min[0] = r.min0, b.min[1] = r.min1, b.max[0] = r.max0, b.max[1] = r.max1;
  return b;
}

// One thread's own environment and connection.
class Conn {
 public:
  explicit Conn(const std::string& path) {
    env_ = zqenv_create();
    int32_t code = 0;
    if (env_ != nullptr) sess_ = zqsess_open(env_, path.c_str(), &code);
    if (sess_ != nullptr) scope_ = zqsess_scope(sess_, "main");
  }
  ~Conn() {
    if (sess_ != nullptr) zqsess_close(sess_);
    if (env_ != nullptr) zqenv_destroy(env_);
  }
  Conn(const Conn&) = delete;
  Conn& operator=(const Conn&) = delete;

  bool ok() const { return scope_ != nullptr; }
  int exec(const std::string& sql) {
    return sqlite3_exec(zqsess_db(sess_), sql.c_str(), nullptr, nullptr, nullptr);
  }
  int64_t batch_count() {
    sqlite3_stmt* st = nullptr;
    int64_t n = -1;
    if (sqlite3_prepare_v2(zqsess_db(sess_), "SELECT n FROM batches", -1, &st, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(st) == SQLITE_ROW)
      n = sqlite3_column_int64(st, 0);
    sqlite3_finalize(st);
    return n;
  }
  rtr_mem* handle(uint32_t read_mode) {
    rtr_mem* h = nullptr;
    return rtr_mem_create(env_, sess_, kDims, scope_, &index_, read_mode, &h) == 0 ? h : nullptr;
  }

  zq_env* env_ = nullptr;
  zq_session* sess_ = nullptr;
  zq_scope* scope_ = nullptr;
  zq_index index_{"t", nullptr, nullptr, nullptr};
};

void run_writer(const std::string& path, const Plan& plan, std::atomic<bool>* done) {
  Conn c(path);
  ASSERT_TRUE(c.ok());
  for (size_t b = 0; b < plan.batches.size() && !::testing::Test::HasFailure(); ++b) {
    ASSERT_EQ(zqsess_begin(c.sess_), 0);
    rtr_mem* h = c.handle(0);
    ASSERT_NE(h, nullptr);
    for (const rtr_cell& cell : plan.batches[b].inserts)
      ASSERT_EQ(rtr_insert(c.env_, h, &cell), 0) << "batch " << b;
    for (const rtr_cell& cell : plan.batches[b].deletes)
      ASSERT_EQ(rtr_delete_by_rowid(c.env_, h, cell.id, &cell.rect), 0) << "batch " << b;
    ASSERT_EQ(rtr_flush_all(c.env_, h), 0);
    rtr_mem_destroy(c.env_, h);
    ASSERT_EQ(c.exec("UPDATE batches SET n = " + std::to_string(b + 1)), SQLITE_OK);
    ASSERT_EQ(zqsess_commit(c.sess_), 0);
  }
  done->store(true);
}

// Snapshots until the writer is done (and a few after that, so the final
// state is read too); counts the queries checked.
void run_reader(const std::string& path, const Plan& plan, uint64_t seed,
                const std::atomic<bool>* done, std::atomic<uint64_t>* checked) {
  Conn c(path);
  ASSERT_TRUE(c.ok());
  std::mt19937_64 rng(seed);
  const uint32_t ops[] = {RTR_OP_INTERSECT, RTR_OP_WITHIN, RTR_OP_CONTAINS,
                          RTR_OP_OR | RTR_OP_WITHIN | RTR_OP_EQUAL};
  int after_done = 0;
  while (after_done < 3 && !::testing::Test::HasFailure()) {
    if (done->load()) ++after_done;
    ASSERT_EQ(zqsess_begin(c.sess_), 0);
    const int64_t n = c.batch_count();
    ASSERT_GE(n, 0);
    ASSERT_LT(n, static_cast<int64_t>(plan.states.size()));
    const State& want_state = plan.states[n];
    for (int q = 0; q < 6; ++q) {
      const uint32_t op = ops[q % 4];
      const rtr_rect rect = random_rect(rng, op == RTR_OP_CONTAINS ? 8 : 400);
      rtr_mem* h = c.handle(1);
      ASSERT_NE(h, nullptr);
      rcur cur;
      rcur_init(&cur, h, op);
      std::vector<int64_t> got;
      ASSERT_EQ(rcur_open(c.env_, &cur, &rect), 0);
      while (rcur_is_end(&cur) == 0) {
        rtr_cell cell;
        ASSERT_EQ(rcur_column(c.env_, &cur, &cell), 0);
        got.push_back(cell.id);
        ASSERT_EQ(rcur_next(c.env_, &cur), 0);
      }
      rtr_mem_destroy(c.env_, h);
      std::vector<int64_t> want;
      for (const auto& [id, r] : want_state)
        if (zqtool::model_matches(op, to_box(r), to_box(rect), kDims)) want.push_back(id);
      std::sort(got.begin(), got.end());
      ASSERT_EQ(got, want) << "op " << op << " after " << n << " batches";
      ++*checked;
    }
    // The writer may have committed meanwhile; the snapshot must not move.
    ASSERT_EQ(c.batch_count(), n);
    ASSERT_EQ(zqsess_commit(c.sess_), 0);
  }
}

TEST(Concurrency, ReadersSeeCommittedSnapshotsBesideOneWriter) {
  zqtest::install_default_hooks();
  zqtest::TempDir dir;
  const std::string path = dir.file("c.db");
  {
    // The empty index (a root leaf) as the driver makes it, and the count of
    // committed batches.
    std::unique_ptr<zq::Database> db;
    zq::Index index;
    ASSERT_TRUE(zq::Database::open(path, true, &db));
    ASSERT_TRUE(zq::Index::create(*db, "t", kDims, &index));
    Conn c(path);
    ASSERT_EQ(c.exec("CREATE TABLE batches(n INTEGER); INSERT INTO batches VALUES (0)"), SQLITE_OK);
  }
  const Plan plan = make_plan(80, 5);
  constexpr int kReaders = 3;
  std::atomic<bool> done{false};
  std::atomic<uint64_t> checked{0};
  std::vector<std::thread> threads;
  threads.emplace_back(run_writer, path, std::cref(plan), &done);
  for (int r = 0; r < kReaders; ++r)
    threads.emplace_back(run_reader, path, std::cref(plan), 100 + r, &done, &checked);
  for (std::thread& t : threads) t.join();
  ASSERT_FALSE(::testing::Test::HasFailure());
  EXPECT_EQ(g_rtr_buf_total_size, 0u);

  Conn c(path);
  ASSERT_TRUE(c.ok());
  const zqcheck::CheckResult r = zqcheck::check_tree(c.sess_, "main", "t", kDims);
  EXPECT_TRUE(r.ok) << "node " << r.node_id << ": " << r.message;
  EXPECT_EQ(c.batch_count(), static_cast<int64_t>(plan.batches.size()));
  std::printf("[ concurrency ] %llu queries by %d readers checked\n",
              static_cast<unsigned long long>(checked.load()), kReaders);
  EXPECT_GT(checked.load(), 0u);
}

}  // namespace
