// Mini-transactions and the faults injected inside them: commit and
// rollback of row actions, the raise point with and without the release
// flag, failing callbacks, real SQLite failures, and the kind and marks a
// ptx gets in each session state.
#include <functional>

#include "host/internal.h"
#include "tests/common/fixture.h"

namespace {

using zqtest::pattern;
using zqtest::Scratch;
using zqtest::SqlRow;

class PtxTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    find_table();
    ASSERT_EQ(put_row(1, 0, 0, pattern(20, 1)), 0);
    ASSERT_EQ(put_row(2, 0, 0, pattern(70, 2)), 0);
    before_ = sql_rows();
  }

  // Insert of row 3, update of row 1's parent, delete of row 2: three row
  // actions inside `ptx`.
  void change_all(zq_ptx* ptx, zq_memobj* mem) {
    zq_key* k3 = tuple4_key_create(env_, mem, desc_, 3, __FILE__, __LINE__);
    ASSERT_EQ(zqhost_row_insert(ptx, sess_, table_, real_index_, desc_,
                                make_row(mem, 3, 1, 1, pattern(90, 3)), k3, 0, 0),
              0);
    const uint16_t parent[] = {1};
    zq_fillinfo* vals = tuple4_fillinfo_space_create_low(env_, mem, desc_, parent, 1, 0);
    vals->values[0].notnull = 1;
    vals->values[0].u.i64 = 77;
    zq_key* k1 = tuple4_key_create(env_, mem, desc_, 1, __FILE__, __LINE__);
    ASSERT_EQ(zqhost_row_update_fixed(ptx, sess_, table_, real_index_, desc_, k1, vals, vals, 0, 0,
                                      nullptr),
              0);
    zq_key* k2 = tuple4_key_create(env_, mem, desc_, 2, __FILE__, __LINE__);
    ASSERT_EQ(zqhost_row_delete(ptx, sess_, table_, real_index_, desc_, k2, 0, 0, nullptr), 0);
  }

  std::vector<SqlRow> before_;
};

TEST_F(PtxTest, CommitKeepsAndRollbackUndoesEveryRowAction) {
  for (bool commit : {false, true}) {
    SCOPED_TRACE(commit ? "commit" : "rollback");
    Scratch mem(env_);
    zq_ptx ptx;
    ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
    ASSERT_NO_FATAL_FAILURE(change_all(&ptx, mem.get()));
    if (commit) {
      ASSERT_EQ(ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT), 0);
      std::vector<SqlRow> want{{1, 0, 77, pattern(20, 1), 0}, {3, 1, 1, pattern(90, 3), 0}};
      EXPECT_EQ(sql_rows(), want);
    } else {
      ptx3_rollback(&ptx, -1);
      EXPECT_EQ(sql_rows(), before_);
    }
    EXPECT_EQ(env_->active_ptx, nullptr);
  }
}

// The library's frame: -1513 with the release flag releases (the work
// stays), anything else rolls back.
TEST_F(PtxTest, RaisePointEndsThePtxTheWayTheFrameChooses) {
  struct Case {
    int32_t code;
    uint8_t release;
    bool kept;
  };
  for (const Case c : {Case{-1513, 1, true}, Case{-1513, 0, false}, Case{-7000, 1, false}}) {
    SCOPED_TRACE(testing::Message() << c.code << " release " << int{c.release});
    Scratch mem(env_);
    zqfault_reset(env_);
    zqfault_raise_nth(env_, 2, c.code, c.release);
    zq_ptx ptx;
    ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
    zq_key* k3 = tuple4_key_create(env_, mem.get(), desc_, 3, __FILE__, __LINE__);
    ASSERT_EQ(zqhost_row_insert(&ptx, sess_, table_, real_index_, desc_,
                                make_row(mem.get(), 3, 0, 0, pattern(5, 5)), k3, 0, 0),
              0);
    nbtr_cur cur;
    nbtr_cur_init(&cur, btr_);
    bool raised = false;
    try {
      nbtr_cur_search(&ptx, &cur, 4, 4, k3, 0, mem.get());
    } catch (const zq_raised& r) {
      raised = true;
      EXPECT_EQ(r.code, c.code);
      EXPECT_EQ(ptx.release_flag, c.release);
      if (r.code == -1513 && ptx.release_flag == 1) {
        ptx3_release_resource(&ptx);
      } else {
        ptx3_rollback(&ptx, r.code);
      }
    }
    ASSERT_TRUE(raised);
    EXPECT_EQ(zqfault_raise_count(env_), 2u);
    EXPECT_EQ(sql_rows().size(), c.kept ? 3u : 2u);
    exec("DELETE FROM \"MDRT$t\" WHERE rowid = 3");
  }
}

