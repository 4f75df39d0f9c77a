#include "support/file_sandbox.h"

#include <errno.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cstdlib>

#include "support/process.h"

namespace VantDRTest {

int RunOnPrivateTmpfs(std::size_t bytes, const std::function<int(const std::string& dir)>& body,
                      std::string& refused) {
  char dir[] = "/tmp/vantdr_tmpfs.XXXXXX";
  int report[2];  // carries why the child could not mount
  if (mkdtemp(dir) == nullptr || pipe(report) != 0) {
    refused = strerror(errno);
    return -1;
  }
  const std::string size = "size=" + std::to_string(bytes);
  const ChildResult child = RunInChild([&] {
    close(report[0]);
    const char* step = unshare(CLONE_NEWNS) != 0 ? "unshare"
                       : mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0
                           ? "making / private"
                       : mount("tmpfs", dir, "tmpfs", 0, size.c_str()) != 0 ? "mount"
                                                                            : nullptr;
    if (step != nullptr) {
      const std::string why = std::string(step) + ": " + strerror(errno);
      return write(report[1], why.data(), why.size()) > 0 ? 97 : 96;
    }
    close(report[1]);
    return body(dir);
  });
  close(report[1]);
  char buffer[256];
  ssize_t n;
  refused.clear();
  while ((n = read(report[0], buffer, sizeof buffer)) > 0) refused.append(buffer, n);
  close(report[0]);
  rmdir(dir);
  return child.exitCode;
}

}  // namespace VantDRTest
