/* libzqrtree: the nearest-neighbour cursor, an operation of our own beside the
 * search cursor.
 *
 * Delivers the index's leaf entries in order of increasing distance from a
 * query box (a point is a box with min = max), as many as the caller reads:
 * no count is fixed in advance. Distance is Euclidean over every axis of the
 * index (the handle's n_dims; 0 where the boxes overlap or touch), and equal
 * distances come in ascending rowid order, so a result is fully determined
 * by the tree's entries and the query, whatever the tree's shape.
 *
 * Calling order: rnn_init -> rnn_open -> while !rnn_is_end: rnn_column,
 * rnn_next -> rnn_close. A record may be opened again (a new query, the
 * same handle) without a new rnn_init and keeps its queue memory from one
 * query to the next; rnn_close gives that memory back and must be called on
 * every path once the record has been opened, failures included.
 *
 * Best-first search over two queues, one of nodes still to read and one of
 * entries already read, each keyed by squared distance. A node is read
 * through the node cache only while the cursor works inside rnn_open or
 * rnn_next: the cells it needs are copied into the queues and the node is
 * released before the call returns, so between calls the cursor holds no pin.
 *
 * Memory: the queues come from engine memory (mem_malloc_ex) and never hold
 * more than `max_queue` nodes and entries together, so they never take more
 * than 80 bytes times `max_queue` (16 a node, 64 an entry). A query that
 * would need more fails with RTR_ERR_NO_ROOM and `cap_hit` set: a result is
 * never cut short silently. Entries farther than the query's distance limit are never
 * queued, so a limit keeps a radius search small as well.
 *
 * Failures follow the library's convention: the negative code is pushed once
 * with the function's own name (after the pushes of the cache below it) and
 * returned. After a failure the record may only be opened again or closed.
 * The tree must not change while a record is open on it. */
#ifndef ZQRTREE_NEAREST_H
#define ZQRTREE_NEAREST_H

#include <math.h>
#include <stdint.h>

#include "zqhost/env.h"
#include "zqrtree/geom.h"
#include "zqrtree/mem.h"

#ifdef __cplusplus
extern "C" {
#endif

#define RNN_DEFAULT_MAX_QUEUE (1u << 20) /* nodes and entries waiting together */
#define RNN_NO_LIMIT HUGE_VAL            /* distance limit: every entry qualifies */

typedef struct rnn_node_item {
  double dist2;    /* squared distance of the node's bounding box */
  int64_t node_id; /* the node still to be read */
} rnn_node_item;

typedef struct rnn_entry_item {
  double dist2;  /* squared distance of the entry's box */
  rtr_cell cell; /* rowid and box, copied out of the leaf */
} rnn_entry_item;

typedef struct rnn {
  rtr_mem* rtr;            /* the index handle; not owned */
  rtr_rect query;          /* copied in by rnn_open */
  double max_dist2;        /* entries farther than this are never queued */
  uint32_t max_queue;      /* cap on n_nodes + n_entries */
  uint32_t is_end;         /* 1 once every entry within the limit was delivered */
  uint32_t cap_hit;        /* 1 when the last failure was the cap, not memory */
  uint32_t n_nodes;        /* heap of nodes, nearest first */
  uint32_t nodes_size;     /* slots allocated in `nodes` */
  rnn_node_item* nodes;    /* engine memory; freed by rnn_close */
  uint32_t n_entries;      /* heap of entries, nearest first */
  uint32_t entries_size;   /* slots allocated in `entries` */
  rnn_entry_item* entries; /* engine memory; freed by rnn_close */
  rnn_entry_item hit;      /* the current entry while !is_end */
} rnn;

/* Prepares a record on a handle (reading or writing mode); `max_queue` 0
 * means RNN_DEFAULT_MAX_QUEUE. Allocates nothing; always 0. */
int32_t rnn_init(rnn* nn, rtr_mem* rtr, uint32_t max_queue);
/* Starts a query: stands on the nearest entry within sqrt(max_dist2) of
 * `query`, or at the end. Pass RNN_NO_LIMIT for no limit; entries at exactly
 * the limit qualify. 0, RTR_ERR_NO_ROOM (cap or memory), or a code of the
 * node cache. Queued items of an earlier query are dropped. */
int32_t rnn_open(zq_env* env, rnn* nn, const rtr_rect* query, double max_dist2);
uint32_t rnn_is_end(const rnn* nn);
/* Moves to the next entry, or to the end; at the end it does nothing. */
int32_t rnn_next(zq_env* env, rnn* nn);
/* The current entry and its squared distance (`dist2` may be null); slots
 * of axes beyond the index's dimension count read 0.
 * RTR_ERR_NOT_FOUND (pushed) at the end. */
int32_t rnn_column(zq_env* env, const rnn* nn, rtr_cell* cell, double* dist2);
/* The current entry's Euclidean distance: the square root of its dist2. */
double rnn_distance(const rnn* nn);
/* Frees the queues; the record may be opened again. Safe to repeat. */
void rnn_close(zq_env* env, rnn* nn);

#ifdef __cplusplus
}
#endif

#endif
