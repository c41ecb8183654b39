// Crash safety of the zqrtree tool: a bulk load and a long insert batch are
// killed with SIGKILL at random moments, and each time the database must
// still check clean and hold exactly the entries of before the operation or
// exactly those of after it — never a part of it. Each operation is one
// SQLite transaction in WAL mode, so a kill either loses the whole
// uncommitted tail of the log or nothing.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <thread>

#include "common/tool_run.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

#ifdef __SANITIZE_ADDRESS__
constexpr int kRuns = 10;  // per operation: the sanitized tool is several times slower
#else
constexpr int kRuns = 20;
#endif

class CrashTest : public ::testing::Test {
 protected:
  zqtest::Outcome tool(const std::vector<std::string>& args) {
    return zqtest::run_tool(dir_, args);
  }

  // Random 2-axis boxes with ids from `first`, written by the tool itself.
  std::string write_csv(const std::string& name, int64_t first, int n, uint64_t seed) {
    const std::string path = dir_.file(name);
    const zqtest::Outcome r = tool({"gen", path, "-n", std::to_string(n), "--seed",
                                    std::to_string(seed), "--first-id", std::to_string(first)});
    EXPECT_EQ(r.status, 0) << r.err;
    return path;
  }

  // Every entry of the index, as sorted CSV lines; the check must pass first.
  std::string checked_entries(const std::string& db) {
    const zqtest::Outcome c = tool({"check", db, "t"});
    EXPECT_EQ(c.status, 0) << c.err;
    const zqtest::Outcome q =
        tool({"query", db, "t", "--op", "any", "--or", "--entries", "0,0,0,0"});
    EXPECT_EQ(q.status, 0) << q.err;
    return zqtest::sorted_lines(q.out);
  }

  // A database file and its log, as the previous process left them.
  void copy_db(const std::string& from, const std::string& to) {
    for (const char* suffix : {"", "-wal", "-shm"}) {
      fs::remove(to + suffix);
      if (fs::exists(from + suffix)) fs::copy_file(from + suffix, to + suffix);
    }
  }

  // Kills `args` (run on a fresh copy of `base`) at random moments up to a
  // little past its full running time (the start-up is skipped); every survivor must be in the
  // state before or after. Returns how many kills landed before the tool finished.
  int kill_repeatedly(const std::string& base, std::vector<std::string> args, int runs,
                      uint64_t seed) {
    const std::string work = dir_.file("work.db");
    const std::string before = checked_entries(base);
    copy_db(base, work);
    auto start = Clock::now();
    const zqtest::Outcome full = tool(args);
    const double full_us = std::chrono::duration<double, std::micro>(Clock::now() - start).count();
    EXPECT_EQ(full.status, 0) << full.err;
    const std::string after = checked_entries(work);
    EXPECT_NE(before, after);

    std::mt19937_64 rng(seed);
    std::uniform_real_distribution<double> when(0.2 * full_us, 1.15 * full_us);
    int killed = 0, as_before = 0;
    const std::string in = dir_.file("in"), out = dir_.file("out"), err = dir_.file("err");
    std::ofstream{in};
    for (int i = 0; i < runs && !HasFailure(); ++i) {
      copy_db(base, work);
      const pid_t pid = zqtest::spawn_tool(args, in, out, err);
      std::this_thread::sleep_for(std::chrono::microseconds(static_cast<int64_t>(when(rng))));
      kill(pid, SIGKILL);
      if (zqtest::reap(pid) == 128 + SIGKILL) ++killed;
      const std::string now = checked_entries(work);
      if (now == before) ++as_before;
      EXPECT_TRUE(now == before || now == after) << "run " << i << ": a partial operation survived";
    }
    std::printf("[ crash ] %s: %d runs, %d killed before the end, %d left as before\n",
                args[0].c_str(), runs, killed, as_before);
    return killed;
  }

  void make_base(const std::string& db, int n) {
    ASSERT_EQ(tool({"create", db, "t", "--dims", "2"}).status, 0);
    const zqtest::Outcome r = tool({"load", db, "t", write_csv("base.csv", 1, n, 1)});
    ASSERT_EQ(r.status, 0) << r.err;
  }

  zqtest::TempDir dir_;
  const int runs_ = std::getenv("ZQ_CRASH_RUNS") ? std::atoi(std::getenv("ZQ_CRASH_RUNS")) : kRuns;
};

// A bulk load and a long insert batch, each killed at random moments.
TEST_F(CrashTest, KilledOperationLeavesBeforeOrAfter) {
  const std::string base = dir_.file("base.db"), work = dir_.file("work.db");
  make_base(base, 2000);
  const std::string load = write_csv("load.csv", 100001, 30000, 2);
  const std::string batch = write_csv("batch.csv", 100001, 8000, 3);
  EXPECT_GT(kill_repeatedly(base, {"load", work, "t", load}, runs_, 11), 0);
  EXPECT_GT(kill_repeatedly(base, {"insert", work, "t", "--file", batch}, runs_, 12), 0);
}

}  // namespace
