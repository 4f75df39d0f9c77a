#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <set>
#include <string>

namespace VantDRTest {

// Runs `sql` on its own connection: first cell of the last statement ("" if none), or "rc=N".
std::string Query(const std::string& path, const std::string& sql,
                  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);

std::set<std::string> Entries(const std::string& dir);

// A child that runs `begin` on `path`, holds the lock `holdMs`, commits: its pid once held, or -1.
// A forked child shares SQLite's record of its parent's locks: call it holding none on `path`.
pid_t HoldSqliteLock(const std::string& path, const std::string& begin, int holdMs = 1500);

}  // namespace VantDRTest
