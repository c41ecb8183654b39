// One user operation of the extension: every SQL function that runs the
// library is one. It resolves the index, takes the index's lock when it
// writes, fixes the snapshot the library's reads follow, owns the memory and
// the library handles, and turns a failure into one ereport.
//
// Call order, inside a SQL function:
//   Op op; op_begin(&op, name, write);
//   ZQ_OP_TRY(&op) { ... op_handle ... op_check ... } ZQ_OP_END(&op);
// ZQ_OP_TRY catches any ERROR raised inside (the library's failures
// included, raised by op_fail), destroys the handles (the node-buffer budget
// they reserved is process-wide) and re-raises. op_end runs on success.
//
// Writers of one index are serialised by an EXCLUSIVE lock on its node
// table, held to the end of the transaction: readers (ACCESS SHARE) go on
// beside a writer, a second writer waits. A writer then reads with a
// snapshot taken after the lock (READ COMMITTED), so it sees the tree the
// previous writer committed; under REPEATABLE READ or SERIALIZABLE it keeps
// the transaction's snapshot, and a tree changed by a transaction that
// snapshot cannot see fails with SQLSTATE 40001 (retry the transaction).
#ifndef ZQ_PG_EXT_OP_H
#define ZQ_PG_EXT_OP_H

#include "pg/host/pghost.h"
#include "zqrtree/mem.h"

extern "C" {
#include "fmgr.h"
}

namespace zqpg {

inline constexpr int kMaxHandles = 2;
// "MDRT$" + name must fit a PostgreSQL identifier.
inline constexpr size_t kMaxPgNameLen = NAMEDATALEN - 1 - 5;

struct Op {
  zq_env* env;
  zq_session* s;
  char name[NAMEDATALEN];  // the index's name
  char node[NAMEDATALEN];  // "MDRT$" + name
  Oid relid;               // the node table; InvalidOid before it exists
  int dims;
  zq_scope scope;  // the node table's schema
  bool write;
  Snapshot base;      // registered: the snapshot `snap` copies
  SnapshotData snap;  // what the library's reads see
  MemoryContext caller;
  MemoryContext ctx;
  rtr_mem* handles[kMaxHandles];
  void (*cleanup)(void*);  // called once when the operation ends either way
  void* cleanup_arg;
};

// Validates `name`, resolves its node table on the search path (ERROR
// 42704 when there is none), its dimension count, the lock and the
// snapshot. With `may_be_missing` it stops after the name and the table's
// id and dimension count (0 when not an index), for zqrtree_create, and the
// operation needs no op_end.
void op_begin(Op* op, text* name, bool write, bool may_be_missing = false);
// A library handle: mode 0 read, 1 write, 2 bulk build.
rtr_mem* op_handle(Op* op, int mode);
void op_drop_handle(Op* op, rtr_mem* rtr);
// ERROR for a library failure (or a PostgreSQL error the host kept), unless
// rc >= 0 and nothing failed. `what` says what was being done.
void op_check(Op* op, int32_t rc, const char* what);
[[noreturn]] void op_fail(Op* op, int32_t rc, const char* what);
void op_end(Op* op);
void op_abort(Op* op);

// The catalog row of a node table: its dimension count, or 0.
int catalog_dims(Oid relid);
void catalog_forget(Oid relid);
// The extension's schema, quoted for SQL.
const char* ext_schema();

// ERROR 22023 with `message` (bad input from the user; nothing changed).
[[noreturn]] void bad_input(const char* message);

}  // namespace zqpg

#define ZQ_OP_TRY(op) \
  PG_TRY();           \
  {
#define ZQ_OP_END(op)   \
  }                     \
  PG_CATCH();           \
  {                     \
    zqpg::op_abort(op); \
    PG_RE_THROW();      \
  }                     \
  PG_END_TRY();         \
  zqpg::op_end(op)

#endif
