// Temporary tables of pending changes: the owner chain, key order on
// (flag, rowid), delete marks in the record's flag byte, and stepping from
// a saved position.
#include <array>
#include <climits>
#include <cstring>
#include <string>
#include <utility>

#include "host/internal.h"
#include "tests/common/fixture.h"

namespace {

using zqtest::Scratch;

using Change = std::pair<char, int64_t>;

class TmpTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    find_table();
    tab_ = zqtmp_create_spatial(sess_, 7);
    ASSERT_NE(tab_, nullptr);
    desc_ = tab_->btr2->desc;
  }

  static std::array<double, 6> box_of(int64_t rowid) {
    double b = static_cast<double>(rowid);
    return {b, b + 0.5, -b, b + 1, b + 2.5, 3 * b};
  }

  void put(char flag, int64_t rowid) {
    auto box = box_of(rowid);
    ASSERT_EQ(zqtmp_put(sess_, tab_, flag, rowid, box.data()), 0);
  }

  zq_key* key(zq_memobj* mem, const char* flag, int64_t rowid) {
    zq_key* k = tuple4_key_create(env_, mem, desc_, rowid, __FILE__, __LINE__);
    EXPECT_EQ(nstr_assign_const_ex_no_clear(env_, mem, &k->vals[0], flag, 1), 0);
    return k;
  }

  Change change_at(const pbcur& pc) {
    char text[8] = {};
    uint32_t len = nrec_copy_nth_field_data_with_length(nullptr, desc_, pc.rec, 0, text, 7);
    EXPECT_EQ(len, 1u);
    int64_t rowid = 0;
    nrec_copy_nth_field_data_lint64(nullptr, desc_, pc.rec, &rowid, 1, nullptr);
    EXPECT_EQ(rowid, nrec_get_rowid(desc_, pc.rec));
    return {text[0], rowid};
  }

  // Every record from (flag, rowid) on, with its delete mark.
  std::vector<std::pair<Change, bool>> walk(const char* flag, int64_t from) {
    Scratch mem(env_);
    zq_ptx ptx;
    EXPECT_EQ(ptx3_begin_low_ex(env_, &ptx, 0, 0, __FILE__, __LINE__), 0);
    pbcur pc;
    pbcur_init_low(&pc, &ptx, tab_->btr2, __FILE__, __LINE__);
    EXPECT_EQ(pbcur_open(&pc, key(mem.get(), flag, from), 1, 0, mem.get()), 0);
    std::vector<std::pair<Change, bool>> out;
    if (!nrec_is_max_rec(pc.rec)) {
      do {
        out.push_back({change_at(pc), (pc.rec[0] & ZQ_NREC_DELETED_BIT) != 0});
      } while (pbcur_move_to_right_user_rec(&pc) == 1);
    }
    pbcur_close(&pc);
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
    return out;
  }

  zq_tmptab* tab_ = nullptr;
};

TEST_F(TmpTest, RecordsComeInFlagThenRowidOrder) {
  for (Change c : {Change{'I', 5}, Change{'D', 30}, Change{'I', -2}, Change{'D', 3}}) {
    put(c.first, c.second);
  }
  using W = std::vector<std::pair<Change, bool>>;
  EXPECT_EQ(walk("D", INT64_MIN),
            (W{{{'D', 3}, false}, {{'D', 30}, false}, {{'I', -2}, false}, {{'I', 5}, false}}));
  EXPECT_EQ(walk("D", 4), (W{{{'D', 30}, false}, {{'I', -2}, false}, {{'I', 5}, false}}));
  EXPECT_EQ(walk("I", INT64_MIN), (W{{{'I', -2}, false}, {{'I', 5}, false}}));
}

TEST_F(TmpTest, DeleteMarksShowInTheFlagByte) {
  put('D', 1);
  put('D', 2);
  ASSERT_EQ(zqtmp_mark_deleted(sess_, tab_, 'D', 2, 1), 0);
  using W = std::vector<std::pair<Change, bool>>;
  EXPECT_EQ(walk("D", INT64_MIN), (W{{{'D', 1}, false}, {{'D', 2}, true}}));
  ASSERT_EQ(zqtmp_mark_deleted(sess_, tab_, 'D', 2, 0), 0);
  ASSERT_EQ(zqtmp_mark_deleted(sess_, tab_, 'D', 1, 1), 0);
  EXPECT_EQ(walk("D", INT64_MIN), (W{{{'D', 1}, true}, {{'D', 2}, false}}));
  // A new put of the same change replaces it, live again.
  put('D', 1);
  EXPECT_EQ(walk("D", INT64_MIN), (W{{{'D', 1}, false}, {{'D', 2}, false}}));
  EXPECT_EQ(zqtmp_mark_deleted(sess_, tab_, 'I', 1, 1), zqhost::kErrNoRow);
}

