/* The driver: libzqrtree and the SQLite host, driven the way a database
 * engine drives them. The zqrtree tool, the SQLite extension, the benchmarks
 * and the demo all go through this one header.
 *
 * What an index is on disk (in one schema of the connection, "main" unless
 * told otherwise):
 *   "MDRT$" + name       the node table, one row per tree node (the library's)
 *   name + "_rowid"      id INTEGER PRIMARY KEY, leaf INTEGER — the leaf node
 *                        holding each indexed rowid, so that a rowid's box can
 *                        be read from its leaf (driver/leaf_map.h)
 *   zqrtree_catalog      name TEXT PRIMARY KEY, dims INTEGER — one row per index
 *
 * Calling order: zq::install_hooks() happens inside Database::open / wrap, so
 * a program just opens a Database (one per thread), then creates or opens an
 * Index on it and calls its operations. Each operation that changes anything
 * is one user operation: it validates its input before it touches the
 * database, runs in zqsess_begin .. zqsess_commit (or in a savepoint, inside
 * a transaction the program opened with Database::begin) with one library
 * handle (flushed once, then destroyed), and on any failure rolls back and
 * discards the handle, so the database is exactly as it was and the Status
 * carries the engine's error stack as a readable trace.
 *
 * Boxes: slots of axes beyond the index's dimension count are 0, in entries
 * and in search boxes alike (the library's search compares the first two axes
 * whatever the count). Searches of a three-dimensional index are rechecked on
 * all three axes with the library's own leaf test, so answers are exact.
 *
 * Errors: every fallible call returns zq::Status. Kinds a caller may want to
 * tell apart: kInvalid (bad input; nothing was written), kNotFound (missing
 * index, database or row), kExists, kEngine (a negative code from the
 * library or host; the message holds the trace). */
#ifndef ZQ_DRIVER_INDEX_H
#define ZQ_DRIVER_INDEX_H

#include <sqlite3.h>
#include <stdint.h>

#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "zqhost/env.h"
#include "zqrtree/geom.h"
#include "zqrtree/mem.h"

namespace zq {

namespace detail {
class LeafMap;
}

inline constexpr int kMaxDims = 3;
inline constexpr size_t kMaxNameLen = 123;  // "MDRT$" + name must fit 129 bytes
// 33 entries a node: room for later inserts without a wave of splits, and
// rows of a size that fill pages: three to a 4 KB page, six to 8 KB.
inline constexpr double kDefaultFill = 0.65;
inline constexpr double kMinFill = 2.0 / 51.0;  // nodes must take at least 2 entries

class Status {
 public:
  enum class Kind { kOk, kInvalid, kNotFound, kExists, kEngine, kIo };

  Status() = default;
  static Status ok() { return Status(); }
  static Status invalid(std::string msg) { return Status(Kind::kInvalid, std::move(msg)); }
  static Status not_found(std::string msg) { return Status(Kind::kNotFound, std::move(msg)); }
  static Status exists(std::string msg) { return Status(Kind::kExists, std::move(msg)); }
  static Status io(std::string msg) { return Status(Kind::kIo, std::move(msg)); }
  static Status engine(int32_t code, std::string msg) {
    Status s(Kind::kEngine, std::move(msg));
    s.code_ = code;
    return s;
  }

  bool is_ok() const { return kind_ == Kind::kOk; }
  explicit operator bool() const { return is_ok(); }
  Kind kind() const { return kind_; }
  int32_t code() const { return code_; }  // the engine's negative code, kEngine only
  const std::string& message() const { return msg_; }

