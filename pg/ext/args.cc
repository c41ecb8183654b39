// Boxes and operators from SQL arguments, validated with the driver's own
// rules and messages (driver/box.cc), so the extension says what the tool
// says.
#include "pg/ext/args.h"

#include <cstring>
#include <string>

#include "driver/index.h"
#include "driver/internal.h"

extern "C" {
#include "catalog/pg_type_d.h"
#include "utils/builtins.h"
#include "utils/lsyscache.h"
}

namespace zqpg {
namespace {

// The text of a check that may have found a problem, copied so that the
// string is gone before an ERROR is raised with it.
struct Problem {
  char text[512] = "";
  void take(const std::string& p) { strlcpy(text, p.c_str(), sizeof text); }
  void raise() const {
    if (text[0] != '\0') bad_input(text);
  }
};

zq::Box to_box(const rtr_rect& r) {
  zq::Box b;
  const double mins[3] = {r.min0, r.min1, r.min2};
  const double maxs[3] = {r.max0, r.max1, r.max2};
  for (int k = 0; k < 3; ++k) {
    b.min[k] = mins[k];
    b.max[k] = maxs[k];
  }
  return b;
}

}  // namespace

rtr_rect box_of(const double* mins, const double* maxs, int dims) {
  zq::Box b;
  for (int k = 0; k < dims; ++k) {
    b.min[k] = mins[k];
    b.max[k] = maxs[k];
  }
  Problem p;
  p.take(zq::box_problem(b, dims));
  p.raise();
  return zq::to_rect(b);
}

rtr_rect box_arg(ArrayType* array, int dims) {
  if (ARR_ELEMTYPE(array) != FLOAT8OID) bad_input("a box is a double precision array");
  if (ARR_NDIM(array) > 1) bad_input("a box is a one-dimensional array");
  const int n = ARR_NDIM(array) == 0 ? 0 : ARR_DIMS(array)[0];
  if (n != 2 * dims)
    ereport(ERROR, (errcode(ERRCODE_INVALID_PARAMETER_VALUE),
                    errmsg("box has %d coordinates; a %d-axis index needs %d", n, dims, 2 * dims),
                    errhint("boxes are all minima, then all maxima")));
  if (ARR_HASNULL(array)) bad_input("a box coordinate is null");
  const auto* v = reinterpret_cast<const double*>(ARR_DATA_PTR(array));
  return box_of(v, v + dims, dims);
}

ArrayType* box_array(const rtr_rect& rect, int dims) {
  // Laid out directly (one dimension, no nulls, lower bound 1): a large
  // window returns thousands of boxes, and construct_array's general path
  // cost more than the search.
  const int n = 2 * dims;
  const size_t data = ARR_OVERHEAD_NONULLS(1);
  const size_t size = data + n * sizeof(double);
  auto* a = static_cast<ArrayType*>(palloc(size));
  SET_VARSIZE(a, size);
  a->ndim = 1;
  a->dataoffset = 0;
  a->elemtype = FLOAT8OID;
  ARR_DIMS(a)[0] = n;
  ARR_LBOUND(a)[0] = 1;
  auto* v = reinterpret_cast<double*>(ARR_DATA_PTR(a));
  const double mins[3] = {rect.min0, rect.min1, rect.min2};
  const double maxs[3] = {rect.max0, rect.max1, rect.max2};
  for (int k = 0; k < dims; ++k) {
    v[k] = mins[k];
    v[dims + k] = maxs[k];
  }
  return a;
}

char* box_text(const rtr_rect& rect, int dims) {
  return pstrdup(zq::detail::describe_box(to_box(rect), dims).c_str());
}

bool number_arg(Datum d, Oid type, double* out) {
  switch (type) {
    case FLOAT8OID:
      *out = DatumGetFloat8(d);
      return true;
    case FLOAT4OID:
      *out = DatumGetFloat4(d);
      return true;
    case INT2OID:
      *out = DatumGetInt16(d);
      return true;
    case INT4OID:
      *out = DatumGetInt32(d);
      return true;
    case INT8OID:
      *out = static_cast<double>(DatumGetInt64(d));
      return true;
    case NUMERICOID:
      *out = DatumGetFloat8(DirectFunctionCall1(numeric_float8, d));
      return true;
    default:
      return false;
  }
}

uint32_t op_arg(text* op) {
  char* t = text_to_cstring(op);
  size_t len = strlen(t);
  bool or_mode = false;
  if (len > 4 && strncmp(t, "or(", 3) == 0 && t[len - 1] == ')') {
    or_mode = true;
    t[len - 1] = '\0';
    t += 3;
  }
  uint32_t bits = 0;
  Problem p;
  {
    std::string error;
    if (!zq::parse_op(t, or_mode, &bits, &error)) p.take(error);
  }
  p.raise();
  return bits;
}

bool matches(uint32_t op, const rtr_rect& entry, const rtr_rect& query, int dims) {
  return rtr_leaf_rect_cmp(&entry, &query, static_cast<uint32_t>(dims), op) != 0;
}

}  // namespace zqpg
