// SQL arguments as the library takes them: boxes given as double precision
// arrays (all minima, then all maxima, as the tool writes them), boxes
// handed back the same way, and operator names.
#ifndef ZQ_PG_EXT_ARGS_H
#define ZQ_PG_EXT_ARGS_H

#include "pg/ext/op.h"
#include "zqrtree/geom.h"

extern "C" {
#include "utils/array.h"
}

namespace zqpg {

// The box of an index of `dims` axes; ERROR 22023 naming what is wrong.
rtr_rect box_arg(ArrayType* array, int dims);
// The same from plain numbers: mins[0..dims), maxs[0..dims).
rtr_rect box_of(const double* mins, const double* maxs, int dims);
ArrayType* box_array(const rtr_rect& rect, int dims);
// "[1, 2] x [0, 5]", in the caller's memory.
char* box_text(const rtr_rect& rect, int dims);
// A number column's value as a double: smallint to bigint, real, double
// precision, numeric; false for any other type.
bool number_arg(Datum value, Oid type, double* out);
// "intersect", "within|equal" (all must hold), "or(within|equal)" (any may).
uint32_t op_arg(text* op);
// The library's leaf test on every axis: a 3-axis hit is rechecked with it.
bool matches(uint32_t op, const rtr_rect& entry, const rtr_rect& query, int dims);

}  // namespace zqpg

#endif
