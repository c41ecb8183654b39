/* An engine of the smallest kind: the SQLite host from an installed
 * libzqrtree keeps a 10 x 10 grid of unit squares in an index, and a window
 * search finds the four around a point. Built with CMake
 * (find_package(zqrtree)) or with `cc main.c $(pkg-config --cflags --libs
 * zqrtree)`. Exits 0 when the answer is right. */
#include <stdio.h>
#include <string.h>

#include "host/host.h"
#include "zqrtree/zqrtree.h"

int main(void) {
  int32_t code = 0;
  zq_index index = {"grid", NULL, NULL, NULL};
  rtr_mem* rtr = NULL;
  rcur cur;
  rtr_rect window;
  int hits = 0;

  rtr_hook_init(zqhost_get_row_tag, zqhost_rec_is_visible, zqhost_rec_read_visible_version,
                zqhost_row_delete, zqhost_row_insert, zqhost_row_update_fixed,
                zqhost_row_update_unfixed, NULL, NULL, NULL, zqhost_row_insert_failed, NULL);
  zq_env* env = zqenv_create();
  zq_session* sess = zqsess_open(env, ":memory:", &code);
  if (sess == NULL || zqsess_create_node_table(sess, "main", "grid") != 0) return 1;

  /* An empty tree is a bulk load of nothing; then the squares go in. */
  if (rtr_mem_create_for_bld(env, sess, 2, zqsess_scope(sess, "main"), &index, &rtr) != 0 ||
      rtr_blkload(env, NULL, rtr, NULL, 0, 1.0) != 0)
    return 1;
  rtr_mem_destroy(env, rtr);
  if (rtr_mem_create(env, sess, 2, zqsess_scope(sess, "main"), &index, 0, &rtr) != 0) return 1;
  for (int i = 0; i < 100; ++i) {
    rtr_cell c;
    memset(&c, 0, sizeof c);
    c.id = i + 1;
    c.rect.min0 = i % 10;
    c.rect.min1 = i / 10;
    c.rect.max0 = i % 10 + 1;
    c.rect.max1 = i / 10 + 1;
    if (rtr_insert(env, rtr, &c) != 0) return 1;
  }
  if (rtr_flush_all(env, rtr) != 0) return 1;
  rtr_mem_destroy(env, rtr);

  /* The point (5, 5), as a box: the four squares that touch it. */
  memset(&window, 0, sizeof window);
  window.min0 = window.max0 = 5;
  window.min1 = window.max1 = 5;
  if (rtr_mem_create(env, sess, 2, zqsess_scope(sess, "main"), &index, 1, &rtr) != 0) return 1;
  rcur_init(&cur, rtr, RTR_OP_INTERSECT);
  for (code = rcur_open(env, &cur, &window); code == 0 && !rcur_is_end(&cur);
       code = rcur_next(env, &cur))
    ++hits;
  rtr_mem_destroy(env, rtr);
  zqsess_close(sess);
  zqenv_destroy(env);
  printf("consumer: %d squares touch (5, 5)\n", hits);
  return code == 0 && hits == 4 ? 0 : 1;
}
