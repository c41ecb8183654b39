// libFuzzer target: the tree checker over a node table holding arbitrary
// rows. Any row may be damaged — a count disagreeing with the blob's length,
// a level of the wrong type, a missing root, cycles, boxes that do not nest —
// and the checker must say so with the node id, never crash or read past a
// blob. A table it calls sound is then searched through a handle.
#include <sqlite3.h>

#include <cstdint>
#include <cstdlib>
#include <string>

#include "check/check.h"
#include "driver/default_hooks.h"
#include "fuzz/reader.h"
#include "host/host.h"
#include "zqrtree/hook.h"

namespace {

struct Setup {
  zq_env* env = nullptr;
  zq_session* sess = nullptr;
  sqlite3_stmt* insert = nullptr;

  Setup() {
    zq_install_default_hooks();
    env = zqenv_create();
    int32_t code = 0;
    sess = zqsess_open(env, ":memory:", &code);
    if (sess == nullptr || zqsess_create_node_table(sess, "main", "t") != 0) std::abort();
    if (sqlite3_prepare_v2(zqsess_db(sess),
                           "INSERT OR REPLACE INTO \"MDRT$t\"(rowid, level, parent_id, cells) "
                           "VALUES (?1, ?2, ?3, ?4)",
                           -1, &insert, nullptr) != SQLITE_OK)
      std::abort();
  }
};

using zqfuzz::Reader;

// A column value of the type `kind` asks for: mostly small integers, so rows
// name each other, sometimes text, a float, a blob or NULL.
void bind_value(sqlite3_stmt* st, int col, uint8_t kind, Reader& in) {
  switch (kind % 8) {
    case 0:
      sqlite3_bind_text(st, col, "7", -1, SQLITE_TRANSIENT);
      break;
    case 1:
      sqlite3_bind_double(st, col, static_cast<double>(static_cast<int64_t>(in.take(8))) / 3);
      break;
    case 2:
      sqlite3_bind_int64(st, col, static_cast<int64_t>(in.take(8)));
      break;
    case 3:
      sqlite3_bind_zeroblob(st, col, 3);
      break;
    default:
      sqlite3_bind_int64(st, col, static_cast<int64_t>(in.take(1) % 6));
      break;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static Setup s;
  Reader in{data, size};
  sqlite3* db = zqsess_db(s.sess);
  sqlite3_exec(db, "DELETE FROM \"MDRT$t\"", nullptr, nullptr, nullptr);
  const uint16_t dims = 1 + in.take(1) % 3;
  for (int row = 0; row < 16 && in.left > 0; ++row) {
    const uint8_t kinds = static_cast<uint8_t>(in.take(1));
    sqlite3_bind_int64(s.insert, 1, static_cast<int64_t>(in.take(1) % 8) + 1);
    bind_value(s.insert, 2, kinds & 7, in);
    bind_value(s.insert, 3, kinds >> 3 & 7, in);
    if (kinds & 0x40) {
      sqlite3_bind_int64(s.insert, 4, 5);
    } else {
      const size_t len = in.take(2) % 2400;
      std::string blob(len, '\0');
      for (char& c : blob) c = static_cast<char>(in.take(1));
      sqlite3_bind_blob(s.insert, 4, blob.data(), static_cast<int>(len), SQLITE_TRANSIENT);
    }
    sqlite3_step(s.insert);
    sqlite3_reset(s.insert);
  }
  zqcheck::CheckResult r = zqcheck::check_tree(s.sess, "main", "t", dims);
  if (r.ok) {
    zq_index index{"t", nullptr, nullptr, nullptr};
    rtr_mem* rtr = nullptr;
    if (rtr_mem_create(s.env, s.sess, dims, zqsess_scope(s.sess, "main"), &index, 1, &rtr) != 0)
      std::abort();
    r = zqcheck::check_search(s.env, rtr, "main", "t");
    rtr_mem_destroy(s.env, rtr);
  }
  // A violation names what was wrong and the node (every row here has a
  // rowid from 1 to 8, so there always is one).
  if (!r.ok && (r.message.empty() || r.node_id < 1 || r.node_id > 8)) std::abort();
  zqenv_err_clear(s.env);
  return 0;
}
