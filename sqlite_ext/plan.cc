// Query planning: xBestIndex picks one of four plans and tells xFilter, through
// idxNum, how to read its arguments; idxStr names the plan for EXPLAIN QUERY
// PLAN ("zqrtree:INTERSECT", "zqrtree:ROWID", "zqrtree:FULLSCAN", or the
// table-valued search's operator such as "zqrtree:or(within|equal)").
//
//   kQuery  t('op', min0, max0, ...[, k]): the operator and box bound by
//           equality, and zq_k when given; with a bound on `distance` as
//           well, that too, for a nearest search to stop at (SQLite still
//           tests it). A constant 'nearest' gives its rows in the order of
//           ORDER BY distance[, id], so SQLite does not sort them
//   kRowid  rowid = ? or id = ?: one row
//   kRange  comparisons on coordinate columns: an INTERSECT search whose box
//           has each side bounded by one constraint (open sides at the
//           extremes of the doubles). The search answers `max_k >= v` and
//           `min_k <= v` exactly, so SQLite is told to skip those; it still
//           tests every other constraint on the rows found
//   kScan   every entry, in the tree's order
//
// idxNum: bits 0-3 the plan, bits 4-9 the bounded sides of a kRange box (bit
// 2k: axis k from below, 2k+1: from above; one argument each, in bit order),
// bits 10-12 the axes whose equality constraint bounds both sides, bits
// 13-18 the sides (numbered as bits 4-9) whose constraint SQLite skips;
// for kQuery, bit 4 says zq_k is among the arguments, bit 5 a distance bound.
#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "sqlite_ext/ext.h"

