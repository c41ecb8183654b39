/* The node-row guard (node_guard.cc): the engine side's check of every node
 * row the host hands to the library. Index::open and Index::create install
 * it; programs that drive the library over the host without an Index (tests)
 * install it themselves. */
#ifndef ZQ_DRIVER_NODE_GUARD_H
#define ZQ_DRIVER_NODE_GUARD_H

#include <stdint.h>

#include <string>

#include "host/host.h"

namespace zq {

// Makes the guard the row check of index `index_name`'s node table in
// `schema` of the session, for an index of `dims` axes; a guard already
// there for as many axes is kept. 0, or the host's negative code.
int32_t guard_node_table(zq_session* session, const std::string& schema,
                         const std::string& index_name, int dims);

}  // namespace zq

#endif
