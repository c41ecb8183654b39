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

#include <bit>
#include <cmath>
#include <cstring>
#include <type_traits>

#include "rtr/frame.h"
#include "rtr/geom_inline.h"
#include "rtr/node_hash.h"
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
    // Of the two differences at most one is positive for boxes with min <=
    // max; written as selections so they compile without branches.
    const double above = geom::lo(e, k) - geom::hi(q, k);
    const double below = geom::lo(q, k) - geom::hi(e, k);
    double gap = above > below ? above : below;
    gap = gap > 0.0 ? gap : 0.0;
    sum += gap * gap;
  }
  return sum;
}

// Heap order. Equal distances go by id, so the delivery order of entries at
// one distance is their rowid order, and node reads are reproducible too.
// Queued distances are never NaN nor negative, and such doubles order as
// their bits do: integer compares, which the compiler makes without the
// branches a floating-point compare's unordered case costs.
ZQ_GEOM_INLINE bool key_before(double da, int64_t ia, double db, int64_t ib) {
  const auto a = std::bit_cast<uint64_t>(da);
  const auto b = std::bit_cast<uint64_t>(db);
  return a < b || (a == b && ia < ib);
}
ZQ_GEOM_INLINE bool before(const rnn_node_item& a, const rnn_node_item& b) {
  return key_before(a.dist2, a.node_id, b.dist2, b.node_id);
}
ZQ_GEOM_INLINE bool before(const rnn_entry_item& a, const rnn_entry_item& b) {
  return key_before(a.dist2, a.cell.id, b.dist2, b.cell.id);
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

// Slots for `want` items in a queue, or as many as the cap leaves. The
// slots move to a block at least twice the size; the old block is freed only
// once the copy is made, so a failed allocation leaves the queue as it was.
template <class Item>
int32_t reserve(zq_env* env, const rnn* nn, Item** slots, uint32_t* size, uint32_t n,
                uint64_t want) {
  if (want <= *size) return RTR_OK;
  uint64_t grown = *size == 0 ? kFirstSlots : uint64_t{*size} * 2;
  if (grown < want) grown = want;
  if (grown > nn->max_queue) grown = nn->max_queue;
  if (grown <= *size) return RTR_OK;
  auto* moved = static_cast<Item*>(mem_malloc_ex(env, sizeof(Item) * grown, __FILE__, __LINE__));
  if (moved == nullptr) return RTR_ERR_NO_ROOM;
  if (n != 0) std::memcpy(moved, *slots, sizeof(Item) * n);
  mem_free(env, *slots);
  *slots = moved;
  *size = static_cast<uint32_t>(grown);
  return RTR_OK;
}

// A node the search will likely read next, fetched from memory while the
// current node's cells are queued. Only a hint: the node is found the
// usual way when its turn comes, and the head of its hash chain is most
// often the node itself, as a lookup moves the node it finds to the head.
void prefetch_node(const rtr_mem* rtr, int64_t id) {
  if (rtr->n_cached == 0) return;
  const rtr_node* head = *zqrtree::bucket_of(rtr, id);
  if (head == nullptr) return;
  const char* p = reinterpret_cast<const char*>(head);
  __builtin_prefetch(p);
  __builtin_prefetch(p + 64);
}

// Queues the cells that lie within the limit into one heap. Room for all of
// them is made before the first, so the loop itself only pushes; the cap is
// counted per item, as only the items within the limit take a place. The
// distances come first, so a branch's nearest child is on its way from
// memory while the pushes run.
template <unsigned N, bool kBranch, class Item, class Make>
int32_t queue_cells(zq_env* env, rnn* nn, const rtr_node* node, Item** slots, uint32_t* size,
                    uint32_t* count, Make make) {
  const uint32_t n = node->n_cells < RTR_MAX_CELLS ? node->n_cells : RTR_MAX_CELLS;
  int32_t rc = reserve(env, nn, slots, size, *count, uint64_t{*count} + n);
  if (rc < 0) return rc;
  const rtr_rect* q = &nn->query;
  double d[RTR_MAX_CELLS];
  uint32_t nearest = 0;
  for (uint32_t i = 0; i < n; ++i) {
    d[i] = dist2<N>(&node->cells[i].rect, q);
    if (d[i] < d[nearest]) nearest = i;
  }
  if (kBranch && n != 0) prefetch_node(nn->rtr, node->cells[nearest].id);
  uint32_t room = nn->max_queue - (nn->n_nodes + nn->n_entries);
  const double limit = nn->max_dist2;
  Item* heap = *slots;
  for (uint32_t i = 0; i < n; ++i) {
    // Written so that a NaN distance queues nothing.
    if (!(d[i] <= limit)) continue;
    if (room == 0) {
      nn->cap_hit = 1;
      return RTR_ERR_NO_ROOM;
    }
    --room;
    heap_push(heap, count, make(d[i], node->cells[i]));
  }
  return RTR_OK;
}

// A node is read once per query, from its first cell to its last: asking for
// all its lines up front overlaps their memory latency.
void prefetch_cells(const rtr_node* node) {
  const char* p = reinterpret_cast<const char*>(node->cells);
  const char* end = reinterpret_cast<const char*>(node->cells + node->n_cells);
  for (; p < end; p += 64) __builtin_prefetch(p);
}

// A leaf's cells go to the entry queue, a branch's to the node queue.
template <unsigned N>
int32_t expand(zq_env* env, rnn* nn, const rtr_node* node) {
  prefetch_cells(node);
  if (node->level == 0)
    return queue_cells<N, false>(env, nn, node, &nn->entries, &nn->entries_size, &nn->n_entries,
                                 [](double d, const rtr_cell& c) {
                                   return rnn_entry_item{d, c};
                                 });
  return queue_cells<N, true>(env, nn, node, &nn->nodes, &nn->nodes_size, &nn->n_nodes,
                              [](double d, const rtr_cell& c) {
                                return rnn_node_item{d, c.id};
                              });
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
    // The next node in line, unless one of this node's cells overtakes it.
    if (nn->n_nodes != 0) prefetch_node(nn->rtr, nn->nodes[0].node_id);
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
  int32_t rc = reserve(env, nn, &nn->nodes, &nn->nodes_size, 0, 1);
  if (rc >= 0) {
    heap_push(nn->nodes, &nn->n_nodes, rnn_node_item{0.0, RTR_ROOT_ID});
    rc = advance(env, nn);
  }
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
