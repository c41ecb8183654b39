// The undo journal: TEMP triggers that record old row images while armed,
// and the backwards replay that restores them after a failed operation.
#include "sqlite_ext/journal.h"

#include <array>

namespace zqext {

namespace {

constexpr int kUndoColumns = 16;  // a node row or a base row has fewer
constexpr std::array<const char*, 5> kTriggerKinds = {"bi", "ai", "bu", "au", "bd"};

std::string literal(std::string_view text) {
  std::string out = "'";
  for (char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  return out + "'";
}

std::string trigger_name(const std::string& key, const char* kind) {
  return "zqrtree_undo " + key + " " + kind;
}

// "c0, c1, ..." for the undo table, or prefix + each column for the watched one.
std::string slots(size_t n) {
  std::string out;
  for (size_t i = 0; i < n; ++i) out += ", c" + std::to_string(i);
  return out;
}

std::string values(const std::vector<std::string>& columns, const std::string& prefix) {
  std::string out;
  for (const std::string& c : columns) out += ", " + prefix + quote(c);
  return out;
}

}  // namespace

std::string Journal::create_undo_table() {
  std::string cols;
  for (int i = 0; i < kUndoColumns; ++i) cols += ", c" + std::to_string(i);
  return exec(db_,
              "CREATE TEMP TABLE IF NOT EXISTS zqrtree_undo (seq INTEGER PRIMARY KEY, tab TEXT NOT "
              "NULL, rid INTEGER NOT NULL, had INTEGER NOT NULL" +
                  cols + ")");
}

std::string Journal::read_columns(Watched* w) {
  Stmt st(db_, "PRAGMA " + quote(w->schema) + ".table_info(" + quote(w->table) + ")");
  if (!st.ok()) return sqlite3_errmsg(db_);
  std::vector<std::string> names;
  std::vector<bool> integer_key;
  int pk_count = 0;
  while (st.step() == SQLITE_ROW) {
    names.emplace_back(reinterpret_cast<const char*>(sqlite3_column_text(st.get(), 1)));
    const char* type = reinterpret_cast<const char*>(sqlite3_column_text(st.get(), 2));
    const bool pk = sqlite3_column_int(st.get(), 5) > 0;
    pk_count += pk ? 1 : 0;
    integer_key.push_back(pk && type != nullptr && lower(type) == "integer");
  }
  if (names.empty()) return "table " + quote(w->table) + " not found";
  // An INTEGER PRIMARY KEY is the rowid itself; the journal keeps it as rid.
  w->columns.clear();
  for (size_t i = 0; i < names.size(); ++i)
    if (!(pk_count == 1 && integer_key[i])) w->columns.push_back(names[i]);
  if (w->columns.size() > kUndoColumns)
    return "table " + quote(w->table) + " has too many columns to journal";
  return "";
}

std::string Journal::create_triggers(const Watched& w) {
  const std::string key = w.schema + "." + w.table;
  const std::string target = quote(w.schema) + "." + quote(w.table);
  const std::string when = " WHEN " + std::string(kArmedFunction) + "()";
  const std::string into =
      "INSERT INTO zqrtree_undo (tab, rid, had" + slots(w.columns.size()) + ") ";
  const std::string image_at = "SELECT " + literal(key) + ", rowid, 1" + values(w.columns, "") +
                               " FROM " + target + " WHERE rowid = ";
  const std::string old_image =
      "VALUES (" + literal(key) + ", old.rowid, 1" + values(w.columns, "old.") + "); ";
  // A row that did not exist before: replaying removes it.
  const std::string note =
      "INSERT INTO zqrtree_undo (tab, rid, had) VALUES (" + literal(key) + ", ";
  const std::string bodies[] = {
      // A REPLACE may overwrite a row that had the new rowid: keep its image.
      "BEFORE INSERT ON " + target + when + " BEGIN " + into + image_at + "new.rowid; END",
      "AFTER INSERT ON " + target + when + " BEGIN " + note + "new.rowid, 0); END",
      "BEFORE UPDATE ON " + target + when + " BEGIN " + into + old_image + into + image_at +
          "new.rowid AND new.rowid <> old.rowid; END",
      "AFTER UPDATE ON " + target + when + " AND new.rowid <> old.rowid BEGIN " + note +
          "new.rowid, 0); END",
      "BEFORE DELETE ON " + target + when + " BEGIN " + into + old_image + "END",
  };
  for (size_t i = 0; i < kTriggerKinds.size(); ++i) {
    std::string err = exec(db_, "CREATE TEMP TRIGGER IF NOT EXISTS " +
                                    quote(trigger_name(key, kTriggerKinds[i])) + " " + bodies[i]);
    if (!err.empty()) return err;
  }
  return "";
}

bool Journal::triggers_present(const std::string& key) {
  Stmt st(db_,
          "SELECT count(*) FROM temp.sqlite_schema WHERE type = 'trigger' AND name IN (?1, ?2, "
          "?3, ?4, ?5)");
  if (!st.ok()) return false;
  for (size_t i = 0; i < kTriggerKinds.size(); ++i)
    st.bind(static_cast<int>(i + 1), trigger_name(key, kTriggerKinds[i]));
  return st.step() == SQLITE_ROW && st.int64(0) == static_cast<int64_t>(kTriggerKinds.size());
}

std::string Journal::watch(const std::string& schema, const std::string& table) {
  const std::string key = schema + "." + table;
  auto it = watched_.find(key);
  if (it != watched_.end() && triggers_present(key)) return "";
  Watched w{schema, table, {}};
  if (std::string err = read_columns(&w); !err.empty()) return "journaling " + key + ": " + err;
  if (std::string err = create_undo_table(); !err.empty()) return "journaling " + key + ": " + err;
  if (std::string err = create_triggers(w); !err.empty()) return "journaling " + key + ": " + err;
  watched_[key] = std::move(w);
  return "";
}

std::string Journal::replay() {
  Stmt st(db_, "SELECT tab, rid, had" + slots(kUndoColumns) +
                   " FROM temp.zqrtree_undo ORDER BY seq DESC");
  if (!st.ok()) return sqlite3_errmsg(db_);
  int rc;
  while ((rc = st.step()) == SQLITE_ROW) {
    const std::string key = reinterpret_cast<const char*>(sqlite3_column_text(st.get(), 0));
    auto it = watched_.find(key);
    if (it == watched_.end()) return "no journal description of " + key;
    const Watched& w = it->second;
    const std::string target = quote(w.schema) + "." + quote(w.table);
    Stmt undo;
    if (sqlite3_column_int(st.get(), 2) != 0) {
      std::string params = "?1";
      for (size_t i = 0; i < w.columns.size(); ++i) params += ", ?" + std::to_string(i + 2);
      std::string names = "rowid";
      for (const std::string& c : w.columns) names += ", " + quote(c);
      undo.prepare(db_,
                   "INSERT OR REPLACE INTO " + target + " (" + names + ") VALUES (" + params + ")");
      for (size_t i = 0; undo.ok() && i < w.columns.size(); ++i)
        undo.bind_value(static_cast<int>(i + 2), sqlite3_column_value(st.get(), 3 + i));
    } else {
      undo.prepare(db_, "DELETE FROM " + target + " WHERE rowid = ?1");
    }
    if (!undo.ok()) return sqlite3_errmsg(db_);
    undo.bind(1, static_cast<int64_t>(sqlite3_column_int64(st.get(), 1)));
    if (undo.step() != SQLITE_DONE) return sqlite3_errmsg(db_);
  }
  if (rc != SQLITE_DONE) return sqlite3_errmsg(db_);
  return exec(db_, "DELETE FROM temp.zqrtree_undo");
}

Journal::Op::Op(Journal& journal) : journal_(journal) {
  if (journal_.armed_) return;  // part of the operation already under way
  if (std::string err = journal_.create_undo_table(); !err.empty()) {
    error_ = "starting the undo journal: " + err;
    return;
  }
  // A previous operation's images must never be replayed into this one.
  if (std::string err = exec(journal_.db_, "DELETE FROM temp.zqrtree_undo"); !err.empty()) {
    error_ = "starting the undo journal: " + err;
    return;
  }
  journal_.armed_ = true;
  open_ = true;
}

Journal::Op::~Op() {
  if (open_) rollback();
}

void Journal::Op::commit() {
  if (!open_) return;
  journal_.armed_ = false;
  open_ = false;
  exec(journal_.db_, "DELETE FROM temp.zqrtree_undo");  // only tidies; the next Op clears too
}

std::string Journal::Op::rollback() {
  if (!open_) return "";
  journal_.armed_ = false;
  open_ = false;
  return journal_.replay();
}

}  // namespace zqext
