// Environments and process services: the error stack's order, copies and
// format, the halt and its handler, and the atomic add.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "host/host.h"

namespace {

struct EnvGuard {
  zq_env* env = zqenv_create();
  ~EnvGuard() { zqenv_destroy(env); }
};

TEST(ErrorStack, KeepsPushOrderAndItsOwnCopiesOfNames) {
  EnvGuard g;
  char name[32];
  std::strcpy(name, "rtr_node_insert_cell");
  zqerr_stk_push(g.env, -503, name, 5);
  std::strcpy(name, "rtr_insert_cell");
  zqerr_stk_push(g.env, -503, name, 5);
  zqerr_stk_push(g.env, -7065, "rtr_insert", 2);
  std::memset(name, 'x', sizeof name - 1);

  ASSERT_EQ(zqenv_err_count(g.env), 3u);
  zq_err_entry first = zqenv_err_at(g.env, 0);
  EXPECT_EQ(first.code, -503);
  EXPECT_STREQ(first.func, "rtr_node_insert_cell");
  EXPECT_EQ(first.level, 5);
  EXPECT_STREQ(zqenv_err_at(g.env, 1).func, "rtr_insert_cell");
  EXPECT_EQ(zqenv_err_at(g.env, 2).level, 2);
  // Names handed out stay valid while more entries are pushed.
  for (int i = 0; i < 100; ++i) zqerr_stk_push(g.env, -1, "filler", 5);
  EXPECT_STREQ(first.func, "rtr_node_insert_cell");
  EXPECT_EQ(zqenv_err_at(g.env, 500).code, 0) << "out of range reads as empty";
  zqenv_err_clear(g.env);
  EXPECT_EQ(zqenv_err_count(g.env), 0u);
}

TEST(ErrorStack, FormatsOneLinePerEntryAndReportsTheLengthNeeded) {
  EnvGuard g;
  zqerr_stk_push(g.env, -503, "rtr_node_insert_cell", 5);
  zqerr_stk_push(g.env, -3269, "rtr_delete_by_rowid", 5);
  const std::string want =
      "  code -503 in rtr_node_insert_cell\n  code -3269 in rtr_delete_by_rowid\n";
  char buf[128];
  EXPECT_EQ(zqenv_err_format(g.env, buf, sizeof buf), want.size());
  EXPECT_EQ(std::string(buf), want);
  char small[20];
  std::memset(small, '#', sizeof small);
  EXPECT_EQ(zqenv_err_format(g.env, small, sizeof small), want.size());
  EXPECT_EQ(std::string(small), want.substr(0, sizeof small - 1)) << "truncated, terminated";
  EXPECT_EQ(zqenv_err_format(g.env, nullptr, 0), want.size());
  zqenv_err_clear(g.env);
  buf[0] = 'x';
  EXPECT_EQ(zqenv_err_format(g.env, buf, sizeof buf), 0u);
  EXPECT_EQ(buf[0], '\0');
}

std::string g_halt_message;
void record_halt(const char* message, int32_t) {
  g_halt_message = message;
}

TEST(Halt, HandlerReplacesTheAbortAndCanBeRestored) {
  zq_halt_handler previous = zqhost_set_halt_handler(record_halt);
  zq_sys_halt("node table is gone\n", -1);
  EXPECT_EQ(g_halt_message, "node table is gone\n");
  EXPECT_EQ(zqhost_set_halt_handler(previous), record_halt);
}

TEST(HaltDeathTest, WithoutHandlerWritesTheMessageAndAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(zq_sys_halt("node table is gone\n", -1), "node table is gone");
}

TEST(Interlock, AddsAtomicallyAndReturnsTheNewValue) {
  volatile uint32_t counter = 10;
  EXPECT_EQ(os_interlock_add(&counter, 5), 15u);
  EXPECT_EQ(os_interlock_add(&counter, -15), 0u);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&counter] {
      for (int i = 0; i < 20000; ++i) {
        os_interlock_add(&counter, 3);
        os_interlock_add(&counter, -2);
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(counter, 80000u);
}

}  // namespace
