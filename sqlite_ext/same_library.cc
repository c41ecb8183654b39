// Whether the SQLite that loads the extension is the library the host is
// linked with. The host calls SQLite directly on the caller's connection, so
// a program with a SQLite of its own (built in statically, say) must be
// turned away before the connection is touched. Kept apart from the other
// files: here SQLite's names mean the linked library, not the routine table.
#include <dlfcn.h>
#include <sqlite3.h>

namespace zqext {

bool same_sqlite_library(const void* loader_function) {
  Dl_info loader{}, linked{};
  if (dladdr(loader_function, &loader) == 0) return false;
  if (dladdr(reinterpret_cast<const void*>(&sqlite3_libversion_number), &linked) == 0) return false;
  return loader.dli_fbase == linked.dli_fbase;
}

}  // namespace zqext
