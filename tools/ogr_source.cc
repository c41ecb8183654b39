// Features to entries through OGR's C API. GDAL reports problems through its
// error handler; while a source is open ours gathers them off the terminal
// and puts them into our messages, which name the file, the layer and the
// feature.
//
// GeoJSON ids: OGR makes a feature's "id" its feature id only when every id
// of the file is an integer; otherwise it turns them into an attribute and
// numbers the features itself. So GeoJSON is opened with its native data
// kept, and the feature's own "id" member decides: a whole number (1 or
// 1.0, or a string of one) is the rowid, anything else is refused.
#include "tools/ogr_source.h"

#include <cpl_error.h>
#include <cpl_json.h>
#include <fmt/format.h>
#include <gdal.h>
#include <ogr_api.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstring>
#include <mutex>
#include <type_traits>

namespace zqtool {

namespace {

constexpr const char* kGeoJsonMediaType = "application/vnd.geo+json";

// GDAL's failures, gathered instead of printed for as long as this lives
// (the handler stack is per thread). One failure often comes as several
// messages, the precise one first ("unexpected character at line 3"), the
// summary last ("Failed to read GeoJSON data"), so all are kept. Warnings
// (an open option a driver does not know) are not ours to show.
class GdalErrors {
 public:
  GdalErrors() {
    CPLPushErrorHandlerEx(&GdalErrors::handle, this);
    CPLErrorReset();
  }
  ~GdalErrors() { CPLPopErrorHandler(); }
  GdalErrors(const GdalErrors&) = delete;
  GdalErrors& operator=(const GdalErrors&) = delete;

  void clear() {
    messages_.clear();
    CPLErrorReset();
  }
  bool any() const { return !messages_.empty(); }
  std::string text(const char* otherwise) const {
    std::string out;
    for (const std::string& m : messages_)
      if (out.find(m) == std::string::npos) out += (out.empty() ? "" : "; ") + m;
    return out.empty() ? otherwise : out;
  }

