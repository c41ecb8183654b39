// The library handle of one user operation: created in reading, writing or
// bulk-build mode, flushed at most once, destroyed on every path.
#include "driver/internal.h"
#include "host/host.h"
#include "zqrtree/mem.h"
#include "zqrtree/node.h"

namespace zq::detail {

Handle::Handle(const Index& index, Mode mode) : index_(index) {
  Database& db = *index.database();
  zq_scope* scope = zqsess_scope(db.session(), index.schema().c_str());
  // The library reads only the index's name, to find "MDRT$" + name.
  const zq_index object{index.name().c_str(), nullptr, nullptr, nullptr};
  const uint16_t dims = static_cast<uint16_t>(index.dims());
  int32_t rc = 0;
  if (mode == Mode::kBuild)
    rc = rtr_mem_create_for_bld(db.env(), db.session(), dims, scope, &object, &rtr_);
  else
    rc = rtr_mem_create(db.env(), db.session(), dims, scope, &object, mode == Mode::kRead ? 1 : 0,
                        &rtr_);
  if (rc < 0) {
    rtr_ = nullptr;
    created_ = engine_failure(db, rc, "opening index '" + index.name() + "'");
  }
}

Handle::~Handle() {
  if (rtr_ != nullptr) rtr_mem_destroy(index_.database()->env(), rtr_);
}

Status Handle::flush() {
  const int32_t rc = rtr_flush_all(index_.database()->env(), rtr_);
  if (rc < 0) return engine_failure(*index_.database(), rc, "writing back the changed nodes");
  return Status::ok();
}

}  // namespace zq::detail
