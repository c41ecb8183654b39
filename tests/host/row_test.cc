// Node-table rows through the host: insertion, reading back through both
// cursors and as rows, updates, deletes, refused inserts, the rowid counter
// and binary comparison.
#include <climits>
#include <cstdio>
#include <cstring>

#include "host/internal.h"
#include "tests/common/fixture.h"

namespace {

using zqtest::field_bytes;
using zqtest::pattern;
using zqtest::Scratch;
using zqtest::SqlRow;

class RowTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    find_table();
  }

  // A read ptx with an nbtr search for `rowid`; the record or null.
  const zq_nrec* search(zq_ptx* ptx, nbtr_cur* cur, zq_memobj* mem, int64_t rowid) {
    zq_key* key = tuple4_key_create(env_, mem, desc_, rowid, __FILE__, __LINE__);
    nbtr_cur_init(cur, btr_);
    EXPECT_EQ(nbtr_cur_search(ptx, cur, 4, 4, key, 0, mem), 0);
    return cur->rec;
  }

  // Slot 5 or 6 on row `rowid`, in its own write ptx.
  int32_t update(int64_t rowid, const std::vector<uint16_t>& cols, int32_t level, int64_t parent,
                 const std::vector<uint8_t>& cells, bool fixed) {
    Scratch mem(env_);
    zq_key* key = tuple4_key_create(env_, mem.get(), desc_, rowid, __FILE__, __LINE__);
    zq_row* row = make_row(mem.get(), rowid, level, parent, cells);
    auto n = static_cast<uint16_t>(cols.size());
    zq_fillinfo* news = tuple4_fillinfo_space_create_low(env_, mem.get(), desc_, cols.data(), n, 0);
    zq_fillinfo* olds = tuple4_fillinfo_space_create_low(env_, mem.get(), desc_, cols.data(), n, 0);
    for (uint16_t i = 0; i < n; ++i) news->values[i] = row->cols[cols[i]];
    zq_ptx ptx;
    EXPECT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
    uint64_t dver = 0;
    ndct_table_get_dver(env_, table_, &dver);
    int32_t rc = fixed ? zqhost_row_update_fixed(&ptx, sess_, table_, real_index_, desc_, key, news,
                                                 olds, 0, dver, nullptr)
                       : zqhost_row_update_unfixed(&ptx, sess_, table_, real_index_, desc_, key,
                                                   row, olds, 0, dver, nullptr);
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
    return rc;
  }

  int32_t remove(int64_t rowid) {
    Scratch mem(env_);
    zq_ptx ptx;
    EXPECT_EQ(ptx3_begin_low_ex(env_, &ptx, 1, 0, __FILE__, __LINE__), 0);
    nbtr_cur cur;
    const zq_nrec* rec = search(&ptx, &cur, mem.get(), rowid);
    zq_key* key = tuple4_key_create(env_, mem.get(), desc_, rowid, __FILE__, __LINE__);
    int32_t rc = zqhost_row_delete(&ptx, sess_, table_, real_index_, desc_, key, 0, 0, rec);
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
    return rc;
  }
};

// Blobs inside the value slot (<= 48 bytes), just past it, and at the cap.
class RoundTrip : public RowTest, public ::testing::WithParamInterface<size_t> {};

