// Boxes and operators as users write them: conversion to the library's
// rtr_rect, validation with messages that name the offending coordinate, and
// operator names parsed to the library's bits.
#include <charconv>
#include <cmath>
#include <cstring>
#include <string>

#include "driver/index.h"
#include "driver/internal.h"

namespace zq {

rtr_rect to_rect(const Box& box) {
  return rtr_rect{box.min[0], box.min[1], box.min[2], box.max[0], box.max[1], box.max[2]};
}

Box from_rect(const rtr_rect& rect, int dims) {
  Box box;
  const double mins[3] = {rect.min0, rect.min1, rect.min2};
  const double maxs[3] = {rect.max0, rect.max1, rect.max2};
  for (int k = 0; k < dims && k < kMaxDims; ++k) {
    box.min[k] = mins[k];
    box.max[k] = maxs[k];
  }
  return box;
}

std::string detail::number_text(double v) {
  char buf[64];
  auto [end, ec] = std::to_chars(buf, buf + sizeof buf, v);
  return ec == std::errc() ? std::string(buf, end) : std::string("?");
}

std::string box_problem(const Box& box, int dims) {
  for (int k = 0; k < dims; ++k) {
    const std::string axis = std::to_string(k);
    if (!std::isfinite(box.min[k])) return "min" + axis + " is not a finite number";
    if (!std::isfinite(box.max[k])) return "max" + axis + " is not a finite number";
    if (box.min[k] > box.max[k])
      return "min" + axis + " " + detail::number_text(box.min[k]) + " is above max" + axis + " " +
             detail::number_text(box.max[k]);
  }
  for (int k = dims; k < kMaxDims; ++k) {
    if (box.min[k] != 0 || box.max[k] != 0)
      return "axis " + std::to_string(k) + " is set but the index has " + std::to_string(dims) +
             (dims == 1 ? " axis" : " axes");
  }
  return "";
}

std::string name_problem(std::string_view name) {
  if (name.empty()) return "an index name may not be empty";
  if (name.size() > kMaxNameLen)
    return "index name is " + std::to_string(name.size()) + " bytes long; at most " +
           std::to_string(kMaxNameLen) + " are allowed";
  if (name.find('\0') != std::string_view::npos) return "index name holds a NUL byte";
  return "";
}

namespace {

struct OpName {
  const char* name;
  uint32_t bit;
};
constexpr OpName kOpNames[] = {{"intersect", RTR_OP_INTERSECT},
                               {"contains", RTR_OP_CONTAINS},
                               {"within", RTR_OP_WITHIN},
                               {"equal", RTR_OP_EQUAL},
                               {"any", RTR_OP_ANY}};

std::string lower(std::string_view s) {
  std::string out(s);
  for (char& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

}  // namespace

bool parse_op(std::string_view text, bool or_mode, uint32_t* op, std::string* error) {
  uint32_t bits = 0;
  size_t start = 0;
  while (start <= text.size()) {
    size_t bar = text.find('|', start);
    if (bar == std::string_view::npos) bar = text.size();
    const std::string word = lower(text.substr(start, bar - start));
    const OpName* found = nullptr;
    for (const OpName& n : kOpNames)
      if (word == n.name) found = &n;
    if (found == nullptr) {
      *error = "unknown operator '" + word +
               "' (use intersect, contains, within, equal or any, joined with '|')";
      return false;
    }
    bits |= found->bit;
    start = bar + 1;
  }
  *op = bits | (or_mode ? RTR_OP_OR : 0u);
  return true;
}

std::string op_name(uint32_t op) {
  std::string names;
  for (const OpName& n : kOpNames) {
    if ((op & n.bit) == 0) continue;
    if (!names.empty()) names += '|';
    names += n.name;
  }
  if (names.empty()) names = "none";
  return (op & RTR_OP_OR) != 0 ? "or(" + names + ")" : names;
}

bool op_matches(uint32_t op, const Box& entry, const Box& query, int dims) {
  const rtr_rect e = to_rect(entry);
  const rtr_rect q = to_rect(query);
  return rtr_leaf_rect_cmp(&e, &q, static_cast<uint32_t>(dims), op) != 0;
}

namespace detail {

std::string describe_box(const Box& box, int dims) {
  // Appended piece by piece: GCC 12 reads a temporary prepended to by
  // `"[" + text` as an overlapping copy and warns (-Wrestrict) at -O3.
  std::string out;
  for (int k = 0; k < dims; ++k) {
    out += k > 0 ? " x [" : "[";
    out += number_text(box.min[k]);
    out += ", ";
    out += number_text(box.max[k]);
    out += ']';
  }
  return out;
}

}  // namespace detail

}  // namespace zq
