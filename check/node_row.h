// The rules a node row keeps by itself, whatever the rest of the table
// holds: the checker applies them to every row it loads, and the engine side
// to every row the host hands to the library (driver/node_guard.cc), so a
// row the library would decode into a hang or an overrun never reaches it.
#ifndef ZQ_CHECK_NODE_ROW_H
#define ZQ_CHECK_NODE_ROW_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "zqrtree/cursor.h"

namespace zqcheck {

// The cursor holds one search point per level plus a result point; a root
// above this level could not be searched, and its level mark would wrap.
inline constexpr int64_t kMaxLevel = RCUR_STACK_SIZE - 1;

// A node row's columns as stored: SQLite storage classes and values.
struct NodeRowImage {
  int level_type;
  int64_t level;
  int parent_type;
  int cells_type;
  const uint8_t* cells;
  size_t cells_len;
};

// "" when the row keeps the rules: level and parent_id are integers, the
// level is 0 to kMaxLevel, the cells column is a blob of 4 + n*E bytes
// (E = (2d + 1) * 8; a 3-D index also reads 2-D rows) with n at most 51, and
// no coordinate is NaN. Otherwise what is wrong ("entry count 60 in a 28-byte
// blob exceeds 51"). `count` gets n when the blob has one.
std::string node_row_problem(const NodeRowImage& row, uint16_t dims, uint32_t* count);

}  // namespace zqcheck

#endif
