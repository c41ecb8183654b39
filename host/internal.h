// Host-private declarations shared by the files of host/: the objects behind
// the engine's opaque types (environment, heap, session, scope), the host's
// tables, records and cursor states, its result codes, and the helpers one
// facility offers another. Nothing outside host/ (and tests/host/) includes it.
//
// Object graph: an env owns its error stack, fault settings and the accounting
// lists of every block, heap and pool made through it; a session (one SQLite
// connection) owns its scopes, its dictionary of Table objects, its temporary
// tables and the recycled cursor states; a Table owns every statement prepared
// on it.
#ifndef ZQ_HOST_INTERNAL_H
#define ZQ_HOST_INTERNAL_H

#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/host.h"

extern "C" {
// The sort pool of a session; implemented beside the sorter. The session
// creates it on first use and frees it when it closes.
zq_sort_pool* zqhost_sort_pool_new(zq_session* session);
void zqhost_sort_pool_free(zq_sort_pool* pool);

// Slot 10's notices on `env`: how many, and the last code.
uint64_t zqhost_insert_failed_count(const zq_env* env);
int32_t zqhost_insert_failed_last(const zq_env* env);
// The message of the last SQLite failure the host met on `env` ("" if none).
const char* zqhost_last_sqlite_error(const zq_env* env);
}

