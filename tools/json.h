// A small JSON reader for GeoJSON input: values with the line they start on,
// parsed from text held in memory. Top-level members can be skipped without
// building them, so a large FeatureCollection is read one feature at a time.
#ifndef ZQ_TOOLS_JSON_H
#define ZQ_TOOLS_JSON_H

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace zqtool {

struct JsonMember;

struct Json {
  enum class Type { kNull, kBool, kNumber, kString, kArray, kObject };
  Type type = Type::kNull;
  bool boolean = false;
  double num = 0;
  std::string str;                  // a string, or a number's own text
  std::vector<Json> items;          // array elements
  std::vector<JsonMember> members;  // object members in order
  uint64_t line = 0;

  const Json* get(std::string_view key) const;  // null when absent or not an object
};

// A plain struct, not std::pair: a pair of a type still being defined trips
// clang's library checks, and the fuzz build uses clang.
struct JsonMember {
  std::string first;  // the key
  Json second;        // its value
};

class JsonReader {
 public:
  explicit JsonReader(std::string_view text) : text_(text) {}

  // Each returns false with error() set ("line 12: expected ':'").
  bool value(Json* out);
  bool skip_value();
  bool expect(char c);  // after whitespace
  bool string(std::string* out);
  // After whitespace: is the next character `c`? Consumes it when it is.
  bool take(char c);
  bool at_end();
  uint64_t line() const { return line_; }
  const std::string& error() const { return error_; }

 private:
  void skip_space();
  bool fail(const std::string& what);
  bool number(Json* out);
  bool literal(std::string_view word);
  bool container(Json* out, int depth);
  bool value_at(Json* out, int depth);

  std::string_view text_;
  size_t pos_ = 0;
  uint64_t line_ = 1;
  std::string error_;
};

}  // namespace zqtool

#endif
