// Choosing the reader for an input file: by --format, else by the file's
// extension (.geojson / .json), else — for standard input — by its very
// first character ('{' is GeoJSON, anything else CSV).
#ifndef ZQ_TOOLS_INPUT_H
#define ZQ_TOOLS_INPUT_H

#include <memory>
#include <string>

#include "driver/index.h"

namespace zqtool {

// `format` is "auto", "csv" or "geojson".
zq::Status open_entries(const std::string& path, const std::string& format, int dims,
                        std::unique_ptr<zq::EntrySource>* out);

}  // namespace zqtool

#endif
