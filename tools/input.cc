// Input format selection and opening (see input.h).
#include "tools/input.h"

#include <algorithm>
#include <cstdio>

#include "tools/csv.h"

namespace zqtool {

namespace {

bool ends_with(const std::string& s, const std::string& suffix) {
  return s.size() >= suffix.size() &&
         s.compare(s.size() - suffix.size(), suffix.size(), suffix) == 0;
}

bool box_csv_name(std::string path) {
  std::transform(path.begin(), path.end(), path.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (ends_with(path, ".gz")) path.resize(path.size() - 3);
  return ends_with(path, ".csv") || ends_with(path, ".txt");
}

// Looks at standard input's first character and puts it back.
std::string sniff_stdin() {
  const int c = std::getc(stdin);
  if (c == EOF) return "csv";
  std::ungetc(c, stdin);
  return c == '{' ? "geojson" : "csv";
}

// An input with no entries at all is refused: an empty or truncated file is
// far more likely a mistake than a wish, and `load --replace` would turn it
// into an empty index.
class NonEmpty : public zq::EntrySource {
 public:
  NonEmpty(std::unique_ptr<zq::EntrySource> inner, std::string name)
      : inner_(std::move(inner)), name_(std::move(name)) {}
  bool next(zq::Entry* entry, zq::Status* status) override {
    if (inner_->next(entry, status)) return ++seen_, true;
    if (seen_ == 0 && *status) *status = zq::Status::invalid(name_ + ": no entries found");
    return false;
  }
  std::string where() const override { return inner_->where(); }
  uint64_t size_hint() const override { return inner_->size_hint(); }

 private:
  std::unique_ptr<zq::EntrySource> inner_;
  std::string name_;
  uint64_t seen_ = 0;
};

template <typename Source>
zq::Status open_source(std::unique_ptr<Source> src, const std::string& name,
                       std::unique_ptr<zq::EntrySource>* out) {
  if (zq::Status s = src->open(); !s) return s;
  *out = std::make_unique<NonEmpty>(std::move(src), name);
  return zq::Status::ok();
}

}  // namespace

zq::Status open_entries(const std::string& path, const InputOptions& options, int dims,
                        std::unique_ptr<zq::EntrySource>* out) {
  std::string fmt = options.format;
  if (fmt == "auto") {
    if (path == "-")
      fmt = sniff_stdin();
    else
      fmt = box_csv_name(path) ? "csv" : "ogr";
  }
  const std::string name = path == "-" ? "<stdin>" : path;
  if (fmt == "csv") {
    const OgrOptions& o = options.ogr;
    if (!o.layer.empty() || !o.id_field.empty() || !o.where.empty())
      return zq::Status::invalid(
          name +
          ": --layer, --id-field and --where apply to GIS sources read through "
          "GDAL/OGR, not to box CSV (read it with --format ogr if it is one)");
    return open_source(std::make_unique<CsvSource>(path, dims), name, out);
  }
  OgrOptions ogr = options.ogr;
  ogr.geojson_only = fmt == "geojson";
  return open_source(std::make_unique<OgrSource>(path, dims, ogr), name, out);
}

zq::Status input_extent(const std::string& path, const InputOptions& options, int dims,
                        zq::Box* out) {
  std::unique_ptr<zq::EntrySource> source;
  if (zq::Status s = open_entries(path, options, dims, &source); !s) return s;
  zq::Entry e;
  zq::Status s;
  bool first = true;
  while (source->next(&e, &s)) {
    for (int k = 0; k < dims; ++k) {
      out->min[k] = first ? e.box.min[k] : std::min(out->min[k], e.box.min[k]);
      out->max[k] = first ? e.box.max[k] : std::max(out->max[k], e.box.max[k]);
    }
    first = false;
  }
  return s;
}

}  // namespace zqtool
