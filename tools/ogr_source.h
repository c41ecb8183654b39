// Entries from any vector source GDAL/OGR opens: Shapefile, GeoPackage,
// FlatGeobuf, GeoJSON, GML, KML, a "PG:" connection string, a zipped
// Shapefile through /vsizip/, "-" for GeoJSON on standard input. Each
// feature of one layer becomes one entry: its rowid is the feature id (or
// the --id-field attribute), its box the geometry's envelope, 3-D where the
// index has three axes.
//
// Call order: open() once, then next() until it returns false. A feature
// without a geometry, with an empty one, without Z for a 3-axis index, or
// whose id is not a 64-bit whole number stops the read with a message
// naming the file, the layer and the feature id.
#ifndef ZQ_TOOLS_OGR_SOURCE_H
#define ZQ_TOOLS_OGR_SOURCE_H

#include <functional>
#include <memory>
#include <string>

#include "driver/index.h"

namespace zqtool {

struct OgrOptions {
  std::string layer;     // empty: the only or first layer
  std::string id_field;  // empty: the feature id
  std::string where;     // OGR attribute filter, empty for none
  bool geojson_only = false;
  bool any_id = false;  // only the boxes matter: ids are not read
  // Told which layer was taken when the source has several.
  std::function<void(const std::string&)> note;
};

class OgrSource : public zq::EntrySource {
 public:
  OgrSource(std::string path, int dims, OgrOptions options);
  ~OgrSource() override;
  OgrSource(const OgrSource&) = delete;
  OgrSource& operator=(const OgrSource&) = delete;

  zq::Status open();
  bool next(zq::Entry* entry, zq::Status* status) override;
  std::string where() const override;  // "parks.gpkg: layer 'parks', feature 12"
  uint64_t size_hint() const override;

 private:
  struct State;
  zq::Status choose_layer();
  zq::Status choose_id_field();
  zq::Status feature_id(int64_t* id) const;
  zq::Status feature_box(zq::Box* box) const;
  zq::Status invalid(const std::string& what) const;

  std::string path_;
  std::string name_;
  int dims_;
  OgrOptions options_;
  std::unique_ptr<State> st_;
};

}  // namespace zqtool

#endif
