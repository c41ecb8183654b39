// Tree statistics from one walk over the nodes: node boxes are the unions of
// their cells, gathered per level, then measured and swept for overlaps.
#include "tools/tree_stats.h"

#include <algorithm>
#include <map>

namespace zqtool {

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

zq::Status collect_stats(const zq::Index& index, TreeStats* out) {
  *out = TreeStats{};
  const int dims = index.dims();
  std::map<uint32_t, LevelStats> levels;
  std::map<uint32_t, std::vector<zq::Box>> boxes;
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
  });
  if (!s) return s;
  for (auto it = levels.rbegin(); it != levels.rend(); ++it) {
    it->second.overlap = pairwise_overlap(std::move(boxes[it->first]), dims);
    out->levels.push_back(it->second);
  }
  return zq::Status::ok();
}

}  // namespace zqtool
