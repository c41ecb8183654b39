// Reading and writing the workload file (layout in workload.h). The reader
// checks every count against the file's size, so a truncated or foreign file
// is reported by name instead of being half-read.
#include "bench/common/workload.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace zqbench {
namespace {

constexpr char kMagic[8] = {'Z', 'Q', 'B', 'W', 'L', '0', '2', '\0'};

struct FileCloser {
  void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

class Writer {
 public:
  explicit Writer(FILE* f) : f_(f) {}
  template <typename T>
  void put(const T& v) {
    ok_ = ok_ && std::fwrite(&v, sizeof v, 1, f_) == 1;
  }
  void put_box(const Box& b, int dims) {
    for (int k = 0; k < dims; ++k) put(b.lo[k]);
    for (int k = 0; k < dims; ++k) put(b.hi[k]);
  }
  void put_bytes(const void* p, size_t n) { ok_ = ok_ && std::fwrite(p, 1, n, f_) == n; }
  bool ok() const { return ok_; }

 private:
  FILE* f_;
  bool ok_ = true;
};

class Reader {
 public:
  explicit Reader(FILE* f) : f_(f) {}
  template <typename T>
  bool get(T* v) {
    return std::fread(v, sizeof *v, 1, f_) == 1;
  }
  bool get_box(Box* b, int dims) {
    for (int k = 0; k < dims; ++k)
      if (!get(&b->lo[k])) return false;
    for (int k = 0; k < dims; ++k)
      if (!get(&b->hi[k])) return false;
    return true;
  }
  bool get_bytes(void* p, size_t n) { return std::fread(p, 1, n, f_) == n; }

 private:
  FILE* f_;
};

}  // namespace

std::string write_workload(const std::string& path, const Workload& w) {
  File f(std::fopen(path.c_str(), "wb"));
  if (!f) return path + ": cannot create: " + std::strerror(errno);
  Writer out(f.get());
  out.put_bytes(kMagic, sizeof kMagic);
  out.put(static_cast<uint32_t>(w.dims));
  out.put(static_cast<uint32_t>(w.name.size()));
  out.put_bytes(w.name.data(), w.name.size());
  out.put(static_cast<uint64_t>(w.entries.size()));
  for (const Entry& e : w.entries) {
    out.put(e.id);
    out.put_box(e.box, w.dims);
  }
  out.put(static_cast<uint32_t>(w.sets.size()));
  for (const QuerySet& s : w.sets) {
    out.put(s.selectivity);
    out.put(static_cast<uint64_t>(s.boxes.size()));
    for (const Box& b : s.boxes) out.put_box(b, w.dims);
  }
  out.put(static_cast<uint64_t>(w.deletes.size()));
  for (uint64_t pos : w.deletes) out.put(pos);
  out.put(w.verify_set);
  out.put(static_cast<uint32_t>(w.nearest.size()));
  for (const NearestSet& s : w.nearest) {
    out.put(s.k);
    out.put(static_cast<uint64_t>(s.points.size()));
    for (const Box& p : s.points)
      for (int k = 0; k < w.dims; ++k) out.put(p.lo[k]);
  }
  if (!out.ok() || std::fflush(f.get()) != 0) return path + ": write failed";
  return "";
}

std::string read_workload(const std::string& path, Workload* w) {
  File f(std::fopen(path.c_str(), "rb"));
  if (!f) return path + ": cannot open: " + std::strerror(errno);
  std::fseek(f.get(), 0, SEEK_END);
  const uint64_t file_size = static_cast<uint64_t>(std::ftell(f.get()));
  std::fseek(f.get(), 0, SEEK_SET);
  Reader in(f.get());
  const std::string bad = path + ": not a workload file or truncated";

  char magic[8];
  if (!in.get_bytes(magic, sizeof magic) || std::memcmp(magic, kMagic, sizeof magic) != 0)
    return bad;
  uint32_t dims = 0, name_len = 0;
  if (!in.get(&dims) || dims < 1 || dims > kMaxDims || !in.get(&name_len) || name_len > file_size)
    return bad;
  w->dims = static_cast<int>(dims);
  w->name.assign(name_len, '\0');
  if (!in.get_bytes(w->name.data(), name_len)) return bad;

  const uint64_t box_bytes = 16ull * dims;
  uint64_t n = 0;
  if (!in.get(&n) || n > file_size / (8 + box_bytes)) return bad;
  w->entries.assign(n, Entry{});
  for (Entry& e : w->entries)
    if (!in.get(&e.id) || !in.get_box(&e.box, w->dims)) return bad;

  uint32_t n_sets = 0;
  if (!in.get(&n_sets) || n_sets > 64) return bad;
  w->sets.assign(n_sets, QuerySet{});
  for (QuerySet& s : w->sets) {
    uint64_t count = 0;
    if (!in.get(&s.selectivity) || !in.get(&count) || count > file_size / box_bytes) return bad;
    s.boxes.assign(count, Box{});
    for (Box& b : s.boxes)
      if (!in.get_box(&b, w->dims)) return bad;
  }

  uint64_t n_del = 0;
  if (!in.get(&n_del) || n_del > n) return bad;
  w->deletes.assign(n_del, 0);
  for (uint64_t& pos : w->deletes)
    if (!in.get(&pos) || pos >= n) return bad;
  if (!in.get(&w->verify_set) || (n_sets > 0 && w->verify_set >= n_sets)) return bad;

  uint32_t n_nearest = 0;
  if (!in.get(&n_nearest) || n_nearest > 64) return bad;
  w->nearest.assign(n_nearest, NearestSet{});
  for (NearestSet& s : w->nearest) {
    uint64_t count = 0;
    if (!in.get(&s.k) || !in.get(&count) || count > file_size / (8ull * dims)) return bad;
    s.points.assign(count, Box{});
    for (Box& p : s.points)
      for (int k = 0; k < w->dims; ++k) {
        if (!in.get(&p.lo[k])) return bad;
        p.hi[k] = p.lo[k];
      }
  }
  return "";
}

}  // namespace zqbench
