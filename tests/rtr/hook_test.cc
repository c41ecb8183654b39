// The callback table: null until the engine installs it, wholly replaced by
// a second installation.
#include "zqrtree/hook.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "tests/common/fixture.h"

namespace {

// Twelve distinct functions per set N. They are never called, so one
// signature cast to each slot's type will do.
template <int N, int Slot>
void marker() {
  static volatile int mark = N * 100 + Slot;
  (void)mark;
}
template <class Fn, int N, int Slot>
Fn fn() {
  return reinterpret_cast<Fn>(&marker<N, Slot>);
}

template <int N>
rtr_hook expected_set() {
  return rtr_hook{fn<zq_get_row_tag_fn, N, 0>(),
                  fn<zq_rec_is_visible_fn, N, 1>(),
                  fn<zq_rec_read_visible_version_fn, N, 2>(),
                  fn<zq_row_delete_fn, N, 3>(),
                  fn<zq_row_insert_fn, N, 4>(),
                  fn<zq_row_update_fixed_fn, N, 5>(),
                  fn<zq_row_update_unfixed_fn, N, 6>(),
                  fn<zq_unused_hook_fn, N, 7>(),
                  fn<zq_unused_hook_fn, N, 8>(),
                  fn<zq_unused_hook_fn, N, 9>(),
                  fn<zq_row_insert_failed_fn, N, 10>(),
                  fn<zq_unused_hook_fn, N, 11>()};
}

template <int N>
rtr_hook* install_set() {
  const rtr_hook h = expected_set<N>();
  return rtr_hook_init(h.get_row_tag, h.rec_is_visible, h.rec_read_visible_version, h.row_delete,
                       h.row_insert, h.row_update_fixed, h.row_update_unfixed, h.slot7, h.slot8,
                       h.slot9, h.row_insert_failed, h.slot11);
}

bool same_table(const rtr_hook& a, const rtr_hook& b) {
  return std::memcmp(&a, &b, sizeof a) == 0;
}

TEST(HookTable, AllSlotsNullBeforeTheEngineInstallsThem) {
  // A fresh process: every other test of this binary installs hooks.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(
      {
        const rtr_hook* h = rtr_global_hook_get();
        std::exit(h == &rtr_global_hook && same_table(*h, rtr_hook{}) ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(HookTable, SecondInstallationReplacesEverySlot) {
  EXPECT_EQ(install_set<1>(), &rtr_global_hook);
  EXPECT_TRUE(same_table(*rtr_global_hook_get(), expected_set<1>()));
  EXPECT_EQ(install_set<2>(), rtr_global_hook_get());
  EXPECT_TRUE(same_table(rtr_global_hook, expected_set<2>()));
  for (size_t slot = 0; slot < 12; ++slot) {
    void* one = nullptr;
    void* two = nullptr;
    rtr_hook a = expected_set<1>(), b = rtr_global_hook;
    std::memcpy(&one, reinterpret_cast<char*>(&a) + slot * 8, 8);
    std::memcpy(&two, reinterpret_cast<char*>(&b) + slot * 8, 8);
    EXPECT_NE(one, two) << "slot " << slot << " kept the first installation";
  }
  // Nulls are stored as given.
  rtr_hook_init(nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                nullptr, nullptr, nullptr);
  EXPECT_TRUE(same_table(rtr_global_hook, rtr_hook{}));
  zqtest::install_default_hooks();
}

}  // namespace