// The scan of pending inserts saves its position, ends its ptx and frees the
// key's memory; later steps still walk on in key order.
TEST_F(TmpTest, SavedPositionStepsAfterPtxAndScratchAreGone) {
  for (int64_t r : {1, 4, 9}) put('I', r);
  put('D', 100);
  pbcur pc;
  {
    Scratch mem(env_);
    zq_ptx ptx;
    ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 0, 0, __FILE__, __LINE__), 0);
    pbcur_init_low(&pc, &ptx, tab_->btr2, __FILE__, __LINE__);
    ASSERT_EQ(pbcur_open(&pc, key(mem.get(), "I", INT64_MIN), 1, 0, mem.get()), 0);
    pbcur_save_position_inner(&pc);
    EXPECT_EQ(pc.ptx, nullptr);
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
  }
  EXPECT_EQ(change_at(pc), (Change{'I', 1}));
  put('I', 6);  // after the saved position: seen
  put('I', 0);  // before it: not seen
  ASSERT_EQ(zqtmp_mark_deleted(sess_, tab_, 'I', 9, 1), 0);
  const uint64_t raises = zqfault_raise_count(env_);
  std::vector<std::pair<Change, bool>> seen;
  while (pbcur_move_to_right_user_rec(&pc) == 1) {
    seen.push_back({change_at(pc), (pc.rec[0] & ZQ_NREC_DELETED_BIT) != 0});
    double box[6] = {0, 0, 0, 0, 0, -1};
    // The field's whole length is reported; never more than the capacity is copied.
    EXPECT_EQ(nrec_copy_nth_field_data_with_length(nullptr, desc_, pc.rec, 2, box, 40), 48u);
    EXPECT_EQ(box[4], box_of(seen.back().first.second)[4]);
    EXPECT_EQ(box[5], -1);
  }
  EXPECT_EQ(pc.rec, nullptr);
  EXPECT_EQ(zqfault_raise_count(env_), raises) << "a saved cursor is outside any ptx";
  using W = std::vector<std::pair<Change, bool>>;
  EXPECT_EQ(seen, (W{{{'I', 4}, false}, {{'I', 6}, false}, {{'I', 9}, true}}));
  pbcur_close(&pc);
}

TEST_F(TmpTest, OwnerChainKeepsCreationOrder) {
  zq_tmptab* a = zqtmp_create_spatial(sess_, 2);
  zq_tmptab* b = zqtmp_create_spatial(sess_, 3);
  ASSERT_NE(a, nullptr);
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(zqtmp_create_spatial(sess_, 2), nullptr) << "ids are unique within the owner";
  auto ids = [&] {
    std::vector<uint32_t> out;
    for (zq_tmptab* t = zqsess_tmptab_owner(sess_)->first; t != nullptr; t = t->next) {
      out.push_back(t->id);
    }
    return out;
  };
  EXPECT_EQ(ids(), (std::vector<uint32_t>{7, 2, 3}));
  EXPECT_EQ(a->btr2->desc->n_key_vals, 2);
  EXPECT_EQ(a->btr2->desc->n_cols, 3);
  zqtmp_drop(sess_, a);
  EXPECT_EQ(ids(), (std::vector<uint32_t>{7, 3}));
  EXPECT_NE(zqtmp_create_spatial(sess_, 2), nullptr) << "a dropped id can be used again";
}

TEST_F(TmpTest, ClearBadFlagsAndUserRollback) {
  put('I', 1);
  double box[6] = {};
  EXPECT_EQ(zqtmp_put(sess_, tab_, 'X', 1, box), zqhost::kErrBadArg);
  ASSERT_EQ(zqtmp_clear(sess_, tab_), 0);
  EXPECT_TRUE(walk("D", INT64_MIN).empty());

  // A table made inside a user transaction survives its rollback, empty.
  ASSERT_EQ(zqsess_begin(sess_), 0);
  zq_tmptab* t = zqtmp_create_spatial(sess_, 40);
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(zqtmp_put(sess_, t, 'I', 1, box), 0);
  ASSERT_EQ(zqsess_rollback(sess_), 0);
  EXPECT_EQ(zqtmp_put(sess_, t, 'I', 2, box), 0);
}

}  // namespace
