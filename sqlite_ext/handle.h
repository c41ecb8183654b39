/* The zqrtree SQLite extension: library handles and engine failures, as the
 * changes made inside a running statement need them.
 *
 * Call order per change: Handle h(index, mode); h.status() -> library calls
 * on h.get() -> h.flush() once when the changes are to be kept -> the
 * destructor destroys the handle, which writes nothing. */
#ifndef ZQ_SQLITE_EXT_HANDLE_H
#define ZQ_SQLITE_EXT_HANDLE_H

#include <string>

#include "driver/index.h"
#include "sqlite_ext/sql.h"

namespace zqext {

// "what failed (code C)" and the error stack, innermost first; clears it.
zq::Status engine_failure(zq::Database& db, int32_t code, const std::string& what);
// "what: " and SQLite's message.
zq::Status sql_failure(sqlite3* db, const std::string& what);

class Handle {
 public:
  enum class Mode { kWrite, kBuild };
  Handle(const zq::Index& index, Mode mode);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const zq::Status& status() const { return status_; }
  rtr_mem* get() const { return rtr_; }
  zq::Status flush();  // rtr_flush_all, once

 private:
  zq::Database& db_;
  rtr_mem* rtr_ = nullptr;
  zq::Status status_;
};

}  // namespace zqext

#endif
