// One fault sweep over the library's operations: each operation runs again
// and again with the 1st, 2nd, ... nth allocation failing, then each default
// row callback failing, then each engine call inside a mini-transaction
// raising, until it completes without meeting the fault. Every failed run
// must return the injected code (allocations: no room), carry it on the error
// stack under names of the operation's call chain, give back every host
// allocation when the handle goes, and, once the user operation is rolled
// back, leave a sound node table identical to the one before.
//
// Each run happens in a child process on a copy of the test's database: the
// library uses some allocations without testing them (the handle, the node
// hash, pool node buffers), so an allocation fault may stop the child. Such
// runs are only counted; any other fault stopping the child is a failure.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "rtrbld/bld_util.h"
#include "tree/tree_util.h"
#include "zqrtree/nearest.h"
#include "zqrtree/spt.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

namespace {

using treetest::box2;
using zqtest::Pushed;

constexpr int32_t kGeneric = -2200;  // an engine code with no meaning to the library
constexpr uint64_t kMaxPoints = 3000;

enum Kind { kAlloc, kCallback, kRaise };

struct Fault {
  const char* name;
  Kind kind;
  uint32_t slot;  // row callback slot
  int32_t code;   // injected
  uint8_t release;
};

const Fault kFaults[] = {
    {"allocation", kAlloc, 0, RTR_ERR_NO_ROOM, 0},
    {"row delete (slot 3)", kCallback, 3, kGeneric, 0},
    {"row insert (slot 4)", kCallback, 4, RTR_ERR_INSERT_FAILED, 0},
    {"fixed update (slot 5)", kCallback, 5, kGeneric, 0},
    {"unfixed update (slot 6)", kCallback, 6, kGeneric, 0},
    {"raise -1509", kRaise, 0, RTR_ERR_INSERT_FAILED, 0},
    {"raise -1513 released", kRaise, 0, RTR_ERR_RELEASE, 1},
    {"raise -1513 rolled back", kRaise, 0, RTR_ERR_RELEASE, 0},
    {"raise -2200", kRaise, 0, kGeneric, 0},
};

// What a run of one operation needs: `prepare` opens what the operation
// works on (no fault armed yet), `run` is the operation itself, `finish`
// destroys the handle and anything else `prepare` made.
struct Op {
  std::function<int32_t()> prepare;
  std::function<int32_t()> run;
  std::function<void()> finish;
  std::set<std::string> chain;  // every function that may push the fault
  // Functions whose failure the operation does not report: it succeeds with
  // the code left on the stack, pushed by these alone.
  std::set<std::string> unreported = {};
};

enum Outcome { kClean = 40, kCompleted, kBroken };

struct Tally {
  int clean = 0, stopped = 0;
  uint64_t points = 0;
};

class FaultSweep : public treetest::TreeTest {
 protected:
  void SetUp() override {
    TreeTest::SetUp();
    zqsess_set_rtree_buf_mb(sess_, 4096, 64);
  }

  static rtr_rect point(int64_t i) {
    const double x = static_cast<double>((i * 7919) % 1000);
    const double y = static_cast<double>((i * 104729) % 997);
    return box2(x, y, x, y);
  }

  // Points until the root reaches `level`, committed; `n_` counts them.
  void grow(uint32_t level) {
    create_root(2);
    open(2);
    for (; rtr_->root_level < level; ++n_) ASSERT_EQ(insert(n_, point(n_)), 0);
    commit();
    expect_sound();
  }

  std::string dump() { return zqtest::node_table_dump(sess_); }

  static uint64_t counted(zq_env* env, const Fault& f) {
    return f.kind == kAlloc   ? zqfault_alloc_count(env)
           : f.kind == kRaise ? zqfault_raise_count(env)
                              : zqfault_callback_count(env, f.slot);
  }

  static void arm(zq_env* env, const Fault& f, uint64_t nth) {
    if (f.kind == kAlloc) zqfault_fail_alloc_nth(env, nth);
    if (f.kind == kRaise) zqfault_raise_nth(env, nth, f.code, f.release);
    if (f.kind == kCallback) zqfault_callback_nth(env, f.slot, nth, f.code);
  }

