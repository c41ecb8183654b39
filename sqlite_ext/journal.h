/* The zqrtree SQLite extension: an undo journal for the changes it makes
 * inside a statement that is already running.
 *
 * A virtual table's INSERT, UPDATE and DELETE, CREATE and the commit-time
 * apply of deferred changes run inside SQLite's own statement, where neither
 * BEGIN nor SAVEPOINT is allowed, and a single-row statement that fails
 * inside an open transaction keeps whatever it had written. So the extension
 * journals its own writes: while the journal is armed, TEMP triggers on each
 * watched table copy a row's old image (or note a new rowid) into
 * temp.zqrtree_undo, and a failed operation replays that journal backwards,
 * which leaves every watched table exactly as it was.
 *
 * Call order for one operation:
 *   watch(schema, table) for every table the operation may write
 *   Journal::Op op(journal); op.begun()
 *   ... writes ...
 *   op.commit()            (an Op destroyed uncommitted replays the journal)
 * The triggers are TEMP objects, so a rolled-back transaction can take them
 * away again; watch() looks every time and recreates what is missing. */
#ifndef ZQ_SQLITE_EXT_JOURNAL_H
#define ZQ_SQLITE_EXT_JOURNAL_H

#include <map>
#include <string>
#include <vector>

#include "sqlite_ext/sql.h"

namespace zqext {

class Journal {
 public:
  // Name of the SQL function the triggers ask whether to record.
  static constexpr const char* kArmedFunction = "zqrtree_undo_armed";

  explicit Journal(sqlite3* db) : db_(db) {}
  Journal(const Journal&) = delete;
  Journal& operator=(const Journal&) = delete;

  // Makes sure writes to schema.table are journaled; "" or why not.
  std::string watch(const std::string& schema, const std::string& table);
  bool armed() const { return armed_; }

  // One journaled operation. Nested operations belong to the outer one.
  class Op {
   public:
    explicit Op(Journal& journal);
    ~Op();
    Op(const Op&) = delete;
    Op& operator=(const Op&) = delete;
    const std::string& begun() const { return error_; }  // "" when armed
    void commit();
    // Replays now; "" or why the tables could not be restored.
    std::string rollback();

   private:
    Journal& journal_;
    bool open_ = false;
    std::string error_;
  };

 private:
  struct Watched {
    std::string schema, table;
    std::vector<std::string> columns;  // every stored column but an INTEGER PRIMARY KEY
  };

  std::string create_undo_table();
  std::string read_columns(Watched* w);
  std::string create_triggers(const Watched& w);
  bool triggers_present(const std::string& key);
  std::string replay();

  sqlite3* db_;
  bool armed_ = false;
  std::map<std::string, Watched> watched_;  // by "schema.table"
};

}  // namespace zqext

#endif