namespace zqext {

namespace {

constexpr double kScanRows = 1e6;

bool is_lower_bound(unsigned char op) {
  return op == SQLITE_INDEX_CONSTRAINT_EQ || op == SQLITE_INDEX_CONSTRAINT_GT ||
         op == SQLITE_INDEX_CONSTRAINT_GE;
}

bool is_upper_bound(unsigned char op) {
  return op == SQLITE_INDEX_CONSTRAINT_EQ || op == SQLITE_INDEX_CONSTRAINT_LT ||
         op == SQLITE_INDEX_CONSTRAINT_LE;
}

void set_idx_str(sqlite3_index_info* info, const std::string& text) {
  info->idxStr = sqlite3_mprintf("zqrtree:%s", text.c_str());
  info->needToFreeIdxStr = 1;
}

// The value of a constraint when the query gives it as a constant; SQLite
// can tell only from 3.38 on. Null otherwise.
sqlite3_value* constant_of(sqlite3_index_info* info, int constraint) {
  if (sqlite3_libversion_number() < 3038000) return nullptr;
  sqlite3_value* v = nullptr;
  return sqlite3_vtab_rhs_value(info, constraint, &v) == SQLITE_OK ? v : nullptr;
}

std::string constant_op_name(sqlite3_value* v) {
  uint32_t op = 0;
  std::string ignored;
  if (v == nullptr) return "QUERY";
  if (is_nearest_op(v)) return "nearest";
  return parse_op_value(v, &op, &ignored) ? zq::op_name(op) : "QUERY";
}

// A bound on a nearest search's distance that the search can stop at;
// SQLite still tests it on every row, so its value may be anything.
int distance_limit(Table* t, sqlite3_index_info* info) {
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& c = info->aConstraint[i];
    if (c.usable && c.iColumn == t->distance_column() &&
        (c.op == SQLITE_INDEX_CONSTRAINT_LE || c.op == SQLITE_INDEX_CONSTRAINT_LT))
      return i;
  }
  return -1;
}

// Nearest rows come by distance, equal distances by rowid: SQLite need not
// sort for ORDER BY distance, or distance then id.
bool nearest_order(Table* t, const sqlite3_index_info* info) {
  if (info->nOrderBy < 1 || info->nOrderBy > 2) return false;
  const auto* o = info->aOrderBy;
  if (o[0].iColumn != t->distance_column() || o[0].desc) return false;
  return info->nOrderBy == 1 || ((o[1].iColumn == 0 || o[1].iColumn == -1) && !o[1].desc);
}

// kQuery when the hidden arguments are bound (zq_k may be left out);
// SQLITE_CONSTRAINT when they are but cannot be used in this join order, so
// SQLite puts the tables they come from outside; -1 when the query names none.
int plan_query(Table* t, sqlite3_index_info* info) {
  const int n_args = 2 + 2 * t->dims();  // the operator, the box, zq_k
  std::vector<int> found(n_args, -1);
  bool any = false, unusable = false;
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& c = info->aConstraint[i];
    const int arg = c.iColumn - t->op_column();
    if (arg < 0 || arg >= n_args || c.op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
    any = true;
    if (!c.usable)
      unusable = true;
    else if (found[arg] < 0)
      found[arg] = i;
  }
  if (!any) return -1;
  if (unusable) return SQLITE_CONSTRAINT;
  if (std::count(found.begin(), found.end() - 1, -1) > 0) {
    std::string names = "zq_op";
    for (int k = 0; k < t->dims(); ++k)
      names += ", zq_min" + std::to_string(k) + ", zq_max" + std::to_string(k);
    return fail(t, failure(*t, "a search takes an operator and " + std::to_string(2 * t->dims()) +
                                   " coordinates, and for 'nearest' a count: " + quote(t->name) +
                                   "(" + names + "[, zq_k])"));
  }
  const int k_arg = found.back(), limit = distance_limit(t, info);
  std::vector<int> args(found.begin(), found.end() - 1);  // the operator and the box
  if (k_arg >= 0) args.push_back(k_arg);
  if (limit >= 0) args.push_back(limit);
  for (size_t j = 0; j < args.size(); ++j) {
    info->aConstraintUsage[args[j]].argvIndex = static_cast<int>(j + 1);
    info->aConstraintUsage[args[j]].omit = args[j] == limit ? 0 : 1;
  }
  info->idxNum = Plan::kQuery | (k_arg >= 0 ? 1 << 4 : 0) | (limit >= 0 ? 1 << 5 : 0);
  const std::string name = constant_op_name(constant_of(info, found[0]));
  set_idx_str(info, name);
  info->estimatedCost = 50;
  info->estimatedRows = 100;
  if (name == "nearest") {
    if (nearest_order(t, info)) info->orderByConsumed = 1;
    sqlite3_value* k = k_arg >= 0 ? constant_of(info, k_arg) : nullptr;
    if (k != nullptr && sqlite3_value_type(k) == SQLITE_INTEGER)
      info->estimatedRows = std::max<sqlite3_int64>(1, sqlite3_value_int64(k));
  }
  return SQLITE_OK;
}

bool plan_rowid(sqlite3_index_info* info) {
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& c = info->aConstraint[i];
    if (!c.usable || c.op != SQLITE_INDEX_CONSTRAINT_EQ) continue;
    if (c.iColumn != -1 && c.iColumn != 0) continue;
    info->aConstraintUsage[i].argvIndex = 1;
    info->aConstraintUsage[i].omit = 1;
    info->idxNum = Plan::kRowid;
    set_idx_str(info, "ROWID");
    info->estimatedCost = 1;
    info->estimatedRows = 1;
    info->idxFlags = SQLITE_INDEX_SCAN_UNIQUE;
    info->orderByConsumed = 1;
    return true;
  }
  return false;
}

