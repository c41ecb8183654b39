// The rules a node row keeps by itself (see node_row.h). Lengths are checked
// before anything is read from the blob: the library's decoder trusts it.
#include "check/node_row.h"

#include <sqlite3.h>

#include <cmath>
#include <cstring>

#include "zqrtree/node.h"

namespace zqcheck {
namespace {

const char* type_name(int type) {
  switch (type) {
    case SQLITE_INTEGER:
      return "an integer";
    case SQLITE_FLOAT:
      return "a real number";
    case SQLITE_TEXT:
      return "text";
    case SQLITE_NULL:
      return "NULL";
    default:
      return "a blob";
  }
}

// The axes each entry of the blob carries, or 0 when the length fits none.
uint32_t entry_axes(uint16_t dims, size_t len, uint32_t n) {
  const auto fits = [&](uint32_t d) { return len == 4 + uint64_t{n} * (2 * d + 1) * 8; };
  if (fits(dims)) return dims;
  // A 3-D index also reads rows written with 2-D entries.
  if (dims == 3 && fits(2)) return 2;
  return 0;
}

// Entry i's coordinates hold a NaN (the id before them is not a double).
template <uint32_t Axes>
bool entry_has_nan(const uint8_t* cells, uint32_t i) {
  const uint8_t* coords = cells + 4 + i * (2 * Axes + 1) * 8 + 8;
  bool nan = false;
  for (uint32_t k = 0; k < 2 * Axes; ++k) {
    double v;
    std::memcpy(&v, coords + 8 * k, sizeof v);
    nan |= std::isnan(v);
  }
  return nan;
}

// Every row the library reads is scanned: no early exit and a fixed number
// of coordinates per entry keep the loop flat; which entry it was is looked
// for only when there is one.
template <uint32_t Axes>
std::string nan_problem(const uint8_t* cells, uint32_t n) {
  bool nan = false;
  for (uint32_t i = 0; i < n; ++i) nan |= entry_has_nan<Axes>(cells, i);
  if (!nan) return {};
  uint32_t i = 0;
  while (!entry_has_nan<Axes>(cells, i)) ++i;
  return "entry " + std::to_string(i) + " has a NaN coordinate";
}

}  // namespace

std::string node_row_problem(const NodeRowImage& row, uint16_t dims, uint32_t* count) {
  if (row.level_type != SQLITE_INTEGER)
    return std::string("level is ") + type_name(row.level_type) + ", not an integer";
  if (row.parent_type != SQLITE_INTEGER)
    return std::string("parent_id is ") + type_name(row.parent_type) + ", not an integer";
  if (row.level < 0 || row.level > kMaxLevel)
    return "level " + std::to_string(row.level) + " is out of range (0 to " +
           std::to_string(kMaxLevel) + ")";
  if (row.cells_type != SQLITE_BLOB)
    return std::string("cells column holds ") + type_name(row.cells_type) + ", not a blob";
  const size_t len = row.cells_len;
  if (len < 4) return "cells blob of " + std::to_string(len) + " bytes has no entry count";
  uint32_t n = 0;
  std::memcpy(&n, row.cells, sizeof n);
  if (count != nullptr) *count = n;
  if (n > RTR_MAX_CELLS)
    return "entry count " + std::to_string(n) + " in a " + std::to_string(len) +
           "-byte blob exceeds " + std::to_string(RTR_MAX_CELLS);
  const uint32_t axes = entry_axes(dims, len, n);
  if (axes == 0)
    return "cells blob of " + std::to_string(len) + " bytes, expected " +
           std::to_string(4 + uint64_t{n} * (2 * dims + 1) * 8) + " for " + std::to_string(n) +
           " entries";
  switch (axes) {
    case 1:
      return nan_problem<1>(row.cells, n);
    case 2:
      return nan_problem<2>(row.cells, n);
    default:
      return nan_problem<3>(row.cells, n);
  }
}

}  // namespace zqcheck