 private:
  Status(Kind kind, std::string msg) : kind_(kind), msg_(std::move(msg)) {}
  Kind kind_ = Kind::kOk;
  int32_t code_ = 0;
  std::string msg_;
};

// Axis k spans [min[k], max[k]]; unused axes hold 0.
struct Box {
  double min[kMaxDims] = {0, 0, 0};
  double max[kMaxDims] = {0, 0, 0};
  bool operator==(const Box&) const = default;
};

struct Entry {
  int64_t id = 0;  // the indexed row's rowid
  Box box;
  bool operator==(const Entry&) const = default;
};

rtr_rect to_rect(const Box& box);
Box from_rect(const rtr_rect& rect, int dims);  // zeroes axes >= dims

// "" when the box is a valid box of `dims` axes, else why not ("min1 5 is
// above max1 3", "max0 is not a finite number"); `what` prefixes the reason.
std::string box_problem(const Box& box, int dims);
std::string name_problem(std::string_view name);  // "" when usable as an index name

// Operators: names "intersect", "contains", "within", "equal", "any",
// joined with '|'. Several names without `or_mode` must all hold (the
// library's AND mode); with it any one may (RTR_OP_OR is added). Returns
// false with `*error` set for an unknown name.
bool parse_op(std::string_view text, bool or_mode, uint32_t* op, std::string* error);
std::string op_name(uint32_t op);  // "within|intersect", "or(any|equal)"
// The library's leaf test on all `dims` axes: the answer a search must give.
bool op_matches(uint32_t op, const Box& entry, const Box& query, int dims);

// Engine settings of a session; unset fields keep the host's defaults.
struct Settings {
  std::optional<uint32_t> buf_total_mb;   // node buffer of all handles together
  std::optional<uint32_t> buf_handle_mb;  // node buffer of one handle
  std::optional<uint64_t> sort_mb;        // sorter memory before it spills to disk
  std::optional<double> busy_timeout_s;   // wait for another process's lock (default 5)
  // ZQRTREE_BUF_TOTAL_MB, ZQRTREE_BUF_HANDLE_MB, ZQRTREE_SORT_MB,
  // ZQRTREE_BUSY_TIMEOUT; a value that is not a number of the right kind is a
  // kInvalid status naming the variable.
  static Status from_environment(Settings* out);
  // Fields set in `over` replace those here.
  void merge(const Settings& over);
};

// Progress of long work: `stage` ("reading", "sorting", "building",
// "checking"...), units done and the total (0 when unknown).
using Progress = std::function<void(std::string_view stage, uint64_t done, uint64_t total)>;

// Installs the host's default callbacks in the library, once per process.
void install_hooks();

// One environment and one session over a SQLite connection. One per thread.
class Database {
 public:
  // Opens a database file; with `create` false a missing file is kNotFound.
  static Status open(const std::string& path, bool create, std::unique_ptr<Database>* out);
  // A session over a connection the caller keeps (the SQLite extension).
  static Status wrap(sqlite3* db, std::unique_ptr<Database>* out);
  ~Database();
  Database(const Database&) = delete;
  Database& operator=(const Database&) = delete;

  void apply(const Settings& settings);

  // A transaction of the program's own around many operations: each
  // operation inside it is still all or nothing (a savepoint), and nothing is
  // durable before commit(); rollback() takes back every operation since
  // begin(). Without begin() every operation commits by itself.
  Status begin();
  Status commit();
  void rollback();

  zq_env* env() const { return env_; }
  zq_session* session() const { return session_; }
  sqlite3* db() const;
  const std::string& path() const { return path_; }

#ifdef ZQ_TEST_HOOKS
  // Test-only diagnostics (0 switches them off). The nth host allocation
  // from now fails; the library uses a few allocations untested on purpose
  // (its handle, node hash and node buffers), so a failure landing on one of
  // those stops the process instead of failing the operation.
  void fail_alloc_nth(uint64_t nth);
  // The nth engine call inside a node-table mini-transaction from now fails
  // with the host's code for a SQLite I/O error.
  void fail_engine_nth(uint64_t nth);
#endif

  // A statement prepared once per Database and kept until it closes, reset
  // and unbound; null with *rc set when SQLite refuses the text. For point
  // reads and writes repeated per row: a caller must be done with it (reset)
  // before the next caller asks for the same text.
  sqlite3_stmt* statement(const std::string& sql, int* rc);

  // The rowid table of the index whose node table this is, or null when the
  // table belongs to no index (for the driver and the extension).
  detail::LeafMap* leaf_map(std::string_view schema, std::string_view node_table);
  // Writes (or, after a rollback, forgets) the rowid tables' pending moves.
  Status apply_leaf_moves();
  void forget_leaf_moves();
  // Forgets which tables are indexes' (after indexes were made or dropped).
  void reset_leaf_maps();

  // Names and dimension counts of every index in `schema`'s catalog.
  Status list(std::vector<std::pair<std::string, int>>* out, const std::string& schema = "main");
  // Bytes of the database file (page count times page size).
  Status file_size(uint64_t* bytes);

 private:
  Database() = default;
  zq_env* env_ = nullptr;
  zq_session* session_ = nullptr;
  std::string path_;
  std::map<std::string, sqlite3_stmt*> statements_;
  struct LeafMapSlot {
    std::string schema;
    std::string node_table;
    std::unique_ptr<detail::LeafMap> map;  // null: not an index's node table
  };
  std::vector<LeafMapSlot> leaf_maps_;
};

// While it lives, each handle created on `db` takes at most `mb` megabytes of
// node buffer (or the session's share, when smaller): for handles that read
// each node about once, where a large buffer would only hold memory.
class BufferCap {
 public:
  BufferCap(Database& db, uint32_t mb);
  ~BufferCap();
  BufferCap(const BufferCap&) = delete;
  BufferCap& operator=(const BufferCap&) = delete;

