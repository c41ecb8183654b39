// Scans: xOpen, xFilter (runs the plan xBestIndex chose), xNext, xEof,
// xColumn, xRowid, xClose.
//
// The rowid plan reads the one row of its rowid (find_row). The search plans,
// and the full scan as a search that every entry matches, walk the tree
// through the driver's Scan (every hit rechecked on all axes); in deferred
// mode they skip hits whose rowid has a pending change and then add the
// matching pending inserts. A table-valued search with the operator
// 'nearest' reads its rows through NearestRows (nearest.cc) instead.
// Phases in order: kRow, or kTree then kPending, or kNearest; kDone at the end.
#include <algorithm>
#include <cfloat>
#include <cmath>
#include <limits>
#include <memory>
#include <string>

#include "sqlite_ext/ext.h"

namespace zqext {

namespace {

struct Cursor : sqlite3_vtab_cursor {
  enum class Phase { kRow, kTree, kPending, kNearest, kDone };

  explicit Cursor(Table* t) : table(t) {}
  ~Cursor() {
    sqlite3_value_free(op_arg);
    sqlite3_value_free(k_arg);
  }

  Table* table;
  Phase phase = Phase::kDone;
  HandleRef handle;  // the kept handle the scan reads through
  std::unique_ptr<zq::Scan> scan;
  std::unique_ptr<PendingScan> pending;
  std::unique_ptr<NearestRows> nearest;
  zq::Entry entry;
  // The current row: `entry`, or while walking the tree the scan's own, read
  // in place (a copy per hit cost a many-hit window a few percent).
  const zq::Entry* row = &entry;
  double distance = 0;  // the current row's, in kNearest
  uint32_t op = 0;
  zq::Box query;
  sqlite3_value* op_arg = nullptr;  // a table-valued search's operator, as given
  sqlite3_value* k_arg = nullptr;   // and its zq_k
  bool has_args = false;
  bool merge = false;  // deferred changes wait: skip stale hits, add pending inserts
  // Exact sides whose bounds crossed over: the search box no longer says
  // them, so each hit is held against them (max >= min side, min <= max side).
  bool crossed = false;
  zq::Box exact_bounds;
};

Cursor* cursor_of(sqlite3_vtab_cursor* cur) {
  return static_cast<Cursor*>(cur);
}

int cursor_fail(Cursor* c, const std::string& what) {
  c->phase = Cursor::Phase::kDone;
  return fail(c->pVtab, failure(*c->table, what));
}

// A number SQLite would compare as one (text that looks numeric counts).
bool numeric(sqlite3_value* v, double* out) {
  const int type = sqlite3_value_numeric_type(v);
  if (type != SQLITE_INTEGER && type != SQLITE_FLOAT) return false;
  *out = sqlite3_value_double(v);
  return true;
}

int start_rowid(Cursor* c, sqlite3_value* arg) {
  // Only an integral number within int64 can equal a rowid. An integer is
  // taken as it is: through a double the largest rowids would round away.
  int64_t id = 0;
  double v = 0;
  if (!numeric(arg, &v)) return SQLITE_OK;
  if (sqlite3_value_numeric_type(arg) == SQLITE_INTEGER) {
    id = sqlite3_value_int64(arg);
  } else if (v == std::floor(v) && v >= -0x1p63 && v < 0x1p63) {
    id = static_cast<int64_t>(v);
  } else {
    return SQLITE_OK;
  }
  bool found = false;
  if (zq::Status s = find_row(c->table, id, &c->entry, &found); !s)
    return cursor_fail(c, s.message());
  c->table->row_memo = Table::RowMemo{true, found, c->entry};
  if (found) c->phase = Cursor::Phase::kRow;
  return SQLITE_OK;
}

// The box of a table-valued search, after its operator.
int read_box_args(Cursor* c, sqlite3_value** argv) {
  c->op_arg = sqlite3_value_dup(argv[0]);
  for (int j = 0; j < 2 * c->table->dims(); ++j) {
    double v = 0;
    const std::string which = (j % 2 == 0 ? "zq_min" : "zq_max") + std::to_string(j / 2);
    if (!numeric(argv[1 + j], &v))
      return cursor_fail(c, "search argument " + which + " is not a number");
    set_side(&c->query, j, v);
  }
  c->has_args = true;
  return SQLITE_OK;
}

// The INTERSECT box implied by the range constraints: open sides at the
// extremes of the doubles, which every stored (finite) coordinate lies within.
// False when an exact side admits no row at all.
bool read_range_args(Cursor* c, const Plan& plan, sqlite3_value** argv) {
  c->op = RTR_OP_INTERSECT;
  const int dims = c->table->dims();
  for (int k = 0; k < dims; ++k) {
    c->query.min[k] = -DBL_MAX;
    c->query.max[k] = DBL_MAX;
  }
  c->exact_bounds = c->query;
  c->crossed = false;
  int arg = 0;
  for (int bit = 0; bit < 2 * dims; ++bit) {
    if ((plan.slots & (1u << bit)) == 0) continue;
    sqlite3_value* value = argv[arg++];
    const bool lower = bit % 2 == 0;
    double v = 0;
    if (!numeric(value, &v)) {
      // SQLite judges the rows of an inexact side. An exact one is judged
      // here as SQLite would: NULL matches nothing, and every number sorts
      // below text and blobs, so `max >= 'x'` holds for no row and
      // `min <= 'x'` for every row.
      if ((plan.exact & (1u << bit)) == 0) continue;
      if (sqlite3_value_type(value) == SQLITE_NULL || lower) return false;
      continue;
    }
    // Beyond the largest double only an exact side can rule every row out.
    if ((plan.exact & (1u << bit)) != 0 && (lower ? v > DBL_MAX : v < -DBL_MAX)) return false;
    v = std::fmax(-DBL_MAX, std::fmin(DBL_MAX, v));
    set_side(&c->query, bit, v);
    if ((plan.exact & (1u << bit)) != 0) set_side(&c->exact_bounds, bit, v);
  }
  for (int k = 0; k < dims; ++k) {
    if ((plan.eq_copies & (1u << k)) != 0) c->query.max[k] = c->query.min[k];
    // Bounds crossing over still admit entries that span the gap between them,
    // and every such entry meets the box the two bounds enclose.
    if (c->query.min[k] > c->query.max[k]) {
      std::swap(c->query.min[k], c->query.max[k]);
      c->crossed = c->crossed || (plan.exact & (3u << (2 * k))) != 0;
    }
  }
  return true;
}

bool within_exact(const Cursor& c, const zq::Entry& e) {
  for (int k = 0; k < c.table->dims(); ++k)
    if (e.box.max[k] < c.exact_bounds.min[k] || e.box.min[k] > c.exact_bounds.max[k]) return false;
  return true;
}

int settle(Cursor* c) {
  Table* t = c->table;
  while (c->phase == Cursor::Phase::kTree) {
    if (c->scan->at_end()) {
      c->scan->close();
      c->row = &c->entry;
      c->phase = c->merge ? Cursor::Phase::kPending : Cursor::Phase::kDone;
      if (c->phase == Cursor::Phase::kPending) {
        c->pending = std::make_unique<PendingScan>(t);
        if (zq::Status s = c->pending->open(c->op, c->query); !s)
          return cursor_fail(c, s.message());
      }
      break;
    }
    if (c->crossed && !within_exact(*c, c->scan->entry())) {
      if (zq::Status s = c->scan->next(); !s) return cursor_fail(c, s.message());
      continue;
    }
    if (c->merge) {
      zq::Status s;
      const int stale = pending_deleted(t, c->scan->entry().id, &s);
      if (!s) return cursor_fail(c, s.message());
      if (stale == 1) {
        if (s = c->scan->next(); !s) return cursor_fail(c, s.message());
        continue;
      }
    }
    c->row = &c->scan->entry();
    return SQLITE_OK;
  }
  while (c->phase == Cursor::Phase::kPending) {
    zq::Status s;
    if (!c->pending->next(&c->entry, &s)) {
      if (!s) return cursor_fail(c, s.message());
      c->phase = Cursor::Phase::kDone;
    } else if (!c->crossed || within_exact(*c, c->entry)) {
      break;
    }
  }
  return SQLITE_OK;
}

// The handle a search reads the tree through, and whether deferred changes
// wait to be merged in.
int take_handle(Cursor* c) {
  Table* t = c->table;
  c->merge = t->deferred() && has_pending(*t);
  if (c->merge)
    if (zq::Status s = ensure_pending(t); !s) return cursor_fail(c, s.message());
  // Inside a write transaction the tree is the one its handle holds;
  // outside, the connection's kept reading handle serves every search.
  zq::Status s;
  c->handle = t->txn.active() ? t->txn.handle(&s) : t->reader.get(&s);
  if (!s) return cursor_fail(c, s.message());
  return SQLITE_OK;
}

int start_tree(Cursor* c) {
  if (int rc = take_handle(c); rc != SQLITE_OK) return rc;
  c->scan = std::make_unique<zq::Scan>(c->table->index);
  if (zq::Status s = c->scan->open(c->op, c->query, c->handle.get()); !s)
    return cursor_fail(c, s.message());
  c->phase = Cursor::Phase::kTree;
  return settle(c);
}

int settle_nearest(Cursor* c) {
  if (c->nearest->at_end()) {
    c->phase = Cursor::Phase::kDone;
    return SQLITE_OK;
  }
  c->entry = c->nearest->current().entry;
  c->distance = c->nearest->current().distance;
  return SQLITE_OK;
}

// zq_k: a whole number of 0 or more, as an integer or any number SQLite
// would compare as one.
bool read_count(sqlite3_value* v, uint64_t* k) {
  if (sqlite3_value_numeric_type(v) == SQLITE_INTEGER) {
    const sqlite3_int64 n = sqlite3_value_int64(v);
    *k = static_cast<uint64_t>(n);
    return n >= 0;
  }
  double d = 0;
  if (!numeric(v, &d) || d != std::floor(d) || d < 0 || d >= 0x1p63) return false;
  *k = static_cast<uint64_t>(d);
  return true;
}

// t('nearest', box[, k]), with `distance <= v` (or `<`) when the query has
// one. SQLite tests that bound on every row itself, so the search stops at
// it only where SQLite would refuse what lies beyond: a number bounds the
// distance, NULL (and a negative number) admits no row, and text or a blob
// sorts above every number and admits all.
int start_nearest(Cursor* c, const Plan& plan, sqlite3_value** argv) {
  const int n_box = 2 * c->table->dims();
  if (int rc = read_box_args(c, argv); rc != SQLITE_OK) return rc;
  uint64_t k = 0;
  if (plan.has_k) {
    c->k_arg = sqlite3_value_dup(argv[1 + n_box]);
    if (!read_count(argv[1 + n_box], &k)) {
      const unsigned char* text = sqlite3_value_text(argv[1 + n_box]);
      return cursor_fail(c, std::string("zq_k ") +
                                (text != nullptr ? reinterpret_cast<const char*>(text) : "NULL") +
                                " is not a whole number of 0 or more");
    }
    if (k == 0) return SQLITE_OK;
  }
  double max_distance = std::numeric_limits<double>::infinity();
  if (plan.has_limit) {
    sqlite3_value* bound = argv[1 + n_box + (plan.has_k ? 1 : 0)];
    const int type = sqlite3_value_type(bound);
    if (type == SQLITE_INTEGER || type == SQLITE_FLOAT) max_distance = sqlite3_value_double(bound);
    if (type == SQLITE_NULL || max_distance < 0) return SQLITE_OK;
  }
  if (int rc = take_handle(c); rc != SQLITE_OK) return rc;
  c->nearest = std::make_unique<NearestRows>(c->table);
  if (zq::Status s = c->nearest->open(c->handle.get(), c->query, k, max_distance, c->merge); !s)
    return cursor_fail(c, s.message());
  c->phase = Cursor::Phase::kNearest;
  return settle_nearest(c);
}

// A window search's operator and box; a nearest search's count is refused.
int start_query(Cursor* c, const Plan& plan, sqlite3_value** argv) {
  if (is_nearest_op(argv[0])) return start_nearest(c, plan, argv);
  std::string error;
  if (!parse_op_value(argv[0], &c->op, &error)) return cursor_fail(c, error);
  if (plan.has_k)
    return cursor_fail(c, "zq_k, a count of neighbours, goes with the operator 'nearest' only");
  if (int rc = read_box_args(c, argv); rc != SQLITE_OK) return rc;
  return start_tree(c);
}

}  // namespace

int x_open(sqlite3_vtab* vtab, sqlite3_vtab_cursor** out) {
  *out = new Cursor(static_cast<Table*>(vtab));
  return SQLITE_OK;
}

int x_close(sqlite3_vtab_cursor* cur) {
  delete cursor_of(cur);
  return SQLITE_OK;
}

int x_filter(sqlite3_vtab_cursor* cur, int idx_num, const char*, int, sqlite3_value** argv) {
  Cursor* c = cursor_of(cur);
  Table* t = c->table;
  t->row_memo.valid = false;
  // Each search starts afresh: a refresh below may replace the session, and
  // the memory the library cursors hold goes with its environment.
  c->scan.reset();
  c->nearest.reset();
  c->handle.reset();
  c->pending.reset();
  c->row = &c->entry;
  c->phase = Cursor::Phase::kDone;
  sqlite3_value_free(c->op_arg);
  sqlite3_value_free(c->k_arg);
  c->op_arg = nullptr;
  c->k_arg = nullptr;
  c->has_args = false;
  c->query = zq::Box{};
  const Plan plan = decode_plan(idx_num);
  if (std::string err = t->conn->refresh(); !err.empty()) return cursor_fail(c, err);
  zqenv_err_clear(t->conn->database().env());
  switch (plan.kind) {
    case Plan::kScan:
      c->op = RTR_OP_ANY;
      return start_tree(c);
    case Plan::kRowid:
      return start_rowid(c, argv[0]);
    case Plan::kQuery:
      return start_query(c, plan, argv);
    case Plan::kRange:
      if (!read_range_args(c, plan, argv)) {
        c->phase = Cursor::Phase::kDone;
        return SQLITE_OK;
      }
      return start_tree(c);
  }
  return cursor_fail(c, "unknown plan " + std::to_string(idx_num));
}

int x_next(sqlite3_vtab_cursor* cur) {
  Cursor* c = cursor_of(cur);
  switch (c->phase) {
    case Cursor::Phase::kRow:
      c->phase = Cursor::Phase::kDone;
      return SQLITE_OK;
    case Cursor::Phase::kTree:
      if (zq::Status s = c->scan->next(); !s) return cursor_fail(c, s.message());
      return settle(c);
    case Cursor::Phase::kPending:
      return settle(c);
    case Cursor::Phase::kNearest:
      if (zq::Status s = c->nearest->next(); !s) return cursor_fail(c, s.message());
      return settle_nearest(c);
    case Cursor::Phase::kDone:
      break;
  }
  return SQLITE_OK;
}

int x_eof(sqlite3_vtab_cursor* cur) {
  return cursor_of(cur)->phase == Cursor::Phase::kDone ? 1 : 0;
}

int x_column(sqlite3_vtab_cursor* cur, sqlite3_context* ctx, int col) {
  Cursor* c = cursor_of(cur);
  const Table& t = *c->table;
  if (col == 0) {
    sqlite3_result_int64(ctx, c->row->id);
  } else if (col < t.op_column()) {
    const int k = (col - 1) / 2;
    sqlite3_result_double(ctx, (col - 1) % 2 == 0 ? c->row->box.min[k] : c->row->box.max[k]);
  } else if (col == t.distance_column()) {
    if (c->phase == Cursor::Phase::kNearest) sqlite3_result_double(ctx, c->distance);
  } else if (col == t.k_column()) {
    if (c->k_arg != nullptr) sqlite3_result_value(ctx, c->k_arg);
  } else if (!c->has_args) {
    sqlite3_result_null(ctx);
  } else if (col == t.op_column()) {
    sqlite3_result_value(ctx, c->op_arg);
  } else {
    const int j = col - t.first_arg_column();
    sqlite3_result_double(ctx, j % 2 == 0 ? c->query.min[j / 2] : c->query.max[j / 2]);
  }
  return SQLITE_OK;
}

int x_rowid(sqlite3_vtab_cursor* cur, sqlite3_int64* rowid) {
  *rowid = cursor_of(cur)->row->id;
  return SQLITE_OK;
}

}  // namespace zqext
