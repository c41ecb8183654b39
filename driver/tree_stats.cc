// Tree statistics from one walk over the nodes: node boxes are the unions of
// their cells, gathered per level, then measured and swept for overlaps, and
// held against a window query for the quality estimate.
#include "driver/tree_stats.h"

#include <algorithm>
#include <cmath>
#include <map>

namespace zq {

double measure(const zq::Box& box, int dims) {
  double m = 1;
  for (int k = 0; k < dims; ++k) m *= box.max[k] - box.min[k];
  return m;
}

double overlap_measure(const zq::Box& a, const zq::Box& b, int dims) {
  double m = 1;
  for (int k = 0; k < dims; ++k) {
    const double lo = std::max(a.min[k], b.min[k]);
    const double hi = std::min(a.max[k], b.max[k]);
    if (lo >= hi) return 0;
    m *= hi - lo;
  }
  return m;
}

zq::Box cells_union(std::span<const rtr_cell> cells, int dims) {
  zq::Box box = zq::from_rect(cells[0].rect, dims);
  for (const rtr_cell& c : cells) {
    const zq::Box b = zq::from_rect(c.rect, dims);
    for (int k = 0; k < dims; ++k) {
      box.min[k] = std::min(box.min[k], b.min[k]);
      box.max[k] = std::max(box.max[k], b.max[k]);
    }
  }
  return box;
}

double pairwise_overlap(std::vector<zq::Box> boxes, int dims) {
  std::sort(boxes.begin(), boxes.end(),
            [](const zq::Box& a, const zq::Box& b) { return a.min[0] < b.min[0]; });
  double sum = 0;
  for (size_t i = 0; i < boxes.size(); ++i)
    for (size_t j = i + 1; j < boxes.size() && boxes[j].min[0] < boxes[i].max[0]; ++j)
      sum += overlap_measure(boxes[i], boxes[j], dims);
  return sum;
}

namespace {

// The chance that a window of sides `window` placed at random in `extent`
// meets a box of sides `sides`, axis by axis; a flat axis decides nothing.
double meet_chance(const double* sides, const double* window, const Box& extent, int dims) {
  double p = 1;
  for (int k = 0; k < dims; ++k) {
    const double span = extent.max[k] - extent.min[k];
    if (span > 0) p *= std::min(1.0, (sides[k] + window[k]) / span);
  }
  return p;
}

// Packed levels tile the extent: a level of n nodes puts n^(1/d) along each
// axis, and its boxes stick out by about one entry's length.
double packed_reads(uint64_t entries, const double* mean_len, const double* window,
                    const Box& extent, int dims) {
  const double per_node = std::floor(kDefaultFill * 51);
  double reads = 0;
  uint64_t n = entries;
  do {
    n = static_cast<uint64_t>(std::ceil(static_cast<double>(n) / per_node));
    double sides[kMaxDims] = {};
    const double across = std::pow(static_cast<double>(n), 1.0 / dims);
    for (int k = 0; k < dims; ++k)
      sides[k] = (extent.max[k] - extent.min[k]) / across + mean_len[k];
    reads += static_cast<double>(n) * meet_chance(sides, window, extent, dims);
  } while (n > 1);
  return reads;
}

}  // namespace

zq::Status collect_stats(const zq::Index& index, TreeStats* out) {
  *out = TreeStats{};
  const int dims = index.dims();
  std::map<uint32_t, LevelStats> levels;
  std::map<uint32_t, std::vector<zq::Box>> boxes;
  double len_sum[kMaxDims] = {};
  zq::Status s = index.walk([&](const zq::NodeView& node) {
    LevelStats& l = levels[node.level];
    l.level = node.level;
    ++l.nodes;
    l.cells += node.cells.size();
    ++out->nodes;
    if (node.level == 0) out->entries += node.cells.size();
    out->height = std::max(out->height, node.level + 1);
    if (node.cells.empty()) return;
    const zq::Box box = cells_union(node.cells, dims);
    l.total += measure(box, dims);
    boxes[node.level].push_back(box);
    if (node.level == 0)
      for (const rtr_cell& c : node.cells) {
        const Box b = from_rect(c.rect, dims);
        for (int k = 0; k < dims; ++k) len_sum[k] += b.max[k] - b.min[k];
      }
  });
  if (!s) return s;
  if (out->entries > 0) {
    const Box extent = boxes[out->height - 1].front();  // the root's
    double window[kMaxDims] = {}, mean_len[kMaxDims] = {};
    for (int k = 0; k < dims; ++k) {
      window[k] = (extent.max[k] - extent.min[k]) * std::pow(Quality::kWindowShare, 1.0 / dims);
      mean_len[k] = len_sum[k] / static_cast<double>(out->entries);
    }
    for (const auto& [level, list] : boxes)
      for (const Box& b : list) {
        double sides[kMaxDims] = {};
        for (int k = 0; k < dims; ++k) sides[k] = b.max[k] - b.min[k];
        out->quality.nodes_per_query += meet_chance(sides, window, extent, dims);
      }
    out->quality.packed = packed_reads(out->entries, mean_len, window, extent, dims);
  }
  for (auto it = levels.rbegin(); it != levels.rend(); ++it) {
    it->second.overlap = pairwise_overlap(std::move(boxes[it->first]), dims);
    out->levels.push_back(it->second);
  }
  return zq::Status::ok();
}

std::string stats_json(const TreeStats& st) {
  std::string levels;
  for (const LevelStats& l : st.levels) {
    if (!levels.empty()) levels += ",";
    levels += "{\"level\":" + std::to_string(l.level) + ",\"nodes\":" + std::to_string(l.nodes) +
              ",\"entries\":" + std::to_string(l.cells) + ",\"fill\":" + std::to_string(l.fill()) +
              "}";
  }
  return "{\"height\":" + std::to_string(st.height) + ",\"nodes\":" + std::to_string(st.nodes) +
         ",\"entries\":" + std::to_string(st.entries) + ",\"levels\":[" + levels +
         "],\"nodes_per_query\":" + std::to_string(st.quality.nodes_per_query) +
         ",\"packed_nodes_per_query\":" + std::to_string(st.quality.packed) +
         ",\"repack_pays\":" + (st.quality.repack_pays() ? "true" : "false") + "}";
}

}  // namespace zq
