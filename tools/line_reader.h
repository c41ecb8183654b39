// Lines of a text file or of standard input, gzip-compressed or not: the
// first two bytes decide (1f 8b is gzip, read through zlib; anything else is
// read as it is), so `data.csv.gz` and `zcat data.csv.gz | ...` load alike.
// Several gzip members one after another (as `cat a.gz b.gz` makes) are one
// text. Standard input is read through stdin's own buffer, so a caller may
// have looked at its first character with ungetc.
#ifndef ZQ_TOOLS_LINE_READER_H
#define ZQ_TOOLS_LINE_READER_H

#include <zlib.h>

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "driver/index.h"

namespace zqtool {

class LineReader {
 public:
  LineReader() = default;
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  // `path` "-" is standard input; `name` is how messages call the input.
  zq::Status open(const std::string& path, const std::string& name);
  // The next line without its '\n' (a final line needs none), valid until
  // the next call; false at the end, with *status set on a read or
  // decompression error.
  bool next(std::string_view* line, zq::Status* status);

 private:
  // Appends decoded bytes to text_; false at the end of the input.
  bool fill(zq::Status* status);
  bool read_raw(zq::Status* status);

  std::string name_;
  FILE* file_ = nullptr;
  bool gzip_ = false;
  bool inflating_ = false;  // zs_ holds an initialised stream
  bool in_member_ = false;  // inside a gzip member, its end not yet reached
  bool raw_end_ = false;
  z_stream zs_{};
  std::vector<unsigned char> raw_;  // compressed bytes read, not yet inflated
  std::string text_;                // decoded text; lines are cut from pos_
  size_t pos_ = 0;
};

}  // namespace zqtool

#endif
