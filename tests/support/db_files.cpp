#include "support/db_files.h"

#include <unistd.h>

#include <filesystem>

#include "support/process.h"

namespace VantDRTest {

std::string Query(const std::string& path, const std::string& sql, int flags) {
  sqlite3* db = nullptr;
  std::string out;
  int rc = sqlite3_open_v2(path.c_str(), &db, flags, nullptr);
  if (rc == SQLITE_OK) sqlite3_busy_timeout(db, 5000);  // other processes may still be reading
  for (const char* tail = sql.c_str(); rc == SQLITE_OK && *tail != '\0';) {
    sqlite3_stmt* stmt = nullptr;
    rc = sqlite3_prepare_v2(db, tail, -1, &stmt, &tail);
    if (stmt == nullptr) break;
    out.clear();
    int step = sqlite3_step(stmt);
    if (step == SQLITE_ROW && sqlite3_column_text(stmt, 0) != nullptr) {
      out = reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0));
    }
    while (step == SQLITE_ROW) step = sqlite3_step(stmt);
    if (step != SQLITE_DONE) rc = step;
    sqlite3_finalize(stmt);
  }
  sqlite3_close(db);
  return rc == SQLITE_OK ? out : "rc=" + std::to_string(rc);
}

std::set<std::string> Entries(const std::string& dir) {
  std::set<std::string> names;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(dir, error))
    names.insert(entry.path().filename());
  return names;
}

pid_t HoldSqliteLock(const std::string& path, const std::string& begin, int holdMs) {
  int fds[2];
  char c;
  if (pipe(fds) != 0) return -1;
  const pid_t pid = StartChild([&]() {
    close(fds[0]);
    sqlite3* handle = nullptr;
    sqlite3_open(path.c_str(), &handle);
    int rc = sqlite3_exec(handle, begin.c_str(), nullptr, nullptr, nullptr);
    if (rc == SQLITE_OK && write(fds[1], "x", 1) == 1) usleep(holdMs * 1000);
    if (rc == SQLITE_OK) rc = sqlite3_exec(handle, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(handle);
    return rc;
  });
  close(fds[1]);
  const bool held = read(fds[0], &c, 1) == 1;
  close(fds[0]);
  return held ? pid : -1;
}

}  // namespace VantDRTest
