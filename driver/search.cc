// Searches: a reading-mode handle and the library's cursor (rcur_init ->
// rcur_open -> rcur_column / rcur_next until rcur_is_end). The cursor tests
// the first two axes only, so every hit is rechecked with the library's leaf
// test on all of the index's axes before it is delivered.
#include "driver/index.h"
#include "driver/internal.h"
#include "zqrtree/cursor.h"

namespace zq {

struct Scan::CursorBox {
  rcur cur;
};

Scan::Scan(const Index& index) : index_(&index), cur_(new CursorBox{}) {}

Scan::~Scan() {
  close();
}

void Scan::close() {
  if (rtr_ != nullptr && owned_) rtr_mem_destroy(index_->database()->env(), rtr_);
  rtr_ = nullptr;
  at_end_ = true;
}

Status Scan::open(uint32_t op, const Box& query) {
  close();
  if (std::string p = box_problem(query, index_->dims()); !p.empty())
    return Status::invalid("search box: " + p);
  Database& db = *index_->database();
  zqenv_err_clear(db.env());
  {
    detail::Handle handle(*index_, detail::Handle::Mode::kRead);
    if (!handle.created()) return handle.created();
    rtr_ = handle.release();  // the scan owns it from here until close()
  }
  owned_ = true;
  return start(op, query);
}

Status Scan::open(uint32_t op, const Box& query, rtr_mem* borrowed) {
  close();
  if (std::string p = box_problem(query, index_->dims()); !p.empty())
    return Status::invalid("search box: " + p);
  zqenv_err_clear(index_->database()->env());
  rtr_ = borrowed;
  owned_ = false;
  return start(op, query);
}

Status Scan::start(uint32_t op, const Box& query) {
  Database& db = *index_->database();
  op_ = op;
  query_ = query;
  rcur_init(&cur_->cur, rtr_, op);
  const rtr_rect rect = to_rect(query);
  const int32_t rc = rcur_open(db.env(), &cur_->cur, &rect);
  if (rc < 0) {
    close();
    return detail::engine_failure(db, rc, "searching index '" + index_->name() + "'");
  }
  at_end_ = false;
  return settle();
}

Status Scan::next() {
  if (at_end_) return Status::ok();
  Database& db = *index_->database();
  const int32_t rc = rcur_next(db.env(), &cur_->cur);
  if (rc < 0) {
    close();
    return detail::engine_failure(db, rc, "searching index '" + index_->name() + "'");
  }
  return settle();
}

Status Scan::settle() {
  Database& db = *index_->database();
  while (rcur_is_end(&cur_->cur) == 0) {
    rtr_cell cell;
    int32_t rc = rcur_column(db.env(), &cur_->cur, &cell);
    if (rc < 0) {
      close();
      return detail::engine_failure(db, rc, "reading a hit of index '" + index_->name() + "'");
    }
    entry_ = Entry{cell.id, from_rect(cell.rect, index_->dims())};
    // The cursor's own test covers two axes: only a third needs a second look.
    if (index_->dims() < 3 || op_matches(op_, entry_.box, query_, index_->dims()))
      return Status::ok();
    rc = rcur_next(db.env(), &cur_->cur);
    if (rc < 0) {
      close();
      return detail::engine_failure(db, rc, "searching index '" + index_->name() + "'");
    }
  }
  at_end_ = true;
  return Status::ok();
}

Status Index::query(uint32_t op, const Box& query,
                    const std::function<bool(const Entry&)>& visit) const {
  // A search is a user operation too: one transaction gives it one snapshot.
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  Scan scan(*this);
  Status s = scan.open(op, query);
  while (s && !scan.at_end()) {
    if (!visit(scan.entry())) break;
    s = scan.next();
  }
  if (!s) return s;
  scan.close();
  return txn.commit();
}

}  // namespace zq
