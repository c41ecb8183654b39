/* Pieces the driver's own files share and nobody else sees: SQL statements,
 * the user-operation guard (one host transaction, rolled back unless
 * committed), the library-handle guard, and the conversion of an engine
 * failure into a Status carrying the error stack. */
#ifndef ZQ_DRIVER_INTERNAL_H
#define ZQ_DRIVER_INTERNAL_H

#include <sqlite3.h>
#include <stdint.h>

#include <string>
#include <string_view>

#include "driver/index.h"
#include "driver/stmt.h"
#include "host/host.h"
#include "zqrtree/errors.h"
#include "zqrtree/mem.h"

namespace zq::detail {

using zq::quote_ident;
// schema.table, both quoted.
std::string qualified(const std::string& schema, const std::string& table);

using zq::Stmt;

// What the user can do about a SQLite failure that is about the database
// file rather than its content (a read-only directory, a lock held by
// another process), as a line to put first; "" otherwise.
std::string file_trouble(const std::string& path, int sqlite_rc);
// A SQLite failure as a Status: "what: message" (after file_trouble's line).
Status sql_failure(sqlite3* db, std::string_view what);
// Runs SQL text with no result rows.
Status exec(sqlite3* db, const std::string& sql, std::string_view what);
bool table_exists(sqlite3* db, const std::string& schema, const std::string& table);

// A negative engine code as a Status: "what failed (code C):" and the
// error stack, innermost first. Clears the stack.
Status engine_failure(const Database& db, int32_t code, std::string_view what);

// One user operation: zqsess_begin now, zqsess_rollback in the destructor
// unless commit() succeeded; inside a transaction the program opened, a
// savepoint instead. The error stack starts empty so a failure's
// trace holds this operation's pushes only.
class UserOp {
 public:
  // A writing operation takes the write lock when it begins, so a lock
  // another process holds is waited for (up to the busy timeout); a reading
  // one takes none.
  enum class Mode { kRead, kWrite };
  explicit UserOp(Database& db, Mode mode = Mode::kWrite);
  ~UserOp();
  UserOp(const UserOp&) = delete;
  UserOp& operator=(const UserOp&) = delete;

  const Status& begun() const { return begun_; }
  Status commit();

 private:
  Database& db_;
  Status begun_;
  bool open_ = false;
  bool nested_ = false;  // a savepoint inside the program's own transaction
};

// A library handle for one operation: destroyed on every path. Destroying
// writes nothing, so a handle dropped without flush() discards its changes.
class Handle {
 public:
  enum class Mode { kRead, kWrite, kBuild };
  Handle(const Index& index, Mode mode);
  ~Handle();
  Handle(const Handle&) = delete;
  Handle& operator=(const Handle&) = delete;

  const Status& created() const { return created_; }
  rtr_mem* get() const { return rtr_; }
  // rtr_flush_all, once: a handle is not reused after its flush.
  Status flush();
  // Hands the handle to a caller that destroys it itself (a Scan).
  rtr_mem* release() {
    rtr_mem* r = rtr_;
    rtr_ = nullptr;
    return r;
  }

 private:
  const Index& index_;
  rtr_mem* rtr_ = nullptr;
  Status created_;
};

std::string describe_box(const Box& box, int dims);  // "[1, 2] x [0, 5]"
std::string number_text(double v);                   // shortest text that reads back the same

// Every node reachable from the root of `rtr`'s tree, parents first.
Status walk_tree(const Index& index, rtr_mem* rtr,
                 const std::function<void(const NodeView&)>& visit);

// Builds the tree from nothing: the node table is emptied, then packed
// bottom-up from `feed` (which puts entries with `put`), inside the
// caller's user operation.
Status rebuild_tree(
    const Index& index, double fill, const Progress& progress,
    const std::function<Status(const std::function<Status(const Entry&)>& put)>& feed);

}  // namespace zq::detail

#endif
