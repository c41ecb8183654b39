// Library handles for the extension's own changes, and engine failures
// turned into messages that carry the error stack.
#include "sqlite_ext/handle.h"

#include <algorithm>

#include "host/host.h"
#include "zqrtree/node.h"

namespace zqext {

zq::Status engine_failure(zq::Database& db, int32_t code, const std::string& what) {
  std::string trace(1024, '\0');
  const size_t need = zqenv_err_format(db.env(), trace.data(), trace.size());
  if (need >= trace.size()) {
    trace.assign(need + 1, '\0');
    zqenv_err_format(db.env(), trace.data(), trace.size());
  }
  trace.resize(std::min(need, trace.size() - 1));
  zqenv_err_clear(db.env());
  while (!trace.empty() && trace.back() == '\n') trace.pop_back();
  std::string msg = what + " failed (code " + std::to_string(code) + ")";
  if (!trace.empty()) msg += "; error stack, innermost first:\n" + trace;
  return zq::Status::engine(code, msg);
}

zq::Status sql_failure(sqlite3* db, const std::string& what) {
  return zq::Status::io(what + ": " + sqlite3_errmsg(db));
}

Handle::Handle(const zq::Index& index, Mode mode) : db_(*index.database()) {
  zq_scope* scope = zqsess_scope(db_.session(), index.schema().c_str());
  // The library reads only the name, to find "MDRT$" + name.
  const zq_index object{index.name().c_str(), nullptr, nullptr, nullptr};
  const auto dims = static_cast<uint16_t>(index.dims());
  const int32_t rc =
      mode == Mode::kBuild
          ? rtr_mem_create_for_bld(db_.env(), db_.session(), dims, scope, &object, &rtr_)
          : rtr_mem_create(db_.env(), db_.session(), dims, scope, &object, 0, &rtr_);
  if (rc < 0) {
    rtr_ = nullptr;
    status_ = engine_failure(db_, rc, "opening index '" + index.name() + "'");
  }
}

Handle::~Handle() {
  if (rtr_ != nullptr) rtr_mem_destroy(db_.env(), rtr_);
}

zq::Status Handle::flush() {
  const int32_t rc = rtr_flush_all(db_.env(), rtr_);
  return rc < 0 ? engine_failure(db_, rc, "writing back the changed nodes") : zq::Status::ok();
}

}  // namespace zqext
