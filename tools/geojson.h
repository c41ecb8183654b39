// Entries from GeoJSON: every feature of a FeatureCollection (or a single
// Feature) becomes one entry. Its box is the feature's "bbox" member when it
// has one ([w, s, e, n] or [w, s, low, e, n, high]), else the bounds of every
// position of its geometry. Its rowid is the feature's "id" (a whole number,
// or a string of digits), else its 1-based position in the collection.
#ifndef ZQ_TOOLS_GEOJSON_H
#define ZQ_TOOLS_GEOJSON_H

#include <memory>
#include <string>

#include "driver/index.h"
#include "tools/json.h"

namespace zqtool {

class GeoJsonSource : public zq::EntrySource {
 public:
  GeoJsonSource(std::string path, int dims);
  // Reads the whole input and finds the features; the text may also come
  // from a caller that has already read standard input.
  zq::Status open();
  zq::Status open_text(std::string text);
  bool next(zq::Entry* entry, zq::Status* status) override;
  std::string where() const override;

 private:
  zq::Status find_features();
  zq::Status finish_document();
  zq::Status to_entry(const Json& feature, zq::Entry* entry) const;
  zq::Status box_of_geometry(const Json& geometry, zq::Box* box) const;
  zq::Status invalid(const std::string& what) const;

  std::string path_;
  std::string name_;
  int dims_;
  std::string text_;
  std::unique_ptr<JsonReader> reader_;
  Json lone_;  // a document that is one Feature
  bool is_lone_ = false;
  bool first_ = true;
  bool done_ = false;
  uint64_t ordinal_ = 0;  // features read so far
  uint64_t feature_line_ = 0;
};

// Reads a whole file ("-": standard input) into `out`.
zq::Status read_all(const std::string& path, std::string* out);

}  // namespace zqtool

#endif
