// The JSON reader: recursive descent with a depth limit, line counting in the
// whitespace skipper, numbers read with from_chars.
#include "tools/json.h"

#include <fmt/format.h>

#include <charconv>

namespace zqtool {

namespace {
constexpr int kMaxDepth = 256;  // deeper nesting is not GeoJSON; refuse rather than overflow
}

const Json* Json::get(std::string_view key) const {
  if (type != Type::kObject) return nullptr;
  for (const auto& [k, v] : members)
    if (k == key) return &v;
  return nullptr;
}

void JsonReader::skip_space() {
  while (pos_ < text_.size()) {
    const char c = text_[pos_];
    if (c == '\n') ++line_;
    if (c != ' ' && c != '\t' && c != '\r' && c != '\n') break;
    ++pos_;
  }
}

bool JsonReader::fail(const std::string& what) {
  if (error_.empty()) error_ = fmt::format("line {}: {}", line_, what);
  return false;
}

bool JsonReader::at_end() {
  skip_space();
  return pos_ >= text_.size();
}

bool JsonReader::take(char c) {
  skip_space();
  if (pos_ < text_.size() && text_[pos_] == c) {
    ++pos_;
    return true;
  }
  return false;
}

bool JsonReader::expect(char c) {
  if (take(c)) return true;
  if (pos_ >= text_.size()) return fail(fmt::format("expected '{}' but the input ended", c));
  return fail(fmt::format("expected '{}' but found '{}'", c, text_[pos_]));
}

bool JsonReader::string(std::string* out) {
  if (!expect('"')) return false;
  out->clear();
  while (pos_ < text_.size()) {
    const char c = text_[pos_++];
    if (c == '"') return true;
    if (c == '\n') return fail("line break inside a string");
    if (c != '\\') {
      out->push_back(c);
      continue;
    }
    if (pos_ >= text_.size()) break;
    const char e = text_[pos_++];
    switch (e) {
      case 'n':
        out->push_back('\n');
        break;
      case 't':
        out->push_back('\t');
        break;
      case 'r':
        out->push_back('\r');
        break;
      case 'b':
        out->push_back('\b');
        break;
      case 'f':
        out->push_back('\f');
        break;
      case 'u':
        // Names and ids only matter as text here; keep the escape as written.
        if (pos_ + 4 > text_.size()) return fail("short \\u escape");
        out->append("\\u").append(text_.substr(pos_, 4));
        pos_ += 4;
        break;
      default:
        out->push_back(e);
    }
  }
  return fail("string not closed before the end of the input");
}

bool JsonReader::number(Json* out) {
  const size_t start = pos_;
  while (pos_ < text_.size() &&
         std::string_view("+-0123456789.eE").find(text_[pos_]) != std::string_view::npos)
    ++pos_;
  std::string_view tok = text_.substr(start, pos_ - start);
  out->type = Json::Type::kNumber;
  out->str = std::string(tok);
  auto [p, ec] = std::from_chars(tok.data(), tok.data() + tok.size(), out->num);
  if (tok.empty() || ec != std::errc() || p != tok.data() + tok.size())
    return fail(fmt::format("'{}' is not a number", tok));
  return true;
}

bool JsonReader::literal(std::string_view word) {
  if (text_.substr(pos_, word.size()) != word)
    return fail(fmt::format("unexpected '{}'", text_.substr(pos_, 1)));
  pos_ += word.size();
  return true;
}

bool JsonReader::container(Json* out, int depth) {
  const bool is_object = text_[pos_++] == '{';
  out->type = is_object ? Json::Type::kObject : Json::Type::kArray;
  const char close = is_object ? '}' : ']';
  if (take(close)) return true;
  do {
    Json item;
    if (is_object) {
      std::string key;
      if (!string(&key) || !expect(':') || !value_at(&item, depth + 1)) return false;
      out->members.push_back(JsonMember{std::move(key), std::move(item)});
    } else {
      if (!value_at(&item, depth + 1)) return false;
      out->items.push_back(std::move(item));
    }
  } while (take(','));
  return expect(close);
}

bool JsonReader::value_at(Json* out, int depth) {
  if (depth > kMaxDepth) return fail("nesting too deep");
  skip_space();
  *out = Json{};
  out->line = line_;
  if (pos_ >= text_.size()) return fail("a value was expected but the input ended");
  const char c = text_[pos_];
  if (c == '{' || c == '[') return container(out, depth);
  if (c == '"') {
    out->type = Json::Type::kString;
    return string(&out->str);
  }
  if (c == 't' || c == 'f') {
    out->type = Json::Type::kBool;
    out->boolean = c == 't';
    return literal(c == 't' ? "true" : "false");
  }
  if (c == 'n') return literal("null");
  return number(out);
}

bool JsonReader::value(Json* out) {
  return value_at(out, 0);
}

bool JsonReader::skip_value() {
  Json ignored;
  return value(&ignored);
}

}  // namespace zqtool
