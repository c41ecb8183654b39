// Query planning: xBestIndex picks one of four plans and tells xFilter, through
// idxNum, how to read its arguments; idxStr names the plan for EXPLAIN QUERY
// PLAN ("zqrtree:INTERSECT", "zqrtree:ROWID", "zqrtree:FULLSCAN", or the
// table-valued search's operator such as "zqrtree:or(within|equal)").
//
//   kQuery  t('op', min0, max0, ...): every hidden argument bound by equality
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
// 13-18 the sides (numbered as bits 4-9) whose constraint SQLite skips.
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

// The operator's name when the query gives it as a constant; SQLite can
// tell only from 3.38 on.
std::string constant_op_name(sqlite3_index_info* info, int constraint) {
  if (sqlite3_libversion_number() < 3038000) return "QUERY";
  sqlite3_value* v = nullptr;
  if (sqlite3_vtab_rhs_value(info, constraint, &v) != SQLITE_OK || v == nullptr) return "QUERY";
  uint32_t op = 0;
  std::string ignored;
  return parse_op_value(v, &op, &ignored) ? zq::op_name(op) : "QUERY";
}

// kQuery when the hidden arguments are bound; SQLITE_CONSTRAINT when they are
// but cannot be used in this join order; -1 when the query names none.
int plan_query(Table* t, sqlite3_index_info* info) {
  const int n_args = 1 + 2 * t->dims();
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
  if (std::count(found.begin(), found.end(), -1) > 0) {
    std::string names = "zq_op";
    for (int k = 0; k < t->dims(); ++k)
      names += ", zq_min" + std::to_string(k) + ", zq_max" + std::to_string(k);
    return fail(t, failure(*t, "a search takes an operator and " + std::to_string(2 * t->dims()) +
                                   " coordinates: " + quote(t->name) + "(" + names + ")"));
  }
  for (int arg = 0; arg < n_args; ++arg) {
    info->aConstraintUsage[found[arg]].argvIndex = arg + 1;
    info->aConstraintUsage[found[arg]].omit = 1;
  }
  info->idxNum = Plan::kQuery;
  set_idx_str(info, constant_op_name(info, found[0]));
  info->estimatedCost = 50;
  info->estimatedRows = 100;
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
  return p;
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
        "the operator must be text such as 'intersect', 'within|intersect' or "
        "'or(within|equal)', or an integer of operator bits";
    return false;
  }
  std::string text;
  for (const unsigned char* p = sqlite3_value_text(value); *p != 0; ++p)
    if (*p != ' ' && *p != '\t') text += static_cast<char>(*p);
  text = lower(text);
  bool or_mode = false;
  if (text.size() >= 4 && text.rfind("or(", 0) == 0 && text.back() == ')') {
    or_mode = true;
    text = text.substr(3, text.size() - 4);
  }
  if (text == "none") {
    *op = or_mode ? RTR_OP_OR : 0u;
    return true;
  }
  return zq::parse_op(text, or_mode, op, error);
}

}  // namespace zqext
