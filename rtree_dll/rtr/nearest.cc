// The nearest-neighbour cursor: best-first over a heap of nodes still to read
// and a heap of entries already read, both ordered by squared distance.
//
// Call order: rnn_init -> rnn_open -> (rnn_column -> rnn_next)* until
// rnn_is_end -> rnn_close. rnn_open and rnn_next both end in advance(),
// which reads the nearest node for as long as it is no farther than the
// nearest entry, and otherwise hands out the nearest entry. A node is read
// only when nothing queued can be nearer than what it holds, so the entries
// come out in order of distance however the tree was built.
#include "zqrtree/nearest.h"

#include <cmath>
#include <cstring>
#include <type_traits>

#include "rtr/frame.h"
#include "rtr/geom_inline.h"
#include "zqrtree/node.h"

namespace {

using zqrtree::fail;
namespace geom = zqrtree::geom;

static_assert(std::is_standard_layout_v<rnn>);
static_assert(sizeof(rnn_node_item) == 16);
static_assert(sizeof(rnn_entry_item) == 64);

constexpr uint32_t kFirstSlots = 64;

// The gap between the two intervals on each axis (0 where they meet),
// squared and summed in axis order. Rounding is monotone, so a bounding box
// never comes out farther than a box it contains: that is what lets a node
// be read no later than the first entry under it is due.
template <unsigned N>
ZQ_GEOM_INLINE double dist2(const rtr_rect* e, const rtr_rect* q) {
  double sum = 0.0;
  for (unsigned k = 0; k < N; ++k) {
    double gap = 0.0;
    if (geom::hi(q, k) < geom::lo(e, k)) {
      gap = geom::lo(e, k) - geom::hi(q, k);
    } else if (geom::hi(e, k) < geom::lo(q, k)) {
      gap = geom::lo(q, k) - geom::hi(e, k);
    }
    sum += gap * gap;
  }
  return sum;
}

// Heap order. Equal distances go by id, so the delivery order of entries at
// one distance is their rowid order, and node reads are reproducible too.
ZQ_GEOM_INLINE bool before(const rnn_node_item& a, const rnn_node_item& b) {
  return a.dist2 < b.dist2 || (a.dist2 == b.dist2 && a.node_id < b.node_id);
}
ZQ_GEOM_INLINE bool before(const rnn_entry_item& a, const rnn_entry_item& b) {
  return a.dist2 < b.dist2 || (a.dist2 == b.dist2 && a.cell.id < b.cell.id);
}

template <class Item>
void heap_push(Item* heap, uint32_t* n, const Item& item) {
  uint32_t i = (*n)++;
  while (i > 0) {
    const uint32_t parent = (i - 1) / 2;
    if (!before(item, heap[parent])) break;
    heap[i] = heap[parent];
    i = parent;
  }
  heap[i] = item;
}

template <class Item>
void heap_pop(Item* heap, uint32_t* n) {
  const uint32_t size = --*n;
  if (size == 0) return;
  const Item last = heap[size];
  uint32_t i = 0;
  for (;;) {
    uint32_t child = 2 * i + 1;
    if (child >= size) break;
    if (child + 1 < size && before(heap[child + 1], heap[child])) ++child;
    if (!before(heap[child], last)) break;
    heap[i] = heap[child];
    i = child;
  }
  heap[i] = last;
}

// One more slot in a queue, within the cap. The slots move to a block twice
// the size; the old block is freed only once the copy is made, so a failed
// allocation leaves the queue as it was.
template <class Item>
int32_t make_room(zq_env* env, rnn* nn, Item** slots, uint32_t* size, uint32_t n) {
  if (nn->n_nodes + nn->n_entries >= nn->max_queue) {
    nn->cap_hit = 1;
    return RTR_ERR_NO_ROOM;
  }
  if (n < *size) return RTR_OK;
  uint32_t grown = *size == 0 ? kFirstSlots : *size * 2;
  if (grown > nn->max_queue || grown < *size) grown = nn->max_queue;
  auto* moved = static_cast<Item*>(mem_malloc_ex(env, sizeof(Item) * grown, __FILE__, __LINE__));
  if (moved == nullptr) return RTR_ERR_NO_ROOM;
  if (n != 0) std::memcpy(moved, *slots, sizeof(Item) * n);
  mem_free(env, *slots);
  *slots = moved;
  *size = grown;
  return RTR_OK;
}

int32_t queue_node(zq_env* env, rnn* nn, const rnn_node_item& item) {
  const int32_t rc = make_room(env, nn, &nn->nodes, &nn->nodes_size, nn->n_nodes);
  if (rc < 0) return rc;
  heap_push(nn->nodes, &nn->n_nodes, item);
  return RTR_OK;
}

int32_t queue_entry(zq_env* env, rnn* nn, const rnn_entry_item& item) {
  const int32_t rc = make_room(env, nn, &nn->entries, &nn->entries_size, nn->n_entries);
  if (rc < 0) return rc;
  heap_push(nn->entries, &nn->n_entries, item);
  return RTR_OK;
}

// Queues the node's cells that lie within the limit: a leaf's as entries, a
// branch's as the child nodes to read.
template <unsigned N>
int32_t expand(zq_env* env, rnn* nn, const rtr_node* node) {
  const rtr_rect* q = &nn->query;
  const double limit = nn->max_dist2;
  const uint32_t n = node->n_cells;
  for (uint32_t i = 0; i < n; ++i) {
    const rtr_cell& cell = node->cells[i];
    const double d = dist2<N>(&cell.rect, q);
    // Written so that a NaN distance queues nothing.
    if (!(d <= limit)) continue;
    const int32_t rc = node->level == 0 ? queue_entry(env, nn, rnn_entry_item{d, cell})
                                        : queue_node(env, nn, rnn_node_item{d, cell.id});
    if (rc < 0) return rc;
  }
  return RTR_OK;
}

// A two-axis row is read with its third axis spanning everything (intended,
// for the search); the caller gets entries as the engine side writes them,
// unused axes 0.
void clear_unused_axes(rtr_rect* r, uint32_t n_dims) {
  for (uint32_t k = n_dims; k < 3; ++k) {
    r->*geom::kMin[k] = 0.0;
    r->*geom::kMax[k] = 0.0;
  }
}

// Reads nodes until the nearest queued entry is no farther than every node
// still queued, then stands on it; at the end when both queues are empty. A
// node ties with an entry in the node's favour: an entry of equal distance
// and lower rowid may be under it.
int32_t advance(zq_env* env, rnn* nn) {
  for (;;) {
    if (nn->n_entries != 0 && (nn->n_nodes == 0 || nn->entries[0].dist2 < nn->nodes[0].dist2)) {
      nn->hit = nn->entries[0];
      heap_pop(nn->entries, &nn->n_entries);
      clear_unused_axes(&nn->hit.cell.rect, nn->rtr->n_dims);
      return RTR_OK;
    }
    if (nn->n_nodes == 0) {
      nn->is_end = 1;
      return RTR_OK;
    }
    rtr_node* node = nullptr;
    int32_t rc = rtr_node_acquire(env, nn->rtr, nn->nodes[0].node_id, &node);
    if (rc < 0) return rc;
    heap_pop(nn->nodes, &nn->n_nodes);
    rc = geom::by_dims(nn->rtr->n_dims,
                       [&](auto dims) { return expand<decltype(dims)::value>(env, nn, node); });
    rtr_node_release(node);
    if (rc < 0) return rc;
  }
}

}  // namespace

