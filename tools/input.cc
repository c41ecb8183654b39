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
  const std::string name = path == "-" ? "<stdin>" : path;
  if (fmt == "geojson") {
    auto src = std::make_unique<GeoJsonSource>(path, dims);
    if (zq::Status s = src->open(); !s) return s;
    *out = std::make_unique<NonEmpty>(std::move(src), name);
    return zq::Status::ok();
  }
  auto src = std::make_unique<CsvSource>(path, dims);
  if (zq::Status s = src->open(); !s) return s;
  *out = std::make_unique<NonEmpty>(std::move(src), name);
  return zq::Status::ok();
}

}  // namespace zqtool
