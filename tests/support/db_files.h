// Databases and directories as another process sees them.
#pragma once

#include <sqlite3.h>
#include <sys/types.h>

#include <set>
#include <string>

namespace VantDRTest {

// Runs the statements of `sql` on a connection of its own: the first column
// of the first row of the last one ("" without rows), or "rc=N" on failure.
std::string Query(const std::string& path, const std::string& sql,
                  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);

// The names in `dir`, "." and ".." left out.
std::set<std::string> Entries(const std::string& dir);

// A child that runs `begin` on `path` ("BEGIN EXCLUSIVE", or a BEGIN and a read for a read
// lock), holds the lock `holdMs`, commits and exits 0: its pid once the lock is held, or -1.
// A forked child shares SQLite's record of its parent's locks: call it holding none on `path`.
pid_t HoldSqliteLock(const std::string& path, const std::string& begin, int holdMs = 1500);

}  // namespace VantDRTest
