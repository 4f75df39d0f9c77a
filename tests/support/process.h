// Running test code in child processes.
#pragma once

#include <sys/types.h>

#include <functional>

namespace VantDRTest {

// exitCode -1: killed (see signal) or never forked.
struct ChildResult {
  int exitCode = -1;
  int signal = 0;
};

// The child leaves with _exit(body()), 99 for an exception; the parent waits.
ChildResult RunInChild(const std::function<int()>& body);

// Starts `body` in a child without waiting; returns its pid (-1 on failure).
pid_t StartChild(const std::function<int()>& body);
ChildResult WaitChild(pid_t pid);

// Runs body(i) in `n` children released together; returns how many did not exit 0.
int RunTogether(int n, const std::function<int(int)>& body);

// As RunInChild as effective 65534:65534, root kept as saved ids or dropped; 98: no switch.
ChildResult RunUnprivileged(const std::function<int()>& body, bool keepSavedRoot = true);

}  // namespace VantDRTest
