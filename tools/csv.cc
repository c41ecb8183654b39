// The CSV reader: getline over the file, fields split on commas and read
// with from_chars, so a million-line file takes a second or so.
#include "tools/csv.h"

#include <fmt/format.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

namespace zqtool {

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() &&
         (s.back() == ' ' || s.back() == '\t' || s.back() == '\r' || s.back() == '\n'))
    s.remove_suffix(1);
  return s;
}

template <typename T>
bool read_number(std::string_view s, T* out) {
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return !s.empty() && ec == std::errc() && p == s.data() + s.size();
}

}  // namespace

CsvSource::CsvSource(std::string path, int dims)
    : path_(std::move(path)), name_(path_ == "-" ? "<stdin>" : path_), dims_(dims) {}

CsvSource::~CsvSource() {
  std::free(buf_);
  if (file_ != nullptr && file_ != stdin) std::fclose(file_);
}

zq::Status CsvSource::open() {
  file_ = path_ == "-" ? stdin : std::fopen(path_.c_str(), "r");
  if (file_ == nullptr)
    return zq::Status::io(fmt::format("cannot open '{}': {}", path_, std::strerror(errno)));
  return zq::Status::ok();
}

std::string CsvSource::where() const {
  return fmt::format("{}:{}", name_, line_);
}

std::string CsvSource::field_name(size_t i) const {
  if (i == 0) return "id";
  const size_t k = (i - 1) % static_cast<size_t>(dims_);
  return fmt::format("{}{}", i <= static_cast<size_t>(dims_) ? "min" : "max", k);
}

bool CsvSource::next(zq::Entry* entry, zq::Status* status) {
  ssize_t n;
  while ((n = getline(&buf_, &cap_, file_)) >= 0) {
    ++line_;
    const std::string_view line = trim(std::string_view(buf_, static_cast<size_t>(n)));
    if (line.empty() || line.front() == '#') continue;
    if (line_ == 1 && (line.substr(0, 2) == "id" || line.substr(0, 2) == "ID")) continue;
    *status = parse_line(line, entry);
    return status->is_ok();
  }
  if (std::ferror(file_))
    *status = zq::Status::io(fmt::format("{}: read error: {}", name_, std::strerror(errno)));
  return false;
}

zq::Status CsvSource::parse_line(std::string_view line, zq::Entry* entry) const {
  const size_t want = 1 + 2 * static_cast<size_t>(dims_);
  std::vector<std::string_view> fields;
  size_t start = 0;
  while (true) {
    const size_t comma = line.find(',', start);
    fields.push_back(
        trim(line.substr(start, comma == std::string_view::npos ? comma : comma - start)));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  if (fields.size() != want)
    return zq::Status::invalid(
        fmt::format("{}: {} fields found, {} expected (id, then {} minima and {} maxima)", where(),
                    fields.size(), want, dims_, dims_));
  *entry = zq::Entry{};
  if (!read_number(fields[0], &entry->id))
    return zq::Status::invalid(
        fmt::format("{}: field 1 (id): '{}' is not a whole number", where(), fields[0]));
  for (size_t i = 1; i < want; ++i) {
    double v = 0;
    if (!read_number(fields[i], &v))
      return zq::Status::invalid(fmt::format("{}: field {} ({}): '{}' is not a number", where(),
                                             i + 1, field_name(i), fields[i]));
    const size_t k = (i - 1) % static_cast<size_t>(dims_);
    (i <= static_cast<size_t>(dims_) ? entry->box.min : entry->box.max)[k] = v;
  }
  return zq::Status::ok();
}

}  // namespace zqtool