// Every raise-capable call counts inside a ptx and raises there when told
// to; outside a ptx none of them counts.
TEST_F(PtxTest, RaiseCapableCallsCountOnlyInsideAPtx) {
  Scratch mem(env_);
  zq_key* key = tuple4_key_create(env_, mem.get(), desc_, 1, __FILE__, __LINE__);
  nbtr_cur found;
  using Call = std::function<void(zq_ptx*)>;
  std::vector<std::pair<const char*, Call>> calls = {
      {"pbcur_open",
       [&](zq_ptx* ptx) {
         pbcur pc;
         pbcur_init_low(&pc, ptx, btr_, __FILE__, __LINE__);
         pbcur_open(&pc, key, 1, 4, mem.get());
         pbcur_close(&pc);
       }},
      {"ndct_table_get_dver",
       [&](zq_ptx*) {
         uint64_t v = 0;
         ndct_table_get_dver(env_, table_, &v);
       }},
      {"tuple4_from_nrec",
       [&](zq_ptx*) {
         int32_t code = 0;
         tuple4_from_nrec(env_, mem.get(), found.rec, desc_, &code);
       }},
  };
  zq_ptx reader;
  ASSERT_EQ(ptx3_begin_low_ex(env_, &reader, 0, 0, __FILE__, __LINE__), 0);
  nbtr_cur_init(&found, btr_);
  ASSERT_EQ(nbtr_cur_search(&reader, &found, 4, 4, key, 0, mem.get()), 0);
  ASSERT_NE(found.rec, nullptr);
  for (auto& [name, call] : calls) {
    SCOPED_TRACE(name);
    zqfault_reset(env_);
    zqfault_raise_nth(env_, 1, -42, 0);
    EXPECT_THROW(call(&reader), zq_raised);
    EXPECT_EQ(zqfault_raise_count(env_), 1u);
  }
  // The record stays readable: the raises above ended nothing.
  ASSERT_NE(found.rec, nullptr);
  ptx3_commit_inner(&reader, ZQ_PTX_COMMIT);

  zqfault_reset(env_);
  zqfault_raise_nth(env_, 1, -42, 0);
  pbcur pc;
  pbcur_init_low(&pc, nullptr, btr_, __FILE__, __LINE__);
  EXPECT_EQ(pbcur_open(&pc, key, 1, 4, mem.get()), 0);
  EXPECT_EQ(pc.found, 1u);
  uint64_t v = 0;
  EXPECT_EQ(ndct_table_get_dver(env_, table_, &v), 0);
  EXPECT_EQ(zqfault_raise_count(env_), 0u);
  pbcur_close(&pc);
}

