// The data dictionary: node tables found by name in a schema (the scope),
// opened for the current operation with their primary key (the B-tree whose
// keys are the rowids), their engine objects, data versions and rowid
// counters. Everything here lives for one operation: the tables are closed
// and the objects freed when it ends.
//
// Call order: ndct_find_table_by_name_with_code ->
// ndct_table_get_nth_valid_real_index -> ndct_phy_index_get_btr ->
// (nbtr_get_next_rowid, ndct_table_get_dver)* -> close_tables at the end.
#include <cstring>

#include "pg/host/pghost.h"

extern "C" {
#include "access/table.h"
#include "access/tableam.h"
#include "catalog/index.h"
#include "storage/lockdefs.h"
#include "utils/lsyscache.h"
#include "utils/relcache.h"
}

namespace zqpg {
namespace {

Table* find_open(zq_session* s, Oid relid) {
  for (Table* t = s->tables; t != nullptr; t = t->next)
    if (t->relid == relid) return t;
  return nullptr;
}

void init_objects(Table* t) {
  t->table = zq_table{t->name, t};
  t->index = zq_index{t->name, &t->table, &t->btr, t};
  t->btr = zq_btr{&t->desc, t};
  zq_recdesc& d = t->desc;
  d = zq_recdesc{};
  d.n_cols = kNodeCols;
  d.n_key_vals = 1;
  d.sys_col_as_i64 = 1;
  d.fill_size1 = sizeof(zq_value);
  d.fill_size2 = sizeof(uint32_t);
}

}  // namespace

bool table_open_for_op(zq_session* s, Table* t) {
  return pg_call(s, "ndct_open_table", [&] {
    MemoryContext old = MemoryContextSwitchTo(s->op_ctx);
    const LOCKMODE mode = s->write ? RowExclusiveLock : AccessShareLock;
    t->rel = table_open(t->relid, mode);
    const Oid pk = RelationGetPrimaryKeyIndex(t->rel);
    if (OidIsValid(pk)) {
      t->pk = index_open(pk, mode);
      // Only index insertions need it, and reads are the common case.
      if (s->write) t->pk_info = BuildIndexInfo(t->pk);
    }
    t->slot = table_slot_create(t->rel, nullptr);
    MemoryContextSwitchTo(old);
  });
}

void close_tables(zq_session* s) {
  for (Table* t = s->tables; t != nullptr; t = t->next) {
    if (t->newest_scan != nullptr) index_endscan(t->newest_scan);
    if (t->visible_scan != nullptr) index_endscan(t->visible_scan);
    if (t->slot != nullptr) ExecDropSingleTupleTableSlot(t->slot);
    // Locks stay until the transaction ends, as for any table a statement used.
    if (t->pk != nullptr) index_close(t->pk, NoLock);
    if (t->rel != nullptr) table_close(t->rel, NoLock);
  }
  s->tables = nullptr;
}

}  // namespace zqpg

using zqpg::Table;

extern "C" {

zq_table* ndct_find_table_by_name_with_code(zq_env* env, zq_memobj*, zq_scope* scope,
                                            const char* name, int32_t* code) {
  *code = 0;
  zq_session* s = env->session;
  if (scope == nullptr || name == nullptr || strlen(name) >= NAMEDATALEN) {
    *code = zqpg::kErrBadArg;
    return nullptr;
  }
  Oid relid = InvalidOid;
  if (!zqpg::pg_call(s, "ndct_find_table_by_name_with_code",
                     [&] { relid = get_relname_relid(name, scope->nsp); })) {
    *code = zqpg::kErrPostgres;
    return nullptr;
  }
  if (!OidIsValid(relid)) {
    *code = zqpg::kErrNoTable;
    return nullptr;
  }
  if (Table* open = zqpg::find_open(s, relid)) return &open->table;
  auto* t = static_cast<Table*>(
      MemoryContextAllocExtended(s->op_ctx, sizeof(Table), MCXT_ALLOC_NO_OOM | MCXT_ALLOC_ZERO));
  if (t == nullptr) {
    *code = zqpg::kErrNoMem;
    return nullptr;
  }
  t->relid = relid;
  strlcpy(t->name, name, sizeof t->name);
  zqpg::init_objects(t);
  t->next = s->tables;
  s->tables = t;
  if (!zqpg::table_open_for_op(s, t)) {
    *code = zqpg::kErrPostgres;
    return nullptr;
  }
  return &t->table;
}

zq_index* ndct_table_get_nth_valid_real_index(zq_env*, zq_memobj*, zq_table* table, uint32_t nth,
                                              int32_t* code) {
  Table* t = table != nullptr ? zqpg::table_of(table) : nullptr;
  // The primary key on the id column is the one index rows are keyed by.
  if (t == nullptr || nth != 0 || t->pk == nullptr) {
    *code = zqpg::kErrNoIndex;
    return nullptr;
  }
  *code = 0;
  return &t->index;
}

zq_btr* ndct_phy_index_get_btr(zq_index* index) {
  return index->btr;
}

int32_t ndct_table_get_dver(zq_env*, zq_table* table, uint64_t* out) {
  *out = zqpg::table_of(table)->dver;
  return 0;
}

int64_t nbtr_get_next_rowid(zq_env* env, zq_btr* btr, int32_t* code) {
  *code = 0;
  Table* t = zqpg::table_of(btr);
  // Writers of one index are serialised by its lock, so the newest max(id)
  // read once per operation stays the maximum until the operation ends.
  if (t->next_rowid == 0) {
    int64_t max = 0;
    const int32_t rc = zqpg::newest_max_id(env->session, t, &max);
    if (rc < 0) {
      *code = rc;
      return 0;
    }
    t->next_rowid = max + 1;
  }
  return t->next_rowid++;
}

}  // extern "C"
