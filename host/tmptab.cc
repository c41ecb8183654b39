// Temporary tables of pending spatial changes: one SQLite TEMP table per
// zq_tmptab, WITHOUT ROWID and keyed on (flag, rid), holding the box as six
// REAL columns and a delete mark. Both of its B-trees (rows and the
// (flag, rowid) index) are that one key-ordered table, so a physical cursor
// on either walks the changes in key order and sees delete marks in each
// record's flag byte.
//
// Call order: zqsess_tmptab_owner -> zqtmp_create_spatial -> (zqtmp_put,
// zqtmp_mark_deleted, zqtmp_clear, cursors on btr2)* -> zqtmp_drop (or the
// session's close). Cursors on a table are closed before it is dropped.
#include <algorithm>
#include <cstdio>

#include "host/internal.h"

namespace zqhost {
namespace {

std::string tmp_name(uint32_t id) {
  return "zq_spt_" + std::to_string(id);
}

int create_sql_table(zq_session* s, const std::string& qname) {
  std::string sql = "CREATE TABLE IF NOT EXISTS " + qname +
                    " (flag TEXT NOT NULL, rid INTEGER NOT NULL,"
                    " min0 REAL, min1 REAL, min2 REAL, max0 REAL, max1 REAL, max2 REAL,"
                    " deleted INTEGER NOT NULL DEFAULT 0,"
                    " PRIMARY KEY (flag, rid)) WITHOUT ROWID";
  return exec(s->db, sql.c_str());
}

std::unique_ptr<Table> spatial_table(zq_session* s, uint32_t id) {
  auto t = std::make_unique<Table>();
  t->sess = s;
  t->schema = "temp";
  t->name = tmp_name(id);
  t->qname = quote_ident(t->schema) + "." + quote_ident(t->name);
  t->layout = Layout::kSpatial;
  t->has_rowid = false;
  t->serial = s->next_serial++;
  table_init_objects(t.get());
  return t;
}

bool valid_flag(char flag) {
  return flag == 'D' || flag == 'I';
}

sqlite3_stmt* stmt(Table* t, sqlite3_stmt** slot, const std::string& sql, int* rc) {
  if (*slot == nullptr) *slot = table_prepare(t, sql, rc);
  return *slot;
}

// Runs a write on the temp table; 0 or the host code.
int32_t run(zq_session* s, sqlite3_stmt* st, const char* func) {
  int rc = step_once(st);
  sqlite3_clear_bindings(st);
  return rc == SQLITE_DONE ? 0 : sqlite_fail(s->env, s->db, rc, func);
}

void bind_flag(sqlite3_stmt* st, char flag) {
  char text[2] = {flag, '\0'};
  sqlite3_bind_text(st, 1, text, 1, SQLITE_TRANSIENT);
}

}  // namespace

void tmptab_recreate_all(zq_session* s) {
  for (auto& tt : s->tmptabs) create_sql_table(s, tt->tab->qname);
}

void tmptab_free_all(zq_session* s) {
  while (!s->tmptabs.empty()) zqtmp_drop(s, &s->tmptabs.back()->pub);
}

}  // namespace zqhost

using zqhost::Table;

