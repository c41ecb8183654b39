// Row checks: a program's rules for the rows of one table, run on every row
// a cursor hands out for it (see host.h). The host only carries the check:
// it builds the view of the row, tells the check whether the table may have
// changed since the last row (the epoch), and turns a refusal into its own
// code on the normal failure path.
//
// Call order: zqsess_set_row_check -> Table built (dict) picks the check up
// -> cursor positions on a row -> row_admitted -> hand out, or
// refuse_or_raise.
#include <cstring>

#include "host/internal.h"

namespace zqhost {
namespace {

std::string key_of(const std::string& schema, const std::string& table) {
  return schema + '\0' + table;
}

zq_col_view view_of(const Field& f) {
  zq_col_view v{f.sql_type, 0, 0.0, nullptr, 0};
  switch (f.kind) {
    case Kind::kI32:
    case Kind::kI64:
      v.i = f.v.i;
      break;
    case Kind::kF64:
      v.d = f.v.d;
      break;
    case Kind::kBin:
    case Kind::kText:
      v.bytes = f.data;
      v.len = f.len;
      break;
  }
  return v;
}

// The epoch moves when the Table object was rebuilt (a rollback retires
// them), the host wrote a row of it, or the file changed underneath.
uint64_t epoch_of(Table* t, RowCheck* c) {
  const uint32_t file_version = file_data_version(t);
  if (c->serial != t->serial || c->dver != t->dver || c->file_version != file_version) {
    ++c->epoch;
    c->serial = t->serial;
    c->dver = t->dver;
    c->file_version = file_version;
  }
  return c->epoch;
}

}  // namespace

RowCheck::~RowCheck() {
  if (free_ctx != nullptr) free_ctx(ctx);
}

RowCheck* row_check_of(zq_session* s, const std::string& schema, const std::string& name) {
  auto it = s->row_checks.find(key_of(schema, name));
  return it != s->row_checks.end() && it->second->fn != nullptr ? it->second.get() : nullptr;
}

bool row_admitted(Table* t, const HostRec& rec, const zq_ptx* ptx) {
  RowCheck* c = t->check;
  if (c == nullptr || t->layout != Layout::kRows) return true;
  zq_col_view cols[kMaxFields];
  const uint32_t n = static_cast<uint32_t>(t->cols.size());
  for (uint32_t i = 0; i < n; ++i) cols[i] = view_of(rec.f[i]);
  const zq_row_view row{rec.rowid, n, cols, epoch_of(t, c),
                        static_cast<uint8_t>(ptx != nullptr && ptx->write != 0)};
  char why[512];
  why[0] = '\0';
  if (c->fn(c->ctx, &row, why, sizeof why) == 0) return true;
  try {
    t->sess->env->last_refusal = why;
  } catch (...) {
    // Out of memory while keeping the reason: the refusal itself stands.
  }
  return false;
}

int32_t refuse_or_raise(zq_env* env, zq_ptx* ptx, const char* func) {
  zqerr_stk_push(env, kErrRowRefused, func, 1);
  if (ptx != nullptr) throw zq_raised{kErrRowRefused};
  return kErrRowRefused;
}

}  // namespace zqhost

extern "C" {

int32_t zqsess_set_row_check(zq_session* s, const char* schema, const char* table,
                             zq_row_check_fn fn, void* ctx, void (*free_ctx)(void*)) {
  if (s == nullptr || schema == nullptr || table == nullptr) {
    if (free_ctx != nullptr) free_ctx(ctx);
    return zqhost::kErrBadArg;
  }
  try {
    auto& slot = s->row_checks[zqhost::key_of(schema, table)];
    if (slot == nullptr) slot = std::make_unique<zqhost::RowCheck>();
    zqhost::RowCheck* c = slot.get();
    if (c->free_ctx != nullptr) c->free_ctx(c->ctx);
    c->fn = fn;
    c->ctx = ctx;
    c->free_ctx = free_ctx;
    ++c->epoch;
    auto it = s->tables.find(zqhost::key_of(schema, table));
    if (it != s->tables.end()) it->second->check = fn != nullptr ? c : nullptr;
    return 0;
  } catch (...) {
    if (free_ctx != nullptr) free_ctx(ctx);
    return zqhost::kErrNoMem;
  }
}

void* zqsess_row_check_ctx(zq_session* s, const char* schema, const char* table,
                           zq_row_check_fn fn) {
  if (s == nullptr || schema == nullptr || table == nullptr) return nullptr;
  zqhost::RowCheck* c = zqhost::row_check_of(s, schema, table);
  return c != nullptr && c->fn == fn ? c->ctx : nullptr;
}

const char* zqhost_last_refusal(const zq_env* env) {
  return env != nullptr ? env->last_refusal.c_str() : "";
}

}  // extern "C"
