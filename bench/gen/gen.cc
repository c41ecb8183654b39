// bench_gen: writes one workload file (see bench/common/workload.h) from a
// seeded generator or from one of the real data sets (gzipped CSV), with the
// window queries and the deletions every runner will replay.
//
// Generators (2-D or 3-D, boxes or points, extent [0, 1e6] on every axis):
//   uniform    centres uniform; box sides uniform in [0, 2s], s = 1e6 * n^(-1/d),
//              so the boxes cover the space about once
//   clustered  centres gaussian around clamp(n / 10000, 10, 1000) uniform
//              cluster centres, each with its own spread; sides in [0, s/2]
//   diagonal   centres on the main diagonal with gaussian scatter of 1% of the
//              extent; sides in [0, s/2]
//   parcel     the space cut recursively into n parcels (the longer side at
//              30..70%), each shrunk to 50..100% of its parcel per axis
// Points are the same centres with no extent.
//
// Every coordinate is rounded outward to a float32 value (a box can only
// grow): SQLite's R*Tree stores float32, and all systems must index exactly
// the same boxes for their answers to agree. Queries are squares (cubes) of
// the data's extent scaled to the selectivity, centred on random entries.
// Nearest-neighbour queries (--nearest K:COUNT,...) are the centres of
// random entries, rounded to float32, each asking for its K nearest.
// Deletions are a seeded random sample of the entries.
//
// Exit status 3 means a real data set is absent, which callers treat as
// "skip", not as failure.
#include <cmath>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <random>
#include <string>

#include "bench/common/workload.h"

namespace zqbench {
namespace {

constexpr double kExtent = 1e6;
constexpr int kExitMissing = 3;

struct Args {
  std::string out;
  std::string dist = "uniform";
  std::string kind = "boxes";
  std::string csv;
  std::string name;
  int dims = 2;
  uint64_t n = 100000;
  uint64_t limit = 0;  // 0: the whole CSV
  uint64_t seed = 42;
  std::string queries = "0.00001:10000,0.0001:10000,0.01:200";
  double deletes = 0.1;
  std::string nearest;  // "K:COUNT,..."; none when empty
};

class Rng {
 public:
  explicit Rng(uint64_t seed) : g_(seed) {}
  // 53 random bits in [0, 1); the standard distributions are not the same
  // on every standard library, this is.
  double uniform() { return static_cast<double>(g_() >> 11) * 0x1.0p-53; }
  double uniform(double lo, double hi) { return lo + (hi - lo) * uniform(); }
  double normal() {
    const double u1 = 1.0 - uniform(), u2 = uniform();
    return std::sqrt(-2.0 * std::log(u1)) * std::cos(2.0 * M_PI * u2);
  }
  uint64_t below(uint64_t n) { return g_() % n; }

