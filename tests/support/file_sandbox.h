#pragma once

#include <cstddef>
#include <functional>
#include <string>

namespace VantDRTest {

// body(dir) in a child with a private tmpfs of `bytes` at dir: its exit code, or why `refused`.
int RunOnPrivateTmpfs(std::size_t bytes, const std::function<int(const std::string& dir)>& body,
                      std::string& refused);

}  // namespace VantDRTest

// Declares `code` from RunOnPrivateTmpfs; skips the test when mounting is refused.
#define VANTDR_ON_PRIVATE_TMPFS(code, bytes, ...)                                      \
  std::string code##Refused;                                                           \
  const int code = ::VantDRTest::RunOnPrivateTmpfs(bytes, __VA_ARGS__, code##Refused); \
  if (!code##Refused.empty()) GTEST_SKIP() << "no private tmpfs: " << code##Refused
