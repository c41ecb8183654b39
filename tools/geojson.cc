// GeoJSON features to entries: the collection is walked one feature at a
// time; a feature's box comes from "bbox" or from its geometry's positions,
// nested to any depth (GeometryCollection included).
#include "tools/geojson.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>

namespace zqtool {

zq::Status read_all(const std::string& path, std::string* out) {
  FILE* f = path == "-" ? stdin : std::fopen(path.c_str(), "rb");
  if (f == nullptr)
    return zq::Status::io(fmt::format("cannot open '{}': {}", path, std::strerror(errno)));
  char buf[1 << 16];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, f)) > 0) out->append(buf, n);
  const bool bad = std::ferror(f) != 0;
  if (f != stdin) std::fclose(f);
  if (bad) return zq::Status::io(fmt::format("cannot read '{}'", path));
  return zq::Status::ok();
}

GeoJsonSource::GeoJsonSource(std::string path, int dims)
    : path_(std::move(path)), name_(path_ == "-" ? "<stdin>" : path_), dims_(dims) {}

zq::Status GeoJsonSource::open() {
  std::string text;
  if (zq::Status s = read_all(path_, &text); !s) return s;
  return open_text(std::move(text));
}

zq::Status GeoJsonSource::open_text(std::string text) {
  text_ = std::move(text);
  reader_ = std::make_unique<JsonReader>(text_);
  return find_features();
}

zq::Status GeoJsonSource::invalid(const std::string& what) const {
  return zq::Status::invalid(fmt::format("{}: {}", name_, what));
}

namespace {

std::string trailing_text(const JsonReader& r) {
  return fmt::format("line {}: unexpected text after the GeoJSON object", r.line());
}

}  // namespace

// Walks the top-level object up to its "features" array; a document that is
// a single Feature is parsed whole instead.
zq::Status GeoJsonSource::find_features() {
  JsonReader& r = *reader_;
  if (!r.expect('{')) return invalid(r.error() + " (GeoJSON starts with an object)");
  std::string type;
  if (!r.take('}')) {
    do {
      std::string key;
      if (!r.string(&key) || !r.expect(':')) return invalid(r.error());
      if (key == "features") {
        if (!r.expect('[')) return invalid(r.error() + " (\"features\" must be an array)");
        return zq::Status::ok();
      }
      Json v;
      if (!r.value(&v)) return invalid(r.error());
      if (key == "type" && v.type == Json::Type::kString) type = v.str;
    } while (r.take(','));
  }
  if (type != "Feature")
    return invalid("no \"features\" array: expected a FeatureCollection or a Feature");
  JsonReader whole(text_);
  if (!whole.value(&lone_)) return invalid(whole.error());
  if (!whole.at_end()) return invalid(trailing_text(whole));
  is_lone_ = true;
  return zq::Status::ok();
}

// The members after "features" and the end of the top-level object: a
// document cut short or followed by more text is refused, not half read.
zq::Status GeoJsonSource::finish_document() {
  JsonReader& r = *reader_;
  while (r.take(',')) {
    std::string key;
    if (!r.string(&key) || !r.expect(':') || !r.skip_value()) return invalid(r.error());
  }
  if (!r.expect('}')) return invalid(r.error());
  if (!r.at_end()) return invalid(trailing_text(r));
  return zq::Status::ok();
}

std::string GeoJsonSource::where() const {
  return fmt::format("{}:{} (feature {})", name_, feature_line_, ordinal_);
}

bool GeoJsonSource::next(zq::Entry* entry, zq::Status* status) {
  if (done_) return false;
  Json feature;
  if (is_lone_) {
    done_ = true;
    feature = std::move(lone_);
  } else {
    JsonReader& r = *reader_;
    const bool more = first_ ? !r.take(']') : r.take(',');
    if (!more && !first_ && !r.expect(']')) {
      *status = invalid(r.error());
      return false;
    }
    first_ = false;
    if (!more) {
      done_ = true;
      *status = finish_document();
      return false;
    }
    if (!r.value(&feature)) {
      *status = invalid(r.error());
      return false;
    }
  }
  ++ordinal_;
  feature_line_ = feature.line;
  *status = to_entry(feature, entry);
  return status->is_ok();
}

