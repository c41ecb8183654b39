// The tool's shared services: databases opened with the user's settings,
// fault arming, progress, error reporting and command-line boxes.
#include <fmt/format.h>

#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "tools/progress.h"
#include "tools/tool.h"

namespace zqtool {

zq::Status Context::open_db(const std::string& path, bool create,
                            std::unique_ptr<zq::Database>* out) {
  zq::Settings settings;
  if (zq::Status s = zq::Settings::from_environment(&settings); !s) return s;
  settings.merge(opts.settings);
  if (zq::Status s = zq::Database::open(path, create, out); !s) return s;
  (*out)->apply(settings);
  return zq::Status::ok();
}

zq::Status Context::open_index(const std::string& path, const std::string& name,
                               std::unique_ptr<zq::Database>* db, zq::Index* index) {
  if (zq::Status s = open_db(path, false, db); !s) return s;
  return zq::Index::open(**db, name, index);
}

#ifdef ZQ_TEST_HOOKS
namespace {

uint64_t setting(uint64_t from_option, const char* var) {
  if (from_option != 0) return from_option;
  const char* env = std::getenv(var);
  return env != nullptr ? std::strtoull(env, nullptr, 10) : 0;
}

}  // namespace

void Context::arm_faults(zq::Database& db) const {
  if (uint64_t n = setting(opts.fault_alloc_nth, "ZQRTREE_FAULT_ALLOC_NTH"); n > 0)
    db.fail_alloc_nth(n);
  if (uint64_t n = setting(opts.fault_engine_nth, "ZQRTREE_FAULT_ENGINE_NTH"); n > 0)
    db.fail_engine_nth(n);
}
#else
void Context::arm_faults(zq::Database&) const {}
#endif

zq::Progress Context::progress() const {
  if (opts.quiet || !progress_wanted()) return {};
  auto bar = std::make_shared<ProgressBar>();
  return [bar](std::string_view stage, uint64_t done, uint64_t total) {
    bar->update(stage, done, total);
  };
}

int Context::fail(const zq::Status& status) const {
  std::fprintf(stderr, "zqrtree: error: %s\n", status.message().c_str());
  return kFailure;
}

void add_target(CLI::App* cmd, Target* target) {
  cmd->add_option("DB", target->db, "database file")->required();
  cmd->add_option("INDEX", target->index, "index name")->required();
}

void add_input_options(CLI::App* cmd, Context& ctx, InputOptions* input) {
  cmd->add_option("--format", input->format,
                  "auto (box CSV for .csv/.txt[.gz], GDAL/OGR otherwise; for stdin by the first "
                  "character), csv, ogr, geojson")
      ->check(CLI::IsMember({"auto", "csv", "ogr", "geojson"}))
      ->capture_default_str();
  cmd->add_option("--layer", input->ogr.layer,
                  "layer of a GIS source to read (default: the only or first one)");
  cmd->add_option("--id-field", input->ogr.id_field,
                  "attribute holding each feature's rowid (default: the feature id)");
  cmd->add_option("--where", input->ogr.where, "OGR attribute filter, e.g. \"kind = 'park'\"");
  input->ogr.note = [&ctx](const std::string& text) { ctx.note("{}", text); };
}

void set_example(CLI::App* cmd, const std::string& examples) {
  cmd->footer("Example:\n" + examples + "\n");
}

void write_out(std::string* out, bool done) {
  if (!done && out->size() <= (1 << 16)) return;
  std::fwrite(out->data(), 1, out->size(), stdout);
  out->clear();
}

std::string number(double v) {
  return fmt::format("{}", v);
}

std::string box_text(const zq::Box& box, int dims) {
  std::string text;
  for (int k = 0; k < 2 * dims; ++k) {
    if (k > 0) text += ',';
    text += number(k < dims ? box.min[k] : box.max[k - dims]);
  }
  return text;
}

std::string entry_csv(const zq::Entry& e, int dims) {
  return fmt::format("{},{}", e.id, box_text(e.box, dims));
}

int64_t parse_rowid(std::string_view text) {
  std::string_view digits = text;
  if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
  int64_t id = 0;
  auto [p, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), id);
  // Out-of-range text must not quietly become the nearest rowid: a delete
  // would then remove another entry.
  if (digits.empty() || ec != std::errc() || p != digits.data() + digits.size())
    throw UsageError(fmt::format(
        "ID '{}' is not a whole number from -9223372036854775808 to 9223372036854775807", text));
  return id;
}

std::vector<double> parse_numbers(std::string_view text, std::string_view what) {
  std::vector<double> values;
  size_t start = 0;
  while (start <= text.size()) {
    size_t comma = text.find(',', start);
    if (comma == std::string_view::npos) comma = text.size();
    std::string_view field = text.substr(start, comma - start);
    while (!field.empty() && field.front() == ' ') field.remove_prefix(1);
    while (!field.empty() && field.back() == ' ') field.remove_suffix(1);
    if (!field.empty() && field.front() == '+') field.remove_prefix(1);
    double v = 0;
    auto [p, ec] = std::from_chars(field.data(), field.data() + field.size(), v);
    if (field.empty() || ec != std::errc() || p != field.data() + field.size())
      throw UsageError(fmt::format("{} '{}': coordinate {} '{}' is not a number", what, text,
                                   values.size() + 1, field));
    values.push_back(v);
    start = comma + 1;
  }
  return values;
}

zq::Box parse_box(std::string_view text, int dims) {
  const std::vector<double> values = parse_numbers(text, "box");
  if (values.size() != static_cast<size_t>(2 * dims))
    throw UsageError(fmt::format(
        "box '{}' has {} coordinates; a {}-axis index needs {} (all minima, then all maxima)", text,
        values.size(), dims, 2 * dims));
  zq::Box box;
  for (int k = 0; k < dims; ++k) {
    box.min[k] = values[static_cast<size_t>(k)];
    box.max[k] = values[static_cast<size_t>(dims + k)];
  }
  return box;
}

}  // namespace zqtool
