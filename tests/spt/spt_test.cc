// Scans of the spatial temp table of pending changes, on the host's real
// temporary tables: finding the table, the pending-delete lookup, the
// pending-insert scan, and what they answer after a raised code.
#include "zqrtree/spt.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "common/fixture.h"

namespace {

using zqtest::Pushed;

constexpr double kInf = std::numeric_limits<double>::infinity();

struct Box {
  double v[6];  // three minima, three maxima
};

struct Raise {
  int32_t code;
  uint8_t release_flag;
};

rtr_rect rect_of(const Box& b) {
  return rtr_rect{b.v[0], b.v[1], b.v[2], b.v[3], b.v[4], b.v[5]};
}

class SptTest : public zqtest::HostTest {
 protected:
  zq_tmptab* table(uint32_t id = 7) {
    zq_tmptab* t = zqtmp_create_spatial(sess_, id);
    EXPECT_NE(t, nullptr);
    return t;
  }
  void put(zq_tmptab* t, char flag, int64_t rowid, const Box& b = Box{{0, 0, 0, 1, 1, 1}}) {
    ASSERT_EQ(zqtmp_put(sess_, t, flag, rowid, b.v), 0);
  }
  int32_t pending_delete(zq_tmptab* t, int64_t rowid) {
    return rtr_find_spt_tmp_tab_del_data(env_, sess_, t->btr2, rowid);
  }

