// The PostgreSQL host: the engine side of libzqrtree inside a PostgreSQL
// backend. Private to pg/; the extension's SQL functions (pg/ext/) drive it.
//
// One backend is one thread, so there is one environment and one session per
// backend, made on first use. Every library call runs inside a user
// operation (pg/ext/op.h) that sets the session's operation memory context,
// its snapshot and its open tables, and ends them.
//
// PostgreSQL reports failures by longjmp (ereport). No longjmp may cross the
// library's C++ frames, so every engine operation that calls PostgreSQL does
// it through pg_call, which catches the error, keeps its SQLSTATE and
// message in the session and marks the session failed. From then on every
// engine operation that would touch PostgreSQL fails at once with
// kErrPostgres, the library unwinds with its codes, and the operation raises
// the kept error (with the library's error stack as detail) once the library
// has returned. The abort of the statement undoes whatever was written.
#ifndef ZQ_PG_HOST_PGHOST_H
#define ZQ_PG_HOST_PGHOST_H

// C++ headers first: PostgreSQL's port.h redefines printf-family names.
#include <cstddef>
#include <cstdint>

// postgres.h comes before any other server header.
extern "C" {
#include "postgres.h"
}
extern "C" {
#include "access/genam.h"
#include "access/relscan.h"
#include "executor/tuptable.h"
#include "nodes/execnodes.h"
#include "utils/memutils.h"
#include "utils/rel.h"
#include "utils/snapshot.h"
}

#include "host/sort_pool.h"
#include "zqhost/dict.h"
#include "zqhost/env.h"
#include "zqhost/hooks.h"
#include "zqhost/mem.h"
#include "zqhost/ptx.h"
#include "zqhost/rec.h"
#include "zqhost/sort.h"

namespace zqpg {

// ---- result codes of the host (all negative) ----
inline constexpr int32_t kErrNoMem = -503;           // an allocation failed
inline constexpr int32_t kErrInsertRefused = -1509;  // a row insertion broke the primary key
inline constexpr int32_t kErrNoTable = -2106;        // no table of that name in the scope
inline constexpr int32_t kErrNoIndex = -2107;        // the table has no primary key to key rows by
inline constexpr int32_t kErrNoRow = -2111;          // the row to change is not there
inline constexpr int32_t kErrBadArg = -2113;         // an argument the host cannot use
inline constexpr int32_t kErrBadState = -2190;       // a sorter call out of order
inline constexpr int32_t kErrPostgres = -2400;  // PostgreSQL raised an error (kept in the session)

inline constexpr int kMaxErrs = 64;
inline constexpr int kFuncNameLen = 64;
inline constexpr int kMessageLen = 1024;

// Node-table columns as the library numbers them; the system column is
// virtual (always 0) and the rowid is the id column.
inline constexpr uint16_t kColLevel = 0;
inline constexpr uint16_t kColParent = 1;
inline constexpr uint16_t kColCells = 2;
inline constexpr uint16_t kColSys = 3;
inline constexpr uint16_t kColRowid = 4;
inline constexpr uint16_t kNodeCols = 5;
// Heap attribute numbers of the node table: id, level, parent_id, cells.
inline constexpr int kAttId = 1;
inline constexpr int kAttLevel = 2;
inline constexpr int kAttParent = 3;
inline constexpr int kAttCells = 4;
inline constexpr int kHeapAtts = 4;

inline constexpr uint8_t kRecMinBit = 0x01;  // the record before the first row
inline constexpr uint8_t kRecMaxBit = 0x02;  // the record after the last row

// The physical record a cursor hands out: the newest version of a node row
// (committed, or written by this transaction), copied out of its buffer.
// zq_nrec* points at `flags`.
struct PgRec {
  uint8_t flags;    // 0x01 / 0x02 boundary records; rows are never delete-marked
  uint8_t visible;  // the version is visible to the operation's snapshot
  int32_t level;
  int64_t rowid;  // the id column
  int64_t parent;
  ItemPointerData tid;  // where this version lies, for updates and deletes
  uint32_t len;         // bytes of the cells blob
  uint8_t* cells;       // the blob, owned by the cursor state
};
static_assert(offsetof(PgRec, flags) == 0, "zq_nrec points at the flag byte");

extern const PgRec kMaxRec;

inline const PgRec* rec_of(const zq_nrec* rec) {
  return reinterpret_cast<const PgRec*>(rec);
}

// A cursor's state: the record it stands on and the room for its blob.
// Lives in the operation's memory; a cursor's impl[0] points at it.
struct CurState {
  PgRec rec;
  uint32_t cap;  // bytes `rec.cells` has room for
};

// A node table as one operation has it open.
struct Table {
  zq_table table;
  zq_index index;
  zq_btr btr;
  zq_recdesc desc;
  Oid relid;
  char name[NAMEDATALEN];
  Relation rel;                // opened at first use, closed when the operation ends
  Relation pk;                 // its primary-key index
  IndexInfo* pk_info;          // for index insertions
  IndexScanDesc newest_scan;   // by id, SnapshotSelf: the newest version of a row
  IndexScanDesc visible_scan;  // by id, the operation's snapshot
  TupleTableSlot* slot;
  uint64_t dver;       // bumped by every row this operation writes
  int64_t next_rowid;  // 0: seeded from the newest max(id) + 1 at first use
  Table* next;
};

}  // namespace zqpg

