// Choosing the reader for an input: by --format, else by the name — box CSV
// for .csv and .txt files (gzip-compressed or not), GDAL/OGR for anything
// else (a Shapefile, a GeoPackage, "PG:dbname=gis", /vsizip/...) — and, for
// standard input, by its very first character ('{' is GeoJSON, anything
// else CSV).
#ifndef ZQ_TOOLS_INPUT_H
#define ZQ_TOOLS_INPUT_H

#include <memory>
#include <string>

#include "driver/index.h"
#include "tools/ogr_source.h"

namespace zqtool {

struct InputOptions {
  std::string format = "auto";  // auto, csv, ogr, geojson
  OgrOptions ogr;               // --layer, --id-field, --where: OGR sources only
};

zq::Status open_entries(const std::string& path, const InputOptions& options, int dims,
                        std::unique_ptr<zq::EntrySource>* out);

// The union of every entry's box: the extent of the file's data.
zq::Status input_extent(const std::string& path, const InputOptions& options, int dims,
                        zq::Box* out);

}  // namespace zqtool

#endif
