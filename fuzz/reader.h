// Reading a fuzz input front to back, so seed files are easy to write by
// hand; past its end every value reads as zero.
#ifndef ZQ_FUZZ_READER_H
#define ZQ_FUZZ_READER_H

#include <cstddef>
#include <cstdint>

namespace zqfuzz {

struct Reader {
  const uint8_t* p;
  size_t left;
  // The next `bytes` bytes as a little-endian number.
  uint64_t take(size_t bytes) {
    uint64_t v = 0;
    for (size_t i = 0; i < bytes; ++i) v |= uint64_t{left > i ? p[i] : uint8_t{0}} << (8 * i);
    const size_t used = bytes < left ? bytes : left;
    p += used;
    left -= used;
    return v;
  }
};

}  // namespace zqfuzz

#endif
