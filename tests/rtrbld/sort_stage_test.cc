// The bulk build's sort stage: the row layout, batch rows back to cells, and
// creation failures of its sorter and batches.
#include <gtest/gtest.h>

#include "rtrbld/bld_util.h"

namespace {

using zqtest::Pushed;

class SortStageTest : public zqtest::HostTest {};

double at(const zq_bdta* b, uint16_t col, uint32_t row) {
  return b->cols[col].data[row].f64;
}

TEST_F(SortStageTest, RowIsIdThenMinMaxPerAxisThenTwiceTheCentreOfTheKeyAxis) {
  zqtest::TrackingMem mem(env_);
  zq_bdta* b = nullptr;
  ASSERT_EQ(rtr_sort_bdta_crt(env_, mem.get(), 2, &b), 0);
  ASSERT_EQ(b->n_cols, 6u);
  EXPECT_EQ(b->cols[0].type, ZQ_TYPE_BIGINT);
  for (uint16_t c = 1; c < 6; ++c) EXPECT_EQ(b->cols[c].type, ZQ_TYPE_DOUBLE);
  for (uint16_t c = 0; c < 6; ++c) EXPECT_EQ(b->cols[c].cap, RTR_BDTA_ROWS);

  const rtr_rect box{1.0, -2.0, 9.0, 3.0, 2.5, 9.0};  // axis 1 from -2 to 2.5
  const rtr_rect point{7.0, 2.5, 0, 7.0, 2.5, 0};
  rtr_fill_one_row_nsort_bdta(env_, mem.get(), 2, -42, &box, 0, b);
  rtr_fill_one_row_nsort_bdta(env_, mem.get(), 2, 43, &box, 1, b);
  rtr_fill_one_row_nsort_bdta(env_, mem.get(), 2, 44, &point, 1, b);
  ASSERT_EQ(b->n_rows, 3u);
  EXPECT_EQ(b->cols[0].data[0].i64, -42);
  EXPECT_EQ((std::vector<double>{at(b, 1, 0), at(b, 2, 0), at(b, 3, 0), at(b, 4, 0)}),
            (std::vector<double>{1.0, 3.0, -2.0, 2.5}));
  EXPECT_EQ(at(b, 5, 0), 4.0) << "1 to 3 on axis 0 keys as 4, not 2";
  EXPECT_EQ(at(b, 5, 1), 0.5);
  EXPECT_EQ(at(b, 5, 2), 5.0) << "a point keys as twice its coordinate";
  for (uint16_t c = 0; c < 6; ++c) EXPECT_EQ(b->cols[c].notnull[2], 1u);

  // Back to cells: the key is dropped and slots of unused axes stay as they were.
  rtr_cell cells[4];
  for (rtr_cell& c : cells) c = {0, rtr_rect{-1, -1, -1, -1, -1, -1}};
  uint32_t filled = 1;
  rtr_build_cell_from_bdta(2, b, 1, 2, cells, &filled);
  EXPECT_EQ(filled, 3u);
  EXPECT_EQ(cells[0].id, 0);
  EXPECT_EQ(cells[1].id, 43);
  EXPECT_TRUE(treetest::m_equal(cells[1].rect, box, 2));
  EXPECT_EQ(cells[2].id, 44);
  EXPECT_TRUE(treetest::m_equal(cells[2].rect, point, 2));
  EXPECT_EQ(cells[2].rect.min2, -1);
  EXPECT_EQ(cells[2].rect.max2, -1);
  bdta3_free2(env_, mem.get(), b);
  EXPECT_EQ(mem.live(), 0u);
}

// nth allocation failing -> result, pushes, and what is left.
TEST_F(SortStageTest, CreationFailuresGiveNoRoomAndFreeWhatWasMade) {
  struct Case {
    const char* what;
    bool sorter;
    uint64_t nth;
    std::vector<Pushed> stack;
  };
  const Case cases[] = {
      {"sorter object", true, 1, {}},
      {"batch object", false, 1, {}},
      {"first column", false, 2, {{RTR_ERR_NO_ROOM, "rtr_sort_bdta_crt"}}},
      {"last column", false, 7, {{RTR_ERR_NO_ROOM, "rtr_sort_bdta_crt"}}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    zqtest::TrackingMem mem(env_);
    zq_nsort* s = reinterpret_cast<zq_nsort*>(&mem);  // must be emptied
    zq_bdta* b = nullptr;
    zqfault_fail_alloc_nth(env_, c.nth);
    const int32_t rc = c.sorter ? rtr_sort_create(env_, zqsess_sort_pool(sess_), mem.get(), 2, &s)
                                : rtr_sort_bdta_crt(env_, mem.get(), 2, &b);
    zqfault_fail_alloc_nth(env_, 0);
    EXPECT_EQ(rc, RTR_ERR_NO_ROOM);
    if (c.sorter) {
      EXPECT_EQ(s, nullptr);
    }
    EXPECT_EQ(b, nullptr);
    EXPECT_EQ(errors(), c.stack);
    EXPECT_EQ(mem.live(), 0u);
    EXPECT_EQ(mem.bad_frees(), 0u);
    zqenv_err_clear(env_);
  }
}

}  // namespace
