// Running test code on a small file system of its own, invisible to the rest
// of the machine: a tmpfs in a private mount namespace.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace VantDRTest {

// Forks a child that unshares its mount namespace, makes every mount private
// (nothing it mounts propagates back), mounts a tmpfs of `bytes` on a fresh
// directory and leaves with _exit(body(that directory)). The parent waits
// and returns the child's exit code (-1 when it did not exit normally).
// When the kernel refuses the namespace or the mount, `body` does not run
// and `refused` says why; it is empty otherwise. Inside `body` the child may
// mount more (bind mounts, say): it all vanishes with the child.
int RunOnPrivateTmpfs(std::size_t bytes, const std::function<int(const std::string& dir)>& body,
                      std::string& refused);

}  // namespace VantDRTest

// In a test body: declares `code`, the exit code of the body (a lambda, the
// last argument) run on a private tmpfs of `bytes`; skips the test, saying
// why, when mounting is refused.
#define VANTDR_ON_PRIVATE_TMPFS(code, bytes, ...)                                      \
  std::string code##Refused;                                                           \
  const int code = ::VantDRTest::RunOnPrivateTmpfs(bytes, __VA_ARGS__, code##Refused); \
  if (!code##Refused.empty()) GTEST_SKIP() << "no private tmpfs: " << code##Refused