bool plan_range(Table* t, sqlite3_index_info* info) {
  uint32_t slots = 0, copies = 0, exact = 0;
  std::vector<std::pair<int, int>> args;  // (side bit, constraint)
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& c = info->aConstraint[i];
    if (!c.usable || c.iColumn < 1 || c.iColumn > 2 * t->dims()) continue;
    const int axis = (c.iColumn - 1) / 2;
    const uint32_t below = 1u << (2 * axis), above = 1u << (2 * axis + 1);
    const uint32_t taken = slots | ((copies & (1u << axis)) != 0 ? above : 0u);
    // Any bound on an entry's min or max bounds its other side too (min <= max),
    // so each constraint bounds the search box from its side; SQLite rechecks.
    const bool on_max = (c.iColumn - 1) % 2 == 1;
    if (is_lower_bound(c.op) && (taken & below) == 0) {
      slots |= below;
      args.emplace_back(2 * axis, i);
      if (c.op == SQLITE_INDEX_CONSTRAINT_EQ && (taken & above) == 0) copies |= 1u << axis;
      // max >= v is the intersect test's own lower side, touching included.
      if (c.op == SQLITE_INDEX_CONSTRAINT_GE && on_max) exact |= below;
    } else if (is_upper_bound(c.op) && (taken & above) == 0) {
      slots |= above;
      args.emplace_back(2 * axis + 1, i);
      if (c.op == SQLITE_INDEX_CONSTRAINT_LE && !on_max) exact |= above;
    }
  }
  if (args.empty()) return false;
  std::sort(args.begin(), args.end());
  // An equality copied to the other side makes that side no longer exact.
  for (int k = 0; k < t->dims(); ++k)
    if ((copies & (1u << k)) != 0) exact &= ~(3u << (2 * k));
  for (size_t j = 0; j < args.size(); ++j) {
    info->aConstraintUsage[args[j].second].argvIndex = static_cast<int>(j + 1);
    info->aConstraintUsage[args[j].second].omit = (exact >> args[j].first & 1u) != 0 ? 1 : 0;
  }
  info->idxNum = Plan::kRange | static_cast<int>(slots << 4) | static_cast<int>(copies << 10) |
                 static_cast<int>(exact << 13);
  set_idx_str(info, "INTERSECT");
  const double rows = std::max(1.0, kScanRows / static_cast<double>(1u << (2 * args.size())));
  info->estimatedRows = static_cast<sqlite3_int64>(rows);
  info->estimatedCost = 10 + rows;
  return true;
}

void plan_scan(sqlite3_index_info* info) {
  info->idxNum = Plan::kScan;
  set_idx_str(info, "FULLSCAN");
  info->estimatedCost = kScanRows;
  info->estimatedRows = static_cast<sqlite3_int64>(kScanRows);
}

}  // namespace

int x_best_index(sqlite3_vtab* vtab, sqlite3_index_info* info) {
  Table* t = static_cast<Table*>(vtab);
  if (int rc = plan_query(t, info); rc >= 0) return rc;
  if (plan_rowid(info) || plan_range(t, info)) return SQLITE_OK;
  plan_scan(info);
  return SQLITE_OK;
}

Plan decode_plan(int idx_num) {
  Plan p;
  p.kind = static_cast<Plan::Kind>(idx_num & 0xF);
  p.slots = static_cast<uint32_t>(idx_num >> 4) & 0x3Fu;
  p.eq_copies = static_cast<uint32_t>(idx_num >> 10) & 0x7u;
  p.exact = static_cast<uint32_t>(idx_num >> 13) & 0x3Fu;
  if (p.kind == Plan::kQuery) {
    p.has_k = (idx_num & 1 << 4) != 0;
    p.has_limit = (idx_num & 1 << 5) != 0;
    p.slots = 0;
  }
  return p;
}

namespace {

// An operator's text without blanks, in lower case.
std::string op_words(sqlite3_value* value) {
  std::string text;
  for (const unsigned char* p = sqlite3_value_text(value); *p != 0; ++p)
    if (*p != ' ' && *p != '\t') text += static_cast<char>(*p);
  return lower(text);
}

}  // namespace

bool is_nearest_op(sqlite3_value* value) {
  return sqlite3_value_type(value) == SQLITE_TEXT && op_words(value) == "nearest";
}

bool parse_op_value(sqlite3_value* value, uint32_t* op, std::string* error) {
  if (sqlite3_value_type(value) == SQLITE_INTEGER) {
    const sqlite3_int64 bits = sqlite3_value_int64(value);
    if (bits < 0 || bits > 0xFFFF) {
      *error = "operator bits " + std::to_string(bits) + " do not fit 16 bits";
      return false;
    }
    *op = static_cast<uint32_t>(bits);
    return true;
  }
  if (sqlite3_value_type(value) != SQLITE_TEXT) {
    *error =
        "the operator must be text such as 'intersect', 'within|intersect', "
        "'or(within|equal)' or 'nearest', or an integer of operator bits";
    return false;
  }
  std::string text = op_words(value);
  bool or_mode = false;
  if (text.size() >= 4 && text.rfind("or(", 0) == 0 && text.back() == ')') {
    or_mode = true;
    text = text.substr(3, text.size() - 4);
  }
  if (text == "none") {
    *op = or_mode ? RTR_OP_OR : 0u;
    return true;
  }
  if (zq::parse_op(text, or_mode, op, error)) return true;
  *error += ", or 'nearest' for the nearest rows";
  return false;
}

}  // namespace zqext
