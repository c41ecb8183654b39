// Entries from CSV text, one per line: id,min0,min1,...,max0,max1,... (all
// minima, then all maxima). Fields may be quoted as RFC 4180 has it ("1.5",
// a doubled quote inside); a UTF-8 byte-order mark before the first line and
// gzip compression are taken in stride. Blank lines and lines starting with
// '#' are skipped; a first line starting with the field "id" is a header.
// Every problem names the file, the line and the field.
#ifndef ZQ_TOOLS_CSV_H
#define ZQ_TOOLS_CSV_H

#include <deque>
#include <string>
#include <vector>

#include "driver/index.h"
#include "tools/line_reader.h"

namespace zqtool {

class CsvSource : public zq::EntrySource {
 public:
  // `path` "-" reads standard input (named "<stdin>" in messages).
  CsvSource(std::string path, int dims);

  zq::Status open();
  bool next(zq::Entry* entry, zq::Status* status) override;
  std::string where() const override;

 private:
  zq::Status split(std::string_view line);
  zq::Status parse_fields(zq::Entry* entry) const;
  std::string field_name(size_t i) const;  // "id", "min1", "max0" ...

  std::string path_;
  std::string name_;
  int dims_;
  LineReader lines_;
  uint64_t line_ = 0;
  std::vector<std::string_view> fields_;
  std::deque<std::string> unquoted_;  // quoted fields with doubled quotes, undoubled
};

}  // namespace zqtool

#endif