 private:
  std::mt19937_64 g_;
};

double round_down(double v) {
  float f = static_cast<float>(v);
  if (static_cast<double>(f) > v) f = std::nextafter(f, -INFINITY);
  return f;
}
double round_up(double v) {
  float f = static_cast<float>(v);
  if (static_cast<double>(f) < v) f = std::nextafter(f, INFINITY);
  return f;
}

// True when the box had to grow to become float32.
bool to_float32(Box* b, int dims) {
  bool grew = false;
  for (int k = 0; k < dims; ++k) {
    const double lo = round_down(b->lo[k]), hi = round_up(b->hi[k]);
    grew |= lo != b->lo[k] || hi != b->hi[k];
    b->lo[k] = lo;
    b->hi[k] = hi;
  }
  return grew;
}

double clamp_extent(double v) {
  return std::fmin(std::fmax(v, 0.0), kExtent);
}

Box around(const double* centre, const double* side, int dims) {
  Box b;
  for (int k = 0; k < dims; ++k) {
    b.lo[k] = centre[k] - side[k] / 2;
    b.hi[k] = centre[k] + side[k] / 2;
  }
  return b;
}

std::vector<Box> generate_parcels(Rng& rng, uint64_t n, int dims, bool points) {
  std::deque<Box> parcels;
  Box all;
  for (int k = 0; k < dims; ++k) all.hi[k] = kExtent;
  parcels.push_back(all);
  // First in, first out: the biggest parcels are cut first, so sizes stay
  // within a small factor of each other, as in a land register.
  while (parcels.size() < n) {
    Box b = parcels.front();
    parcels.pop_front();
    int axis = 0;
    for (int k = 1; k < dims; ++k)
      if (b.hi[k] - b.lo[k] > b.hi[axis] - b.lo[axis]) axis = k;
    const double cut = b.lo[axis] + (b.hi[axis] - b.lo[axis]) * rng.uniform(0.3, 0.7);
    Box left = b, right = b;
    left.hi[axis] = cut;
    right.lo[axis] = cut;
    parcels.push_back(left);
    parcels.push_back(right);
  }
  std::vector<Box> out;
  out.reserve(n);
  for (const Box& p : parcels) {
    double centre[kMaxDims], side[kMaxDims] = {0, 0, 0};
    for (int k = 0; k < dims; ++k) {
      centre[k] = (p.lo[k] + p.hi[k]) / 2;
      if (!points) side[k] = (p.hi[k] - p.lo[k]) * rng.uniform(0.5, 1.0);
    }
    out.push_back(around(centre, side, dims));
  }
  // Cutting order says where a parcel is; entries arrive in random order.
  for (size_t i = out.size(); i > 1; --i) std::swap(out[i - 1], out[rng.below(i)]);
  return out;
}

std::string generate(const Args& a, Workload* w) {
  Rng rng(a.seed);
  const bool points = a.kind == "points";
  if (!points && a.kind != "boxes") return "--kind must be boxes or points";
  const int d = a.dims;
  const double s = kExtent * std::pow(static_cast<double>(a.n), -1.0 / d);
  std::vector<Box> boxes;
  boxes.reserve(a.n);

  if (a.dist == "parcel") {
    boxes = generate_parcels(rng, a.n, d, points);
  } else if (a.dist == "uniform" || a.dist == "clustered" || a.dist == "diagonal") {
    struct Cluster {
      double centre[kMaxDims];
      double sigma;
    };
    std::vector<Cluster> clusters;
    if (a.dist == "clustered") {
      const uint64_t c = std::min<uint64_t>(std::max<uint64_t>(a.n / 10000, 10), 1000);
      for (uint64_t i = 0; i < c; ++i) {
        Cluster cl{};
        for (int k = 0; k < d; ++k) cl.centre[k] = rng.uniform(0.05, 0.95) * kExtent;
        cl.sigma = rng.uniform(0.002, 0.02) * kExtent;
        clusters.push_back(cl);
      }
    }
    const double max_side = a.dist == "uniform" ? 2 * s : s / 2;
    for (uint64_t i = 0; i < a.n; ++i) {
      double centre[kMaxDims] = {0, 0, 0}, side[kMaxDims] = {0, 0, 0};
      if (a.dist == "uniform") {
        for (int k = 0; k < d; ++k) centre[k] = rng.uniform() * kExtent;
      } else if (a.dist == "clustered") {
        const Cluster& cl = clusters[rng.below(clusters.size())];
        for (int k = 0; k < d; ++k)
          centre[k] = clamp_extent(cl.centre[k] + cl.sigma * rng.normal());
      } else {
        const double t = rng.uniform() * kExtent;
        for (int k = 0; k < d; ++k) centre[k] = clamp_extent(t + 0.01 * kExtent * rng.normal());
      }
      if (!points)
        for (int k = 0; k < d; ++k) side[k] = rng.uniform() * max_side;
      boxes.push_back(around(centre, side, d));
    }
  } else {
    return "--dist must be uniform, clustered, diagonal or parcel";
  }

  w->dims = d;
  w->entries.reserve(boxes.size());
  for (size_t i = 0; i < boxes.size(); ++i) {
    to_float32(&boxes[i], d);
    w->entries.push_back(Entry{static_cast<int64_t>(i + 1), boxes[i]});
  }
  if (w->name.empty())
    w->name = a.dist + " " + a.kind + " " + std::to_string(d) + "-D, " + std::to_string(a.n);
  return "";
}

// Real data: "id,minx,miny,maxx,maxy" or the 3-D form with 7 columns.
std::string load_csv(const Args& a, Workload* w, bool* missing) {
  FILE* probe = std::fopen(a.csv.c_str(), "rb");
  if (probe == nullptr) {
    *missing = true;
    return "real data set " + a.csv + " not found; skipped";
  }
  std::fclose(probe);
  const std::string cmd = "gzip -dc '" + a.csv + "'";
  FILE* in = popen(cmd.c_str(), "r");
  if (in == nullptr) return a.csv + ": cannot run gzip";
  char line[1024];
  uint64_t line_no = 0, grew = 0;
  int dims = 0;
  std::string err;
  while (std::fgets(line, sizeof line, in) != nullptr) {
    ++line_no;
    if (a.limit != 0 && w->entries.size() >= a.limit) break;
    double v[7];
    int cols = 0;
    char* p = line;
    while (cols < 7) {
      char* end = nullptr;
      v[cols] = std::strtod(p, &end);
      if (end == p) break;
      ++cols;
      p = end;
      if (*p != ',') break;
      ++p;
    }
    const int d = cols == 5 ? 2 : cols == 7 ? 3 : 0;
    if (d == 0 || (dims != 0 && d != dims)) {
      err = a.csv + ":" + std::to_string(line_no) + ": expected 5 or 7 numeric columns";
      break;
    }
    dims = d;
    Entry e;
    e.id = static_cast<int64_t>(v[0]);
    for (int k = 0; k < d; ++k) {
      e.box.lo[k] = v[1 + k];
      e.box.hi[k] = v[1 + d + k];
    }
    grew += to_float32(&e.box, d);
    w->entries.push_back(e);
  }
  pclose(in);
  if (!err.empty()) return err;
  if (w->entries.empty()) return a.csv + ": no rows";
  w->dims = dims;
  if (w->name.empty()) {
    std::string base = a.csv.substr(a.csv.find_last_of('/') + 1);
    base = base.substr(0, base.find(".csv"));
    w->name = base + " " + std::to_string(dims) + "-D, " + std::to_string(w->entries.size());
  }
  if (grew > 0)
    std::fprintf(stderr, "%s: %llu boxes widened to float32 bounds\n", a.csv.c_str(),
                 static_cast<unsigned long long>(grew));
  return "";
}

std::string make_queries(const Args& a, Workload* w) {
  Rng rng(a.seed ^ 0x5157u);
  const int d = w->dims;
  Box ext = w->entries[0].box;
  for (const Entry& e : w->entries)
    for (int k = 0; k < d; ++k) {
      ext.lo[k] = std::fmin(ext.lo[k], e.box.lo[k]);
      ext.hi[k] = std::fmax(ext.hi[k], e.box.hi[k]);
    }
  const char* p = a.queries.c_str();
  size_t verify = 0;
  double verify_gap = INFINITY;
  while (*p != '\0') {
    char* end = nullptr;
    const double sel = std::strtod(p, &end);
    if (end == p || *end != ':' || !(sel > 0 && sel <= 1)) return "--queries: want SEL:COUNT,...";
    p = end + 1;
    const unsigned long long count = std::strtoull(p, &end, 10);
    if (end == p) return "--queries: want SEL:COUNT,...";
    p = *end == ',' ? end + 1 : end;
    QuerySet set;
    set.selectivity = sel;
    const double scale = std::pow(sel, 1.0 / d);
    for (unsigned long long i = 0; i < count; ++i) {
      const Box& at = w->entries[rng.below(w->entries.size())].box;
      Box q;
      for (int k = 0; k < d; ++k) {
        const double centre = (at.lo[k] + at.hi[k]) / 2;
        const double half = (ext.hi[k] - ext.lo[k]) * scale / 2;
        q.lo[k] = static_cast<float>(centre - half);
        q.hi[k] = static_cast<float>(centre + half);
      }
      set.boxes.push_back(q);
    }
    // The 0.01% set is rerun after the deletes: small enough to be quick,
    // large enough to notice a missing or extra entry.
    const double gap = std::fabs(std::log(sel / 1e-4));
    if (gap < verify_gap) {
      verify_gap = gap;
      verify = w->sets.size();
    }
    w->sets.push_back(std::move(set));
  }
  w->verify_set = static_cast<uint32_t>(verify);

  const uint64_t n = w->entries.size();
  std::vector<uint64_t> order(n);
  for (uint64_t i = 0; i < n; ++i) order[i] = i;
  const uint64_t k = static_cast<uint64_t>(a.deletes * static_cast<double>(n));
  for (uint64_t i = 0; i < k; ++i) std::swap(order[i], order[i + rng.below(n - i)]);
  w->deletes.assign(order.begin(), order.begin() + static_cast<ptrdiff_t>(k));
  return "";
}

std::string make_nearest(const Args& a, Workload* w) {
  Rng rng(a.seed ^ 0x4e4eu);  // a stream of its own: the other queries stay as they were
  const char* p = a.nearest.c_str();
  while (*p != '\0') {
    char* end = nullptr;
    const unsigned long k = std::strtoul(p, &end, 10);
    if (end == p || *end != ':' || k == 0 || k > 1000000) return "--nearest: want K:COUNT,...";
    p = end + 1;
    const unsigned long long count = std::strtoull(p, &end, 10);
    if (end == p) return "--nearest: want K:COUNT,...";
    p = *end == ',' ? end + 1 : end;
    NearestSet set;
    set.k = static_cast<uint32_t>(k);
    for (unsigned long long i = 0; i < count; ++i) {
      const Box& at = w->entries[rng.below(w->entries.size())].box;
      Box q;
      for (int d = 0; d < w->dims; ++d)
        q.lo[d] = q.hi[d] = static_cast<float>((at.lo[d] + at.hi[d]) / 2);
      set.points.push_back(q);
    }
    w->nearest.push_back(std::move(set));
  }
  return "";
}

int usage() {
  std::fprintf(stderr,
               "usage: bench_gen --out FILE [--name LABEL]\n"
               "         (--dist uniform|clustered|diagonal|parcel [--kind boxes|points]\n"
               "          [--dims 2|3] [--n N] [--seed S]\n"
               "         | --csv FILE.csv.gz [--limit N])\n"
               "         [--queries SEL:COUNT,...] [--nearest K:COUNT,...] [--deletes FRACTION]\n");
  return 2;
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using namespace zqbench;
  Args a;
  for (int i = 1; i < argc; ++i) {
    const std::string key = argv[i];
    if (i + 1 >= argc) return usage();
    const char* v = argv[++i];
    if (key == "--out")
      a.out = v;
    else if (key == "--dist")
      a.dist = v;
    else if (key == "--kind")
      a.kind = v;
    else if (key == "--csv")
      a.csv = v;
    else if (key == "--name")
      a.name = v;
    else if (key == "--dims")
      a.dims = std::atoi(v);
    else if (key == "--n")
      a.n = std::strtoull(v, nullptr, 10);
    else if (key == "--limit")
      a.limit = std::strtoull(v, nullptr, 10);
    else if (key == "--seed")
      a.seed = std::strtoull(v, nullptr, 10);
    else if (key == "--queries")
      a.queries = v;
    else if (key == "--nearest")
      a.nearest = v;
    else if (key == "--deletes")
      a.deletes = std::atof(v);
    else
      return usage();
  }
  if (a.out.empty() || (a.csv.empty() && (a.dims < 2 || a.dims > 3 || a.n == 0)) ||
      !(a.deletes >= 0 && a.deletes <= 1))
    return usage();

  Workload w;
  w.name = a.name;
  bool missing = false;
  std::string err = a.csv.empty() ? generate(a, &w) : load_csv(a, &w, &missing);
  if (err.empty()) err = make_queries(a, &w);
  if (err.empty()) err = make_nearest(a, &w);
  if (err.empty()) err = write_workload(a.out, w);
  if (!err.empty()) {
    std::fprintf(stderr, "bench_gen: %s\n", err.c_str());
    return missing ? kExitMissing : 1;
  }
  std::fprintf(stderr, "bench_gen: %s -> %s\n", w.name.c_str(), a.out.c_str());
  return 0;
}
