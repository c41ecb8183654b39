// The extension from other SQLite programs: the sqlite3 shell (".load" by the
// module's name without its suffix) and Python's sqlite3 module. Both use the
// system's SQLite library, as the extension requires; a missing program is a
// skip with the package to install.
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

#include "tests/ext/ext_harness.h"

namespace zqext_test {
namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// Output (stdout and stderr) and exit status of a shell command.
struct Outcome {
  std::string output;
  int status = -1;
};

Outcome run(const std::string& command) {
  Outcome r;
  FILE* p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  char buf[4096];
  size_t n;
  while ((n = std::fread(buf, 1, sizeof buf, p)) > 0) r.output.append(buf, n);
  r.status = pclose(p);
  return r;
}

std::string write_file(const std::string& name, const std::string& text) {
  const std::string path = temp_path(name);
  std::ofstream(path) << text;
  return path;
}

bool have_command(const std::string& command) {
  return std::system(("command -v " + command + " >/dev/null 2>&1").c_str()) == 0;
}

// A sanitized extension cannot be loaded into an uninstrumented program.
#define ZQ_SKIP_IF_SANITIZED() \
  if (kSanitized) GTEST_SKIP() << "sanitized build: the in-process tests cover the extension"

TEST(ExtClients, SqliteShellLoadsByNameAndKeepsTheTableAcrossSessions) {
  ZQ_SKIP_IF_SANITIZED();
  if (!have_command("sqlite3"))
    GTEST_SKIP() << "the sqlite3 shell is not installed (Debian package sqlite3)";
  const std::string db = temp_path("ext_shell.db");
  std::remove(db.c_str());
  std::string module = extension_path();
  module.resize(module.size() - 3);  // ".load" finds the suffix itself
  const std::string first = write_file(
      "ext_shell_1.sql",
      ".bail on\n.load " + module +
          "\n"
          "CREATE VIRTUAL TABLE t USING zqrtree(id, minx, maxx, miny, maxy);\n"
          "INSERT INTO t VALUES (1, 0, 1, 0, 1), (2, 5, 6, 5, 6), (3, 0.5, 5.5, 0.5, 5.5);\n"
          "SELECT 'range', group_concat(id) FROM (SELECT id FROM t WHERE maxx >= 2 ORDER BY id);\n"
          "SELECT 'within', group_concat(id) FROM t('within', 0, 2, 0, 2);\n"
          "EXPLAIN QUERY PLAN SELECT id FROM t WHERE minx <= 1;\n");
  Outcome r = run("sqlite3 " + db + " < " + first);
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("range|2,3"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("within|1"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("zqrtree:INTERSECT"), std::string::npos) << r.output;
  // The shell closes with sqlite3_close(), which fails on any statement left open.
  EXPECT_EQ(r.output.find("unable to close"), std::string::npos) << r.output;

  const std::string second = write_file(
      "ext_shell_2.sql", ".load " + module +
                             "\n"
                             "DELETE FROM t WHERE id = 3;\n"
                             "INSERT INTO t VALUES (4, 1, 2, 1, 2);\n"
                             "INSERT INTO t VALUES (5, 2, 1, 0, 0);\n"
                             "SELECT 'after', group_concat(id), zqrtree_check('t') FROM t;\n");
  r = run("sqlite3 " + db + " < " + second);
  EXPECT_NE(r.output.find("minx 2 is above maxx 1"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("after|1,2,4|ok"), std::string::npos) << r.output;
  std::remove(db.c_str());
}

TEST(ExtClients, PythonSqlite3ModuleUsesTheTable) {
  ZQ_SKIP_IF_SANITIZED();
  std::string python;
  for (const char* candidate : {"/usr/bin/python3", "python3"}) {
    const Outcome probe = run(std::string(candidate) +
                              " -c \"import sqlite3,sys; c=sqlite3.connect(':memory:'); "
                              "sys.exit(0 if hasattr(c, 'enable_load_extension') else 3)\"");
    if (probe.status == 0) {
      python = candidate;
      break;
    }
  }
  if (python.empty())
    GTEST_SKIP() << "no python3 whose sqlite3 module can load extensions (Debian package "
                    "python3)";
  const std::string db = temp_path("ext_python.db");
  std::remove(db.c_str());
  const std::string script = write_file(
      "ext_python.py",
      "import sqlite3, sys\n"
      "c = sqlite3.connect(sys.argv[1])\n"
      "c.enable_load_extension(True)\n"
      "c.load_extension(sys.argv[2])\n"
      "c.execute('CREATE VIRTUAL TABLE t USING zqrtree(id, minx, maxx)')\n"
      "c.executemany('INSERT INTO t VALUES (?, ?, ?)', [(i, i, i + 1.5) for i in range(100)])\n"
      "c.commit()\n"
      "q = 'SELECT group_concat(id) FROM (SELECT id FROM t(?, 10, 12) ORDER BY id)'\n"
      "print('hits', c.execute(q, ('intersect',)).fetchone()[0])\n"
      "print('check', c.execute(\"SELECT zqrtree_check('t')\").fetchone()[0])\n"
      "try:\n"
      "    c.execute('INSERT INTO t VALUES (1000, 5, 4)')\n"
      "except sqlite3.Error as e:\n"
      "    print('refused', e)\n"
      "c.rollback()\n"
      "print('rows', c.execute('SELECT count(*) FROM t').fetchone()[0])\n"
      "c.close()\n");
  const Outcome r = run(python + " " + script + " " + db + " " + extension_path());
  EXPECT_EQ(r.status, 0) << r.output;
  EXPECT_NE(r.output.find("hits 9,10,11,12"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("check ok"), std::string::npos) << r.output;
  EXPECT_NE(r.output.find("refused zqrtree table \"t\": rowid 1000: minx 5 is above maxx 4"),
            std::string::npos)
      << r.output;
  EXPECT_NE(r.output.find("rows 100"), std::string::npos) << r.output;
  std::remove(db.c_str());
}

}  // namespace
}  // namespace zqext_test