namespace zqhost {

// ---- result codes (all negative) ----
inline constexpr int32_t kErrNoMem = -503;           // allocation failed
inline constexpr int32_t kErrInsertRefused = -1509;  // a row insertion broke a constraint
inline constexpr int32_t kErrNoTable = -2106;        // no table of that name in the scope
inline constexpr int32_t kErrNoIndex = -2107;        // the table has no such B-tree
inline constexpr int32_t kErrTooWide = -2108;        // more columns than a host record holds
inline constexpr int32_t kErrNoRow = -2111;          // the row to change is not there
inline constexpr int32_t kErrBadArg = -2113;         // an argument the host cannot use
inline constexpr int32_t kErrTooLong = -2114;        // a binary over ZQ_BINARY_MAX bytes
inline constexpr int32_t kErrTxnState = -2115;       // wrong transaction state for the call
inline constexpr int32_t kErrRowRefused = ZQHOST_ERR_ROW_REFUSED;  // the table's row check said no
inline constexpr int32_t kErrSqliteBase = -2200;  // minus SQLite's primary result code

// The host code of a SQLite result code.
int32_t sqlite_code(int rc);

// ---- intrusive doubly linked lists (accounting) ----
struct Link {
  Link* prev;
  Link* next;
};
inline void list_init(Link* head) {
  head->prev = head->next = head;
}
inline void list_push(Link* head, Link* l) {
  l->next = head->next;
  l->prev = head;
  head->next->prev = l;
  head->next = l;
}
inline void list_remove(Link* l) {
  l->prev->next = l->next;
  l->next->prev = l->prev;
  l->prev = l->next = l;
}

// A block from mem_malloc_ex (or an internal accounted block); the caller's
// bytes follow it, 16-byte aligned.
struct alignas(16) BlockHdr {
  Link link;  // the env's block list
  zq_env* env;
  size_t size;
};

struct Chunk {  // one malloc'ed piece of a heap; data follows the header
  Chunk* next;
  size_t size;  // usable bytes
};
struct FreeClass {  // a pool's freed blocks of one exact size
  size_t size;
  void* head;
};
inline constexpr int kFreeClasses = 8;

enum HeapOrigin : uint8_t {
  kHeapMalloc,  // header and first chunk in one malloc'ed block
  kHeapStack,   // header at the start of the caller's stack area
  kHeapSpare,   // a malloc'ed block the env keeps for reuse
  kHeapPool,    // inside a pool object
};
inline constexpr size_t kSpareHeapInline = 2048;  // first-chunk size of reusable heaps
inline constexpr size_t kMaxSpareHeaps = 4;

#ifdef ZQ_TEST_HOOKS
// ---- fault injection settings of an env (test builds only) ----
struct Faults {
  uint64_t allocs = 0;         // counted allocations since reset
  uint64_t alloc_fail_at = 0;  // the count that fails; 0 = off
  bool pool_on = false;
  std::string pool_name;
  uint64_t raises = 0;  // raise-capable calls inside a ptx since reset
  uint64_t raise_at = 0;
  int32_t raise_code = 0;
  uint8_t raise_release = 0;
  uint64_t callbacks[7] = {};  // calls per default row callback slot
  uint64_t callback_at[7] = {};
  int32_t callback_code[7] = {};
};
#endif

// One accounted allocation made outside fault injection (host bookkeeping
// such as hash tables); freed with free_block or by zqenv_destroy.
void* alloc_block(zq_env* env, size_t size);
void free_block(void* ptr);
// Frees a heap or pool and every block taken from it.
void heap_destroy(zq_heap* heap);
// Frees the heap blocks the env kept for reuse.
void free_spare_heaps(zq_env* env);
#ifdef ZQ_TEST_HOOKS
// Counts one allocation; true when fault injection says it must fail.
bool alloc_fails(zq_env* env);
// True when pools named `name` are to fail.
bool pool_fails(zq_env* env, const char* name);
// The raise point of every raise-capable call: counts it when `ptx` is open
// and throws zq_raised when fault injection says so.
void raise_point(zq_env* env, zq_ptx* ptx);
// The code injected for this call of default callback `slot`, or 0.
int32_t callback_fault(zq_env* env, uint32_t slot);
#else
// A build for users injects nothing: every fault point lets the call through.
inline bool alloc_fails(zq_env*) {
  return false;
}
inline bool pool_fails(zq_env*, const char*) {
  return false;
}
inline void raise_point(zq_env*, zq_ptx*) {}
inline int32_t callback_fault(zq_env*, uint32_t) {
  return 0;
}
#endif
// Records a SQLite failure on `env` and pushes it under `func` (level 1).
int32_t sqlite_fail(zq_env* env, sqlite3* db, int rc, const char* func);
// Inside a ptx a SQLite failure raises; outside it is returned.
int32_t fail_or_raise(zq_env* env, zq_ptx* ptx, sqlite3* db, int rc, const char* func);

// ---- values and records ----
enum class Kind : uint8_t { kI32, kI64, kF64, kBin, kText };
enum class Layout : uint8_t { kRows, kSpatial };

inline constexpr int kMaxFields = 16;
inline constexpr uint8_t kRecMinBit = 0x01;  // the record before the first row
inline constexpr uint8_t kRecMaxBit = 0x02;  // the record after the last row

// One field of a host record: numbers by value, binaries and text by pointer
// (into the cursor's statement while it stands on the row, or into the
// cursor's own storage once detached).
struct Field {
  const uint8_t* data;
  uint32_t len;
  Kind kind;
  uint8_t null;      // SQL NULL
  uint8_t sql_type;  // the storage class as stored (SQLITE_INTEGER ...), before any conversion
  union {
    int64_t i;
    double d;
  } v;
};

// The physical record a cursor hands out. zq_nrec* points at `flags`:
//   flags   bit 0x80 delete-marked, 0x01 minimum and 0x02 maximum boundary
//   fields  n_fields entries; for a rows table the declared columns, the
//           system column at n_fields-2 and the rowid at n_fields-1; for a
//           spatial temp table 0 flag text, 1 rowid, 2 the box (48 bytes)
struct HostRec {
  uint8_t flags;
  uint8_t n_fields;
  int64_t rowid;
  Field f[kMaxFields];
  double box[6];  // a spatial row's six box columns, gathered
  char text[8];   // a spatial row's flag text
};
static_assert(offsetof(HostRec, flags) == 0, "zq_nrec points at the flag byte");

// The boundary records a physical cursor stands on before the first and after
// the last row.
extern const HostRec kMinRec;
extern const HostRec kMaxRec;

inline const HostRec* rec_of(const zq_nrec* rec) {
  return reinterpret_cast<const HostRec*>(rec);
}
inline const zq_nrec* nrec_of(const HostRec* rec) {
  return &rec->flags;
}

// The bytes of a binary or string value slot.
inline const uint8_t* value_bytes(const zq_value* v) {
  return v->len <= ZQ_VALUE_INLINE_MAX ? v->u.inl : v->ptr;
}

// ---- tables ----
struct Column {
  std::string name;
  std::string decl;  // declared type as written
  Kind kind;
};

enum StmtKind { kSeekEq, kSeekGe, kSeekGt, kStmtKinds };

struct RowCheck;

// A table as the host's dictionary knows it; every engine object handed out
// for it (table, index, B-trees, record descriptor) lives here, so they stay
// put for the session's life.
struct Table {
  ~Table();

