// libspatialindex's R*-tree through its public C++ API: memory or disk
// storage, built by R* insertion or by its STR bulk load. Node capacity is
// 51 like ours, so fan-out is not what differs; --fill (default 0.7, the
// driver's default) is the STR fill and the R* minimum fill alike.
#include <spatialindex/SpatialIndex.h>

#include <memory>

#include "bench/common/runner.h"

namespace zqbench {
namespace {

namespace si = SpatialIndex;

constexpr uint32_t kCapacity = 51;
constexpr uint32_t kPageSize = 4096;

si::Region region(const Box& b, int dims) {
  return si::Region(b.lo, b.hi, dims);
}

// Hands the entries to the bulk load in workload order; the loader owns
// each object it is given.
class EntryStream : public si::IDataStream {
 public:
  explicit EntryStream(const Workload& w) : w_(w) {}
  si::IData* getNext() override {
    if (pos_ >= w_.entries.size()) return nullptr;
    const Entry& e = w_.entries[pos_++];
    si::Region r = region(e.box, w_.dims);
    return new si::RTree::Data(0, nullptr, r, e.id);
  }
  bool hasNext() override { return pos_ < w_.entries.size(); }
  uint32_t size() override { return static_cast<uint32_t>(w_.entries.size()); }
  void rewind() override { pos_ = 0; }

 private:
  const Workload& w_;
  size_t pos_ = 0;
};

class HitVisitor : public si::IVisitor {
 public:
  explicit HitVisitor(Hits* hits) : hits_(hits) {}
  void visitNode(const si::INode&) override {}
  void visitData(const si::IData& d) override { hits_->add(d.getIdentifier()); }
  void visitData(std::vector<const si::IData*>& v) override {
    for (const si::IData* d : v) hits_->add(d->getIdentifier());
  }

 private:
  Hits* hits_;
};

// The entries of a nearest-neighbour answer with their boxes. The R-tree
// hands out its own Data records, whose region is read in place; any other
// record is asked for a copy of its shape.
class NeighbourVisitor : public si::IVisitor {
 public:
  NeighbourVisitor(std::vector<Entry>* out, int dims) : out_(out), dims_(dims) {}
  void visitNode(const si::INode&) override {}
  void visitData(const si::IData& d) override {
    Entry e;
    e.id = d.getIdentifier();
    if (const auto* data = dynamic_cast<const si::RTree::Data*>(&d)) {
      copy(data->m_region, &e.box);
    } else {
      si::IShape* shape = nullptr;
      d.getShape(&shape);
      std::unique_ptr<si::IShape> owned(shape);
      si::Region r;
      shape->getMBR(r);
      copy(r, &e.box);
    }
    out_->push_back(e);
  }
  void visitData(std::vector<const si::IData*>& v) override {
    for (const si::IData* d : v) visitData(*d);
  }