TEST_P(RoundTrip, RowReadsBackThroughEveryPath) {
  const size_t n = GetParam();
  const auto cells = pattern(n, 3);
  ASSERT_EQ(put_row(7, 2, -44, cells), 0);
  EXPECT_EQ(sql_rows(), (std::vector<SqlRow>{{7, 2, -44, cells, 0}}));

  Scratch mem(env_);
  zq_ptx ptx;
  ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 0, 0, __FILE__, __LINE__), 0);
  nbtr_cur cur;
  const zq_nrec* rec = search(&ptx, &cur, mem.get(), 7);
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec[0] & ZQ_NREC_DELETED_BIT, 0);
  EXPECT_EQ(nrec_get_rowid(desc_, rec), 7);
  int32_t level = 0;
  int64_t parent = 0;
  nrec_copy_nth_field_data_lint(env_, desc_, rec, &level, 0, nullptr);
  nrec_copy_nth_field_data_lint64(env_, desc_, rec, &parent, 1, nullptr);
  EXPECT_EQ(level, 2);
  EXPECT_EQ(parent, -44);
  EXPECT_EQ(field_bytes(env_, desc_, rec, 2), cells);

  int32_t code = 1;
  zq_row* row = tuple4_from_nrec(env_, mem.get(), rec, desc_, &code);
  ASSERT_NE(row, nullptr);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(row->cols[0].u.i32, 2);
  EXPECT_EQ(row->cols[1].u.i64, -44);
  const zq_value& blob = row->cols[2];
  ASSERT_EQ(blob.len, n);
  const uint8_t* bytes = n <= ZQ_VALUE_INLINE_MAX ? blob.u.inl : blob.ptr;
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + n), cells);
  EXPECT_EQ(row->cols[4].notnull, 1);
  EXPECT_EQ(row->cols[4].part_a, 0);
  EXPECT_EQ(row->cols[4].u.i64, 7);

  // Slot 2 hands out the same values, the blob inline or behind the pointer.
  const uint16_t cols[] = {0, 1, 2};
  zq_fillinfo* fill = tuple4_fillinfo_space_create_low(env_, mem.get(), desc_, cols, 3, 0);
  EXPECT_EQ(zqhost_rec_read_visible_version(env_, mem.get(), sess_, desc_, rec, rec, fill, &code),
            1);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(fill->values[0].u.i32, 2);
  EXPECT_EQ(fill->values[1].u.i64, -44);
  ASSERT_EQ(fill->values[2].len, n);
  bytes = n <= ZQ_VALUE_INLINE_MAX ? fill->values[2].u.inl : fill->values[2].ptr;
  EXPECT_EQ(std::vector<uint8_t>(bytes, bytes + n), cells);
  EXPECT_EQ(fill->lens[2], n);

  pbcur pc;
  pbcur_init_low(&pc, &ptx, btr_, __FILE__, __LINE__);
  zq_key* key = tuple4_key_create(env_, mem.get(), desc_, 7, __FILE__, __LINE__);
  ASSERT_EQ(pbcur_open(&pc, key, 1, 4, mem.get()), 0);
  EXPECT_EQ(pc.found, 1u);
  EXPECT_EQ(field_bytes(env_, desc_, pc.rec, 2), cells);
  pbcur_close(&pc);
  EXPECT_EQ(ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT), 0);
}

INSTANTIATE_TEST_SUITE_P(BlobSizes, RoundTrip, ::testing::Values(0, 4, 48, 49, 124, 32767));

TEST_F(RowTest, MissingRowsAndBoundaries) {
  ASSERT_EQ(put_row(3, 0, 1, pattern(8, 1)), 0);
  ASSERT_EQ(put_row(9, 0, 1, pattern(8, 2)), 0);
  Scratch mem(env_);
  zq_ptx ptx;
  ASSERT_EQ(ptx3_begin_low_ex(env_, &ptx, 0, 0, __FILE__, __LINE__), 0);
  nbtr_cur cur;
  EXPECT_EQ(search(&ptx, &cur, mem.get(), 5), nullptr);
  EXPECT_NE(search(&ptx, &cur, mem.get(), 9), nullptr);

  struct Case {
    int64_t key;
    uint32_t found;
    int64_t at;  // rowid the cursor stands on; 0 for the maximum boundary
  };
  for (const Case c : {Case{3, 1, 3}, Case{5, 0, 9}, Case{1, 0, 3}, Case{10, 0, 0}}) {
    SCOPED_TRACE(c.key);
    pbcur pc;
    pbcur_init_low(&pc, &ptx, btr_, __FILE__, __LINE__);
    zq_key* key = tuple4_key_create(env_, mem.get(), desc_, c.key, __FILE__, __LINE__);
    ASSERT_EQ(pbcur_open(&pc, key, 1, 4, mem.get()), 0);
    EXPECT_EQ(pc.found, c.found);
    ASSERT_NE(pc.rec, nullptr);
    EXPECT_FALSE(nrec_is_min_rec(pc.rec));
    if (c.at == 0) {
      EXPECT_TRUE(nrec_is_max_rec(pc.rec));
      EXPECT_EQ(pbcur_move_to_right_user_rec(&pc), 0);
      EXPECT_EQ(pc.rec, nullptr);
    } else {
      EXPECT_FALSE(nrec_is_max_rec(pc.rec));
      EXPECT_EQ(nrec_get_rowid(desc_, pc.rec), c.at);
    }
    pbcur_close(&pc);
  }
  ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
}