  // All pending inserts the scan returns for (query, op), with each call's
  // `end`, until a call returns 0.
  struct Hit {
    int64_t rowid;
    uint32_t end;
    rtr_rect rect;
  };
  std::vector<Hit> scan_inserts(zq_tmptab* t, const rtr_rect& query, uint16_t op,
                                uint32_t* last_end = nullptr) {
    pbcur cur{};
    EXPECT_EQ(rtr_spt_tmp_tab_first_ins_data(env_, sess_, t->btr2, &cur), 0);
    std::vector<Hit> hits;
    for (int guard = 0; guard < 1000; ++guard) {
      Hit h{-1, 99, rtr_rect{}};
      int32_t found = rtr_spt_tmp_tab_ins_data(&cur, &query, op, &h.rect, &h.rowid, &h.end);
      if (found == 0) {
        if (last_end != nullptr) *last_end = h.end;
        break;
      }
      EXPECT_EQ(found, 1);
      hits.push_back(h);
      if (h.end != 0) break;
    }
    pbcur_close(&cur);
    return hits;
  }
};

TEST_F(SptTest, TableIsFoundByItsIdOnTheOwnersChain) {
  zq_tmptab_owner* owner = zqsess_tmptab_owner(sess_);
  EXPECT_EQ(rtr_get_spt_tmp_tab_btr(env_, owner, 3), nullptr);
  zq_tmptab* a = table(3);
  zq_tmptab* b = table(5);
  zq_tmptab* c = table(8);
  EXPECT_EQ(rtr_get_spt_tmp_tab_btr(env_, owner, 3), a->btr2);
  EXPECT_EQ(rtr_get_spt_tmp_tab_btr(env_, owner, 5), b->btr2);
  EXPECT_EQ(rtr_get_spt_tmp_tab_btr(env_, owner, 8), c->btr2);
  EXPECT_NE(a->btr2, a->btr) << "the index, not the table's own rows";
  EXPECT_EQ(rtr_get_spt_tmp_tab_btr(env_, owner, 4), nullptr);
}

TEST_F(SptTest, EmptyTableHasNothingPending) {
  zq_tmptab* t = table();
  EXPECT_EQ(pending_delete(t, 1), 0);
  uint32_t last_end = 99;
  EXPECT_TRUE(scan_inserts(t, rtr_rect{0, 0, 0, 1, 1, 1}, RTR_OP_INTERSECT, &last_end).empty());
  EXPECT_EQ(last_end, 0u);
  EXPECT_TRUE(errors().empty());
}

// A pending delete counts only when the next live row of the delete-marked
// rows is its own: rows marked deleted in the temp table are skipped.
TEST_F(SptTest, PendingDeleteIsFoundOnlyForItsOwnLiveRow) {
  zq_tmptab* t = table();
  for (int64_t r : {10, 11, 12, 20, 30}) put(t, 'D', r);
  put(t, 'I', 40);
  put(t, 'I', 15);
  ASSERT_EQ(zqtmp_mark_deleted(sess_, t, 'D', 10, 1), 0);
  ASSERT_EQ(zqtmp_mark_deleted(sess_, t, 'D', 12, 1), 0);
  const std::pair<int64_t, int32_t> cases[] = {{10, 0}, {11, 1}, {12, 0}, {20, 1}, {30, 1},
                                               {5, 0},  {15, 0}, {25, 0}, {40, 0}, {99, 0}};
  for (const auto& [rowid, pending] : cases) EXPECT_EQ(pending_delete(t, rowid), pending) << rowid;
  ASSERT_EQ(zqtmp_mark_deleted(sess_, t, 'D', 10, 0), 0);
  EXPECT_EQ(pending_delete(t, 10), 1) << "unmarked again";
  EXPECT_TRUE(errors().empty());
}

TEST_F(SptTest, InsertScanReturnsMatchesInRowidOrderComparingTwoAxes) {
  zq_tmptab* t = table();
  const Box q{{1, 1, 1, 2, 2, 2}};
  const Box z_only{{1, 1, -5, 2, 2, 9}};  // differs from q on the third axis only
  const Box away{{7, 7, 1, 8, 8, 2}};
  put(t, 'D', 3, q);  // a pending delete is never an insert hit
  put(t, 'I', 1, away);
  put(t, 'I', 2, q);
  put(t, 'I', 4, z_only);
  put(t, 'I', 5, q);
  put(t, 'I', 6, away);
  ASSERT_EQ(zqtmp_mark_deleted(sess_, t, 'I', 5, 1), 0);

  uint32_t last_end = 99;
  std::vector<Hit> hits = scan_inserts(t, rect_of(q), RTR_OP_EQUAL, &last_end);
  ASSERT_EQ(hits.size(), 2u);
  EXPECT_EQ(hits[0].rowid, 2);
  EXPECT_EQ(hits[0].end, 0u);
  EXPECT_EQ(hits[1].rowid, 4);
  EXPECT_EQ(hits[1].end, 0u);
  EXPECT_EQ(hits[1].rect.min2, -5) << "the scratch rect holds the whole stored box";
  EXPECT_EQ(hits[1].rect.max2, 9);
  EXPECT_EQ(last_end, 1u) << "the scan ran off the last row";
  EXPECT_TRUE(errors().empty());
}

TEST_F(SptTest, LastRowMatchingEndsTheScanWithAHit) {
  zq_tmptab* t = table();
  const Box q{{0, 0, 0, 10, 10, 10}};
  put(t, 'I', 8, Box{{20, 20, 0, 30, 30, 1}});
  put(t, 'I', 9, Box{{5, 5, 50, 6, 6, 60}});
  std::vector<Hit> hits = scan_inserts(t, rect_of(q), RTR_OP_INTERSECT);
  ASSERT_EQ(hits.size(), 1u);
  EXPECT_EQ(hits[0].rowid, 9);
  EXPECT_EQ(hits[0].end, 1u);
}

TEST_F(SptTest, BoxIsReadAsMinimaThenMaxima) {
  const double data[6] = {1, 2, 3, 4, 5, 6};
  struct Case {
    uint32_t n;
    rtr_rect want;
  };
  for (const Case& c : {Case{3, {1, 2, 3, 4, 5, 6}}, Case{2, {1, 2, kInf, 3, 4, kInf}},
                        Case{1, {1, kInf, kInf, 2, kInf, kInf}}}) {
    rtr_rect r{kInf, kInf, kInf, kInf, kInf, kInf};
    rtr_rect_from_nrec(&r, data, c.n);
    EXPECT_EQ(std::memcmp(&r, &c.want, sizeof r), 0) << c.n;
  }
}

// Allocation failures of the scans are the fault sweep's; a raise is here
// because of what the scans answer after it.
TEST_F(SptTest, RaisedCodeIsPushedAndTheScanAnswersWithWhatItHad) {
  zq_tmptab* t = table();
  put(t, 'D', 10);
  put(t, 'I', 11);
  for (const Raise& r : {Raise{RTR_ERR_RELEASE, 1}, Raise{-2801, 0}}) {
    zqenv_err_clear(env_);
    zqfault_raise_nth(env_, 1, r.code, r.release_flag);
    // Intended: the lookup answers with the code recorded before the raise.
    EXPECT_EQ(pending_delete(t, 10), 0);
    zqfault_reset(env_);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{r.code, "rtr_find_spt_tmp_tab_del_data"}}));

    zqenv_err_clear(env_);
    zqfault_raise_nth(env_, 1, r.code, r.release_flag);
    pbcur cur{};
    EXPECT_EQ(rtr_spt_tmp_tab_first_ins_data(env_, sess_, t->btr2, &cur), 0);
    zqfault_reset(env_);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{r.code, "rtr_spt_tmp_tab_first_ins_data"}}));
    rtr_rect q{0, 0, 0, 1, 1, 1}, scratch{};
    int64_t rowid = -1;
    uint32_t end = 99;
    EXPECT_EQ(rtr_spt_tmp_tab_ins_data(&cur, &q, RTR_OP_INTERSECT, &scratch, &rowid, &end), 0)
        << "no position survives the raise";
    pbcur_close(&cur);
  }
  // And afterwards the table answers normally.
  EXPECT_EQ(pending_delete(t, 10), 1);
}

}  // namespace