  zq_session* sess = nullptr;
  std::string schema;
  std::string name;
  std::string qname;  // "schema"."name", quoted for SQL
  Layout layout = Layout::kRows;
  bool has_rowid = true;
  std::vector<Column> cols;      // declared columns
  int sys_col = -1;              // declared index of the system column; -1: virtual (always 0)
  uint16_t serial = 0;           // unique within the session
  uint64_t checked_version = 0;  // the schema version it was last validated against

  zq_table table{};
  zq_index index{};
  zq_btr btr{};
  zq_btr btr2{};  // a spatial temp table's (flag, rowid) index
  zq_recdesc desc{};

  int64_t next_rowid = 0;     // 0: seed from max(rowid) + 1 on first use
  uint32_t seed_version = 0;  // the file's data version when next_rowid was seeded
  uint64_t dver = 0;          // data version: bumped by every row change of the host
  RowCheck* check = nullptr;  // the session's check of this table's rows, if any

  std::vector<sqlite3_stmt*> idle[kStmtKinds];  // seek statements no cursor holds
  std::vector<sqlite3_stmt*> owned;             // every statement prepared for the table
  sqlite3_stmt* ins = nullptr;
  sqlite3_stmt* del = nullptr;
  sqlite3_stmt* max_rowid = nullptr;
  sqlite3_stmt* put = nullptr;    // spatial: insert or replace a pending change
  sqlite3_stmt* mark = nullptr;   // spatial: set the delete mark
  sqlite3_stmt* clear = nullptr;  // spatial: empty the table
  std::vector<std::pair<uint64_t, sqlite3_stmt*>> upd;  // UPDATE by column mask

