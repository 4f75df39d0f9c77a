// A child process holding a lock on a SQLite database.
#pragma once

#include <sys/types.h>

#include <string>

namespace VantDRTest {

// Starts a child that opens `path`, runs `begin` ("BEGIN EXCLUSIVE" for the
// write lock; "BEGIN; SELECT count(*) FROM sqlite_master" for a read lock),
// holds what it took for `holdMs`, then commits and exits 0. Returns once
// the lock is held: the child's pid, or -1 when it could not take it. Wait
// for the child with WaitChild. Call it while this process holds no lock on
// `path`: a forked child shares SQLite's record of its parent's locks and
// would take none of its own.
pid_t HoldSqliteLock(const std::string& path, const std::string& begin, int holdMs = 1500);

}  // namespace VantDRTest
