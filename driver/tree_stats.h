// Shape of a tree for `stats`, zqrtree_stats() and the render: height, nodes
// and entries per level, mean fill, per level the total and the pairwise
// overlap of the node boxes (length, area or volume by the axis count), and
// how many nodes a small window query reads, against a freshly packed tree.
#ifndef ZQ_DRIVER_TREE_STATS_H
#define ZQ_DRIVER_TREE_STATS_H

#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "driver/index.h"

namespace zq {

struct LevelStats {
  uint32_t level = 0;  // 0: leaves
  uint64_t nodes = 0;
  uint64_t cells = 0;  // entries held by the level's nodes
  double total = 0;    // sum of the node boxes' measures
  double overlap = 0;  // sum over node pairs of their intersection's measure
  double fill() const { return nodes == 0 ? 0 : static_cast<double>(cells) / (nodes * 51.0); }
};

// Nodes a window query reads, estimated for a window covering kWindowShare
// of the data's extent (a square or cube placed uniformly at random): each
// node is read with the chance that the window meets its box.
struct Quality {
  static constexpr double kWindowShare = 1e-4;
  double nodes_per_query = 0;  // this tree
  double packed = 0;           // the same entries packed bottom-up at the default fill
  // Inserts leave trees sparser than packing does (the split rule keeps
  // nodes small); past half again as many node reads a repack pays.
  bool repack_pays() const { return nodes_per_query > 1.5 * packed; }
};

struct TreeStats {
  uint32_t height = 0;
  uint64_t nodes = 0;
  uint64_t entries = 0;            // leaf cells
  std::vector<LevelStats> levels;  // root level first
  Quality quality;
};

// Measure of a box over `dims` axes.
double measure(const zq::Box& box, int dims);
double overlap_measure(const zq::Box& a, const zq::Box& b, int dims);
// The bounding box of a node's cells (at least one).
zq::Box cells_union(std::span<const rtr_cell> cells, int dims);
// Sum of the pairwise overlaps of `boxes` (a sweep along axis 0).
double pairwise_overlap(std::vector<zq::Box> boxes, int dims);

zq::Status collect_stats(const zq::Index& index, TreeStats* out);
// The statistics as one JSON object, for SQL callers.
std::string stats_json(const TreeStats& st);

}  // namespace zq

#endif
