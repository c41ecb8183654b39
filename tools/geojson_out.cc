// GeoJSON output (see geojson_out.h). Coordinates are written in their
// shortest form that reads back to the same double.
#include "tools/geojson_out.h"

#include <fmt/format.h>

#include <algorithm>

namespace zqtool {

namespace {

// One position: x, y and, for three axes, z.
std::string position(double x, double y, const double* z) {
  return z != nullptr ? fmt::format("[{}, {}, {}]", x, y, *z) : fmt::format("[{}, {}]", x, y);
}

std::string geometry(const zq::Box& b, int dims) {
  const double y0 = dims >= 2 ? b.min[1] : 0, y1 = dims >= 2 ? b.max[1] : 0;
  const double* z0 = dims == 3 ? &b.min[2] : nullptr;
  const double* z1 = dims == 3 ? &b.max[2] : nullptr;
  bool point = true;
  for (int k = 0; k < dims; ++k) point = point && b.min[k] == b.max[k];
  if (point)
    return fmt::format(R"({{"type": "Point", "coordinates": {}}})", position(b.min[0], y0, z0));
  if (dims == 1)
    return fmt::format(R"({{"type": "LineString", "coordinates": [{}, {}]}})",
                       position(b.min[0], 0, nullptr), position(b.max[0], 0, nullptr));
  return fmt::format(R"({{"type": "Polygon", "coordinates": [[{}, {}, {}, {}, {}]]}})",
                     position(b.min[0], y0, z0), position(b.max[0], y0, z0),
                     position(b.max[0], y1, z1), position(b.min[0], y1, z1),
                     position(b.min[0], y0, z0));
}

}  // namespace

void GeoJsonWriter::begin(std::string* out) const {
  *out += "{\"type\": \"FeatureCollection\", \"features\": [\n";
}

void GeoJsonWriter::feature(const zq::Entry& e, std::string* out) {
  // A bbox has two axes at least; a one-axis index's second is its 0.
  const int axes = std::max(dims_, 2);
  std::string bbox;
  for (int k = 0; k < 2 * axes; ++k)
    bbox += fmt::format("{}{}", k > 0 ? ", " : "", k < axes ? e.box.min[k] : e.box.max[k - axes]);
  *out += fmt::format(R"({}{{"type": "Feature", "id": {}, "bbox": [{}], "properties": {{}}, )"
                      R"("geometry": {}}})",
                      first_ ? "" : ",\n", e.id, bbox, geometry(e.box, dims_));
  first_ = false;
}

void GeoJsonWriter::end(std::string* out) const {
  *out += "\n]}\n";
}

}  // namespace zqtool