  // One run with the nth fault armed; what went wrong goes to `why`.
  Outcome attempt(const Op& op, const Fault& f, uint64_t nth, std::ostringstream& why) {
    const std::string before = dump();
    const uint64_t live = zqenv_live_allocs(env_);
    if (zqsess_begin(sess_) != 0 || op.prepare() != 0) {
      why << "could not prepare: " << stack_text();
      return kBroken;
    }
    zqenv_err_clear(env_);
    const uint64_t base = counted(env_, f);
    arm(env_, f, nth);
    const int32_t rc = op.run();
    const bool hit = counted(env_, f) - base >= nth;
    zqfault_reset(env_);
    std::vector<Pushed> stack;
    for (const Pushed& p : errors()) {
      // A full node handled by reinsertion or split stays noted; not a failure
      // (and no allocation of that function could fail).
      if (!(p == Pushed{RTR_ERR_NO_ROOM, "rtr_node_insert_cell"})) stack.push_back(p);
    }
    op.finish();
    bool left_heap = false;
    for (const Pushed& p : stack) left_heap |= p.func == "rtr_split_node_star_tree";

    if (!hit) {
      if (rc < 0) why << "failed with " << rc << " without meeting the fault\n" << stack_text();
      zqsess_rollback(sess_);
      return rc < 0 ? kBroken : kCompleted;
    }
    if (rc >= 0) {
      // Only a failure the operation is documented not to report may be met.
      bool unreported = !stack.empty();
      for (const Pushed& p : stack) unreported &= op.unreported.count(p.func) != 0;
      if (!unreported) why << "returned " << rc << " although the fault was met\n";
      for (const Pushed& p : stack) {
        if (op.chain.count(p.func) == 0) why << "unexpected function " << p.func << "\n";
        if (p.code != f.code) why << p.func << " pushed " << p.code << ", not " << f.code << "\n";
      }
    } else {
      if (rc != f.code) why << "returned " << rc << ", injected " << f.code << "\n";
      if (stack.empty() && f.kind != kAlloc) why << "nothing on the error stack\n";
      if (!stack.empty() && stack.front().code != f.code)
        why << "first entry has code " << stack.front().code << "\n";
      for (const Pushed& p : stack) {
        if (op.chain.count(p.func) == 0) why << "unexpected function " << p.func << "\n";
        if (p.code != rc) why << p.func << " pushed " << p.code << ", not " << rc << "\n";
      }
    }
#if defined(__SANITIZE_ADDRESS__)
    // The child never exits normally, so ask for the leak check here: a
    // block nothing points to any more was lost on the failure path.
    if (__lsan_do_recoverable_leak_check() != 0) why << "leak reported above\n";
#endif
    const uint64_t live_after = zqenv_live_allocs(env_);
    if (live_after != live && !(left_heap && f.kind == kAlloc && live_after > live))
      why << "host allocations " << live << " before, " << live_after << " after\n";
    if (zqsess_rollback(sess_) != 0) why << "rollback failed\n";
    if (dump() != before) why << "the node table changed\n";
    // An operation on an index with no root yet (bulk build, pending-change
    // scan) has no tree to check.
    const zqcheck::CheckResult res = before.empty() ? zqcheck::CheckResult{true, 0, ""} : check();
    if (!res.ok) why << "unsound: node " << res.node_id << ": " << res.message << "\n";
    if (!why.str().empty()) why << stack_text();
    return why.str().empty() ? kClean : kBroken;
  }

  // Sweeps every fault kind over `op`, printing the points per kind.
  void sweep(const char* name, const Op& op) {
    uint64_t total = 0;
    for (const Fault& f : kFaults) {
      SCOPED_TRACE(std::string(name) + ", " + f.name);
      Tally t;
      bool completed = false;
      for (uint64_t nth = 1; nth <= kMaxPoints && !completed; ++nth) {
        int fds[2];
        ASSERT_EQ(pipe(fds), 0);
        std::fflush(nullptr);
        const pid_t pid = fork();
        if (pid == 0) {
          close(fds[0]);
          std::ostringstream why;
          const Outcome o = attempt(op, f, nth, why);
          const std::string s = why.str();
          if (write(fds[1], s.data(), s.size()) < 0) _exit(kBroken);
          _exit(o);
        }
        close(fds[1]);
        std::string why;
        char buf[4096];
        for (ssize_t got; (got = read(fds[0], buf, sizeof buf)) > 0;) why.append(buf, got);
        close(fds[0]);
        int status = 0;
        waitpid(pid, &status, 0);
        const int o = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        if (o == kCompleted) {
          completed = true;
        } else if (o == kClean) {
          ++t.clean;
        } else if (o == kBroken) {
          ADD_FAILURE() << "fault " << nth << ": " << why;
        } else if (f.kind == kAlloc) {
          ++t.stopped;  // an allocation the library uses untested
        } else {
          ADD_FAILURE() << "fault " << nth << " stopped the process (status " << status << ")";
        }
        if (!completed) ++t.points;
      }
      EXPECT_TRUE(completed) << "still failing after " << kMaxPoints << " faults";
      if (f.kind == kAlloc) {
        EXPECT_GT(t.clean, 0) << "no allocation failure was reported";
      }
      total += t.points;
      std::printf("[ sweep    ] %-22s %-24s %4llu points (%d failed cleanly, %d stopped)\n", name,
                  f.name, static_cast<unsigned long long>(t.points), t.clean, t.stopped);
      RecordProperty(std::string(name) + " / " + f.name, static_cast<int>(t.points));
    }
    std::printf("[ sweep    ] %-22s %4llu fault points in all\n", name,
                static_cast<unsigned long long>(total));
    EXPECT_GT(total, 0u);
  }

