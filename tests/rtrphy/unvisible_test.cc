// Rows the handle's session cannot see: a writer's handle stops the engine
// (the halt handler records the message and returns, so the read goes on);
// a reader's handle reads the version slot 2 hands back, whose blob may lie
// inside the value or behind its pointer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "phy_helpers.h"

namespace phytest {
namespace {

struct Halt {
  std::string message;
  int32_t code;
};
std::vector<Halt> g_halts;
void record_halt(const char* message, int32_t code) {
  g_halts.push_back({message, code});
}

class UnvisibleTest : public PhyTest {
 protected:
  void SetUp() override {
    PhyTest::SetUp();
    g_halts.clear();
    previous_ = zqhost_set_halt_handler(record_halt);
  }
  void TearDown() override {
    zqhost_set_halt_handler(previous_);
    PhyTest::TearDown();
  }
  zq_halt_handler previous_ = nullptr;
};

// Blobs of 28 bytes (inside the value) and 84 and 2044 bytes (behind it).
struct Shape {
  uint16_t d;
  uint32_t n;
  uint32_t blob_len;
};
const Shape kShapes[] = {{1, 1, 28}, {1, 0, 4}, {2, 2, 84}, {2, 51, 2044}};

TEST_F(UnvisibleTest, ReaderGetsTheVisibleVersionWhateverTheBlobsSize) {
  for (const Shape& s : kShapes) {
    SCOPED_TRACE(testing::Message() << "blob of " << s.blob_len << " bytes");
    handle(s.d, 1);
    ASSERT_EQ(encode_blob(s.d, sample_cells(s.n)).size(), s.blob_len);
    put_node(7, 3, 2, sample_cells(s.n));
    const NodeImage visible = get_node(7);
    hooks().calls.clear();
    hooks().visible = 0;

    int32_t rc = -1;
    NodeImage got = get_node(7, &rc);
    hooks().visible = 1;
    ASSERT_EQ(rc, 0);
    expect_same(got, visible);
    ASSERT_EQ(hooks().calls.size(), 2u);
    EXPECT_EQ(hooks().calls[1].slot, 2u);
    EXPECT_EQ(hooks().calls[1].cols, (std::vector<uint16_t>{0, 1, 2}));
    EXPECT_TRUE(g_halts.empty());
    int64_t id = 7;
    ASSERT_EQ(rtr_phy_delete_node(env_, rtr_, &id), 0);
  }
  EXPECT_TRUE(errors().empty());
}

TEST_F(UnvisibleTest, ReaderTakesLevelParentAndCellsFromTheVersionNotTheRow) {
  handle(2, 1);
  put_node(7, 3, 2, sample_cells(2));
  // An older version: another level and parent, and a one-entry blob.
  const Bytes older = encode_blob(2, sample_cells(1, 555));
  hooks().after_visible_version = [&](zq_fillinfo* out, int32_t*, int32_t rc) {
    tuple4_fillinfo_get_nth_fld(out, 0)->u.i32 = 1;
    tuple4_fillinfo_get_nth_fld(out, 1)->u.i64 = 99;
    zq_value* cells = tuple4_fillinfo_get_nth_fld(out, 2);
    cells->len = static_cast<uint32_t>(older.size());
    std::memcpy(cells->u.inl, older.data(), older.size());
    return rc;
  };
  hooks().visible = 0;
  int32_t rc = -1;
  NodeImage got = get_node(7, &rc);
  ASSERT_EQ(rc, 0);
  EXPECT_EQ(got.id, 7);
  EXPECT_EQ(got.level, 1u);
  EXPECT_EQ(got.parent, 99);
  ASSERT_EQ(got.cells.size(), 1u);
  EXPECT_EQ(got.cells[0].id, 555);
}

TEST_F(UnvisibleTest, WriterHaltsTheEngineAndReadsOnIfTheHaltReturns) {
  handle(2, 0);
  put_node(7, 3, 2, sample_cells(2));
  const NodeImage visible = get_node(7);
  hooks().visible = 0;
  int32_t rc = -1;
  NodeImage got = get_node(7, &rc);
  ASSERT_EQ(g_halts.size(), 1u);
  EXPECT_EQ(g_halts[0].message,
            "Rtree read unvisible rec in WRITE mode. Node table is [MDRT$t].\n");
  EXPECT_EQ(g_halts[0].code, -1);
  EXPECT_EQ(rc, 0);
  expect_same(got, visible);
  EXPECT_EQ(row_slots(), (std::vector<uint32_t>{4, 2}));
}

struct NoVersion {
  int32_t hook_result;
  int32_t hook_code;
  int32_t expected;
};

TEST_F(UnvisibleTest, MissingVersionOrItsFailureIsPushedAtBothLevels) {
  handle(2, 1);
  put_node(7, 3, 2, sample_cells(2));
  hooks().visible = 0;
  for (const NoVersion& c :
       {NoVersion{0, 0, RTR_ERR_NO_ROW}, NoVersion{1, -3100, -3100}, NoVersion{0, -3100, -3100}}) {
    SCOPED_TRACE(testing::Message() << "result " << c.hook_result << " code " << c.hook_code);
    zqenv_err_clear(env_);
    hooks().after_visible_version = [&](zq_fillinfo*, int32_t* code, int32_t) {
      *code = c.hook_code;
      return c.hook_result;
    };
    rtr_node* node = reinterpret_cast<rtr_node*>(0x1);
    EXPECT_EQ(rtr_phy_read_node(env_, rtr_, 7, &node), c.expected);
    EXPECT_EQ(node, nullptr);
    EXPECT_EQ(errors(), (std::vector<Pushed>{{c.expected, "rtr_read_unvisible_node"},
                                             {c.expected, "rtr_phy_read_node"}}));
  }
}

}  // namespace
}  // namespace phytest