namespace {

bool whole_number(const Json& v, int64_t* out) {
  if (v.type == Json::Type::kNumber || v.type == Json::Type::kString) {
    const std::string& t = v.str;
    auto [p, ec] = std::from_chars(t.data(), t.data() + t.size(), *out);
    return !t.empty() && ec == std::errc() && p == t.data() + t.size();
  }
  return false;
}

}  // namespace

zq::Status GeoJsonSource::to_entry(const Json& feature, zq::Entry* entry) const {
  if (feature.type != Json::Type::kObject)
    return invalid(where() + ": a feature must be an object");
  *entry = zq::Entry{};
  entry->id = static_cast<int64_t>(ordinal_);
  if (const Json* id = feature.get("id"); id != nullptr && !whole_number(*id, &entry->id))
    return zq::Status::invalid(
        fmt::format("{}: field \"id\": '{}' is not a whole number", where(), id->str));
  if (const Json* bbox = feature.get("bbox"); bbox != nullptr) {
    const size_t n = bbox->items.size();
    if (bbox->type != Json::Type::kArray || (n != 4 && n != 6) || static_cast<int>(n / 2) < dims_)
      return zq::Status::invalid(
          fmt::format("{}: field \"bbox\": {} numbers found; a {}-axis index needs {} (or 6)",
                      where(), n, dims_, dims_ <= 2 ? 4 : 6));
    const size_t axes = n / 2;
    for (int k = 0; k < dims_; ++k) {
      const Json& lo = bbox->items[static_cast<size_t>(k)];
      const Json& hi = bbox->items[axes + static_cast<size_t>(k)];
      if (lo.type != Json::Type::kNumber || hi.type != Json::Type::kNumber)
        return zq::Status::invalid(
            fmt::format("{}: field \"bbox\": axis {} is not a pair of numbers", where(), k));
      entry->box.min[k] = lo.num;
      entry->box.max[k] = hi.num;
    }
    return zq::Status::ok();
  }
  const Json* geometry = feature.get("geometry");
  if (geometry == nullptr || geometry->type == Json::Type::kNull)
    return zq::Status::invalid(fmt::format("{}: the feature has no geometry and no bbox", where()));
  return box_of_geometry(*geometry, &entry->box);
}

zq::Status GeoJsonSource::box_of_geometry(const Json& geometry, zq::Box* box) const {
  bool any = false;
  std::string problem;
  // A position is an array whose first item is a number; anything else nests.
  std::function<void(const Json&)> visit = [&](const Json& v) {
    if (!problem.empty() || v.type != Json::Type::kArray) return;
    if (!v.items.empty() && v.items[0].type == Json::Type::kNumber) {
      if (v.items.size() < static_cast<size_t>(std::max(dims_, 2))) {
        problem = fmt::format(
            "field \"coordinates\" (line {}): a position has {} numbers; a "
            "{}-axis index needs {}",
            v.line, v.items.size(), dims_, std::max(dims_, 2));
        return;
      }
      for (int k = 0; k < dims_; ++k) {
        const Json& c = v.items[static_cast<size_t>(k)];
        if (c.type != Json::Type::kNumber) {
          problem =
              fmt::format("field \"coordinates\" (line {}): a position holds a non-number", v.line);
          return;
        }
        box->min[k] = any ? std::min(box->min[k], c.num) : c.num;
        box->max[k] = any ? std::max(box->max[k], c.num) : c.num;
      }
      any = true;
      return;
    }
    for (const Json& item : v.items) visit(item);
  };
  std::function<void(const Json&)> geom = [&](const Json& g) {
    if (const Json* parts = g.get("geometries"); parts != nullptr)
      for (const Json& part : parts->items) geom(part);
    if (const Json* coords = g.get("coordinates"); coords != nullptr) visit(*coords);
  };
  geom(geometry);
  if (!problem.empty()) return zq::Status::invalid(fmt::format("{}: {}", where(), problem));
  if (!any) return zq::Status::invalid(fmt::format("{}: the geometry has no coordinates", where()));
  return zq::Status::ok();
}

}  // namespace zqtool