  int n_cols() const { return desc.n_cols; }
};

inline Table* table_of(const zq_btr* btr) {
  return static_cast<Table*>(btr->impl);
}
inline Table* table_of(const zq_table* t) {
  return static_cast<Table*>(t->impl);
}

// Prepares `sql` on the table's connection and keeps it for the Table's
// life; null with *rc set on failure.
sqlite3_stmt* table_prepare(Table* t, const std::string& sql, int* rc);
// Fills the engine objects of `t` once its columns and layout are known.
void table_init_objects(Table* t);

// ---- cursor states ----
// What a cursor needs beyond the caller's frame: the seek statement it
// borrowed from its table, its current record, and enough of the record's key
// to go on after its ptx ended. Recycled through the session.
struct CurState {
  Table* tab = nullptr;
  sqlite3_stmt* stmt = nullptr;  // borrowed from tab->idle[stmt_kind] while live
  StmtKind stmt_kind = kSeekEq;
  zq_ptx* ptx = nullptr;  // the ptx whose end releases this state, if any
  CurState* prev = nullptr;
  CurState* next = nullptr;
  uint64_t gen = 0;  // bumped at every release: stale cursors see a mismatch
  bool in_use = false;
  enum Pos : uint8_t { kNone, kUser, kMax } pos = kNone;
  HostRec rec{};
  std::vector<uint8_t> own;  // a detached record's binary bytes
  int64_t key_rowid = 0;     // key of the current record
  char key_text[8] = {};
  uint32_t key_text_len = 0;
};

CurState* state_acquire(zq_session* s, Table* t);
void state_release(CurState* st);
// Releases every cursor state still tied to `ptx`; its statements are reset.
void ptx_end_cursors(zq_ptx* ptx);

// Builds the record of the statement's current row.
void rec_fill(const Table* t, sqlite3_stmt* stmt, HostRec* rec);

// ---- row checks (row_check.cc) ----
// A program's check of one table's rows, kept per session by table name so
// it outlives the Table objects a rollback retires.
struct RowCheck {
  RowCheck() = default;
  RowCheck(const RowCheck&) = delete;
  RowCheck& operator=(const RowCheck&) = delete;
  ~RowCheck();
  zq_row_check_fn fn = nullptr;
  void* ctx = nullptr;
  void (*free_ctx)(void*) = nullptr;
  uint64_t epoch = 1;   // what the check is told; moves when the rows may have changed
  uint16_t serial = 0;  // the Table object, data version and file version the
  uint64_t dver = 0;    // epoch was last taken at
  uint32_t file_version = 0;
};
// The check of `t`, looked up when the Table is built.
RowCheck* row_check_of(zq_session* s, const std::string& schema, const std::string& name);
// Runs the table's check, if it has one, on the record a cursor is about to
// hand out: true to hand it out. A refusal keeps the check's reason on the env.
bool row_admitted(Table* t, const HostRec& rec, const zq_ptx* ptx);
// Pushes kErrRowRefused under `func`; raised inside a ptx, returned outside.
int32_t refuse_or_raise(zq_env* env, zq_ptx* ptx, const char* func);
// Changes whenever the database file changes, by this connection or another.
uint32_t file_data_version(Table* t);

// The spatial temp table's SQL column list, in record-building order.
inline constexpr const char* kSpatialSelect =
    "flag, rid, min0, min1, min2, max0, max1, max2, deleted";

// ---- temporary tables ----
struct TmpTab {
  zq_tmptab pub{};
  std::unique_ptr<Table> tab;
};

}  // namespace zqhost

// ---- the opaque engine types ----

struct zq_env {
  zq_env();
  struct Err {
    int32_t code;
    std::string func;
    int32_t level;
  };
  std::deque<Err> errs;               // a deque: entries never move, so handed-out names stay valid
  std::vector<zq_session*> sessions;  // open sessions made with this env
  zq_session* session = nullptr;      // the current one: the latest opened
  zq_ptx* active_ptx = nullptr;       // innermost open mini-transaction
  zqhost::Link blocks;                // every live block
  zqhost::Link heaps;                 // every live heap and pool
  std::vector<void*> spare_heaps;     // freed heap blocks kept for the next scratch heap
  uint64_t n_live = 0;
#ifdef ZQ_TEST_HOOKS
  zqhost::Faults faults;
#endif
  uint64_t insert_failed_notices = 0;
  int32_t last_insert_failed = 0;
  std::string last_sqlite_error;
  int last_sqlite_rc = 0;    // its SQLite result code, extended
  std::string last_refusal;  // the reason a row check gave for its last refusal
};

struct zq_heap {
  zqhost::Link link;  // first: the env's heap list
  zq_env* env;
  zqhost::Chunk* chunks;  // malloc'ed chunks, newest first
  uint8_t* cur;
  size_t left;
  uint8_t* last;  // start of the latest allocation, so it alone can be given back
  size_t next_chunk;
  size_t max_chunk;
  zq_memobj* pool_obj;  // the pool object owning this heap; null for a scratch heap
  uint8_t origin;       // where the header lives: zqhost::HeapOrigin
  zqhost::FreeClass free_classes[zqhost::kFreeClasses];
  char name[48];
};

