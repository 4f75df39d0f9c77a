#include "support/sqlite_lock.h"

#include <sqlite3.h>
#include <unistd.h>

#include "support/process.h"

namespace VantDRTest {

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