 private:
  void copy(const si::Region& r, Box* b) const {
    for (int k = 0; k < dims_; ++k) {
      b->lo[k] = r.m_pLow[k];
      b->hi[k] = r.m_pHigh[k];
    }
  }
  std::vector<Entry>* out_;
  int dims_;
};

uint64_t reads_so_far(si::ISpatialIndex& index) {
  si::IStatistics* stats = nullptr;
  index.getStatistics(&stats);
  std::unique_ptr<si::IStatistics> owned(stats);
  return stats->getReads();
}

std::string run_body(const Workload& w, const Options& opt, Report& report, bool on_disk,
                     bool bulk) {
  report.version(std::string("libspatialindex ") + SIDX_RELEASE_NAME);
  const double fill = opt.number("fill", 0.7);
  const int dims = w.dims;
  std::string base;
  std::unique_ptr<si::IStorageManager> storage;
  if (on_disk) {
    base = scratch_path(opt, "bench_sidx");
    scratch_path(opt, "bench_sidx.idx");
    scratch_path(opt, "bench_sidx.dat");
    storage.reset(si::StorageManager::createNewDiskStorageManager(base, kPageSize));
  } else {
    storage.reset(si::StorageManager::createNewMemoryStorageManager());
  }

  std::unique_ptr<si::ISpatialIndex> index;
  si::id_type index_id = 0;
  Stopwatch build;
  if (bulk) {
    EntryStream stream(w);
    index.reset(si::RTree::createAndBulkLoadNewRTree(si::RTree::BLM_STR, stream, *storage, fill,
                                                     kCapacity, kCapacity, dims,
                                                     si::RTree::RV_RSTAR, index_id));
  } else {
    index.reset(si::RTree::createNewRTree(*storage, fill, kCapacity, kCapacity, dims,
                                          si::RTree::RV_RSTAR, index_id));
    for (const Entry& e : w.entries) index->insertData(0, nullptr, region(e.box, dims), e.id);
  }
  index->flush();
  const double secs = build.seconds();
  if (bulk) {
    report.value("build_bulk_s", secs);
  } else {
    report.value("build_incr_s", secs);
    report.value("insert_per_s", secs > 0 ? w.entries.size() / secs : 0);
  }
  if (on_disk)
    report.value("size_bytes",
                 static_cast<double>(file_bytes(base + ".idx") + file_bytes(base + ".dat")));

  auto query = [&](const Box& q, Hits* hits) {
    HitVisitor v(hits);
    index->intersectsWithQuery(region(q, dims), v);
    return std::string();
  };
  std::string err = run_query_sets(w, report, query);
  // libspatialindex gives, besides the k nearest, every further entry at
  // the k-th distance.
  if (err.empty())
    err = run_nearest_sets(w, report, Ties::kAll,
                           [&](const Box& p, uint32_t k, std::vector<Entry>* out) {
                             NeighbourVisitor v(out, dims);
                             index->nearestNeighborQuery(k, si::Point(p.lo, dims), v);
                             return std::string();
                           });
  if (!err.empty()) return err;

  for (size_t s = 0; s < w.sets.size(); ++s) {
    const size_t n = std::min<size_t>(w.sets[s].boxes.size(), 1000);
    if (n == 0) continue;
    const uint64_t before = reads_so_far(*index);
    Hits ignored;
    for (size_t i = 0; i < n; ++i) query(w.sets[s].boxes[i], &ignored);
    report.value("nodes_per_q." + std::to_string(s),
                 static_cast<double>(reads_so_far(*index) - before) / n);
  }

  Stopwatch del;
  for (uint64_t pos : w.deletes) {
    const Entry& e = w.entries[pos];
    if (!index->deleteData(region(e.box, dims), e.id))
      return "delete of id " + std::to_string(e.id) + " found nothing";
  }
  index->flush();
  const double del_secs = del.seconds();
  report.value("delete_per_s", del_secs > 0 ? w.deletes.size() / del_secs : 0);
  err = run_verify_set(w, report, query);
  index.reset();
  storage.reset();
  if (on_disk)
    for (const char* suffix : {".idx", ".dat"})
      scratch_path(opt, "bench_sidx" + std::string(suffix));
  return err;
}

std::string run(const Workload& w, const Options& opt, Report& report, bool on_disk, bool bulk) {
  try {
    return run_body(w, opt, report, on_disk, bulk);
  } catch (Tools::Exception& e) {
    return "libspatialindex: " + e.what();
  } catch (std::exception& e) {
    return std::string("libspatialindex: ") + e.what();
  }
}

}  // namespace
}  // namespace zqbench

int main(int argc, char** argv) {
  using zqbench::Options;
  using zqbench::Report;
  using zqbench::Workload;
  auto variant = [](const char* name, const char* label, bool disk, bool bulk) {
    return zqbench::Variant{name, label,
                            [disk, bulk](const Workload& w, const Options& o, Report& r) {
                              return zqbench::run(w, o, r, disk, bulk);
                            }};
  };
  return zqbench::runner_main(
      argc, argv,
      {variant("mem-str", "libspatialindex R* memory, STR bulk", false, true),
       variant("mem-rstar", "libspatialindex R* memory, insert", false, false),
       variant("disk-str", "libspatialindex R* disk, STR bulk", true, true),
       variant("disk-rstar", "libspatialindex R* disk, insert", true, false)});
}