  // A writing handle: the operation `body`, then the flush that keeps it.
  Op writing(std::function<int32_t()> body, std::set<std::string> chain) {
    chain.insert({"rtr_flush_all", "rtr_node_acquire", "rtr_node_create", "rtr_node_create_ex",
                  "rtr_node_new", "rtr_node_discard", "rtr_node_pack", "rtr_cells_pack",
                  "rtr_phy_read_node", "rtr_phy_insert_node", "rtr_phy_delete_node",
                  "rtr_phy_modify_node", "rtr_phy_update_node_fixed", "rtr_phy_update_node_unfixed",
                  "rtr_phy_get_next_node_id"});
    return Op{[this] {
                rtr_ = open_handle(2);
                return rtr_ != nullptr ? 0 : -1;
              },
              [this, body] {
                const int32_t rc = body();
                return rc < 0 ? rc : rtr_flush_all(env_, rtr_);
              },
              [this] { discard(); }, std::move(chain)};
  }

  int64_t n_ = 0;
};

const std::set<std::string> kInsertChain = {"rtr_insert",
                                            "rtr_choose_leaf",
                                            "rtr_insert_cell",
                                            "rtr_split_node",
                                            "rtr_split_node_star_tree",
                                            "rtr_reinsert",
                                            "rtr_reinsert_node_content",
                                            "rtr_adjust_tree",
                                            "rtr_update_parent",
                                            "rtr_phy_update_parent",
                                            "rtr_fix_bounding_box",
                                            "rtr_phy_set_root"};

TEST_F(FaultSweep, InsertIntoMultiLevelTree) {
  grow(2);
  // With no node cached between steps every step reads and writes the table.
  zqsess_set_rtree_buf_mb(sess_, 4096, 0);
  sweep("insert",
        writing([this] { return insert(999999, box2(500.5, 500.5, 501, 501)); }, kInsertChain));
}

TEST_F(FaultSweep, OverflowOfALeafForcesReinsertion) {
  grow(2);
  // Copies of one point fill the leaf that takes them; one more overflows a
  // leaf below the root, which first reinserts some of its entries.
  const rtr_rect p = box2(321.5, 654.5, 321.5, 654.5);
  open(2);
  for (int64_t id = 900000;; ++id) {
    const rtr_cell c{id, p};
    rtr_node* leaf = nullptr;
    ASSERT_EQ(rtr_choose_leaf(env_, rtr_, &c, 0, &leaf), 0);
    const uint32_t cells = leaf->n_cells;
    rtr_node_release(leaf);
    if (cells == RTR_MAX_CELLS) break;
    ASSERT_EQ(insert(id, p), 0);
  }
  commit();
  sweep("forced reinsertion", writing([this, p] { return insert(999999, p); }, kInsertChain));
}

TEST_F(FaultSweep, SplitAtTheRoot) {
  create_root(2);
  open(2);
  for (; n_ < 51; ++n_) ASSERT_EQ(insert(n_, point(n_)), 0);
  ASSERT_EQ(rtr_->root_level, 0u);
  commit();
  sweep("split at the root", writing([this] { return insert(999999, point(7)); }, kInsertChain));
}

TEST_F(FaultSweep, DeleteWithCondensing) {
  grow(2);
  // An entry of the emptiest leaf: removing it underfills the leaf, whose
  // entries are then reinserted and its node removed.
  open(2);
  const int64_t leaf =
      sql_int("SELECT rowid FROM \"MDRT$t\" WHERE level = 0 ORDER BY length(cells), rowid LIMIT 1");
  ASSERT_GT(leaf, 0);
  const rtr_cell victim = peek(leaf)->cells[0];
  discard();
  const int64_t nodes = count_rows();
  auto body = [this, victim] { return rtr_delete_by_rowid(env_, rtr_, victim.id, &victim.rect); };
  const Op op = writing(body, {"rtr_delete_by_rowid",
                               "rtr_find_leaf_node",
                               "rcur_open",
                               "rcur_step_to_leaf",
                               "rcur_next",
                               "rcur_rowid_ex",
                               "rcur_column",
                               "rtr_delete_cell",
                               "rtr_remove_node",
                               "rtr_adjust_tree",
                               "rtr_update_parent",
                               "rtr_phy_update_parent",
                               "rtr_insert",
                               "rtr_choose_leaf",
                               "rtr_insert_cell",
                               "rtr_reinsert",
                               "rtr_reinsert_node_content",
                               "rtr_split_node",
                               "rtr_split_node_star_tree",
                               "rtr_fix_bounding_box"});
  {
    // The fault-free run does condense.
    ASSERT_EQ(zqsess_begin(sess_), 0);
    ASSERT_EQ(op.prepare(), 0);
    ASSERT_EQ(op.run(), 0) << stack_text();
    op.finish();
    EXPECT_LT(count_rows(), nodes);
    ASSERT_EQ(zqsess_rollback(sess_), 0);
  }
  zqsess_set_rtree_buf_mb(sess_, 4096, 0);
  sweep("delete with condensing", op);
}

TEST_F(FaultSweep, FlushOfManyChangedNodes) {
  grow(1);
  Op op = writing([] { return 0; }, kInsertChain);
  // The changes stay cached until the flush, the operation under fault.
  op.prepare = [this] {
    rtr_ = open_handle(2);
    int32_t rc = 0;
    for (int64_t i = 0; rc >= 0 && i < 120; ++i) rc = insert(700000 + i, point(3 * i + 1));
    return rc < 0 ? rc : 0;
  };
  sweep("flush", op);
}

TEST_F(FaultSweep, SearchCursor) {
  grow(2);
  zqsess_set_rtree_buf_mb(sess_, 4096, 0);
  std::vector<int64_t> hits;
  Op op{[this] { return rtr_mem_create(env_, sess_, 2, scope_, &index_, 1, &rtr_); },
        [this, &hits] {
          rcur cur;
          rcur_init(&cur, rtr_, RTR_OP_INTERSECT);
          const rtr_rect q = box2(200, 200, 500, 500);
          int32_t rc = rcur_open(env_, &cur, &q);
          hits.clear();
          while (rc >= 0 && !rcur_is_end(&cur)) {
            rtr_cell c;
            rc = rcur_column(env_, &cur, &c);
            if (rc >= 0) hits.push_back(c.id);
            if (rc >= 0) rc = rcur_next(env_, &cur);
          }
          return rc;
        },
        [this] { discard(); },
        {"rcur_open", "rcur_step_to_leaf", "rcur_next", "rcur_column", "rcur_rowid_ex",
         "rtr_node_acquire", "rtr_phy_read_node"}};
  sweep("search", op);
  // The sweep ends with a complete run in a child; the same search here
  // must find something, or the sweep proved little.
  ASSERT_EQ(op.prepare(), 0);
  EXPECT_EQ(op.run(), 0);
  op.finish();
  EXPECT_GT(hits.size(), 5u);
}

// Every node read of a nearest-neighbour query under fault, and the queue's
// growth under allocation faults: the record gives back its queue on every
// path, and the fault-free answer is the brute-force one.
TEST_F(FaultSweep, NearestNeighbours) {
  grow(2);
  zqsess_set_rtree_buf_mb(sess_, 4096, 0);
  const rtr_rect q = box2(480.5, 510.25, 480.5, 510.25);
  std::vector<int64_t> got;
  Op op{[this] { return rtr_mem_create(env_, sess_, 2, scope_, &index_, 1, &rtr_); },
        [this, &got, q] {
          rnn nn;
          rnn_init(&nn, rtr_, 0);
          got.clear();
          int32_t rc = rnn_open(env_, &nn, &q, RNN_NO_LIMIT);
          for (; rc >= 0 && !rnn_is_end(&nn) && got.size() < 300; rc = rnn_next(env_, &nn))
            got.push_back(nn.hit.cell.id);
          rnn_close(env_, &nn);
          return rc;
        },
        [this] { discard(); },
        {"rnn_open", "rnn_next", "rtr_node_acquire", "rtr_phy_read_node"}};
  sweep("nearest", op);
  ASSERT_EQ(op.prepare(), 0);
  EXPECT_EQ(op.run(), 0);
  op.finish();
  std::vector<std::pair<double, int64_t>> all;
  for (int64_t i = 0; i < n_; ++i) {
    const rtr_rect p = point(i);
    const double dx = p.min0 - q.min0, dy = p.min1 - q.min1;
    all.push_back({dx * dx + dy * dy, i});
  }
  std::sort(all.begin(), all.end());
  ASSERT_EQ(got.size(), 300u);
  for (size_t i = 0; i < got.size(); ++i) EXPECT_EQ(got[i], all[i].second) << i;
}

TEST_F(FaultSweep, PendingChangeScan) {
  zq_tmptab* tab = zqtmp_create_spatial(sess_, 7);
  ASSERT_NE(tab, nullptr);
  for (int64_t i = 1; i <= 40; ++i) {
    const double b[6] = {double(i), double(i), 0, i + 1.0, i + 1.0, 0};
    ASSERT_EQ(zqtmp_put(sess_, tab, i % 3 == 0 ? 'D' : 'I', i, b), 0);
  }
  ASSERT_EQ(zqtmp_mark_deleted(sess_, tab, 'I', 5, 1), 0);
  int found = 0;
  Op op{[] { return 0; },
        [this, tab, &found] {
          int32_t rc = rtr_find_spt_tmp_tab_del_data(env_, sess_, tab->btr2, 9);
          if (rc < 0) return rc;
          found = rc;
          pbcur cur{};
          rc = rtr_spt_tmp_tab_first_ins_data(env_, sess_, tab->btr2, &cur);
          const rtr_rect q = box2(0, 0, 20, 20);
          for (uint32_t end = 0; rc >= 0 && end == 0;) {
            rtr_rect r;
            int64_t rowid = 0;
            if (rtr_spt_tmp_tab_ins_data(&cur, &q, RTR_OP_INTERSECT, &r, &rowid, &end) == 0) break;
            ++found;
          }
          pbcur_close(&cur);
          return rc;
        },
        [] {},
        {"rtr_find_spt_tmp_tab_del_data", "rtr_spt_tmp_tab_first_ins_data"},
        // A code raised inside the scans' mini-transaction is pushed, but the
        // scan returns what it had recorded before the raise.
        {"rtr_find_spt_tmp_tab_del_data", "rtr_spt_tmp_tab_first_ins_data"}};
  sweep("pending-change scan", op);
  EXPECT_EQ(op.run(), 0);
  EXPECT_GT(found, 10);
}

TEST_F(FaultSweep, BulkBuild) {
  const std::vector<bldtest::Entry> entries = bldtest::uniform(600, 2, 5);
  std::unique_ptr<zqtest::TrackingMem> mem;
  std::unique_ptr<bldtest::BulkLoad> load;
  Op op{[&] {
          mem = std::make_unique<zqtest::TrackingMem>(env_);
          load = std::make_unique<bldtest::BulkLoad>(env_, sess_, scope_, &index_, 2, *mem);
          return load->prepare(entries);
        },
        [&] { return load->run(1.0); },
        [&] {
          load.reset();
          mem.reset();
        },
        {"rtr_crt_lvl", "rtr_bld_flush_node", "rtr_phy_insert_node", "rtr_phy_set_root",
         "rtr_phy_read_node", "rtr_phy_delete_node", "rtr_node_pack", "rtr_cells_pack",
         "rtr_sort_bdta_crt", "rtr_sort_create", "rtr_phy_get_next_node_id", "rtr_phy_modify_node",
         "rtr_phy_update_parent", "rtr_phy_update_node_fixed"},
        // The move of the top node to the root's row, with its children's
        // parent updates, reports nothing to the build.
        {"rtr_phy_set_root", "rtr_phy_read_node", "rtr_phy_modify_node", "rtr_phy_update_parent",
         "rtr_phy_update_node_fixed", "rtr_node_pack", "rtr_cells_pack"}};
  sweep("bulk build", op);
}

}  // namespace
