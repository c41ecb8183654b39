// The node cache on a real node table: hits without reads, root level,
// eviction order and write-before-evict, the soft budget, write-back order
// and the marks that decide (and never stop deciding) each row operation.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "tests/common/fixture.h"
#include "zqrtree/zqrtree.h"

namespace {

using zqtest::Pushed;

constexpr int32_t kInjected = -777;
constexpr uint32_t kSlotDelete = 3, kSlotInsert = 4, kSlotFixed = 5, kSlotUnfixed = 6;

rtr_cell cell(int64_t id) {
  const double v = static_cast<double>(id);
  return rtr_cell{id, {v, v, 0, v + 1, v + 1, 0}};
}

class CacheTest : public zqtest::HostTest {
 protected:
  void SetUp() override {
    HostTest::SetUp();
    zqsess_set_rtree_buf_mb(sess_, 1000, 1);
  }
  void TearDown() override {
    for (rtr_mem* rtr : handles_) rtr_mem_destroy(env_, rtr);
    HostTest::TearDown();
  }
  rtr_mem* handle(uint32_t max_nodes = 0) {
    rtr_mem* rtr = open_handle(2);
    if (max_nodes != 0) rtr->max_nodes = max_nodes;
    handles_.push_back(rtr);
    return rtr;
  }
  // Writes the row of node `id` with `n` cells through the node-table layer.
  void store(int64_t id, uint32_t level, uint32_t n) {
    rtr_mem* w = handle();
    rtr_node* node = nullptr;
    ASSERT_EQ(rtr_node_create(env_, w, level, id, &node), 0);
    for (uint32_t i = 0; i < n; ++i) node->cells[i] = cell(id * 100 + i);
    node->n_cells = n;
    ASSERT_EQ(rtr_phy_insert_node(env_, w, node), 0);
  }
  // The cell count of node `id` as its row holds it now, or -1.
  int64_t stored_cells(int64_t id) {
    rtr_mem* r = handle();
    rtr_node* node = nullptr;
    if (rtr_phy_read_node(env_, r, id, &node) != 0) return -1;
    return node->n_cells;
  }
  void touch(rtr_mem* rtr, rtr_node* node) {
    const rtr_cell c = cell(1);
    ASSERT_EQ(rtr_node_insert_cell(env_, rtr, node, &c), 0);
  }
  rtr_node* acquire(rtr_mem* rtr, int64_t id) {
    rtr_node* node = nullptr;
    EXPECT_EQ(rtr_node_acquire(env_, rtr, id, &node), 0) << "node " << id;
    return node;
  }
  uint64_t row_operations() {
    uint64_t n = 0;
    for (uint32_t slot : {kSlotDelete, kSlotInsert, kSlotFixed, kSlotUnfixed})
      n += zqfault_callback_count(env_, slot);
    return n;
  }
  void exec(const std::string& sql) {
    ASSERT_EQ(sqlite3_exec(zqsess_db(sess_), sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK);
  }
  std::vector<rtr_mem*> handles_;
};

TEST_F(CacheTest, SecondAcquireIsServedWithoutReadingTheTable) {
  store(5, 0, 2);
  rtr_mem* rtr = handle();
  rtr_node* a = acquire(rtr, 5);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->ref_count, 1u);
  const uint64_t raises = zqfault_raise_count(env_);
  exec("DELETE FROM \"MDRT$t\" WHERE rowid = 5");  // a second read would now fail
  rtr_node* b = acquire(rtr, 5);
  EXPECT_EQ(b, a);
  EXPECT_EQ(a->ref_count, 2u);
  EXPECT_EQ(rtr->n_cached, 1u);
  EXPECT_EQ(zqfault_raise_count(env_), raises);
  rtr_node_release(a);
  rtr_node_release(b);
  EXPECT_EQ(a->ref_count, 0u);
  EXPECT_EQ(rtr_node_hash_lookup(rtr, 5), a) << "unpinned nodes stay cached";
}

TEST_F(CacheTest, HashChainsUseTheSaltedLow32BitsAndCompareFullIds) {
  const int64_t high = (int64_t{1} << 32) + 5;
  store(5, 0, 1);
  store(high, 0, 3);
  rtr_mem* rtr = handle();
  rtr_node* low_node = acquire(rtr, 5);
  rtr_node* high_node = acquire(rtr, high);
  EXPECT_EQ(rtr_node_hash(high), 5u);
  EXPECT_EQ(rtr_node_hash(-1), 0xFFFFFFFFu);
  const uint32_t bucket = (5u ^ RTR_NODE_HASH_SALT) % RTR_NODE_HASH_BUCKETS;
  EXPECT_EQ(rtr->node_hash->buckets[bucket], high_node) << "newest at the chain head";
  EXPECT_EQ(high_node->hash_next, low_node);
  EXPECT_EQ(rtr_node_hash_lookup(rtr, 5), low_node);
  EXPECT_EQ(rtr_node_hash_lookup(rtr, high), high_node);
  EXPECT_EQ(rtr_node_hash_lookup(rtr, 6), nullptr);
}

TEST_F(CacheTest, AnAcquireHitMovesTheNodeToItsChainHeadAndLosesNothing) {
  // Same low 32 bits: one bucket, chained newest first as c, b, a.
  const int64_t ids[3] = {5, (int64_t{1} << 32) + 5, (int64_t{2} << 32) + 5};
  for (int64_t id : ids) store(id, 0, 1);
  rtr_mem* rtr = handle();
  rtr_node* nodes[3];
  for (int i = 0; i < 3; ++i) nodes[i] = acquire(rtr, ids[i]);
  const uint32_t bucket = (5u ^ RTR_NODE_HASH_SALT) % RTR_NODE_HASH_BUCKETS;
  auto chain = [&] {
    std::vector<rtr_node*> out;
    for (auto* n = static_cast<rtr_node*>(rtr->node_hash->buckets[bucket]); n != nullptr;
         n = n->hash_next)
      out.push_back(n);
    return out;
  };
  EXPECT_EQ(chain(), (std::vector<rtr_node*>{nodes[2], nodes[1], nodes[0]}));
  EXPECT_EQ(acquire(rtr, ids[0]), nodes[0]);  // the tail
  EXPECT_EQ(chain(), (std::vector<rtr_node*>{nodes[0], nodes[2], nodes[1]}));
  EXPECT_EQ(acquire(rtr, ids[2]), nodes[2]);  // the middle
  EXPECT_EQ(chain(), (std::vector<rtr_node*>{nodes[2], nodes[0], nodes[1]}));
  EXPECT_EQ(rtr->n_cached, 3u);
  EXPECT_EQ(rtr->lru_first, nodes[2]);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(rtr_node_hash_lookup(rtr, ids[i]), nodes[i]);
}

TEST_F(CacheTest, ReadingNodeOneRefreshesTheRootLevelOnlyOnAMiss) {
  store(1, 3, 2);
  rtr_mem* rtr = handle();
  rtr_node* root = acquire(rtr, 1);
  EXPECT_EQ(rtr->root_level, 3u);
  rtr->root_level = 9;
  rtr_node_release(root);
  acquire(rtr, 1);
  EXPECT_EQ(rtr->root_level, 9u);
}

TEST_F(CacheTest, MissingRowsFailTheAcquireAndLeaveTheCacheAlone) {
  store(5, 0, 1);
  rtr_mem* rtr = handle();
  acquire(rtr, 5);
  zqenv_err_clear(env_);
  const struct {
    int64_t id;
    int32_t code;
  } cases[] = {{1, RTR_ERR_NOT_FOUND}, {42, RTR_ERR_NO_ROW}};
  for (const auto& c : cases) {
    rtr_node* out = reinterpret_cast<rtr_node*>(0x1);
    EXPECT_EQ(rtr_node_acquire(env_, rtr, c.id, &out), c.code);
    EXPECT_EQ(out, nullptr);
    ASSERT_FALSE(errors().empty());
    EXPECT_EQ(errors().back(), (Pushed{c.code, "rtr_node_acquire"}));
    EXPECT_EQ(rtr->n_cached, 1u);
    zqenv_err_clear(env_);
  }
}

struct EvictionCase {
  const char* name;
  std::vector<int64_t> accesses;  // each acquired and released, in order
  int64_t victim, survivor;
};

TEST_F(CacheTest, BudgetOfTwoEvictsTheLeastRecentlyUsedAndWritesItFirst) {
  const EvictionCase cases[] = {
      {"oldest goes", {5, 6}, 5, 6},
      {"a hit makes young", {5, 6, 5}, 6, 5},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    exec("DELETE FROM \"MDRT$t\"");
    store(5, 0, 2);
    store(6, 0, 2);
    store(7, 0, 2);
    rtr_mem* rtr = handle(2);
    for (int64_t id : c.accesses) {
      rtr_node* node = acquire(rtr, id);
      if (id == c.victim) touch(rtr, node);  // dirty: must reach its row
      rtr_node_release(node);
    }
    rtr_node* victim = rtr_node_hash_lookup(rtr, c.victim);
    ASSERT_EQ(stored_cells(c.victim), 2);
    rtr_node* third = acquire(rtr, 7);
    EXPECT_EQ(third, victim) << "the evicted buffer is reused";
    EXPECT_EQ(rtr_node_hash_lookup(rtr, c.victim), nullptr);
    EXPECT_NE(rtr_node_hash_lookup(rtr, c.survivor), nullptr);
    EXPECT_EQ(rtr->n_cached, 2u);
    EXPECT_EQ(rtr->n_dirty, 0u);
    EXPECT_EQ(stored_cells(c.victim), 3) << "written before it was evicted";
  }
}

TEST_F(CacheTest, EverythingPinnedExceedsTheBudgetInsteadOfFailing) {
  store(5, 0, 1);
  store(6, 0, 1);
  store(7, 0, 1);
  rtr_mem* rtr = handle(2);
  rtr_node* a = acquire(rtr, 5);
  rtr_node* b = acquire(rtr, 6);
  rtr_node* out = a;
  EXPECT_EQ(rtr_node_discard(env_, rtr, &out), RTR_NOTE_NOTHING);
  EXPECT_EQ(out, nullptr);
  rtr_node* c = acquire(rtr, 7);
  ASSERT_NE(c, nullptr);
  EXPECT_TRUE(c != a && c != b);
  EXPECT_EQ(rtr->n_cached, 3u);
  EXPECT_TRUE(errors().empty());
}

TEST_F(CacheTest, ZeroBudgetDiscardsBeforeEveryCreation) {
  zqsess_set_rtree_buf_mb(sess_, 1000, 0);
  store(5, 0, 1);
  store(6, 0, 1);
  rtr_mem* rtr = handle();
  ASSERT_EQ(rtr->max_nodes, 0u);
  rtr_node_release(acquire(rtr, 5));
  rtr_node_release(acquire(rtr, 6));
  EXPECT_EQ(rtr->n_cached, 1u);
  EXPECT_EQ(rtr_node_hash_lookup(rtr, 5), nullptr);
}

TEST_F(CacheTest, FailedWriteOnEvictionKeepsTheNodeCachedAndDirty) {
  store(5, 0, 1);
  store(6, 0, 1);
  rtr_mem* rtr = handle(1);
  rtr_node* a = acquire(rtr, 5);
  touch(rtr, a);
  rtr_node_release(a);
  zqfault_callback_nth(env_, kSlotUnfixed, 1, kInjected);
  rtr_node* out = nullptr;
  EXPECT_EQ(rtr_node_acquire(env_, rtr, 6, &out), kInjected);
  std::vector<std::string> funcs;
  for (const auto& e : errors()) {
    EXPECT_EQ(e.code, kInjected);
    funcs.push_back(e.func);
  }
  const std::vector<std::string> tail{"rtr_node_discard", "rtr_node_create"};
  EXPECT_NE(std::search(funcs.begin(), funcs.end(), tail.begin(), tail.end()), funcs.end());
  EXPECT_EQ(funcs.back(), "rtr_node_acquire");
  EXPECT_EQ(rtr_node_hash_lookup(rtr, 5), a);
  EXPECT_EQ(rtr->n_dirty, 1u);
  EXPECT_EQ(rtr->dirty_first, a);
}

TEST_F(CacheTest, FlushAllWritesInFirstChangeOrderAndStopsAtAFailure) {
  store(5, 0, 1);
  store(6, 0, 1);
  store(7, 0, 1);
  rtr_mem* rtr = handle();
  rtr_node* n6 = acquire(rtr, 6);
  rtr_node* n5 = acquire(rtr, 5);
  rtr_node* n7 = acquire(rtr, 7);
  touch(rtr, n6);
  touch(rtr, n5);
  rtr_node* fresh = nullptr;
  ASSERT_EQ(rtr_node_new(env_, rtr, 6, 0, &fresh), 0);
  touch(rtr, n7);
  touch(rtr, n6);  // a later change keeps the first position
  const int64_t rows = count_rows();

  zqfault_callback_nth(env_, kSlotUnfixed, 2, kInjected);
  EXPECT_EQ(rtr_flush_all(env_, rtr), kInjected);
  EXPECT_EQ(errors().back(), (Pushed{kInjected, "rtr_flush_all"}));
  EXPECT_EQ(stored_cells(6), 3) << "first changed, first written";
  EXPECT_EQ(stored_cells(5), 1) << "second, and failed";
  EXPECT_EQ(count_rows(), rows) << "the new node comes later";
  EXPECT_EQ(rtr->n_dirty, 2u);
  EXPECT_EQ(rtr->dirty_last, fresh);
  EXPECT_EQ(rtr->dirty_first, n7);

  zqfault_reset(env_);
  EXPECT_EQ(rtr_flush_all(env_, rtr), 0);
  EXPECT_EQ(count_rows(), rows + 1);
  EXPECT_EQ(stored_cells(fresh->id), 0);
  EXPECT_EQ(stored_cells(7), 2);
  EXPECT_EQ(stored_cells(5), 1) << "a failed node is off the list";
  EXPECT_EQ(rtr->n_dirty, 0u);
}

TEST_F(CacheTest, NewNodesNeverTakeTheRootIdAndDeletedNodesIgnoreChanges) {
  rtr_mem* rtr = handle();
  std::vector<int64_t> seen;
  for (int i = 0; i < 3; ++i) {
    rtr_node* node = nullptr;
    ASSERT_EQ(rtr_node_new(env_, rtr, 9, 2, &node), 0);
    EXPECT_NE(node->id, 0);
    EXPECT_NE(node->id, RTR_ROOT_ID);
    for (int64_t id : seen) EXPECT_NE(node->id, id);
    seen.push_back(node->id);
    EXPECT_TRUE(node->is_new && node->in_dirty);
    EXPECT_FALSE(node->is_modified);
    EXPECT_EQ(node->parent_id, 9);
    EXPECT_EQ(node->level, 2u);
    EXPECT_EQ(node->ref_count, 1u);
    EXPECT_EQ(rtr_node_hash_lookup(rtr, node->id), node);
    EXPECT_EQ(rtr->lru_first, node);
    EXPECT_EQ(rtr->dirty_first, node);
  }
  rtr_node* gone = rtr_node_hash_lookup(rtr, seen[1]);
  rtr_node_set_delete(rtr, gone);
  const uint32_t dirty = rtr->n_dirty;
  rtr_node_set_modify(env_, rtr, gone);
  rtr_node_set_delete(rtr, gone);
  EXPECT_EQ(rtr->n_dirty, dirty);
  EXPECT_EQ(rtr->n_deleted, 1u);
  EXPECT_EQ(gone->id, seen[1]);
}

TEST_F(CacheTest, NodeCreatedAndDeletedInOneHandleTouchesNoRow) {
  store(5, 0, 1);
  rtr_mem* rtr = handle();
  rtr_node* fresh = nullptr;
  ASSERT_EQ(rtr_node_new(env_, rtr, 5, 0, &fresh), 0);
  rtr_node* old = acquire(rtr, 5);
  const uint64_t ops = row_operations();
  const int64_t rows = count_rows();
  for (rtr_node* node : {fresh, old}) rtr_node_set_delete(rtr, node);
  EXPECT_EQ(rtr->n_deleted, 2u);
  EXPECT_EQ(rtr->deleted_first, old);
  EXPECT_EQ(rtr->n_cached, 0u);
  EXPECT_EQ(rtr->n_dirty, 0u) << "the new node left the dirty list";
  EXPECT_EQ(rtr_node_hash_lookup(rtr, fresh->id), nullptr);
  EXPECT_EQ(rtr_flush_all(env_, rtr), 0);
  EXPECT_EQ(rtr_node_flush(env_, rtr, fresh), 0);
  EXPECT_EQ(row_operations(), ops);
  EXPECT_EQ(count_rows(), rows);
  EXPECT_EQ(rtr_node_flush(env_, rtr, old), 0);
  EXPECT_EQ(count_rows(), rows - 1) << "an existing node's row is deleted";
}

TEST_F(CacheTest, WriteBackKeepsTheMarksSoOnlyEvictionWritesALaterChange) {
  store(5, 0, 1);
  store(6, 0, 1);
  rtr_mem* rtr = handle(1);
  rtr_node* a = acquire(rtr, 5);
  touch(rtr, a);
  ASSERT_EQ(rtr_flush_all(env_, rtr), 0);
  EXPECT_EQ(stored_cells(5), 2);
  EXPECT_TRUE(a->in_dirty && a->is_modified);
  touch(rtr, a);
  EXPECT_EQ(rtr->n_dirty, 0u) << "not listed again";
  ASSERT_EQ(rtr_flush_all(env_, rtr), 0);
  EXPECT_EQ(stored_cells(5), 2) << "a second flush misses the change";
  rtr_node_release(a);
  rtr_node_release(acquire(rtr, 6));  // evicts node 5, written by its marks
  EXPECT_EQ(stored_cells(5), 3);
}

}  // namespace