 private:
  static void CPL_STDCALL handle(CPLErr level, CPLErrorNum, const char* msg) {
    auto* self = static_cast<GdalErrors*>(CPLGetErrorHandlerUserData());
    if (level < CE_Failure || msg == nullptr || self->messages_.size() >= 8) return;
    std::string_view m(msg);
    while (!m.empty() && (m.back() == '.' || m.back() == ' ')) m.remove_suffix(1);
    self->messages_.emplace_back(m);
  }
  std::vector<std::string> messages_;
};

struct DatasetClose {
  void operator()(GDALDatasetH ds) const { GDALClose(ds); }
};
struct FeatureDestroy {
  void operator()(OGRFeatureH f) const { OGR_F_Destroy(f); }
};
using DatasetPtr = std::unique_ptr<std::remove_pointer_t<GDALDatasetH>, DatasetClose>;
using FeaturePtr = std::unique_ptr<std::remove_pointer_t<OGRFeatureH>, FeatureDestroy>;

// Whole numbers within int64, from a double: 1.0 is 1; 1.5, NaN and 2^63
// are not.
bool whole_number(double v, int64_t* out) {
  if (!std::isfinite(v) || v != std::floor(v) || v < -9223372036854775808.0 ||
      v >= 9223372036854775808.0)
    return false;
  *out = static_cast<int64_t>(v);
  return true;
}

// ...and from text: integer digits exactly, else a number that is whole.
bool whole_number(std::string_view text, int64_t* out) {
  while (!text.empty() && text.front() == ' ') text.remove_prefix(1);
  while (!text.empty() && text.back() == ' ') text.remove_suffix(1);
  const char* end = text.data() + text.size();
  auto [p, ec] = std::from_chars(text.data(), end, *out);
  if (!text.empty() && ec == std::errc() && p == end) return true;
  if (ec == std::errc::result_out_of_range) return false;
  double v = 0;
  auto [q, ec2] = std::from_chars(text.data(), end, v);
  return !text.empty() && ec2 == std::errc() && q == end && whole_number(v, out);
}

std::string join_names(const std::vector<std::string>& names) {
  std::string out;
  for (size_t i = 0; i < names.size() && i < 20; ++i) out += (i > 0 ? ", " : "") + names[i];
  if (names.size() > 20) out += fmt::format(", ... {} in all", names.size());
  return out;
}

}  // namespace

struct OgrSource::State {
  GdalErrors errors;  // first in, last out: GDAL's close may report too
  DatasetPtr ds;
  OGRLayerH layer = nullptr;
  std::string layer_name;
  int id_field = -1;  // attribute index of --id-field; -1: the feature id
  FeaturePtr feature;
  int64_t fid = OGRNullFID;
  uint64_t ordinal = 0;  // features read so far
};

OgrSource::OgrSource(std::string path, int dims, OgrOptions options)
    : path_(std::move(path)),
      name_(path_ == "-" ? "<stdin>" : path_),
      dims_(dims),
      options_(std::move(options)) {}

OgrSource::~OgrSource() = default;

zq::Status OgrSource::invalid(const std::string& what) const {
  return zq::Status::invalid(fmt::format("{}: {}", where(), what));
}

zq::Status OgrSource::open() {
  static std::once_flag registered;
  std::call_once(registered, [] { GDALAllRegister(); });
  st_ = std::make_unique<State>();
  const std::string source = path_ == "-" ? "/vsistdin/" : path_;
  const char* const geojson[] = {"GeoJSON", nullptr};
  const char* const open_options[] = {"NATIVE_DATA=YES", nullptr};
  st_->ds.reset(GDALOpenEx(source.c_str(), GDAL_OF_VECTOR | GDAL_OF_READONLY,
                           options_.geojson_only ? geojson : nullptr, open_options, nullptr));
  if (!st_->ds) {
    // A plain path that is not there gets the same words as a missing CSV.
    const bool plain =
        path_ != "-" && path_.find(':') == std::string::npos && path_.rfind("/vsi", 0) != 0;
    if (plain && ::access(path_.c_str(), F_OK) != 0)
      return zq::Status::io(fmt::format("cannot open '{}': {}", path_, std::strerror(errno)));
    return zq::Status::invalid(fmt::format(
        "cannot open '{}' as vector data: {}", name_,
        st_->errors.text(options_.geojson_only ? "it is not GeoJSON"
                                               : "no GDAL/OGR vector format recognises it")));
  }
  if (zq::Status s = choose_layer(); !s) return s;
  return choose_id_field();
}

zq::Status OgrSource::choose_layer() {
  GDALDatasetH ds = st_->ds.get();
  const int n = GDALDatasetGetLayerCount(ds);
  std::vector<std::string> names;
  for (int i = 0; i < n; ++i) names.emplace_back(OGR_L_GetName(GDALDatasetGetLayer(ds, i)));
  if (n == 0) return zq::Status::invalid(fmt::format("{}: no vector layers found", name_));
  if (!options_.layer.empty()) {
    st_->layer = GDALDatasetGetLayerByName(ds, options_.layer.c_str());
    if (st_->layer == nullptr)
      return zq::Status::invalid(
          fmt::format("{}: no layer '{}' (layers: {})", name_, options_.layer, join_names(names)));
  } else {
    st_->layer = GDALDatasetGetLayer(ds, 0);
    if (n > 1 && options_.note)
      options_.note(fmt::format("{} has {} layers ({}); reading '{}' (choose one with --layer)",
                                name_, n, join_names(names), names[0]));
  }
  st_->layer_name = OGR_L_GetName(st_->layer);
  if (!options_.where.empty()) {
    st_->errors.clear();
    if (OGR_L_SetAttributeFilter(st_->layer, options_.where.c_str()) != OGRERR_NONE)
      return zq::Status::invalid(fmt::format("{}: layer '{}': --where '{}': {}", name_,
                                             st_->layer_name, options_.where,
                                             st_->errors.text("the filter is not valid")));
  }
  return zq::Status::ok();
}

zq::Status OgrSource::choose_id_field() {
  const std::string& name = options_.id_field;
  if (name.empty()) return zq::Status::ok();
  OGRFeatureDefnH defn = OGR_L_GetLayerDefn(st_->layer);
  st_->id_field = OGR_FD_GetFieldIndex(defn, name.c_str());
  if (st_->id_field >= 0) return zq::Status::ok();
  // A GeoPackage's "fid" and its kind are the feature id under another name.
  const char* fid_column = OGR_L_GetFIDColumn(st_->layer);
  if (fid_column != nullptr && EQUAL(fid_column, name.c_str())) return zq::Status::ok();
  std::vector<std::string> fields;
  for (int i = 0; i < OGR_FD_GetFieldCount(defn); ++i)
    fields.emplace_back(OGR_Fld_GetNameRef(OGR_FD_GetFieldDefn(defn, i)));
  return zq::Status::invalid(fmt::format("{}: layer '{}' has no field '{}' (fields: {})", name_,
                                         st_->layer_name, name,
                                         fields.empty() ? "none" : join_names(fields)));
}

std::string OgrSource::where() const {
  if (!st_ || st_->layer == nullptr) return name_;
  if (st_->fid == OGRNullFID)
    return fmt::format("{}: layer '{}', feature #{}", name_, st_->layer_name, st_->ordinal);
  return fmt::format("{}: layer '{}', feature {}", name_, st_->layer_name, st_->fid);
}

uint64_t OgrSource::size_hint() const {
  // Without forcing, drivers that would have to read everything say -1.
  const GIntBig n = OGR_L_GetFeatureCount(st_->layer, FALSE);
  return n > 0 ? static_cast<uint64_t>(n) : 0;
}

bool OgrSource::next(zq::Entry* entry, zq::Status* status) {
  st_->errors.clear();
  st_->feature.reset(OGR_L_GetNextFeature(st_->layer));
  if (!st_->feature) {
    if (st_->errors.any())
      *status = zq::Status::invalid(
          fmt::format("{}: layer '{}': reading failed after {} "
                      "features: {}",
                      name_, st_->layer_name, st_->ordinal, st_->errors.text("")));
    return false;
  }
  ++st_->ordinal;
  st_->fid = OGR_F_GetFID(st_->feature.get());
  *entry = zq::Entry{};
  if (*status = feature_id(&entry->id); !*status) return false;
  *status = feature_box(&entry->box);
  return status->is_ok();
}

zq::Status OgrSource::feature_id(int64_t* id) const {
  OGRFeatureH f = st_->feature.get();
  if (options_.any_id) return zq::Status::ok();
  if (st_->id_field >= 0) {
    const int i = st_->id_field;
    const char* field = options_.id_field.c_str();
    if (!OGR_F_IsFieldSetAndNotNull(f, i))
      return invalid(fmt::format("field '{}' is empty", field));
    OGRFieldDefnH defn = OGR_F_GetFieldDefnRef(f, i);
    switch (OGR_Fld_GetType(defn)) {
      case OFTInteger:
      case OFTInteger64:
        *id = OGR_F_GetFieldAsInteger64(f, i);
        return zq::Status::ok();
      case OFTReal:
      case OFTString:
        if (whole_number(std::string_view(OGR_F_GetFieldAsString(f, i)), id))
          return zq::Status::ok();
        return invalid(fmt::format("field '{}': '{}' is not a 64-bit whole number", field,
                                   OGR_F_GetFieldAsString(f, i)));
      default:
        return invalid(fmt::format("field '{}' is of type {}; ids are whole numbers", field,
                                   OGR_GetFieldTypeName(OGR_Fld_GetType(defn))));
    }
  }
  const char* media = OGR_F_GetNativeMediaType(f);
  const char* native = OGR_F_GetNativeData(f);
  if (media != nullptr && native != nullptr && std::strcmp(media, kGeoJsonMediaType) == 0) {
    CPLJSONDocument doc;
    if (doc.LoadMemory(std::string(native))) {
      const CPLJSONObject member = doc.GetRoot().GetObj("id");
      using Type = CPLJSONObject::Type;
      switch (member.IsValid() ? member.GetType() : Type::Null) {
        case Type::Null:
          break;  // no id of its own: OGR's number for it
        case Type::Integer:
        case Type::Long:
          *id = member.ToLong();
          return zq::Status::ok();
        case Type::Double:
          if (whole_number(member.ToDouble(), id)) return zq::Status::ok();
          return invalid(fmt::format("\"id\": {} is not a 64-bit whole number",
                                     member.Format(CPLJSONObject::PrettyFormat::Plain)));
        case Type::String:
          if (whole_number(std::string_view(member.ToString()), id)) return zq::Status::ok();
          return invalid(
              fmt::format("\"id\": '{}' is not a 64-bit whole number", member.ToString()));
        default:
          return invalid(fmt::format("\"id\": {} is not a 64-bit whole number",
                                     member.Format(CPLJSONObject::PrettyFormat::Plain)));
      }
    }
  }
  if (st_->fid == OGRNullFID)
    return invalid("the feature has no id; name an attribute that holds one with --id-field");
  *id = st_->fid;
  return zq::Status::ok();
}

zq::Status OgrSource::feature_box(zq::Box* box) const {
  OGRGeometryH g = OGR_F_GetGeometryRef(st_->feature.get());
  if (g == nullptr) return invalid("the feature has no geometry");
  if (OGR_G_IsEmpty(g)) return invalid("the feature's geometry is empty");
  if (dims_ == 3) {
    if (!OGR_G_Is3D(g))
      return invalid(fmt::format("its {} geometry has no Z; a 3-axis index needs 3-D geometries",
                                 OGR_G_GetGeometryName(g)));
    OGREnvelope3D e;
    OGR_G_GetEnvelope3D(g, &e);
    *box = zq::Box{{e.MinX, e.MinY, e.MinZ}, {e.MaxX, e.MaxY, e.MaxZ}};
    return zq::Status::ok();
  }
  OGREnvelope e;
  OGR_G_GetEnvelope(g, &e);
  *box = dims_ == 1 ? zq::Box{{e.MinX, 0, 0}, {e.MaxX, 0, 0}}
                    : zq::Box{{e.MinX, e.MinY, 0}, {e.MaxX, e.MaxY, 0}};
  return zq::Status::ok();
}

}  // namespace zqtool