struct zq_scope {
  zq_session* sess = nullptr;
  std::string schema;
  sqlite3_stmt* version = nullptr;  // PRAGMA schema_version
  sqlite3_stmt* lookup = nullptr;   // the table's row in sqlite_schema
  sqlite3_stmt* columns = nullptr;  // pragma_table_info
};

namespace zqhost {
// One tracked table's row images, oldest first (undo.cc).
struct UndoRow {
  int64_t rowid;
  bool existed;                      // false: the write made the row; undo deletes it
  std::vector<sqlite3_value*> vals;  // the old row's columns, owned
};
struct UndoLog {
  ~UndoLog();
  std::vector<UndoRow> rows;
  int n_cols = 0;
  sqlite3_stmt* read = nullptr;     // the row's columns by rowid
  sqlite3_stmt* restore = nullptr;  // INSERT OR REPLACE of an old image
  sqlite3_stmt* remove = nullptr;   // DELETE of a row the writes made
};
// Keeps the image of the row at `rowid` before a default callback writes it,
// when the session tracks the table; SQLITE_OK or SQLite's failure.
int remember_row(Table* t, int64_t rowid);
}  // namespace zqhost

struct zq_session {
  zq_env* env = nullptr;
  sqlite3* db = nullptr;
  bool owns_db = false;
  uint32_t total_mb = 256;
  uint32_t handle_mb = 64;
  uint64_t sort_mem = 64ull << 20;
  zq_sort_pool* sort_pool = nullptr;

  bool in_txn = false;         // zqsess_begin was called and not yet ended
  uint32_t sp_depth = 0;       // host savepoints open
  bool sp_held = false;        // zqsess_hold_savepoints: write ptxs take none
  bool sp_outer_auto = false;  // the outermost host savepoint began in autocommit mode
  sqlite3_stmt* sp_begin = nullptr;
  sqlite3_stmt* sp_release = nullptr;
  sqlite3_stmt* sp_rollback = nullptr;

  std::map<std::string, std::unique_ptr<zq_scope>> scopes;
  std::map<std::string, std::unique_ptr<zqhost::Table>> tables;  // by schema '\0' name
  std::vector<std::unique_ptr<zqhost::Table>> retired;           // still valid for old holders
  uint16_t next_serial = 1;

  zq_tmptab_owner owner{};
  std::vector<std::unique_ptr<zqhost::TmpTab>> tmptabs;

  std::vector<std::unique_ptr<zqhost::CurState>> states;
  std::vector<zqhost::CurState*> free_states;

  std::map<std::string, std::unique_ptr<zqhost::UndoLog>>
      undo;  // tracked tables, by schema '\0' name

  zq_row_observer_fn observer = nullptr;  // told of every row the default callbacks write
  void* observer_ctx = nullptr;
  std::map<std::string, std::unique_ptr<zqhost::RowCheck>>
      row_checks;  // by schema '\0' name; entries stay until the session closes
};

namespace zqhost {
// Runs one SQL text without results on the session's connection.
int exec(sqlite3* db, const char* sql);
// Steps a statement that returns no row and resets it; the step's result.
int step_once(sqlite3_stmt* st);
// SQL identifier quoting.
std::string quote_ident(const std::string& s);
// Dictionary: the Table of `name` in `scope` (nullptr with *code < 0).
Table* dict_lookup(zq_scope* scope, const std::string& name, int32_t* code);
// Drops every cached Table of the session (they stay valid for old holders).
void dict_retire_all(zq_session* s);
// Savepoints of write ptxs.
int savepoint_begin(zq_session* s);
int savepoint_end(zq_session* s, bool rollback);
// Temporary tables: re-creates those a user-level rollback undid; frees all.
void tmptab_recreate_all(zq_session* s);
void tmptab_free_all(zq_session* s);
}  // namespace zqhost

#endif
