// Shape of a tree for `stats`, `bench` and the demo report: height, nodes and
// entries per level, mean fill, and per level the total and the pairwise
// overlap of the node boxes (length, area or volume by the axis count).
#ifndef ZQ_TOOLS_TREE_STATS_H
#define ZQ_TOOLS_TREE_STATS_H

#include <cstdint>
#include <span>
#include <vector>

#include "driver/index.h"

namespace zqtool {

struct LevelStats {
  uint32_t level = 0;  // 0: leaves
  uint64_t nodes = 0;
  uint64_t cells = 0;  // entries held by the level's nodes
  double total = 0;    // sum of the node boxes' measures
  double overlap = 0;  // sum over node pairs of their intersection's measure
  double fill() const { return nodes == 0 ? 0 : static_cast<double>(cells) / (nodes * 51.0); }
};

struct TreeStats {
  uint32_t height = 0;
  uint64_t nodes = 0;
  uint64_t entries = 0;            // leaf cells
  std::vector<LevelStats> levels;  // root level first
};

// Measure of a box over `dims` axes.
double measure(const zq::Box& box, int dims);
double overlap_measure(const zq::Box& a, const zq::Box& b, int dims);
// The bounding box of a node's cells (at least one).
zq::Box cells_union(std::span<const rtr_cell> cells, int dims);
// Sum of the pairwise overlaps of `boxes` (a sweep along axis 0).
double pairwise_overlap(std::vector<zq::Box> boxes, int dims);

zq::Status collect_stats(const zq::Index& index, TreeStats* out);

}  // namespace zqtool

#endif