TEST_F(RowTest, UpdatesWriteOnlyTheListedColumns) {
  const auto cells = pattern(80, 1);
  ASSERT_EQ(put_row(4, 1, 10, cells), 0);
  uint64_t before = 0;
  ndct_table_get_dver(env_, table_, &before);

  // Parent alone, in place: the other values passed in must not be written.
  ASSERT_EQ(update(4, {1}, 99, 20, pattern(3, 3), true), 0);
  EXPECT_EQ(sql_rows(), (std::vector<SqlRow>{{4, 1, 20, cells, 0}}));
  // Level and cells through the unfixed path, to a longer blob.
  const auto longer = pattern(300, 5);
  ASSERT_EQ(update(4, {0, 2}, 3, 77, longer, false), 0);
  EXPECT_EQ(sql_rows(), (std::vector<SqlRow>{{4, 3, 20, longer, 0}}));

  uint64_t after = 0;
  ndct_table_get_dver(env_, table_, &after);
  EXPECT_GT(after, before);
  EXPECT_EQ(update(5, {1}, 0, 1, cells, true), zqhost::kErrNoRow);
  EXPECT_EQ(update(4, {4}, 0, 1, cells, true), zqhost::kErrBadArg) << "the rowid is not updatable";
}

TEST_F(RowTest, DeleteAndRefusedInsert) {
  ASSERT_EQ(put_row(2, 0, 1, pattern(10, 1)), 0);
  ASSERT_EQ(put_row(3, 0, 1, pattern(10, 2)), 0);
  EXPECT_EQ(put_row(2, 5, 5, pattern(10, 9)), zqhost::kErrInsertRefused);
  EXPECT_EQ(remove(2), 0);
  EXPECT_EQ(sql_rows(), (std::vector<SqlRow>{{3, 0, 1, pattern(10, 2), 0}}));
  EXPECT_EQ(remove(2), zqhost::kErrNoRow);
  zqhost_row_insert_failed(env_, -1509);
  EXPECT_EQ(zqhost_insert_failed_count(env_), 1u);
  EXPECT_EQ(zqhost_insert_failed_last(env_), -1509);
}

TEST_F(RowTest, RowidCounter) {
  int32_t code = 1;
  EXPECT_EQ(nbtr_get_next_rowid(env_, btr_, &code), 1);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(nbtr_get_next_rowid(env_, btr_, &code), 2);

  // Seeded from the largest rowid of a table that has rows.
  exec(
      "CREATE TABLE \"MDRT$u\" (level INTEGER NOT NULL, parent_id INTEGER NOT NULL,"
      " cells BLOB NOT NULL, sys INTEGER NOT NULL DEFAULT 0)");
  exec(
      "INSERT INTO \"MDRT$u\" (rowid, level, parent_id, cells) VALUES (4, 0, 0, x''), (11, 0, 0, "
      "x'')");
  ASSERT_NO_FATAL_FAILURE(find_table("MDRT$u"));
  EXPECT_EQ(nbtr_get_next_rowid(env_, btr_, &code), 12);
  EXPECT_EQ(nbtr_get_next_rowid(env_, btr_, &code), 13);

  // A rollback drops the counter with the rows it was handing out ids for.
  ASSERT_EQ(zqsess_begin(sess_), 0);
  exec("INSERT INTO \"MDRT$u\" (rowid, level, parent_id, cells) VALUES (40, 0, 0, x'')");
  ASSERT_NO_FATAL_FAILURE(find_table("MDRT$u"));
  EXPECT_EQ(nbtr_get_next_rowid(env_, btr_, &code), 14) << "same session: the counter goes on";
  ASSERT_EQ(zqsess_rollback(sess_), 0);
  ASSERT_NO_FATAL_FAILURE(find_table("MDRT$u"));
  EXPECT_EQ(nbtr_get_next_rowid(env_, btr_, &code), 12);
}

