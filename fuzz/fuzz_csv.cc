// libFuzzer target: the tool's CSV reader (plain or gzip) on arbitrary bytes. Every entry it
// yields must be a box the tool can check, and a refusal must say where.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "tools/csv.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The reader opens a path; an in-memory file keeps the disk out of the loop.
  static const int fd = memfd_create("zqfuzz-csv", 0);
  static const std::string path = "/proc/self/fd/" + std::to_string(fd);
  if (fd < 0 || size < 1) return 0;
  const int dims = 1 + data[0] % 3;
  if (ftruncate(fd, 0) != 0 || pwrite(fd, data + 1, size - 1, 0) != static_cast<ssize_t>(size - 1))
    std::abort();
  zqtool::CsvSource src(path, dims);
  if (zq::Status s = src.open(); !s) std::abort();
  zq::Entry e;
  zq::Status bad;
  while (src.next(&e, &bad)) (void)zq::box_problem(e.box, dims);
  if (!bad && bad.message().empty()) std::abort();
  return 0;
}