 private:
  zq_session* session_;
  uint32_t total_mb_;
  uint32_t handle_mb_;
};

struct LoadOptions {
  double fill = kDefaultFill;  // nodes get trunc(fill * 51) entries; [kMinFill, 1]
  bool replace = false;        // drop the index's current entries first
  Progress progress;
};

// Where bulk-load entries come from. next() yields one entry and true, or
// false at the end (or with *status set when the input is bad). where()
// names the current entry for messages ("cities.csv:12").
class EntrySource {
 public:
  virtual ~EntrySource() = default;
  virtual bool next(Entry* entry, Status* status) = 0;
  virtual std::string where() const = 0;
  virtual uint64_t size_hint() const { return 0; }  // total for progress; 0 if unknown
};

// Adapter for entries already in memory ("entry 3 (rowid 17)").
class VectorSource : public EntrySource {
 public:
  explicit VectorSource(std::span<const Entry> entries) : entries_(entries) {}
  bool next(Entry* entry, Status* status) override;
  std::string where() const override;
  uint64_t size_hint() const override { return entries_.size(); }

 private:
  std::span<const Entry> entries_;
  size_t pos_ = 0;
};

// One answer of a nearest-neighbour search: the entry and its Euclidean
// distance to the query over every axis of the index (0 when they overlap).
struct Neighbour {
  Entry entry;
  double distance = 0;
};

struct NearestOptions {
  uint64_t k = 10;  // at most this many answers; 0: no count limit
  double max_distance = std::numeric_limits<double>::infinity();  // farther ones are left out
  // Nodes and entries the search may keep queued at once (the library's
  // cap; 0 takes its default of RNN_DEFAULT_MAX_QUEUE). A search that needs
  // more fails with kEngine and a message saying so, never with fewer answers.
  uint32_t max_queue = 0;
};

// What a rebuild from an index's own entries found.
struct RebuildReport {
  uint64_t kept = 0;          // entries in the new tree
  uint64_t leaf_rows = 0;     // repair: leaf rows read
  uint64_t damaged_rows = 0;  // repair: leaf rows that did not decode, left out
  uint64_t duplicates = 0;    // repair: second places of a rowid, left out
  uint64_t bad_boxes = 0;     // repair: entries whose box is no box (NaN, min > max), left out
  uint64_t unlisted = 0;      // repair: entries the rowid table does not list, left out
  uint64_t lost = 0;          // repair: rowids the rowid table lists and no leaf row holds
};

// One tree node as a walk sees it.
struct NodeView {
  int64_t id;
  int64_t parent_id;
  uint32_t level;  // 0: leaf
  uint32_t depth;  // 0: the root
  std::span<const rtr_cell> cells;
};

class Index {
 public:
  static Status create(Database& db, const std::string& name, int dims, Index* out,
                       const std::string& schema = "main");
  // Dimension count from the catalog; kNotFound names a missing index.
  static Status open(Database& db, const std::string& name, Index* out,
                     const std::string& schema = "main");
  // Removes the node table, the rowid table and the catalog row.
  static Status drop(Database& db, const std::string& name, const std::string& schema = "main");

  Index() = default;
  const std::string& name() const { return name_; }
  int dims() const { return dims_; }
  Database* database() const { return db_; }

  // One entry, or many as one user operation (all or nothing).
  Status insert(const Entry& entry);
  Status insert(std::span<const Entry> entries, const Progress& progress = {});
  // By rowid and box (the box must be the one stored), or by rowid alone.
  Status remove(int64_t id, const Box& box);
  Status remove(int64_t id);
  // Bulk build from scratch: the current entries (unless options.replace)
  // plus the source's, sorted and packed bottom-up.
  Status load(EntrySource& source, const LoadOptions& options);

  // The tree rebuilt by bulk load from its own entries, nodes filled to
  // `fill`, as one user operation: for a tree that inserts have left sparse.
  Status repack(double fill = kDefaultFill, RebuildReport* report = nullptr) const;
  // The tree rebuilt from every leaf row of the node table that still
  // decodes, reachable or not, for a damaged index. A readable rowid table
  // says which rowids are indexed and where; without one, every rowid found
  // is kept once. Entries that are no box are left out.
  Status repair(RebuildReport* report = nullptr) const;

