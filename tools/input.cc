// Input format selection and opening (see input.h).
#include "tools/input.h"

#include <cstdio>

#include "tools/csv.h"
#include "tools/geojson.h"

namespace zqtool {

namespace {

bool ends_with(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

// Looks at standard input's first character and puts it back.
std::string sniff_stdin() {
  const int c = std::getc(stdin);
  if (c == EOF) return "csv";
  std::ungetc(c, stdin);
  return c == '{' ? "geojson" : "csv";
}

}  // namespace

zq::Status open_entries(const std::string& path, const std::string& format, int dims,
                        std::unique_ptr<zq::EntrySource>* out) {
  std::string fmt = format;
  if (fmt == "auto") {
    if (path == "-")
      fmt = sniff_stdin();
    else
      fmt = ends_with(path, ".geojson") || ends_with(path, ".json") ? "geojson" : "csv";
  }
  if (fmt == "geojson") {
    auto src = std::make_unique<GeoJsonSource>(path, dims);
    if (zq::Status s = src->open(); !s) return s;
    *out = std::move(src);
    return zq::Status::ok();
  }
  auto src = std::make_unique<CsvSource>(path, dims);
  if (zq::Status s = src->open(); !s) return s;
  *out = std::move(src);
  return zq::Status::ok();
}

}  // namespace zqtool
