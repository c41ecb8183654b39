// The callback table: null until the engine installs it, wholly replaced by
// a second installation.
#include "zqrtree/hook.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "tests/common/fixture.h"

namespace {

// Twelve distinct functions per set N, one for each slot's type.
template <int N>
uint16_t tag(const zq_recdesc*) {
  return N;
}
template <int N>
int32_t visible(zq_env*, zq_session*, const zq_nrec*) {
  return N;
}
template <int N>
int32_t version(zq_env*, zq_memobj*, zq_session*, const zq_recdesc*, const zq_nrec*, const zq_nrec*,
                zq_fillinfo*, int32_t*) {
  return N;
}
template <int N>
int32_t del(zq_ptx*, zq_session*, zq_table*, zq_index*, const zq_recdesc*, zq_key*, uint16_t,
            uint64_t, const zq_nrec*) {
  return N;
}
template <int N>
int32_t ins(zq_ptx*, zq_session*, zq_table*, zq_index*, const zq_recdesc*, zq_row*, zq_key*,
            uint16_t, uint32_t) {
  return N;
}
template <int N>
int32_t upd_fixed(zq_ptx*, zq_session*, zq_table*, zq_index*, const zq_recdesc*, zq_key*,
                  zq_fillinfo*, zq_fillinfo*, uint16_t, uint64_t, nbtr_cur*) {
  return N;
}
template <int N>
int32_t upd_unfixed(zq_ptx*, zq_session*, zq_table*, zq_index*, const zq_recdesc*, zq_key*, zq_row*,
                    zq_fillinfo*, uint16_t, uint64_t, nbtr_cur*) {
  return N;
}
template <int N>
void failed(zq_env*, int32_t) {}
template <int N, int Slot>
void unused() {
  static volatile int mark = N * 100 + Slot;
  (void)mark;
}

template <int N>
rtr_hook expected_set() {
  return rtr_hook{tag<N>,       visible<N>,   version<N>,     del<N>,
                  ins<N>,       upd_fixed<N>, upd_unfixed<N>, unused<N, 7>,
                  unused<N, 8>, unused<N, 9>, failed<N>,      unused<N, 11>};
}

template <int N>
rtr_hook* install_set() {
  return rtr_hook_init(tag<N>, visible<N>, version<N>, del<N>, ins<N>, upd_fixed<N>, upd_unfixed<N>,
                       unused<N, 7>, unused<N, 8>, unused<N, 9>, failed<N>, unused<N, 11>);
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
