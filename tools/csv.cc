// The CSV reader: fields split on commas (quotes honoured) and read with
// from_chars, so a million-line file takes a second or so.
#include "tools/csv.h"

#include <fmt/format.h>

#include <charconv>
#include <string_view>

namespace zqtool {

namespace {

constexpr std::string_view kByteOrderMark = "\xEF\xBB\xBF";

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t' || s.back() == '\r'))
    s.remove_suffix(1);
  return s;
}

template <typename T>
bool read_number(std::string_view s, T* out) {
  s = trim(s);
  if (!s.empty() && s.front() == '+') s.remove_prefix(1);
  auto [p, ec] = std::from_chars(s.data(), s.data() + s.size(), *out);
  return !s.empty() && ec == std::errc() && p == s.data() + s.size();
}

}  // namespace

CsvSource::CsvSource(std::string path, int dims)
    : path_(std::move(path)), name_(path_ == "-" ? "<stdin>" : path_), dims_(dims) {}

zq::Status CsvSource::open() {
  return lines_.open(path_, name_);
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
  std::string_view raw;
  while (lines_.next(&raw, status)) {
    ++line_;
    if (line_ == 1 && raw.substr(0, kByteOrderMark.size()) == kByteOrderMark)
      raw.remove_prefix(kByteOrderMark.size());
    const std::string_view line = trim(raw);
    if (line.empty() || line.front() == '#') continue;
    if (*status = split(line); !*status) return false;
    const std::string_view first = trim(fields_[0]);
    if (line_ == 1 && (first.substr(0, 2) == "id" || first.substr(0, 2) == "ID")) continue;
    *status = parse_fields(entry);
    return status->is_ok();
  }
  return false;
}

// Fields as views into the line; a quoted field is the text between its
// quotes, and one with doubled quotes inside is undoubled into a string of
// unquoted_ of its own (a deque: the views of earlier ones stay valid).
zq::Status CsvSource::split(std::string_view line) {
  fields_.clear();
  unquoted_.clear();
  size_t pos = 0;
  while (true) {
    while (pos < line.size() && (line[pos] == ' ' || line[pos] == '\t')) ++pos;
    size_t end;
    if (pos < line.size() && line[pos] == '"') {
      size_t close = pos + 1;
      bool doubled = false;
      while ((close = line.find('"', close)) != std::string_view::npos && close + 1 < line.size() &&
             line[close + 1] == '"') {
        close += 2;
        doubled = true;
      }
      if (close == std::string_view::npos)
        return zq::Status::invalid(fmt::format("{}: field {}: the quote is not closed on its line",
                                               where(), fields_.size() + 1));
      std::string_view inner = line.substr(pos + 1, close - pos - 1);
      if (doubled) {
        std::string& plain = unquoted_.emplace_back();
        for (size_t i = 0; i < inner.size(); ++i) {
          plain += inner[i];
          if (inner[i] == '"') ++i;
        }
        inner = plain;
      }
      fields_.push_back(inner);
      end = close + 1;
      while (end < line.size() && (line[end] == ' ' || line[end] == '\t')) ++end;
      if (end < line.size() && line[end] != ',')
        return zq::Status::invalid(
            fmt::format("{}: field {}: text after the closing quote", where(), fields_.size()));
    } else {
      end = std::min(line.find(',', pos), line.size());
      fields_.push_back(line.substr(pos, end - pos));
    }
    if (end >= line.size()) return zq::Status::ok();
    pos = end + 1;
  }
}

zq::Status CsvSource::parse_fields(zq::Entry* entry) const {
  const size_t want = 1 + 2 * static_cast<size_t>(dims_);
  if (fields_.size() != want)
    return zq::Status::invalid(
        fmt::format("{}: {} fields found, {} expected (id, then {} minima and {} maxima)", where(),
                    fields_.size(), want, dims_, dims_));
  *entry = zq::Entry{};
  if (!read_number(fields_[0], &entry->id))
    return zq::Status::invalid(
        fmt::format("{}: field 1 (id): '{}' is not a whole number", where(), trim(fields_[0])));
  for (size_t i = 1; i < want; ++i) {
    double v = 0;
    if (!read_number(fields_[i], &v))
      return zq::Status::invalid(fmt::format("{}: field {} ({}): '{}' is not a number", where(),
                                             i + 1, field_name(i), trim(fields_[i])));
    const size_t k = (i - 1) % static_cast<size_t>(dims_);
    (i <= static_cast<size_t>(dims_) ? entry->box.min : entry->box.max)[k] = v;
  }
  return zq::Status::ok();
}

}  // namespace zqtool
