// Databases and directories as another process sees them.
#pragma once

#include <sqlite3.h>

#include <set>
#include <string>

namespace VantDRTest {

// Runs the statements of `sql` on a connection of its own: the first column
// of the first row of the last one ("" without rows), or "rc=N" on failure.
std::string Query(const std::string& path, const std::string& sql,
                  int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);

// The names in `dir`, "." and ".." left out.
std::set<std::string> Entries(const std::string& dir);

}  // namespace VantDRTest