TEST_F(PtxTest, InjectedCallbackFailureTouchesNothing) {
  Scratch mem(env_);
  const uint16_t level[] = {0};
  zq_fillinfo* vals = tuple4_fillinfo_space_create_low(env_, mem.get(), desc_, level, 1, 0);
  vals->values[0].notnull = 1;
  vals->values[0].u.i32 = 6;
  zq_row* row = make_row(mem.get(), 9, 6, 0, pattern(20, 1));
  using Call = std::function<int32_t(zq_ptx*, int64_t)>;
  struct Case {
    uint32_t slot;
    Call call;
  };
  std::vector<Case> cases = {
      {3,
       [&](zq_ptx* p, int64_t id) {
         zq_key* k = tuple4_key_create(env_, mem.get(), desc_, id, __FILE__, __LINE__);
         return zqhost_row_delete(p, sess_, table_, real_index_, desc_, k, 0, 0, nullptr);
       }},
      {4,
       [&](zq_ptx* p, int64_t id) {
         zq_key* k = tuple4_key_create(env_, mem.get(), desc_, id + 10, __FILE__, __LINE__);
         return zqhost_row_insert(p, sess_, table_, real_index_, desc_, row, k, 0, 0);
       }},
      {5,
       [&](zq_ptx* p, int64_t id) {
         zq_key* k = tuple4_key_create(env_, mem.get(), desc_, id, __FILE__, __LINE__);
         return zqhost_row_update_fixed(p, sess_, table_, real_index_, desc_, k, vals, vals, 0, 0,
                                        nullptr);
       }},
      {6,
       [&](zq_ptx* p, int64_t id) {
         zq_key* k = tuple4_key_create(env_, mem.get(), desc_, id, __FILE__, __LINE__);
         return zqhost_row_update_unfixed(p, sess_, table_, real_index_, desc_, k, row, vals, 0, 0,
                                          nullptr);
       }},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.slot);
    zqfault_reset(env_);
    zqfault_callback_nth(env_, c.slot, 2, -4242);
    zq_ptx ptx;
    ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
    EXPECT_EQ(c.call(&ptx, 1), 0);
    auto after_first = sql_rows();
    EXPECT_EQ(c.call(&ptx, 2), -4242);
    EXPECT_EQ(sql_rows(), after_first) << "an injected failure changes nothing";
    EXPECT_EQ(zqfault_callback_count(env_, c.slot), 2u);
    ptx3_rollback(&ptx, -4242);
    EXPECT_EQ(sql_rows(), before_);
  }
}

TEST_F(PtxTest, SqliteFailureRaisesInsideAPtx) {
  Scratch mem(env_);
  zq_key* key = tuple4_key_create(env_, mem.get(), desc_, 5, __FILE__, __LINE__);
  ASSERT_EQ(put_row(4, 0, 0, pattern(3, 3)), 0);  // the insert statement is prepared now
  exec("DROP TABLE \"MDRT$t\"");
  zqenv_err_clear(env_);
  zq_ptx ptx;
  ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
  try {
    zqhost_row_insert(&ptx, sess_, table_, real_index_, desc_, make_row(mem.get(), 5, 0, 0, {}),
                      key, 0, 0);
    ADD_FAILURE() << "no raise";
  } catch (const zq_raised& r) {
    EXPECT_EQ(r.code, zqhost::kErrSqliteBase - SQLITE_ERROR);
    ptx3_rollback(&ptx, r.code);
  }
  ASSERT_EQ(zqenv_err_count(env_), 1u);
  EXPECT_STREQ(zqenv_err_at(env_, 0).func, "zqhost_row_insert");
  EXPECT_NE(std::string(zqhost_last_sqlite_error(env_)).find("MDRT$t"), std::string::npos);
}

TEST_F(PtxTest, KindAndMarksFollowTheSessionState) {
  struct Want {
    uint32_t kind;
    uint8_t txn;
    uint8_t ctx;
  };
  auto check = [&](Want w) {
    uint32_t kind = 0;
    uint8_t txn = 9, ctx = 9;
    ptx3_kind_for_session(env_, sess_, &kind, &txn, &ctx);
    EXPECT_EQ(kind, w.kind);
    EXPECT_EQ(txn, w.txn);
    EXPECT_EQ(ctx, w.ctx);
  };
  check({ZQ_PTX_KIND_PLAIN, 0, 0});
  zq_ptx ptx;
  ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
  check({ZQ_PTX_KIND_PLAIN, 0, 1});  // the ptx's own savepoint is no user transaction
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);

  ASSERT_EQ(zqsess_begin(sess_), 0);
  check({ZQ_PTX_KIND_STMT, 1, 0});
  ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
  check({ZQ_PTX_KIND_STMT, 1, 1});
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
  ASSERT_EQ(zqsess_commit(sess_), 0);

  exec("BEGIN");  // a transaction begun by the connection's owner, not the host
  check({ZQ_PTX_KIND_STMT, 1, 0});
  exec("COMMIT");
}

}  // namespace