struct zq_env {
  struct Err {
    int32_t code;
    int32_t level;
    char func[zqpg::kFuncNameLen];
  };
  Err errs[zqpg::kMaxErrs];
  uint32_t n_errs;  // pushes beyond kMaxErrs are counted, not kept
  zq_session* session;
  zq_ptx* active_ptx;  // innermost open mini-transaction
};

struct zq_session {
  zq_env* env;
  MemoryContext op_ctx;   // the operation's memory: the library's and the tables'
  MemoryContext row_ctx;  // one row write's scratch, reset after it
  Snapshot snap;          // the operation's snapshot (its own writes all visible)
  bool write;             // the operation writes (it holds the index's lock)
  zqpg::Table* tables;    // opened by this operation
  zq_sort_pool sort_pool;
  // The first PostgreSQL error met in this operation; set with `failed`.
  bool failed;
  int sqlerrcode;
  char message[zqpg::kMessageLen];
};

struct zq_scope {
  Oid nsp;
};

// The callbacks the module installs in the library (host/write.cc).
extern "C" {
uint16_t zqpg_get_row_tag(const zq_recdesc* desc);
int32_t zqpg_rec_is_visible(zq_env* env, zq_session* session, const zq_nrec* rec);
int32_t zqpg_rec_read_visible_version(zq_env* env, zq_memobj* scratch, zq_session* session,
                                      const zq_recdesc* desc, const zq_nrec* rec,
                                      const zq_nrec* rec2, zq_fillinfo* out, int32_t* code);
int32_t zqpg_row_delete(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                        const zq_recdesc* desc, zq_key* key, uint16_t row_tag, uint64_t dver,
                        const zq_nrec* rec);
int32_t zqpg_row_insert(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                        const zq_recdesc* desc, zq_row* row, zq_key* key, uint16_t row_tag,
                        uint32_t options);
int32_t zqpg_row_update_fixed(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                              const zq_recdesc* desc, zq_key* key, zq_fillinfo* new_values,
                              zq_fillinfo* old_values, uint16_t row_tag, uint64_t dver,
                              nbtr_cur* cur);
int32_t zqpg_row_update_unfixed(zq_ptx* ptx, zq_session* session, zq_table* table, zq_index* index,
                                const zq_recdesc* desc, zq_key* key, zq_row* new_row,
                                zq_fillinfo* old_values, uint16_t row_tag, uint64_t dver,
                                nbtr_cur* cur);
void zqpg_row_insert_failed(zq_env* env, int32_t code);
}

namespace zqpg {

// Node-buffer budgets in megabytes (the settings zqrtree.buf_total_mb and
// zqrtree.buf_handle_mb).
extern int g_buf_total_mb;
extern int g_buf_handle_mb;

// The backend's environment and session, made on first use.
zq_env* backend_env();
zq_session* backend_session();

// Runs `fn`, whose PostgreSQL calls may raise an ERROR; true when it ran to
// the end. An ERROR is caught, kept in the session (the first one only) and
// pushed on the error stack under `func`. Fails at once without running `fn`
// once the session has failed. `fn` must hold no object with a destructor
// across a PostgreSQL call.
template <class Fn>
bool pg_call(zq_session* s, const char* func, Fn&& fn);
void keep_error(zq_session* s, MemoryContext resume, const char* func);
// Marks the session failed with a message of the host's own (no ERROR raised).
void fail_session(zq_session* s, int sqlerrcode, const char* message);

// kErrPostgres, raised as zq_raised inside an open mini-transaction.
int32_t fail_or_raise(zq_env* env, zq_ptx* ptx, int32_t code);

// Tables: opens the relation and its primary key for this operation (inside
// pg_call); closes everything the operation opened.
bool table_open_for_op(zq_session* s, Table* t);
void close_tables(zq_session* s);
inline Table* table_of(const zq_btr* btr) {
  return static_cast<Table*>(btr->impl);
}
inline Table* table_of(const zq_table* t) {
  return static_cast<Table*>(t->impl);
}

// Rows: the newest version of node `id` (or of the first id above it when
// `exact` is false) into `st`, with its visibility to the operation's
// snapshot; the version that snapshot sees into `st`. Each returns 1, 0 when
// there is none, or kErrPostgres.
int32_t fetch_newest(zq_session* s, Table* t, int64_t id, bool exact, CurState* st);
int32_t fetch_visible(zq_session* s, Table* t, int64_t id, CurState* st);
// The greatest id of any newest version, or 0 for an empty table.
int32_t newest_max_id(zq_session* s, Table* t, int64_t* out);
CurState* new_state(zq_session* s);
// Fills a value slot from column `col` of a record (a long blob into
// `*spill` when given, else into memory from `mem`); 0 or a negative code.
int32_t value_from_rec(zq_env* env, zq_memobj* mem, const PgRec* r, uint16_t col, zq_value* v,
                       uint8_t** spill);
// The node table a record descriptor belongs to.
inline Table* table_of_desc(const zq_recdesc* desc) {
  return reinterpret_cast<Table*>(reinterpret_cast<char*>(const_cast<zq_recdesc*>(desc)) -
                                  offsetof(Table, desc));
}

template <class Fn>
bool pg_call(zq_session* s, const char* func, Fn&& fn) {
  if (s->failed) {
    zqerr_stk_push(s->env, kErrPostgres, func, 1);
    return false;
  }
  MemoryContext resume = CurrentMemoryContext;
  volatile bool ok = true;
  PG_TRY();
  { fn(); }
  PG_CATCH();
  {
    keep_error(s, resume, func);
    ok = false;
  }
  PG_END_TRY();
  return ok;
}

}  // namespace zqpg

#endif
