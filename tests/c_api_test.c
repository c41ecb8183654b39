/* The public surface compiled as C: builds a small index through the
 * exported functions only and checks what a search returns. Keeps the ABI
 * plain (no C++ types or name mangling can creep into the headers). */
#include <stdio.h>
#include <string.h>

#include "host/host.h"
#include "zqrtree/zqrtree.h"

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                                                \
    }                                                                          \
  } while (0)

static rtr_cell make_cell(int64_t id, double x0, double y0, double x1, double y1) {
  rtr_cell c;
  memset(&c, 0, sizeof c);
  c.id = id;
  c.rect.min0 = x0;
  c.rect.min1 = y0;
  c.rect.max0 = x1;
  c.rect.max1 = y1;
  return c;
}

int main(void) {
  int32_t code = 0;
  zq_env* env;
  zq_session* sess;
  zq_index index = {"c_api", NULL, NULL, NULL};
  rtr_mem* rtr = NULL;
  rcur cur;
  rnn nn;
  static const int64_t near_ids[5] = {43, 23, 42, 44, 63};
  rtr_rect q;
  int hits = 0;
  int64_t sum = 0;
  int i;

  rtr_hook_init(zqhost_get_row_tag, zqhost_rec_is_visible, zqhost_rec_read_visible_version,
                zqhost_row_delete, zqhost_row_insert, zqhost_row_update_fixed,
                zqhost_row_update_unfixed, NULL, NULL, NULL, zqhost_row_insert_failed, NULL);
  CHECK(rtr_global_hook_get()->row_insert == zqhost_row_insert);

  env = zqenv_create();
  sess = zqsess_open(env, ":memory:", &code);
  CHECK(sess != NULL);
  CHECK(zqsess_create_node_table(sess, "main", "c_api") == 0);

  /* An empty index is one empty leaf at rowid 1, as a bulk load of nothing. */
  CHECK(rtr_mem_create_for_bld(env, sess, 2, zqsess_scope(sess, "main"), &index, &rtr) == 0);
  CHECK(rtr_blkload(env, NULL, rtr, NULL, 0, 1.0) == 0);
  rtr_mem_destroy(env, rtr);

  CHECK(rtr_mem_create(env, sess, 2, zqsess_scope(sess, "main"), &index, 0, &rtr) == 0);
  /* 200 unit squares on a 20 x 10 grid: enough for several splits. */
  for (i = 0; i < 200; ++i) {
    rtr_cell c = make_cell(i + 1, i % 20, i / 20, i % 20 + 1, i / 20 + 1);
    CHECK(rtr_insert(env, rtr, &c) == 0);
  }
  CHECK(rtr_flush_all(env, rtr) == 0);
  rtr_mem_destroy(env, rtr);

  CHECK(rtr_mem_create(env, sess, 2, zqsess_scope(sess, "main"), &index, 1, &rtr) == 0);
  memset(&q, 0, sizeof q);
  q.min0 = 2.5;
  q.min1 = 2.5;
  q.max0 = 4.5;
  q.max1 = 3.5; /* strictly inside x in [2,5), y in [2,4): 3 columns x 2 rows */
  rcur_init(&cur, rtr, RTR_OP_INTERSECT);
  CHECK(rcur_open(env, &cur, &q) == 0);
  while (!rcur_is_end(&cur)) {
    rtr_cell hit;
    CHECK(rcur_column(env, &cur, &hit) == 0);
    ++hits;
    sum += hit.id;
    CHECK(rcur_next(env, &cur) == 0);
  }

  /* Nearest to (2.5, 2.5): its own square, then the four at 0.5 by rowid. */
  rnn_init(&nn, rtr, 0);
  q.min0 = q.max0 = q.min1 = q.max1 = 2.5;
  CHECK(rnn_open(env, &nn, &q, RNN_NO_LIMIT) == 0);
  for (i = 0; i < 5; ++i) {
    rtr_cell hit;
    double d2 = -1;
    CHECK(!rnn_is_end(&nn) && rnn_column(env, &nn, &hit, &d2) == 0);
    CHECK(hit.id == near_ids[i] && d2 == (i == 0 ? 0.0 : 0.25));
    CHECK(rnn_next(env, &nn) == 0);
  }
  rnn_close(env, &nn);
  rtr_mem_destroy(env, rtr);
  /* Squares (x, y) with x in {2,3,4}, y in {2,3}: id = y * 20 + x + 1. */
  CHECK(hits == 6);
  CHECK(sum == (43 + 44 + 45) + (63 + 64 + 65));

  zqsess_close(sess);
  zqenv_destroy(env);
  printf("c_api: %d hits\n", hits);
  return 0;
}