// The comparison a modify uses to see whether a node's cells changed.
TEST_F(RowTest, BinariesCompareByBytesThenLength) {
  Scratch mem(env_);
  zq_value a{}, b{};
  const auto big = pattern(ZQ_BINARY_MAX + 1, 0);
  EXPECT_EQ(binary_assign_const_ex(env_, mem.get(), &a, ZQ_BINARY_MAX + 1, big.data()),
            zqhost::kErrTooLong);
  ASSERT_EQ(binary_assign_const_ex(env_, mem.get(), &a, 49, big.data()), 0);
  ASSERT_EQ(binary_assign_const_ex(env_, mem.get(), &b, 49, big.data()), 0);
  EXPECT_EQ(nbin_cmp(env_, &a, &b), 0);
  ASSERT_EQ(binary_assign_const_ex(env_, mem.get(), &b, 48, big.data()), 0);
  EXPECT_GT(nbin_cmp(env_, &a, &b), 0) << "a longer value with the same prefix sorts after";
  b.u.inl[47] ^= 1;
  EXPECT_NE(nbin_cmp(env_, &a, &b), 0);
}

// A table's row check sees every row handed out, as stored, with an epoch
// that moves when the table changes and whether the row is read for a
// write; its refusal fails the handing-out call with the host's own code,
// pushed under the call's name, raised inside a ptx and returned outside.
TEST_F(RowTest, RowCheckSeesEachRowAndItsRefusalFailsTheCall) {
  ASSERT_EQ(put_row(7, 2, -44, pattern(8, 3)), 0);
  ASSERT_EQ(put_row(8, 0, 7, pattern(8, 5)), 0);
  struct Seen {
    int64_t rowid = 0;
    int cells_type = 0;
    uint64_t epoch = 0;
    int for_write = -1;
  };
  auto* seen = new Seen;  // the session's from here on
  const zq_row_check_fn check = [](void* ctx, const zq_row_view* row, char* why, size_t cap) {
    *static_cast<Seen*>(ctx) = Seen{row->rowid, row->cols[2].type, row->epoch, row->for_write};
    if (row->rowid != 8) return 0;
    std::snprintf(why, cap, "row 8 is not wanted");
    return 1;
  };
  ASSERT_EQ(zqsess_set_row_check(sess_, "main", "MDRT$t", check, seen,
                                 [](void* ctx) { delete static_cast<Seen*>(ctx); }),
            0);
  EXPECT_EQ(zqsess_row_check_ctx(sess_, "main", "MDRT$t", check), seen);

  Scratch mem(env_);
  zq_key* key7 = tuple4_key_create(env_, mem.get(), desc_, 7, __FILE__, __LINE__);
  zq_key* key8 = tuple4_key_create(env_, mem.get(), desc_, 8, __FILE__, __LINE__);
  const auto read = [&](zq_key* key, uint32_t write) {
    zq_ptx ptx;
    EXPECT_EQ(ptx3_begin_low_ex(env_, &ptx, write, 0, __FILE__, __LINE__), 0);
    nbtr_cur cur;
    nbtr_cur_init(&cur, btr_);
    int32_t rc = 0;
    try {
      rc = nbtr_cur_search(&ptx, &cur, 4, 4, key, 0, mem.get());
    } catch (const zq_raised& raised) {
      rc = raised.code;
    }
    ptx3_commit_inner(&ptx, ZQ_PTX_COMMIT);
    return rc;
  };
  EXPECT_EQ(read(key7, 0), 0);
  const Seen first = *seen;
  EXPECT_EQ(first.rowid, 7);
  EXPECT_EQ(first.cells_type, SQLITE_BLOB);
  EXPECT_EQ(first.for_write, 0);
  EXPECT_EQ(read(key7, 1), 0);
  EXPECT_EQ(seen->for_write, 1);
  EXPECT_EQ(seen->epoch, first.epoch) << "nothing changed between the reads";
  ASSERT_EQ(update(7, {0}, 3, 0, {}, true), 0);
  EXPECT_EQ(read(key7, 0), 0);
  EXPECT_NE(seen->epoch, first.epoch) << "a write moves the epoch";

  EXPECT_EQ(read(key8, 0), ZQHOST_ERR_ROW_REFUSED);
  pbcur cur;
  pbcur_init_low(&cur, nullptr, btr_, __FILE__, __LINE__);
  EXPECT_EQ(pbcur_open(&cur, key8, 1, 4, mem.get()), ZQHOST_ERR_ROW_REFUSED);
  pbcur_close(&cur);
  EXPECT_EQ(errors(), (std::vector<zqtest::Pushed>{{ZQHOST_ERR_ROW_REFUSED, "nbtr_cur_search"},
                                                   {ZQHOST_ERR_ROW_REFUSED, "pbcur_open"}}));
  EXPECT_STREQ(zqhost_last_refusal(env_), "row 8 is not wanted");
}

}  // namespace
