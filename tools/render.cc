// The SVG renderer: one walk gathers entries and node boxes by level; the
// picture is scaled to the root's box and drawn leaves-first so upper levels
// stay visible on top.
#include "tools/render.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <vector>

#include "driver/tree_stats.h"

namespace zqtool {

namespace {

constexpr const char* kPalette[] = {"#1f77b4", "#ff7f0e", "#2ca02c", "#d62728",
                                    "#9467bd", "#8c564b", "#e377c2", "#17becf"};

struct Scene {
  std::vector<zq::Box> entries;
  std::map<uint32_t, std::vector<zq::Box>> nodes;  // level -> node boxes
  zq::Box bounds;
  bool any = false;
  uint64_t n_entries = 0;
};

// Maps data coordinates to pixels, y growing upward.
struct Frame {
  double x0, y0, scale;
  int width, height, margin;
  double x(double v) const { return margin + (v - x0) * scale; }
  double y(double v) const { return height - margin - (v - y0) * scale; }
};

Frame frame_for(const zq::Box& b, int dims, int width, size_t bands) {
  constexpr int kMargin = 10;
  const double w = std::max(b.max[0] - b.min[0], 1e-12);
  Frame f{b.min[0], 0, (width - 2 * kMargin) / w, width, 0, kMargin};
  if (dims >= 2) {
    const double h = std::max(b.max[1] - b.min[1], 1e-12);
    f.y0 = b.min[1];
    f.height = static_cast<int>(h * f.scale) + 2 * kMargin;
  } else {
    f.height = static_cast<int>(bands) * 40 + 2 * kMargin;
  }
  return f;
}

void draw_box(std::string* out, const Frame& f, const zq::Box& b, int dims, double band_lo,
              double band_hi, const char* style) {
  const double x = f.x(b.min[0]);
  const double w = std::max(f.x(b.max[0]) - x, 0.5);
  double top, h;
  if (dims >= 2) {
    top = f.y(b.max[1]);
    h = std::max(f.y(b.min[1]) - top, 0.5);
  } else {
    top = f.height - f.margin - band_hi;
    h = band_hi - band_lo;
  }
  *out += fmt::format("<rect x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\" {}/>\n",
                      x, top, w, h, style);
}

}  // namespace

zq::Status render_svg(const zq::Index& index, const RenderOptions& options, std::string* svg) {
  const int dims = index.dims();
  Scene scene;
  zq::Status s = index.walk([&](const zq::NodeView& node) {
    if (node.cells.empty()) return;
    const zq::Box box = zq::cells_union(node.cells, dims);
    if (node.depth == 0) {
      scene.bounds = box;
      scene.any = true;
    }
    scene.nodes[node.level].push_back(box);
    if (node.level == 0)
      for (const rtr_cell& c : node.cells) {
        scene.entries.push_back(zq::from_rect(c.rect, dims));
        ++scene.n_entries;
      }
  });
  if (!s) return s;
  const size_t levels = scene.nodes.size();
  const Frame f = frame_for(scene.bounds, dims, options.width, levels + 1);
  std::string out = fmt::format(
      "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0}\" height=\"{1}\" viewBox=\"0 0 {0} "
      "{1}\">\n<title>index {2}: {3} entries, {4} levels</title>\n"
      "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n",
      f.width, f.height, index.name(), scene.n_entries, levels);
  if (scene.any && options.entries) {
    const uint64_t step = std::max<uint64_t>(1, (scene.entries.size() + options.max_entries - 1) /
                                                    std::max<uint64_t>(options.max_entries, 1));
    out += "<g fill=\"#888\" fill-opacity=\"0.35\" stroke=\"none\">\n";
    for (size_t i = 0; i < scene.entries.size(); i += step)
      draw_box(&out, f, scene.entries[i], dims, 0, 30, "");
    out += "</g>\n";
  }
  for (const auto& [level, boxes] : scene.nodes) {
    const char* colour = kPalette[level % std::size(kPalette)];
    // Leaf boxes are the most numerous: the thinnest lines, upper levels bolder.
    out += fmt::format("<g fill=\"none\" stroke=\"{}\" stroke-width=\"{}\">\n", colour,
                       level == 0 ? 0.4 : 1.0 + level);
    const double lo = 40.0 * (level + 1);
    for (const zq::Box& b : boxes) draw_box(&out, f, b, dims, lo, lo + 30, "");
    out += "</g>\n";
  }
  out += fmt::format(
      "<rect class=\"legend\" x=\"{}\" y=\"{}\" width=\"150\" height=\"{}\" fill=\"white\" "
      "fill-opacity=\"0.85\"/>\n",
      f.margin, f.margin, 14 * levels + 6);
  for (const auto& [level, boxes] : scene.nodes)
    out += fmt::format(
        "<text x=\"{}\" y=\"{}\" font-family=\"sans-serif\" font-size=\"12\" fill=\"{}\">level "
        "{}: {} nodes</text>\n",
        f.margin + 4, f.margin + 14 * (level + 1), kPalette[level % std::size(kPalette)], level,
        boxes.size());
  out += "</svg>\n";
  *svg = std::move(out);
  return zq::Status::ok();
}

}  // namespace zqtool
