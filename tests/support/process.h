// Running test code in child processes.
#pragma once

#include <sys/types.h>

#include <functional>

namespace VantDRTest {

// The result of a child: its exit code, or -1 when it did not exit normally
// (killed by a signal, or the fork failed).
struct ChildResult {
  int exitCode = -1;
  int signal = 0;
};

// Forks; the child runs `body` and leaves with _exit(body's result), never
// returning into the test runner (an escaping exception exits 99). The
// parent waits.
ChildResult RunInChild(const std::function<int()>& body);

// Starts `body` in a child without waiting; returns its pid (-1 on failure).
pid_t StartChild(const std::function<int()>& body);
// Waits for a child started by StartChild.
ChildResult WaitChild(pid_t pid);

// Runs body(i) in `n` children released together; returns how many did not exit 0.
int RunTogether(int n, const std::function<int(int)>& body);

// As RunInChild, but the child first takes effective user and group 65534
// with root kept as the saved ids (it may raise itself back to root), or,
// with `keepSavedRoot` false, drops root from all its ids for good. The
// child exits 98 when the switch itself failed.
ChildResult RunUnprivileged(const std::function<int()>& body, bool keepSavedRoot = true);

}  // namespace VantDRTest
