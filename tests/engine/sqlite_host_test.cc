// The engine-interface suite against the SQLite host: one GoogleTest per
// case, each on a fresh in-memory database.
#include <gtest/gtest.h>

#include "host/host.h"
#include "tests/engine/engine_suite.h"

namespace {

class SqliteHost : public zqengine::EngineHost {
 public:
  SqliteHost() {
    env_ = zqenv_create();
    int32_t code = 0;
    session_ = zqsess_open(env_, ":memory:", &code);
    hooks_ = rtr_hook{zqhost_get_row_tag,
                      zqhost_rec_is_visible,
                      zqhost_rec_read_visible_version,
                      zqhost_row_delete,
                      zqhost_row_insert,
                      zqhost_row_update_fixed,
                      zqhost_row_update_unfixed,
                      nullptr,
                      nullptr,
                      nullptr,
                      zqhost_row_insert_failed,
                      nullptr};
  }
  ~SqliteHost() override { zqenv_destroy(env_); }
  bool ready() const { return session_ != nullptr; }

  zq_env* env() override { return env_; }
  zq_session* session() override { return session_; }
  zq_scope* scope() override { return zqsess_scope(session_, "main"); }
  bool create_node_table(const char* name) override {
    return zqsess_create_node_table(session_, "main", name) == 0;
  }
  const rtr_hook& hooks() override { return hooks_; }
  void set_sort_budget(uint64_t bytes) override { zqsess_set_sort_mem(session_, bytes); }

 private:
  zq_env* env_ = nullptr;
  zq_session* session_ = nullptr;
  rtr_hook hooks_{};
};

class GtestReporter : public zqengine::Reporter {
 public:
  void fail(const char* file, int line, const std::string& what) override {
    ADD_FAILURE_AT(file, line) << what;
  }
};

class EngineSuite : public testing::TestWithParam<size_t> {};

TEST_P(EngineSuite, SqliteHost) {
  SqliteHost host;
  ASSERT_TRUE(host.ready());
  GtestReporter report;
  zqengine::kEngineCases[GetParam()].run(host, report);
}

INSTANTIATE_TEST_SUITE_P(Cases, EngineSuite, testing::Range<size_t>(0, zqengine::kEngineCaseCount),
                         [](const testing::TestParamInfo<size_t>& info) {
                           return std::string(zqengine::kEngineCases[info.param].name);
                         });

}  // namespace