  // Every hit of `op` against `query`; `visit` returns false to stop early.
  Status query(uint32_t op, const Box& query, const std::function<bool(const Entry&)>& visit) const;
  // The entries nearest to `query` (a point is a box with min = max),
  // nearest first, equal distances in rowid order; `visit` returns false to
  // stop early. A bad query box or max distance is kInvalid.
  Status nearest(const Box& query, const NearestOptions& options,
                 const std::function<bool(const Neighbour&)>& visit) const;
  // The stored box of a rowid; kNotFound when it is not indexed.
  Status lookup(int64_t id, Box* box) const;
  Status count(uint64_t* n) const;  // indexed rows
  // Every entry, in the tree's order; with `borrowed`, of that handle's tree
  // (the caller's transaction) instead of a fresh one.
  Status entries(const std::function<bool(const Entry&)>& visit, rtr_mem* borrowed = nullptr) const;
  // Replaces the tree by a bulk build of the entries `feed` puts, inside the
  // caller's transaction: for an engine holding a whole transaction's
  // changes, which packs better and sooner than inserting them one by one.
  using Feed = std::function<Status(const std::function<Status(const Entry&)>& put)>;
  Status rebuild(double fill, const Feed& feed) const;
  // Every node reachable from the root, parents before children, through
  // the library's node cache; cells are valid during the call only.
  Status walk(const std::function<void(const NodeView&)>& visit) const;
  // rtr_print of the whole tree (to standard output).
  Status print() const;
  // The tree's leaf entries against the rowid table: "" when every rowid is
  // in the tree exactly once, in the leaf the table names, and the tree holds
  // nothing else, else the first difference ("rowid 7 is in the rowid table
  // but not in the tree"). With `borrowed`, walks the tree of that handle
  // (written back, with the moves of its writes not yet applied) instead of
  // a fresh one in a transaction of its own.
  Status verify_rowids(std::string* problem, rtr_mem* borrowed = nullptr) const;
  // Runs `fn` on a fresh reading-mode handle inside one transaction, for
  // diagnostics that call the library directly (the tree checker).
  Status with_read_handle(const std::function<Status(rtr_mem*)>& fn) const;

  std::string node_table() const;   // "MDRT$" + name
  std::string rowid_table() const;  // name + "_rowid"
  const std::string& schema() const { return schema_; }
  detail::LeafMap* leaf_map() const;  // null only if the rowid table is gone

 private:
  friend class Scan;
  Database* db_ = nullptr;
  std::string name_;
  std::string schema_ = "main";
  int dims_ = 0;
};

// A pull-style search (for a virtual table cursor): the caller decides the
// transaction; the scan holds one reading-mode handle until it is closed or
// destroyed, and delivers only hits that pass op_matches on every axis.
class Scan {
 public:
  explicit Scan(const Index& index);
  ~Scan();
  Scan(const Scan&) = delete;
  Scan& operator=(const Scan&) = delete;

  Status open(uint32_t op, const Box& query);
  // The same on a handle the caller keeps (writing or reading mode), which
  // close() leaves alone: an engine's handle kept across statements.
  Status open(uint32_t op, const Box& query, rtr_mem* borrowed);
  bool at_end() const { return at_end_; }
  Status next();
  const Entry& entry() const { return entry_; }  // valid while !at_end()
  void close();

 private:
  Status settle();  // advance until a hit passes the full-dimension recheck
  Status start(uint32_t op, const Box& query);
  const Index* index_;
  rtr_mem* rtr_ = nullptr;
  bool owned_ = true;
  struct CursorBox;
  std::unique_ptr<CursorBox> cur_;
  uint32_t op_ = 0;
  Box query_;
  Entry entry_;
  bool at_end_ = true;
};

// A pull-style nearest-neighbour search (for a virtual table cursor): the
// caller decides the transaction, the search holds one reading-mode handle
// (or borrows the caller's) and its queue until it is closed or destroyed.
class NearestScan {
 public:
  explicit NearestScan(const Index& index);
  ~NearestScan();
  NearestScan(const NearestScan&) = delete;
  NearestScan& operator=(const NearestScan&) = delete;

  Status open(const Box& query, const NearestOptions& options);
  Status open(const Box& query, const NearestOptions& options, rtr_mem* borrowed);
  bool at_end() const { return at_end_; }
  Status next();
  const Neighbour& neighbour() const { return neighbour_; }  // valid while !at_end()
  void close();

 private:
  Status start(const Box& query, const NearestOptions& options);
  Status settle();  // takes the cursor's current entry, or ends
  Status failure(int32_t code);
  void drop_handle();
  const Index* index_;
  rtr_mem* rtr_ = nullptr;
  bool owned_ = true;
  struct Record;
  std::unique_ptr<Record> rec_;
  NearestOptions options_;
  uint64_t delivered_ = 0;
  Neighbour neighbour_;
  bool at_end_ = true;
};

}  // namespace zq

#endif
