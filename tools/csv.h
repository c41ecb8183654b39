// Entries from CSV text, one per line: id,min0,min1,...,max0,max1,... (all
// minima, then all maxima). Blank lines and lines starting with '#' are
// skipped; a first line starting with the field "id" is a header. Every
// problem names the file, the line and the field.
#ifndef ZQ_TOOLS_CSV_H
#define ZQ_TOOLS_CSV_H

#include <cstdio>
#include <string>

#include "driver/index.h"

namespace zqtool {

class CsvSource : public zq::EntrySource {
 public:
  // `path` "-" reads standard input (named "<stdin>" in messages).
  CsvSource(std::string path, int dims);
  ~CsvSource() override;
  CsvSource(const CsvSource&) = delete;
  CsvSource& operator=(const CsvSource&) = delete;

  zq::Status open();
  bool next(zq::Entry* entry, zq::Status* status) override;
  std::string where() const override;

 private:
  zq::Status parse_line(std::string_view line, zq::Entry* entry) const;
  std::string field_name(size_t i) const;  // "id", "min1", "max0" ...

  std::string path_;
  std::string name_;
  int dims_;
  FILE* file_ = nullptr;
  char* buf_ = nullptr;
  size_t cap_ = 0;
  uint64_t line_ = 0;
};

}  // namespace zqtool

#endif
