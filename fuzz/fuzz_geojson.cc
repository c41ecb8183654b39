// libFuzzer target: the tool's GeoJSON reader (and its JSON parser) on
// arbitrary text, read from memory as from standard input.
#include <cstdlib>
#include <string>

#include "tools/geojson.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const int dims = 1 + data[0] % 3;
  zqtool::GeoJsonSource src("-", dims);
  zq::Status s = src.open_text(std::string(reinterpret_cast<const char*>(data) + 1, size - 1));
  if (!s) {
    if (s.message().empty()) std::abort();
    return 0;
  }
  zq::Entry e;
  zq::Status bad;
  while (src.next(&e, &bad)) (void)zq::box_problem(e.box, dims);
  if (!bad && bad.message().empty()) std::abort();
  return 0;
}
