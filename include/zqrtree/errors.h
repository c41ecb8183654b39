/* libzqrtree: result codes.
 *
 * Every operation that can fail returns a signed 32-bit code: 0 (or a
 * documented positive note) on success, negative on failure. A function that
 * detects a failure or receives one from a callee pushes it once with its own
 * name and level 5 (RTR_ERR_LEVEL) and returns it unchanged, so one failure
 * leaves one error-stack entry per level of the call chain, innermost first. */
#ifndef ZQRTREE_ERRORS_H
#define ZQRTREE_ERRORS_H

#define RTR_OK 0
#define RTR_NOTE_NOTHING 100 /* nothing to evict / row already current / already root */

#define RTR_ERR_NO_ROOM (-503)       /* out of memory, node full, cursor stack full */
#define RTR_ERR_NOT_FOUND (-3269)    /* entry not in the tree, or the root row is missing */
#define RTR_ERR_ROW_TOO_BIG (-6108)  /* a node row entry would exceed 32767 bytes */
#define RTR_ERR_NO_ROW (-7065)       /* a non-root node row is missing or invisible */
#define RTR_ERR_INSERT_FAILED (-1509) /* engine: a row insertion was refused */
#define RTR_ERR_RELEASE (-1513)       /* engine: release instead of roll back */

#define RTR_ERR_LEVEL 5 /* the level argument of every push */

#endif
