// Entries written as a GeoJSON FeatureCollection, one Feature each: "id" is
// the rowid, "bbox" the box, and the geometry one whose envelope is exactly
// the box — a Point for a point, else a Polygon (a one-axis index: a
// LineString along x; three axes: the polygon's first corners at min2, the
// others at max2), so the output loads back into the same entries and GIS
// tools draw it.
#ifndef ZQ_TOOLS_GEOJSON_OUT_H
#define ZQ_TOOLS_GEOJSON_OUT_H

#include <string>

#include "driver/index.h"

namespace zqtool {

class GeoJsonWriter {
 public:
  explicit GeoJsonWriter(int dims) : dims_(dims) {}
  // Appends the opening, one feature, and the closing to `out`.
  void begin(std::string* out) const;
  void feature(const zq::Entry& e, std::string* out);
  void end(std::string* out) const;

 private:
  int dims_;
  bool first_ = true;
};

}  // namespace zqtool

#endif
