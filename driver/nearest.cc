// Nearest-neighbour searches: a reading-mode handle and the library's
// nearest-neighbour cursor (rnn_init -> rnn_open -> rnn_column / rnn_next
// until rnn_is_end -> rnn_close). The cursor measures every axis of the
// index, so unlike a window search's hits its answers need no second look.
#include "zqrtree/nearest.h"

#include <cfloat>
#include <cmath>

#include "driver/index.h"
#include "driver/internal.h"

namespace zq {

struct NearestScan::Record {
  rnn nn;
};

namespace {

Status validate(const Index& index, const Box& query, const NearestOptions& options) {
  if (std::string p = box_problem(query, index.dims()); !p.empty())
    return Status::invalid("query box: " + p);
  if (!(options.max_distance >= 0))
    return Status::invalid("max distance " + detail::number_text(options.max_distance) +
                           " is not a number of 0 or more");
  return Status::ok();
}

// The library limits squared distances. The square is taken a few units in
// the last place wide, so no entry whose distance comes out at most
// max_distance is dropped by the rounding of the square; settle() then
// applies the exact test to the distance itself.
double squared_limit(double max_distance) {
  if (std::isinf(max_distance)) return RNN_NO_LIMIT;
  return max_distance * max_distance * (1 + 8 * DBL_EPSILON);
}

}  // namespace

NearestScan::NearestScan(const Index& index) : index_(&index), rec_(new Record{}) {
  rnn_init(&rec_->nn, nullptr, 0);
}

NearestScan::~NearestScan() {
  close();
}

void NearestScan::drop_handle() {
  if (rtr_ != nullptr && owned_) rtr_mem_destroy(index_->database()->env(), rtr_);
  rtr_ = nullptr;
  at_end_ = true;
}

void NearestScan::close() {
  drop_handle();
  rnn_close(index_->database()->env(), &rec_->nn);
}

Status NearestScan::open(const Box& query, const NearestOptions& options) {
  drop_handle();
  if (Status s = validate(*index_, query, options); !s) return s;
  zqenv_err_clear(index_->database()->env());
  {
    detail::Handle handle(*index_, detail::Handle::Mode::kRead);
    if (!handle.created()) return handle.created();
    rtr_ = handle.release();  // the search owns it from here until close()
  }
  owned_ = true;
  return start(query, options);
}

Status NearestScan::open(const Box& query, const NearestOptions& options, rtr_mem* borrowed) {
  drop_handle();
  if (Status s = validate(*index_, query, options); !s) return s;
  zqenv_err_clear(index_->database()->env());
  rtr_ = borrowed;
  owned_ = false;
  return start(query, options);
}

Status NearestScan::start(const Box& query, const NearestOptions& options) {
  zq_env* env = index_->database()->env();
  rnn& nn = rec_->nn;
  // The queue's memory is kept from one query to the next on the same
  // handle, as a program asking for the neighbours of many places does.
  if (nn.rtr != rtr_) {
    rnn_close(env, &nn);
    rnn_init(&nn, rtr_, options.max_queue);
  }
  nn.max_queue = options.max_queue != 0 ? options.max_queue : RNN_DEFAULT_MAX_QUEUE;
  options_ = options;
  delivered_ = 0;
  const rtr_rect rect = to_rect(query);
  const int32_t rc = rnn_open(env, &nn, &rect, squared_limit(options.max_distance));
  if (rc < 0) return failure(rc);
  at_end_ = false;
  return settle();
}

Status NearestScan::next() {
  if (at_end_) return Status::ok();
  if (options_.k != 0 && delivered_ >= options_.k) {
    at_end_ = true;
    return Status::ok();
  }
  const int32_t rc = rnn_next(index_->database()->env(), &rec_->nn);
  if (rc < 0) return failure(rc);
  return settle();
}

Status NearestScan::settle() {
  rnn& nn = rec_->nn;
  if (rnn_is_end(&nn) != 0) {
    at_end_ = true;
    return Status::ok();
  }
  rtr_cell cell;
  double dist2 = 0;
  const int32_t rc = rnn_column(index_->database()->env(), &nn, &cell, &dist2);
  if (rc < 0) return failure(rc);
  const double distance = std::sqrt(dist2);
  // Distances only grow from here: the first one past the limit ends it.
  if (distance > options_.max_distance) {
    at_end_ = true;
    return Status::ok();
  }
  neighbour_ = Neighbour{Entry{cell.id, from_rect(cell.rect, index_->dims())}, distance};
  ++delivered_;
  return Status::ok();
}

Status NearestScan::failure(int32_t code) {
  Database& db = *index_->database();
  const std::string what = "nearest-neighbour search of index '" + index_->name() + "'";
  const bool cap = rec_->nn.cap_hit != 0;
  const uint32_t cap_items = rec_->nn.max_queue;
  close();
  if (!cap) return detail::engine_failure(db, code, what);
  zqenv_err_clear(db.env());
  return Status::engine(code, what + " needs more than " + std::to_string(cap_items) +
                                  " nodes and entries queued at once (its queue cap); allow a "
                                  "larger queue, or ask for fewer answers or a shorter max "
                                  "distance");
}

Status Index::nearest(const Box& query, const NearestOptions& options,
                      const std::function<bool(const Neighbour&)>& visit) const {
  // One transaction gives the whole search one snapshot; a read takes no lock.
  detail::UserOp txn(*db_, detail::UserOp::Mode::kRead);
  if (!txn.begun()) return txn.begun();
  NearestScan scan(*this);
  Status s = scan.open(query, options);
  while (s && !scan.at_end()) {
    if (!visit(scan.neighbour())) break;
    s = scan.next();
  }
  if (!s) return s;
  scan.close();
  return txn.commit();
}

}  // namespace zq
