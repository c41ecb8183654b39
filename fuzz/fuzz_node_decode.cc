// libFuzzer target: the library's node-row decoding. The library trusts rows
// (validation is the checker's job), so the input is shaped into a row of
// well-formed length — 4 + n*E bytes with n in its count field — while the
// entries' bytes, the count (also above the node's capacity), the level and
// the parent are arbitrary. A decoded node that fits must pack back to the
// very same bytes, and a two-axis row read by a 3-D index gets an unbounded
// third axis.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "driver/default_hooks.h"
#include "host/host.h"
#include "zqrtree/hook.h"
#include "zqrtree/phy.h"

namespace {

struct Setup {
  zq_env* env = nullptr;
  zq_session* sess = nullptr;
  zq_index index{"t", nullptr, nullptr, nullptr};
  rtr_mem* rtr[4] = {};  // a handle per dimension count 1..3

  Setup() {
    zq_install_default_hooks();
    env = zqenv_create();
    int32_t code = 0;
    sess = zqsess_open(env, ":memory:", &code);
    if (sess == nullptr || zqsess_create_node_table(sess, "main", "t") != 0) std::abort();
    for (uint16_t d = 1; d <= 3; ++d)
      if (rtr_mem_create(env, sess, d, zqsess_scope(sess, "main"), &index, 0, &rtr[d]) != 0)
        std::abort();
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Setup s;
  if (size < 14) return 0;
  const uint16_t d = 1 + data[0] % 3;
  // A 3-D index also reads rows written with two axes.
  const bool two_axis_row = d == 3 && (data[0] & 0x80) != 0;
  const uint32_t n = data[1] % (RTR_MAX_CELLS + 8);
  uint32_t level = 0;
  int64_t parent = 0;
  std::memcpy(&level, data + 2, 4);
  std::memcpy(&parent, data + 6, 8);
  data += 14;
  size -= 14;
  const uint32_t entry = (2 * (two_axis_row ? 2 : d) + 1) * 8;
  std::vector<uint8_t> blob(4 + n * entry, 0);
  std::memcpy(blob.data(), &n, 4);
  std::memcpy(blob.data() + 4, data, std::min(size, blob.size() - 4));

  rtr_node* node = nullptr;
  const int32_t rc = rtr_node_create_ex(s.env, s.rtr[d], 1, level, parent, blob.data(),
                                        static_cast<uint32_t>(blob.size()), &node);
  if (rc < 0) {
    zqenv_err_clear(s.env);
    return 0;
  }
  if (node->n_cells != n || node->level != level || node->parent_id != parent) std::abort();
  if (two_axis_row) {
    for (uint32_t i = 0; i < std::min<uint32_t>(n, RTR_MAX_CELLS); ++i)
      if (node->cells[i].rect.min2 != -INFINITY || node->cells[i].rect.max2 != INFINITY)
        std::abort();
  } else if (n <= RTR_MAX_CELLS) {
    std::vector<uint8_t> again(RTR_BLOB_MAX);
    uint32_t len = 0;
    if (rtr_cells_pack(s.env, d, node, again.data(), &len) != 0 || len != blob.size() ||
        std::memcmp(again.data(), blob.data(), len) != 0)
      std::abort();
  }
  rtr_node_destroy(s.rtr[d], node);
  return 0;
}
