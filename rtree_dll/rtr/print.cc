// Debug print: a subtree as indented text on standard output, through the
// engine's formatted print.
//
// Call order: rtr_print(node 1, depth 0) prints a node's header and then each
// cell, recursing into a branch cell's child right below its line.
#include "zqrtree/cursor.h"

namespace {

constexpr uint32_t kMaxIndent = 148;

// One text of 149 spaces; indentation points into its tail.
struct Spaces {
  char text[kMaxIndent + 2];
  constexpr Spaces() : text{} {
    for (uint32_t i = 0; i < kMaxIndent + 1; ++i) text[i] = ' ';
  }
};
constexpr Spaces kSpaces;

}  // namespace

extern "C" const char* rtr_get_space(uint32_t depth) {
  uint64_t width = 2ull * depth;
  if (width > kMaxIndent) width = kMaxIndent;  // never below the text's second character
  return kSpaces.text + (kMaxIndent + 1) - width;
}

extern "C" int32_t rtr_print(zq_env* env, void* stream, int64_t node_id, uint32_t depth,
                             rtr_mem* rtr) {
  // The acquire's code is not examined and the node is never released: every
  // node printed stays pinned for the handle's life. Intended for this
  // diagnostic, which is only used on trees whose nodes can all be read.
  rtr_node* node = nullptr;
  rtr_node_acquire(env, rtr, node_id, &node);
  if (node == nullptr) return 0;
  const char* indent = rtr_get_space(depth);
  aq_fprintf_inner(stream, "\n%sid:%lld, level:%d, n_cells:%d:\n", indent,
                   static_cast<long long>(node->id), static_cast<int>(node->level),
                   static_cast<int>(node->n_cells));
  for (uint32_t i = 0; i < node->n_cells; ++i) {
    const rtr_cell& c = node->cells[i];
    aq_fprintf_inner(stream, "%sno:%d, id(rowid):%lld, (%f, %f), (%f, %f)\n", indent,
                     static_cast<int>(i), static_cast<long long>(c.id), c.rect.min0, c.rect.min1,
                     c.rect.max0, c.rect.max1);
    if (node->level != 0) rtr_print(env, stream, c.id, depth + 1, rtr);
  }
  return 0;
}