extern "C" int32_t rnn_init(rnn* nn, rtr_mem* rtr, uint32_t max_queue) {
  std::memset(nn, 0, sizeof(*nn));
  nn->rtr = rtr;
  nn->max_queue = max_queue == 0 ? RNN_DEFAULT_MAX_QUEUE : max_queue;
  nn->max_dist2 = RNN_NO_LIMIT;
  nn->is_end = 1;
  return RTR_OK;
}

extern "C" int32_t rnn_open(zq_env* env, rnn* nn, const rtr_rect* query, double max_dist2) {
  nn->query = *query;
  nn->max_dist2 = max_dist2;
  nn->is_end = 0;
  nn->cap_hit = 0;
  nn->n_nodes = 0;
  nn->n_entries = 0;
  // The root has no box of its own to measure; it is read first in any case.
  int32_t rc = queue_node(env, nn, rnn_node_item{0.0, RTR_ROOT_ID});
  if (rc >= 0) rc = advance(env, nn);
  if (rc < 0) return fail(env, rc, "rnn_open");
  return RTR_OK;
}

extern "C" uint32_t rnn_is_end(const rnn* nn) {
  return nn->is_end;
}

extern "C" int32_t rnn_next(zq_env* env, rnn* nn) {
  if (nn->is_end != 0) return RTR_OK;
  const int32_t rc = advance(env, nn);
  if (rc < 0) return fail(env, rc, "rnn_next");
  return RTR_OK;
}

extern "C" int32_t rnn_column(zq_env* env, const rnn* nn, rtr_cell* cell, double* dist2) {
  // Reading at the end is the caller's error, as with the search cursor.
  if (nn->is_end != 0) return fail(env, RTR_ERR_NOT_FOUND, "rnn_column");
  *cell = nn->hit.cell;
  if (dist2 != nullptr) *dist2 = nn->hit.dist2;
  return RTR_OK;
}

extern "C" double rnn_distance(const rnn* nn) {
  return std::sqrt(nn->hit.dist2);
}

extern "C" void rnn_close(zq_env* env, rnn* nn) {
  mem_free(env, nn->nodes);
  mem_free(env, nn->entries);
  nn->nodes = nullptr;
  nn->entries = nullptr;
  nn->nodes_size = 0;
  nn->entries_size = 0;
  nn->n_nodes = 0;
  nn->n_entries = 0;
  nn->is_end = 1;
}
