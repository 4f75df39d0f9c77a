// A file system of a test's own, invisible to the rest of the machine.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace VantDRTest {

// Forks a child that makes every mount private in a namespace of its own, mounts a tmpfs of
// `bytes` on a fresh directory and exits with body(that directory); returns that code (-1 when
// killed). When the kernel refuses, `body` does not run and `refused` says why.
int RunOnPrivateTmpfs(std::size_t bytes, const std::function<int(const std::string& dir)>& body,
                      std::string& refused);

}  // namespace VantDRTest

// Declares `code`, the exit code of the body (the last argument) run on a private tmpfs of
// `bytes`; skips the test when mounting is refused.
#define VANTDR_ON_PRIVATE_TMPFS(code, bytes, ...)                                      \
  std::string code##Refused;                                                           \
  const int code = ::VantDRTest::RunOnPrivateTmpfs(bytes, __VA_ARGS__, code##Refused); \
  if (!code##Refused.empty()) GTEST_SKIP() << "no private tmpfs: " << code##Refused
