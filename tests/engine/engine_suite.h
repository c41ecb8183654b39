// The engine-interface suite: what any host of libzqrtree must do with the
// operations of include/zqhost/, written against those operations only, so
// that the SQLite host (sqlite_host_test.cc, under GoogleTest) and the
// PostgreSQL host (pg/test/engine_suite_pg.cc, inside a server backend) run
// the very same cases: rows through the default callbacks and both cursors,
// the dictionary and rowid counter, visibility, the sorter spilling past a
// small budget, and memory objects.
//
// Call order for a host: for each case of kEngineCases, set up a fresh
// EngineHost (its env and session ready for writes), run the case with a
// Reporter, tear the host down.
#ifndef ZQ_TESTS_ENGINE_SUITE_H
#define ZQ_TESTS_ENGINE_SUITE_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zqrtree/hook.h"

namespace zqengine {

// What a host gives the suite.
class EngineHost {
 public:
  virtual ~EngineHost() = default;
  virtual zq_env* env() = 0;
  virtual zq_session* session() = 0;
  virtual zq_scope* scope() = 0;
  // Makes the empty node table "MDRT$" + name; false when it cannot.
  virtual bool create_node_table(const char* name) = 0;
  // The host's own callbacks, as it installs them in the library.
  virtual const rtr_hook& hooks() = 0;
  // The budget in bytes the next sorter of the session works within.
  virtual void set_sort_budget(uint64_t bytes) = 0;
};

class Reporter {
 public:
  virtual ~Reporter() = default;
  virtual void fail(const char* file, int line, const std::string& what) = 0;
};

struct EngineCase {
  const char* name;
  void (*run)(EngineHost& host, Reporter& report);
};

extern const EngineCase kEngineCases[];
extern const size_t kEngineCaseCount;

}  // namespace zqengine

#endif