extern "C" {

zq_tmptab_owner* zqsess_tmptab_owner(zq_session* s) {
  return &s->owner;
}

zq_tmptab* zqtmp_create_spatial(zq_session* s, uint32_t id) {
  for (const zq_tmptab* t = s->owner.first; t != nullptr; t = t->next) {
    if (t->id == id) return nullptr;
  }
  try {
    auto tt = std::make_unique<zqhost::TmpTab>();
    tt->tab = zqhost::spatial_table(s, id);
    int rc = zqhost::exec(s->db, ("DROP TABLE IF EXISTS " + tt->tab->qname).c_str());
    if (rc == SQLITE_OK) rc = zqhost::create_sql_table(s, tt->tab->qname);
    if (rc != SQLITE_OK) {
      zqhost::sqlite_fail(s->env, s->db, rc, "zqtmp_create_spatial");
      return nullptr;
    }
    tt->pub.id = id;
    tt->pub.btr = &tt->tab->btr;
    tt->pub.btr2 = &tt->tab->btr2;
    s->tmptabs.push_back(std::move(tt));
    zq_tmptab* pub = &s->tmptabs.back()->pub;
    // Kept in creation order: a new table goes to the end of the chain.
    zq_tmptab** link = &s->owner.first;
    while (*link != nullptr) link = &(*link)->next;
    *link = pub;
    return pub;
  } catch (...) {
    return nullptr;
  }
}

int32_t zqtmp_put(zq_session* s, zq_tmptab* tab, char flag, int64_t rowid, const double box[6]) {
  if (tab == nullptr || !zqhost::valid_flag(flag)) return zqhost::kErrBadArg;
  Table* t = zqhost::table_of(tab->btr);
  int rc = SQLITE_OK;
  try {
    sqlite3_stmt* st = zqhost::stmt(t, &t->put,
                                    "INSERT OR REPLACE INTO " + t->qname +
                                        " (flag, rid, min0, min1, min2, max0, max1, max2, deleted)"
                                        " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, 0)",
                                    &rc);
    if (st == nullptr) return zqhost::sqlite_fail(s->env, s->db, rc, "zqtmp_put");
    zqhost::bind_flag(st, flag);
    sqlite3_bind_int64(st, 2, rowid);
    for (int k = 0; k < 6; ++k) sqlite3_bind_double(st, 3 + k, box[k]);
    return zqhost::run(s, st, "zqtmp_put");
  } catch (...) {
    return zqhost::kErrNoMem;
  }
}

int32_t zqtmp_mark_deleted(zq_session* s, zq_tmptab* tab, char flag, int64_t rowid,
                           int32_t marked) {
  if (tab == nullptr || !zqhost::valid_flag(flag)) return zqhost::kErrBadArg;
  Table* t = zqhost::table_of(tab->btr);
  int rc = SQLITE_OK;
  try {
    sqlite3_stmt* st = zqhost::stmt(
        t, &t->mark, "UPDATE " + t->qname + " SET deleted = ?3 WHERE flag = ?1 AND rid = ?2", &rc);
    if (st == nullptr) return zqhost::sqlite_fail(s->env, s->db, rc, "zqtmp_mark_deleted");
    zqhost::bind_flag(st, flag);
    sqlite3_bind_int64(st, 2, rowid);
    sqlite3_bind_int(st, 3, marked != 0 ? 1 : 0);
    int32_t code = zqhost::run(s, st, "zqtmp_mark_deleted");
    if (code == 0 && sqlite3_changes(s->db) == 0) return zqhost::kErrNoRow;
    return code;
  } catch (...) {
    return zqhost::kErrNoMem;
  }
}

int32_t zqtmp_clear(zq_session* s, zq_tmptab* tab) {
  if (tab == nullptr) return zqhost::kErrBadArg;
  Table* t = zqhost::table_of(tab->btr);
  int rc = SQLITE_OK;
  try {
    sqlite3_stmt* st = zqhost::stmt(t, &t->clear, "DELETE FROM " + t->qname, &rc);
    if (st == nullptr) return zqhost::sqlite_fail(s->env, s->db, rc, "zqtmp_clear");
    return zqhost::run(s, st, "zqtmp_clear");
  } catch (...) {
    return zqhost::kErrNoMem;
  }
}

void zqtmp_drop(zq_session* s, zq_tmptab* tab) {
  if (tab == nullptr) return;
  for (zq_tmptab** link = &s->owner.first; *link != nullptr; link = &(*link)->next) {
    if (*link == tab) {
      *link = tab->next;
      break;
    }
  }
  auto it = std::find_if(s->tmptabs.begin(), s->tmptabs.end(),
                         [tab](const auto& tt) { return &tt->pub == tab; });
  if (it == s->tmptabs.end()) return;
  Table* t = (*it)->tab.get();
  for (auto& st : s->states) {
    if (st->in_use && st->tab == t) zqhost::state_release(st.get());
  }
  std::string drop = "DROP TABLE IF EXISTS " + t->qname;
  (*it)->tab.reset();  // its statements are finalized before the table goes
  zqhost::exec(s->db, drop.c_str());
  s->tmptabs.erase(it);
}

}  // extern "C"
